#include "vt-testd/requests.h"

#include <ctime>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include <veltrane/entry_points.h>
#include <veltrane/errors.h>
#include <veltrane/logging.h>
#include <veltrane/net.h>

#include "libveltrane/query_border.h"
#include "libveltrane/server_handshake.h"

namespace vttestd {

namespace {

using StatePtr = std::unique_ptr<ServerConnectionState, veltrane::Destroyer<ServerConnectionStateDestroy>>;

// The menu of a query that the plug-in has a reply for; "" for any other request.
std::string TestMenuOf(std::string_view request)
{
    constexpr std::string_view kQuery = "QUERY ";
    if (!request.starts_with(kQuery)) {
        return "";
    }
    const std::string_view menu = request.substr(kQuery.size());
    std::string why;
    const auto query = veltrane::ParseReportQuery(menu, std::time(nullptr), &why);
    return query.has_value() && (query->type == "delta" || query->type == "rebase") ? std::string(menu) : "";
}

void Refuse(ConnectionInfo *info, std::string_view request, const veltrane::AcceptedPeer &peer)
{
    constexpr std::string_view kRefusal = "BAD: this request is not served";
    Log(LOG_LEVEL_VERBOSE, "Refused a request of %s (%s)", peer.address.c_str(), peer.identity.c_str());
    if (request == "SCALLBACK CALL_ME_BACK collect_calls") {
        return;  // its caller reads four bare bytes: any answer would pass for an acceptance
    }
    // The connection ends either way.
    (void)SendTransaction(info, kRefusal.data(), static_cast<int>(kRefusal.size()), 't');
    veltrane::ConnectionSayGoodbye(info);
}

void AnswerRequests(ServerConnectionState *state, const veltrane::AcceptedPeer &peer)
{
    ConnectionInfo *info = state->conn_info;
    char payload[VT_BUFSIZE];
    bool more = false;
    int length = 0;
    while ((length = ReceiveTransaction(info, payload, &more)) >= 0) {
        const std::string_view request(payload, static_cast<size_t>(length));
        std::string menu = more ? "" : TestMenuOf(request);
        if (menu.empty()) {
            Refuse(info, request, peer);
            return;
        }
        if (!VTTestD_ReturnQueryData(state, menu.data())) {
            Log(LOG_LEVEL_VERBOSE, "No answer to the query '%s' of %s", menu.c_str(), peer.address.c_str());
            return;
        }
    }
    if (!veltrane::ConnectionClosedByPeer(info)) {
        Log(LOG_LEVEL_VERBOSE, "No request from %s: %s", peer.address.c_str(), GetErrorStr());
    }
}

}  // namespace

void ServeConnection(int fd)
{
    veltrane::AcceptedPeer peer = veltrane::AcceptPeer(fd);
    if (peer.refusal != veltrane::Refusal::none) {
        veltrane::LogRefusal(peer);
        return;
    }
    Log(LOG_LEVEL_VERBOSE, "Connection from %s: key %s", peer.address.c_str(), peer.identity.c_str());
    const StatePtr state(ServerConnectionStateNew(peer.connection.release()));
    AnswerRequests(state.get(), peer);
    ConnectionInfoSetSocket(state->conn_info, -1);  // the socket is closed by whoever opened it
}

}  // namespace vttestd
