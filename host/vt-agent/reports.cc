// Promises of type "reports".
#include "vt-agent/reports.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include <veltrane/errors.h>
#include <veltrane/file_lib.h>

#include "libveltrane/promise_attributes.h"

namespace veltrane {

namespace {

bool AppendLine(const char *path, const std::string &line)
{
    const int fd = safe_open(path, O_WRONLY | O_APPEND | O_CREAT);
    if (fd < 0) {
        return false;
    }
    const bool written = write(fd, line.data(), line.size()) == static_cast<ssize_t>(line.size());
    return close(fd) == 0 && written;
}

}  // namespace

PromiseResult KeepReportsPromise(EvalContext *ctx, const Promise *expanded)
{
    const Attributes attr = CommonAttributes(expanded);
    const char *path = AttributeText(expanded, "to_file");
    if (path == nullptr) {
        if (printf("R: %s\n", expanded->promiser) < 0 || fflush(stdout) != 0) {
            RecordFailure(ctx, expanded, &attr, "Could not report '%s'. (write: %s)", expanded->promiser,
                          GetErrorStr());
            return PROMISE_RESULT_FAIL;
        }
    } else if (!AppendLine(path, std::string(expanded->promiser) + "\n")) {
        RecordFailure(ctx, expanded, &attr, "Could not report to '%s'. (write: %s)", path, GetErrorStr());
        return PROMISE_RESULT_FAIL;
    }
    RecordNoChange(ctx, expanded, &attr, "Reported '%s'", expanded->promiser);
    return PROMISE_RESULT_NOOP;
}

}  // namespace veltrane
