#include "libveltrane/policy_functions_remote.h"

#include <array>
#include <cstring>

#include <veltrane/entry_points.h>
#include <veltrane/logging.h>
#include <veltrane/net.h>
#include <veltrane/owned.h>
#include <veltrane/rlist.h>
#include <veltrane/string_lib.h>

#include "libveltrane/query_border.h"

namespace veltrane {

namespace {

constexpr const char *kFromCacheTag = "source=cache";
constexpr size_t kLongestServer = 512;  // a name of 253 bytes and a port, generously

// A value and its zero, wherever the plug-in puts that.
using ValueBuffer = std::array<char, VT_BUFSIZE + 1>;

// The host in "host", "host:port" or "[host]:port"; "" when there is none.
std::string HostOf(std::string server)
{
    char *host = nullptr;
    char *port = nullptr;
    ParseHostPort(server.data(), &host, &port);
    return host;
}

bool IsServer(const std::string &text)
{
    return text.size() <= kLongestServer && text.find_first_of(" \t\r\n") == std::string::npos && !HostOf(text).empty();
}

bool NetworkIsUp()
{
    if (!vtnet_IsInitialized()) {
        vtnet_Init();
    }
    return vtnet_IsInitialized();
}

// The value that the caller had last under a handle; nothing when it never had one.
Answer LastValue(std::string caller, std::string handle, const std::string &server)
{
    ValueBuffer kept{};
    if (RetrieveUnreliableValue(caller.data(), handle.data(), kept.data()) <= 0) {
        return Failed("'" + server + "' gives no value of '" + handle + "', and no earlier one is known");
    }
    Log(LOG_LEVEL_WARNING, "Function 'remotescalar': '%s' gives no value of '%s': the last known one is used",
        server.c_str(), handle.c_str());
    Answer answer = Text(kept.data());
    answer.tags = {kFromCacheTag};
    return answer;
}

}  // namespace

Answer RemoteScalar(const FunctionCall &call)
{
    std::string handle = call.arguments[0];
    const std::string &server = call.arguments[1];
    const std::string encrypted = call.arguments.size() > 2 ? call.arguments[2] : "no";
    if (!IsHandle(handle)) {
        return Failed("a handle has 1 to " + std::to_string(kLongestHandle) + " bytes and no control characters");
    }
    if (!IsServer(server)) {
        return Failed("'" + server + "' is no server");
    }
    if (encrypted != "yes" && encrypted != "no") {
        return Failed("'" + encrypted + "' is neither yes nor no");
    }
    if (!NetworkIsUp()) {
        return Failed("there is no network without this host's key");
    }
    ValueBuffer value{};
    std::string request = "VAR";
    std::string caller = PromiseGetBundle(call.promise)->name;
    const char *reply = GetRemoteScalar(call.ctx, request.data(), handle.data(), server.c_str(),
                                        encrypted == "yes" ? 1 : 0, value.data());
    if (reply == nullptr || StringStartsWith(reply, "BAD:")) {
        return LastValue(std::move(caller), std::move(handle), server);
    }
    CacheUnreliableValue(caller.data(), handle.data(), value.data());
    return Text(value.data());
}

Answer HostsWithClass(const FunctionCall &call)
{
    std::string name = call.arguments[0];
    std::string format = call.arguments[1];
    if (format != "name" && format != "address") {
        return Failed("'" + format + "' is neither name nor address");
    }
    Rlist *hosts = nullptr;
    if (!ListHostsWithField(call.ctx, &hosts, name.data(), format.data(), kHostsWithClass)) {
        return Failed("the hosts with class '" + name + "' are not known here");
    }
    return Value(Rval{hosts, RVAL_TYPE_LIST});
}

}  // namespace veltrane
