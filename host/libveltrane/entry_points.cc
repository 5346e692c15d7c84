// The caller's side of the frame, written once for all entry points of entry_points.def.
//
// Host and plug-in are built apart, so each call carries a known word before and after its arguments and a flag that
// only the plug-in's real function sets. A call that did not get through, for whatever reason, is answered by the
// host's own default with the same arguments: a plug-in that does not fit degrades to a host without one.
#include <veltrane/entry_points.h>

#include <atomic>
#include <cstdint>
#include <type_traits>

#include <veltrane/extension.h>

#include "libveltrane/entry_point_defaults.h"

namespace {

// One of the plug-in's wrappers: looked up until it is found, then kept; the plug-in stays open to the end.
template <typename Function>
class Wrapper {
  public:
    explicit constexpr Wrapper(const char *symbol) : symbol_(symbol) {}

    // NULL when there is no plug-in or it has no such symbol
    Function Find()
    {
        Function function = function_.load(std::memory_order_acquire);
        if (function == nullptr) {
            void *const library = enterprise_library();
            if (library != nullptr) {
                function = reinterpret_cast<Function>(shlib_load(library, symbol_));
                function_.store(function, std::memory_order_release);
            }
        }
        return function;
    }

  private:
    const char *const symbol_;
    std::atomic<Function> function_{nullptr};
};

// Run call(wrapper, flag) when there is a wrapper; its answer when the flag was set, else the answer of fall_back().
template <typename R, typename Function, typename Call, typename FallBack>
R Framed(Wrapper<Function> *wrapper, Call call, FallBack fall_back)
{
    int successful = 0;  // on this stack, so that no other call can set it
    if (const Function function = wrapper->Find(); function != nullptr) {
        if constexpr (std::is_void_v<R>) {
            call(function, &successful);
            if (successful != 0) {
                return;
            }
        } else {
            const R result = call(function, &successful);
            if (successful != 0) {
                return result;
            }
        }
    }
    return fall_back();
}

}  // namespace

// clang-format off
#define THEN_COMMA(...) __VA_ARGS__ __VA_OPT__(, )
#define VT_ENTRY(R, returns, Name, parameters, arguments)                                            \
    namespace {                                                                                      \
    using Name##Function = R (*)(int32_t, int *, THEN_COMMA parameters int32_t);                     \
    constinit Wrapper<Name##Function> Name##Wrapper(#Name "__wrapper");                              \
    }                                                                                                \
    R Name parameters                                                                                \
    {                                                                                                \
        return Framed<R>(                                                                            \
            &Name##Wrapper,                                                                          \
            [&](Name##Function function, int *successful) {                                          \
                return function(VT_FRAME_CANARY, successful, THEN_COMMA arguments VT_FRAME_CANARY);  \
            },                                                                                       \
            [&] { return veltrane::Name##Default arguments; });                                      \
    }
// clang-format on
#include <veltrane/entry_points.def>
