#include "vt-serverd/requests.h"

#include <cerrno>
#include <ctime>
#include <memory>
#include <string>
#include <string_view>

#include <veltrane/entry_points.h>
#include <veltrane/errors.h>
#include <veltrane/logging.h>
#include <veltrane/net.h>

#include "libveltrane/query_border.h"
#include "libveltrane/server_handshake.h"

namespace vtserverd {

namespace {

using StatePtr = std::unique_ptr<ServerConnectionState, veltrane::Destroyer<ServerConnectionStateDestroy>>;

enum class After { next_request, close };

// One connection, from the end of its handshake on.
class Conversation {
  public:
    Conversation(veltrane::AcceptedPeer peer, const ServedPolicy &policy)
        : policy_(policy),
          identity_(std::move(peer.identity)),
          address_(std::move(peer.address)),
          state_(ServerConnectionStateNew(peer.connection.release()))
    {
    }
    ~Conversation() { ConnectionInfoSetSocket(Info(), -1); }  // the socket is closed by whoever opened it
    Conversation(const Conversation &) = delete;
    Conversation &operator=(const Conversation &) = delete;

    void Run()
    {
        char payload[VT_BUFSIZE];
        bool more = false;
        int length = 0;
        while ((length = ReceiveTransaction(Info(), payload, &more)) >= 0) {
            const std::string_view request(payload, static_cast<size_t>(length));
            if ((more ? Refuse("a request is one transaction") : Answer(request)) == After::close) {
                return;
            }
        }
        if (!veltrane::ConnectionClosedByPeer(Info())) {
            Log(LOG_LEVEL_VERBOSE, "No request from %s: %s", address_.c_str(), GetErrorStr());
        }
    }

  private:
    ConnectionInfo *Info() const { return state_->conn_info; }

    After Answer(std::string_view request)
    {
        constexpr std::string_view kQuery = "QUERY ";
        if (request.starts_with(kQuery)) {
            return AnswerQuery(request.substr(kQuery.size()));
        }
        if (request == "SCALLBACK CALL_ME_BACK collect_calls") {
            // A caller reads four bare bytes: any answer of ours would pass for an acceptance.
            Log(LOG_LEVEL_VERBOSE, "Refused a collect call of %s (%s)", address_.c_str(), identity_.c_str());
            return After::close;
        }
        return Refuse("this request is not served");
    }

    After Refuse(const char *why)
    {
        Log(LOG_LEVEL_VERBOSE, "Refused a request of %s (%s): %s", address_.c_str(), identity_.c_str(), why);
        const std::string answer = std::string("BAD: ") + why;
        // The connection ends either way.
        (void)SendTransaction(Info(), answer.data(), static_cast<int>(answer.size()), 't');
        veltrane::ConnectionSayGoodbye(Info());
        return After::close;
    }

    After AnswerQuery(std::string_view menu)
    {
        std::string why;
        const auto query = veltrane::ParseReportQuery(menu, std::time(nullptr), &why);
        if (!query.has_value()) {
            Log(LOG_LEVEL_WARNING, "Refused a malformed query from %s (%s): %s", address_.c_str(), identity_.c_str(),
                why.c_str());
            return After::close;
        }
        auto lock = std::make_shared<ServedPolicy::ReadLock>(policy_.Lock());
        if (!policy_.Rules().Admits("query", query->type, identity_, address_)) {
            Log(LOG_LEVEL_NOTICE, "Access to '%s' denied for %s (%s)", query->type.c_str(), address_.c_str(),
                identity_.c_str());
            return After::close;
        }
        state_->dump_reports = policy_.Settings().dump_reports;

        // Between being admitted and taking its report filter a query must not meet a new policy: it would go out with
        // the filters of another, or with none. The answer is whole before its first line is sent, so the lock ends
        // there.
        veltrane::ConnectionBeforeNextSend(Info(), [lock] { lock->unlock(); });
        std::string text(menu);
        const bool answered = ReturnQueryData(state_.get(), text.data(), 0);
        veltrane::ConnectionBeforeNextSend(Info(), nullptr);
        if (!answered) {
            Log(LOG_LEVEL_VERBOSE, "No answer to the query '%s' of %s", text.c_str(), address_.c_str());
        }
        return answered ? After::next_request : After::close;
    }

    const ServedPolicy &policy_;
    std::string identity_;
    std::string address_;
    StatePtr state_;
};

void LogRefusal(const veltrane::AcceptedPeer &peer)
{
    switch (peer.refusal) {
        case veltrane::Refusal::none:
            return;
        case veltrane::Refusal::no_handshake:
            errno = peer.error;
            Log(LOG_LEVEL_VERBOSE, "No handshake with %s: %s", peer.address.c_str(), GetErrorStr());
            return;
        case veltrane::Refusal::not_trusted:
            Log(LOG_LEVEL_NOTICE, "Refused a connection from %s: key %s is not trusted", peer.address.c_str(),
                peer.identity.c_str());
            return;
        case veltrane::Refusal::no_common_protocol:
            Log(LOG_LEVEL_VERBOSE, "No common protocol version with %s (%s)", peer.address.c_str(),
                peer.identity.c_str());
            return;
    }
}

}  // namespace

void ServeConnection(int fd, const ServedPolicy &policy)
{
    veltrane::AcceptedPeer peer = veltrane::AcceptPeer(fd);
    if (peer.refusal != veltrane::Refusal::none) {
        LogRefusal(peer);
        return;
    }
    Log(LOG_LEVEL_VERBOSE, "Connection from %s: key %s", peer.address.c_str(), peer.identity.c_str());
    Conversation(std::move(peer), policy).Run();
}

}  // namespace vtserverd
