// The frame around a call from one library into another that was built separately: a known word before and after the
// arguments, and a flag by which the caller learns whether the function really ran.
//
// A wrapper touches nothing but the caller's flag, which it sets when, and only when, it runs the real function; it
// never clears it. When a word is wrong, caller and callee disagree about the arguments: the wrapper says so and
// answers with nothing.
#ifndef LIBVTENTERPRISE_CALL_FRAME_H
#define LIBVTENTERPRISE_CALL_FRAME_H

#include <stdint.h>

#include <type_traits>

#include <veltrane/logging.h>

#include "libvtenterprise/export.h"

// The word before and after the arguments of every framed call.
inline constexpr int32_t kFrameCanary = 0x10203040;

// A parameter list without its parentheses, and a comma after it unless it is empty.
#define VT_THEN_COMMA(...) __VA_ARGS__ __VA_OPT__(, )

// From a row of a table VT_ENTRY(R, returns, Name, parameters, arguments): Name__wrapper, which a caller in another
// library calls, and which forwards to Name__real, which does the work.
#define VT_DECLARE_WRAPPER(R, Name, parameters)                        \
    VT_EXPORT R Name##__wrapper(int32_t start_canary, int *successful, \
                                VT_THEN_COMMA parameters int32_t end_canary) noexcept

#define VT_DEFINE_WRAPPER(R, returns, Name, parameters, arguments)                                                 \
    R Name##__wrapper(int32_t start_canary, int *successful, VT_THEN_COMMA parameters int32_t end_canary) noexcept \
    {                                                                                                              \
        if (!CanariesIntact(start_canary, end_canary, returns, #Name, #arguments)) {                               \
            return std::type_identity_t<R>(); /* 0, false, NULL or nothing */                                      \
        }                                                                                                          \
        *successful = 1;                                                                                           \
        return Name##__real arguments;                                                                             \
    }

// Whether both words arrived; when not, says so with the function's signature as its table has it.
inline bool CanariesIntact(int32_t start, int32_t end, const char *returns, const char *name, const char *arguments)
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

#endif
