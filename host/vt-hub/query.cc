#include "vt-hub/query.h"

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <memory>

#include <veltrane/errors.h>
#include <veltrane/logging.h>
#include <veltrane/owned.h>
#include <veltrane/rlist.h>

#include "libveltrane/server_connection.h"

namespace vthub {

namespace {

using AgentConnectionPtr = std::unique_ptr<AgentConnection, veltrane::Destroyer<DisconnectServer>>;

constexpr std::size_t kMaxReplyBytes = std::size_t{1} << 30;  // a host with a million rows sends about a tenth of it
constexpr char kCompletion[] = "QUERY complete";

const char *ConnectFailure(int error)
{
    switch (error) {
        case -1:
            return "no such host";
        case -2:
            return "no answer";
        case -3:
            return "its key is not trusted, or it does not trust ours";
        case -4:
            return "no common protocol version";
        default:
            return "unknown failure";
    }
}

veltrane::RlistPtr OneKey(const std::string &key)
{
    Rlist *list = nullptr;
    RlistAppendScalar(&list, key.c_str());
    return veltrane::RlistPtr(list);
}

// Only a failed connect has a system error of its own; for the other failures errno tells nothing to people.
std::string SystemError(int error) { return error == -2 ? std::string(" (connect: ") + GetErrorStr() + ")" : ""; }

AgentConnectionPtr Connect(const Query &query)
{
    const veltrane::RlistPtr keys = query.key.empty() ? nullptr : OneKey(query.key);
    int error = 0;
    errno = 0;
    AgentConnectionPtr connection(ServerConnection(query.host.c_str(),
                                                   query.port.empty() ? nullptr : query.port.c_str(), keys.get(),
                                                   query.timeout_seconds, ConnectionFlags{}, &error));
    if (connection == nullptr) {
        const std::string system_error = SystemError(error);
        Log(LOG_LEVEL_ERR, "Could not connect to '%s': %s.%s", query.host.c_str(), ConnectFailure(error),
            system_error.c_str());
    }
    return connection;
}

AgentConnectionPtr ConnectToCaller(veltrane::Descriptor socket, const Query &query)
{
    int error = 0;
    errno = 0;
    AgentConnectionPtr connection(
        veltrane::ConnectOverSocket(socket.Get(), OneKey(query.key).get(), ConnectionFlags{}, &error));
    if (connection == nullptr) {
        const std::string system_error = SystemError(error);
        Log(LOG_LEVEL_ERR, "Could not call '%s' back: %s.%s", query.host.c_str(), ConnectFailure(error),
            system_error.c_str());
        return nullptr;
    }
    (void)socket.Release();  // the connection's now
    return connection;
}

bool SendQuery(ConnectionInfo *connection, const Query &query)
{
    char request[128];
    const int length = std::snprintf(request, sizeof(request), "QUERY %s %" PRId64 " %jd", query.type.c_str(),
                                     query.since, static_cast<intmax_t>(std::time(nullptr)));
    if (SendTransaction(connection, request, length, 't') == -1) {
        Log(LOG_LEVEL_ERR, "Could not send the query to '%s'. (send: %s)", query.host.c_str(), GetErrorStr());
        return false;
    }
    return true;
}

// The text of a transaction: each is sent with its terminating zero, and no line holds another one.
bool TakeText(const char *payload, int length, std::string *ret_text)
{
    if (length > 0 && payload[length - 1] == '\0') {
        --length;
    }
    if (std::memchr(payload, '\0', static_cast<std::size_t>(length)) != nullptr) {
        return false;
    }
    ret_text->assign(payload, static_cast<std::size_t>(length));
    return true;
}

std::optional<Reply> Ask(const AgentConnectionPtr &connection, const Query &query)
{
    if (connection == nullptr || !SendQuery(connection->conn_info, query)) {
        return std::nullopt;
    }
    Reply reply;
    std::string error;
    if (!ReceiveReply(connection->conn_info, kMaxReplyBytes, &reply.lines, &error) ||
        !LengthMatchesHeader(reply.lines, &error)) {
        Log(LOG_LEVEL_ERR, "No report from '%s': %s", query.host.c_str(), error.c_str());
        return std::nullopt;
    }
    const char *identity = ConnectionInfoIdentity(connection->conn_info);
    reply.identity = identity != nullptr ? identity : "";
    return reply;
}

}  // namespace

bool ReceiveReply(ConnectionInfo *connection, std::size_t max_bytes, std::vector<std::string> *ret_lines,
                  std::string *ret_error)
{
    std::vector<std::string> lines;
    std::size_t bytes = 0;
    char payload[VT_BUFSIZE];
    bool more = true;
    std::string text;
    while (true) {
        errno = 0;
        const int length = ReceiveTransaction(connection, payload, &more);
        if (length == -1) {
            *ret_error = std::string("the reply was cut off before its end (recv: ") + GetErrorStr() + ")";
            return false;
        }
        if (!TakeText(payload, length, &text)) {
            *ret_error = "the reply holds a zero byte inside a line";
            return false;
        }
        if (!more) {
            break;
        }
        bytes += text.size();
        if (bytes > max_bytes) {
            *ret_error = "the reply is larger than " + std::to_string(max_bytes) + " bytes";
            return false;
        }
        lines.push_back(std::move(text));
    }
    if (text != kCompletion) {
        *ret_error = "the host answered '" + text + "'";
        return false;
    }
    *ret_lines = std::move(lines);
    return true;
}

bool LengthMatchesHeader(const std::vector<std::string> &lines, std::string *ret_error)
{
    long clock_error = 0;
    long to = 0;
    long length = 0;
    if (lines.empty() || std::sscanf(lines.front().c_str(), "VTR: %ld %ld %ld", &clock_error, &to, &length) != 3) {
        *ret_error = "the reply has no header";
        return false;
    }
    std::size_t sum = 0;
    for (std::size_t i = 1; i < lines.size(); ++i) { sum += lines[i].size(); }
    if (length < 0 || static_cast<std::size_t>(length) != sum) {
        *ret_error =
            "the reply's lines hold " + std::to_string(sum) + " characters, its header says " + std::to_string(length);
        return false;
    }
    return true;
}

std::optional<Reply> AskHost(const Query &query) { return Ask(Connect(query), query); }

std::optional<Reply> AskCaller(veltrane::Descriptor socket, const Query &query)
{
    return Ask(ConnectToCaller(std::move(socket), query), query);
}

}  // namespace vthub
