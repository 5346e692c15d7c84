// One collect call; the exchange is told in docs/formats/transport.md.
#include "libvtserverd/collect_call_hub.h"

#include <openssl/err.h>
#include <openssl/ssl.h>

#include <cstring>
#include <memory>
#include <string>
#include <utility>

#include <veltrane/errors.h>
#include <veltrane/globals.h>
#include <veltrane/logging.h>
#include <veltrane/net.h>

namespace {

// Bytes of the wire, without the terminating zero.
constexpr char kRequest[] = "SCALLBACK CALL_ME_BACK collect_calls";
constexpr int kRequestLength = sizeof(kRequest) - 1;
static_assert(kRequestLength == 36);

using AgentConnectionPtr = std::unique_ptr<AgentConnection, veltrane::Destroyer<DisconnectServer>>;

bool SpeaksTls(const ConnectionInfo *info)
{
    const ProtocolVersion version = ConnectionInfoProtocolVersion(info);
    return version == VT_PROTOCOL_TLS || version == VT_PROTOCOL_COOKIE || version == VT_PROTOCOL_FILESTREAM;
}

// A connection to the hub that can carry the call; NULL when there is none.
AgentConnectionPtr ConnectToHub()
{
    const veltrane::TextPtr address(PolicyServerGetIP());
    if (address == nullptr) {
        Log(LOG_LEVEL_ERR, "Failed to resolve hub IP address");
        return nullptr;
    }
    const std::string rule(70, '.');
    Log(LOG_LEVEL_INFO, "%s", rule.c_str());
    Log(LOG_LEVEL_INFO, " * Peer collect call back to hub %s : %s", address.get(), VELTRANE_PORT_STR);
    Log(LOG_LEVEL_INFO, "%s", rule.c_str());
    if (strcmp(address.get(), "") == 0 || strcmp(address.get(), "localhost") == 0) {
        Log(LOG_LEVEL_INFO, "No hub is registered to connect to");
        return nullptr;
    }
    ConnectionFlags flags = {};
    flags.protocol_version = VT_PROTOCOL_FILESTREAM;
    int error = 0;
    AgentConnectionPtr hub(ServerConnection(address.get(), VELTRANE_PORT_STR, nullptr,
                                            static_cast<unsigned int>(CONNTIMEOUT), flags, &error));
    if (hub == nullptr) {
        Log(LOG_LEVEL_VERBOSE, "No suitable hub server responded to hail (%d)", error);
        return nullptr;
    }
    if (!SpeaksTls(hub->conn_info)) {
        Log(LOG_LEVEL_ERR, "Call Collect is only supported over TLS");
        return nullptr;
    }
    return hub;
}

// The answer's four bytes, which stand in the TLS stream without a transaction around them and come in one record. Not
// more than them is read: what follows belongs to the handshake of whoever gets the socket.
bool ReceiveQueueLength(const ConnectionInfo *info, int32_t *ret_queue)
{
    SSL *const ssl = ConnectionInfoSSL(info);
    int32_t queue = 0;
    ERR_clear_error();
    const int received = ssl != nullptr ? SSL_read(ssl, &queue, sizeof(queue)) : -1;
    if (received < 0) {
        Log(LOG_LEVEL_ERR, "Couldn't receive data.");
        return false;
    }
    if (static_cast<size_t>(received) < sizeof(queue)) {
        Log(LOG_LEVEL_WARNING,
            "Hub failed to report collect call queue length (sent only %d/%zu bytes); possibly refusing access, check "
            "ACL for collect_calls.",
            received, sizeof(queue));
        return false;
    }
    *ret_queue = queue;
    return true;
}

bool IsAccepted(int32_t queue)
{
    if (queue == 0) {
        Log(LOG_LEVEL_INFO, "Server is busy, we'll try calling again later.");
    } else if (queue < 0) {
        Log(LOG_LEVEL_CRIT, "Unknown reply from hub [%d].", queue);
    }
    return queue > 0;
}

// Keep the connection's socket and drop the rest of it without a word: both sides forget the TLS of the request.
AcceptedCall Accept(AgentConnectionPtr hub, int32_t queue)
{
    AcceptedCall call{veltrane::Descriptor(ConnectionInfoSocket(hub->conn_info)), queue};
    DeleteAgentConn(hub.release());
    Log(LOG_LEVEL_VERBOSE, "Collect call established socket: %d, queue: %d.", call.socket.Get(), queue);
    Log(LOG_LEVEL_VERBOSE, "CollectCallWorker: current waiting queue is [%d]", queue);
    return call;
}

std::optional<AcceptedCall> Ask(AgentConnectionPtr hub)
{
    Log(LOG_LEVEL_VERBOSE, "CollectCallWorker: sending request to server");
    if (SendTransaction(hub->conn_info, kRequest, kRequestLength, 't') == -1) {
        Log(LOG_LEVEL_ERR, "Couldn't send data. (send: %s)", GetErrorStr());
        return std::nullopt;
    }
    int32_t queue = 0;
    if (!ReceiveQueueLength(hub->conn_info, &queue) || !IsAccepted(queue)) {
        return std::nullopt;
    }
    return Accept(std::move(hub), queue);
}

}  // namespace

std::optional<AcceptedCall> CallHub()
{
    AgentConnectionPtr hub = ConnectToHub();
    std::optional<AcceptedCall> call;
    if (hub != nullptr) {
        call = Ask(std::move(hub));
    }
    if (!call.has_value()) {
        Log(LOG_LEVEL_INFO, "Failed to contact the hub for report collection.");
    }
    return call;
}
