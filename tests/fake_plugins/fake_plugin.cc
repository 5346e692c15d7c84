// A plug-in with every entry point of the table, for the tests of the host's side of the frame.
//
// It is built in several kinds: FAKE_VERSION is the version that it tells, absent when it tells none; FAKE_CANARY is
// the word that it wants around its arguments, absent when it has no entry points at all.
#include <veltrane/entry_points.h>

#include <atomic>
#include <cstdint>
#include <cstdio>

#define FAKE_EXPORT extern "C" __attribute__((visibility("default")))

#ifdef FAKE_VERSION
FAKE_EXPORT const char *GetExtensionLibraryVersion() { return FAKE_VERSION; }
#endif

FAKE_EXPORT std::atomic<int> fake_calls;  // of wrappers, whether they ran or not
FAKE_EXPORT struct timespec fake_start;
std::atomic<int> fake_calls{0};
struct timespec fake_start = {0, 0};

#ifdef FAKE_CANARY

namespace {

// The answer of an entry point that nothing is said about below: zero, and its arguments are not looked at.
template <typename Name, typename R, typename... Arguments>
struct Body {
    static R Run(Arguments...) { return R(); }
};

#define VT_ENTRY(R, returns, Name, parameters, arguments) struct Name##Tag;
#include <veltrane/entry_points.def>

template <>
struct Body<TranslatePathTag, bool, const char *, char *, size_t> {
    static bool Run(const char *from, char *to, size_t to_size)
    {
        snprintf(to, to_size, "<%s>", from);
        return true;
    }
};

template <>
struct Body<GetConsolePrefixTag, const char *> {
    static const char *Run() { return "fake"; }
};

template <>
struct Body<VtSessionKeySizeTag, int, char> {
    static int Run(char c) { return c + 1000; }
};

template <>
struct Body<VtEnterpriseOptionsTag, char> {
    static char Run() { return 'F'; }
};

template <>
struct Body<Vesk_NoteAgentExecutionPerformanceTag, void, const char *, struct timespec> {
    static void Run(const char *, struct timespec start) { fake_start = start; }
};

template <typename Name, typename R, typename... Arguments>
R Answer(int32_t before, int *successful, int32_t after, Arguments... arguments)
{
    fake_calls++;
    if (before != FAKE_CANARY || after != FAKE_CANARY) {
        return R();
    }
    *successful = 1;
    return Body<Name, R, Arguments...>::Run(arguments...);
}

}  // namespace

// clang-format off
#define THEN_COMMA(...) __VA_ARGS__ __VA_OPT__(, )
#define COMMA_THEN(...) __VA_OPT__(, ) __VA_ARGS__
#define VT_ENTRY(R, returns, Name, parameters, arguments)                                                            \
    FAKE_EXPORT R Name##__wrapper(int32_t canary_before, int *successful, THEN_COMMA parameters int32_t canary_after) \
    {                                                                                                                \
        return Answer<Name##Tag, R>(canary_before, successful, canary_after COMMA_THEN arguments);                   \
    }
// clang-format on
#include <veltrane/entry_points.def>

#endif
