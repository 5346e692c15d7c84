// The question that a host asks right after loading the plug-in.
#ifndef ENTERPRISE_PLUGIN_PLUGIN_VERSION_H
#define ENTERPRISE_PLUGIN_PLUGIN_VERSION_H

#include "libvtenterprise/export.h"

// The plug-in's version, static. A host whose own version is another text refuses the plug-in.
VT_EXPORT const char *GetExtensionLibraryVersion();

#endif
