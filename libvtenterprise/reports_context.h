// The class log: which classes were set at the end of a run, one JSON line each.
#ifndef LIBVTENTERPRISE_REPORTS_CONTEXT_H
#define LIBVTENTERPRISE_REPORTS_CONTEXT_H

#include <time.h>

#include <veltrane/eval_context.h>

#include "libvtenterprise/export.h"

// Append every class of the context's class history that is worth reporting to a file of the state directory, all with
// the same timestamp, of which the file holds the low 32 bits; docs/formats/promise-log.md shows the form.
//
// Result    false when the context keeps no class history
// Failure   a record that cannot be written is lost with an error line, the others are written, and the result is true
VT_EXPORT bool LogContexts(const EvalContext *ctx, time_t timestamp, const char *file) noexcept;

#endif
