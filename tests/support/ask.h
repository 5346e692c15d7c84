// A peer that asks a daemon.
#ifndef TESTS_SUPPORT_ASK_H
#define TESTS_SUPPORT_ASK_H

#include <memory>
#include <string>
#include <vector>

#include <veltrane/net.h>
#include <veltrane/owned.h>

using AgentPtr = std::unique_ptr<AgentConnection, veltrane::Destroyer<DisconnectServer>>;

inline constexpr char kEnded[] = "(the connection ended)";

// The answer of one transaction to a request, or kEnded.
inline std::string Ask(const AgentPtr &conn, const std::string &request, char status = 't')
{
    char payload[VT_BUFSIZE];
    if (SendTransaction(conn->conn_info, request.data(), static_cast<int>(request.size()), status) != 0) {
        return kEnded;
    }
    const int length = ReceiveTransaction(conn->conn_info, payload, nullptr);
    return length < 0 ? kEnded : std::string(payload, static_cast<size_t>(length));
}

// The answer to a query, its lines without their zeros.
inline std::vector<std::string> AskReport(const AgentPtr &conn, const std::string &query)
{
    std::vector<std::string> lines;
    char payload[VT_BUFSIZE];
    bool more = SendTransaction(conn->conn_info, query.data(), static_cast<int>(query.size()), 't') == 0;
    while (more) {
        const int length = ReceiveTransaction(conn->conn_info, payload, &more);
        if (length < 1) {
            lines.push_back(kEnded);
            break;
        }
        lines.emplace_back(payload, static_cast<size_t>(length - 1));
    }
    return lines;
}

#endif
