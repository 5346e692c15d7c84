// What the host does itself at each framed entry point when no plug-in answers.
#ifndef LIBVELTRANE_ENTRY_POINT_DEFAULTS_H
#define LIBVELTRANE_ENTRY_POINT_DEFAULTS_H

#include <veltrane/entry_points.h>

namespace veltrane {

// One function NameDefault an entry point Name, with the same signature: an entry point without a default does not
// link.
#define VT_ENTRY(R, returns, Name, parameters, arguments) R Name##Default parameters;
#include <veltrane/entry_points.def>

}  // namespace veltrane

#endif
