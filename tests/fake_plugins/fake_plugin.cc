// A plug-in with every entry point of the table, for the tests of the host's side of the frame.
//
// It is built in several kinds: FAKE_VERSION is the version that it tells, absent when it tells none; FAKE_CANARY is
// the word that it wants around its arguments, absent when it has no entry points at all.
#include <veltrane/entry_points.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>

#include <veltrane/logging.h>
#include <veltrane/net.h>
#include <veltrane/rlist.h>

#define FAKE_EXPORT extern "C" __attribute__((visibility("default")))

#ifdef FAKE_VERSION
FAKE_EXPORT const char *GetExtensionLibraryVersion() { return FAKE_VERSION; }
#endif

FAKE_EXPORT std::atomic<int> fake_calls;  // of wrappers, whether they ran or not
FAKE_EXPORT std::atomic<bool> fake_server_is_down;
FAKE_EXPORT struct timespec fake_start;
std::atomic<int> fake_calls{0};
std::atomic<bool> fake_server_is_down{false};
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

// Another host's values: each handle has the value "value of <handle>", "long" has one that fills the buffer, and
// "refused" has none. Each look-up leaves its connection open.
template <>
struct Body<GetRemoteScalarTag, char *, EvalContext *, char *, char *, const char *, int, char *> {
    static char *Run(EvalContext *, char *proto, char *handle, const char *server, int encrypted, char *recvbuffer)
    {
        Log(LOG_LEVEL_INFO, "Asked '%s' of '%s' encrypted %d: %s", handle, server, encrypted, proto);
        int error = 0;
        (void)ServerConnection(server, "", nullptr, 1, ConnectionFlags{}, &error);
        if (fake_server_is_down || strcmp(handle, "refused") == 0) {
            strcpy(recvbuffer, "BAD:");
        } else if (strcmp(handle, "long") == 0) {
            memset(recvbuffer, 'x', VT_BUFSIZE);
        } else {
            snprintf(recvbuffer, VT_BUFSIZE, "value of %s", handle);
        }
        return strcmp(handle, "no network") == 0 ? nullptr : recvbuffer;
    }
};

std::map<std::string, std::string> &KeptValues()
{
    static std::map<std::string, std::string> values;
    return values;
}

template <>
struct Body<CacheUnreliableValueTag, void, char *, char *, char *> {
    static void Run(char *caller, char *handle, char *buffer)
    {
        KeptValues()[std::string(caller) + "_" + handle] = buffer;
    }
};

template <>
struct Body<RetrieveUnreliableValueTag, int, char *, char *, char *> {
    static int Run(char *caller, char *handle, char *buffer)
    {
        return snprintf(buffer, VT_BUFSIZE, "%s", KeptValues()[std::string(caller) + "_" + handle].c_str());
    }
};

template <>
struct Body<ListHostsWithFieldTag, bool, EvalContext *, Rlist **, char *, char *, int> {
    static bool Run(EvalContext *, Rlist **return_list, char *field_value, char *return_format, int function_type)
    {
        if (strcmp(field_value, "unknown") == 0) {
            return false;
        }
        if (strcmp(field_value, "nowhere") != 0) {
            RlistAppendScalar(return_list, field_value);
            RlistAppendScalar(return_list, return_format);
            RlistAppendScalar(return_list, std::to_string(function_type).c_str());
        }
        return true;
    }
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
