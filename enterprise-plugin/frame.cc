// The frame around every entry point: host and plug-in are built separately, so each call carries a known word before
// and after its arguments, and the work is done only when both arrive intact. A host built for another argument list
// thus gets a message and its own default instead of a function that runs on shifted arguments.
//
// The wrappers come from the one table. A wrapper touches nothing but the caller's flag, which it sets when, and only
// when, it runs the real function; it never clears it.
#include <type_traits>

#include <veltrane/logging.h>

#include "libvtenterprise/entry_points_real.h"

namespace {

// Whether both words arrived; when not, says so with the entry point's signature as the table has it.
bool CanariesIntact(int32_t start, int32_t end, const char *returns, const char *name, const char *arguments)
{
    if (start == kFrameCanary && end == kFrameCanary) {
        return true;
    }
    Log(LOG_LEVEL_ERR,
        "Function '%s %s%s' failed stack consistency check. Most likely this means the plugin containing the function "
        "is incompatible with this version of Veltrane.",
        returns, name, arguments);
    return false;
}

}  // namespace

#define VT_ENTRY(R, returns, Name, parameters, arguments)                                                          \
    R Name##__wrapper(int32_t start_canary, int *successful, VT_THEN_COMMA parameters int32_t end_canary) noexcept \
    {                                                                                                              \
        if (!CanariesIntact(start_canary, end_canary, returns, #Name, #arguments)) {                               \
            return std::type_identity_t<R>(); /* 0, false, NULL or nothing */                                      \
        }                                                                                                          \
        *successful = 1;                                                                                           \
        return Name##__real arguments;                                                                             \
    }
#include <veltrane/entry_points.def>
