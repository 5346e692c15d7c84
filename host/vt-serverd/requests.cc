#include "vt-serverd/requests.h"

#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <veltrane/entry_points.h>
#include <veltrane/errors.h>
#include <veltrane/logging.h>
#include <veltrane/net.h>

#include "libveltrane/query_border.h"
#include "libveltrane/server_handshake.h"

namespace vtserverd {

namespace {

using StatePtr = std::unique_ptr<ServerConnectionState, veltrane::Destroyer<ServerConnectionStateDestroy>>;

constexpr size_t kLongestValue = VT_BUFSIZE - 1;

enum class After { next_request, close };

// One connection, from the end of its handshake on.
class Conversation {
  public:
    Conversation(veltrane::AcceptedPeer peer, const ServedPolicy &policy, const std::function<bool()> &share)
        : policy_(policy),
          share_(share),
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
        constexpr std::string_view kValue = "VAR ";
        if (request.starts_with(kQuery)) {
            return AnswerQuery(request.substr(kQuery.size()));
        }
        if (request.starts_with(kValue)) {
            return AnswerValue(request.substr(kValue.size()));
        }
        if (request == "COOKIES") {
            return ReturnCookies(state_.get()) ? After::next_request : After::close;
        }
        if (request == "SCALLBACK CALL_ME_BACK collect_calls") {
            return AnswerCollectCall();
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
        if (!Admits("query", query->type)) {
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

    // Whether the policy in force admits the peer; a notice line when it does not. The caller holds the read lock.
    bool Admits(std::string_view resource, const std::string &name) const
    {
        const bool admitted = policy_.Rules().Admits(resource, name, identity_, address_);
        if (!admitted) {
            Log(LOG_LEVEL_NOTICE, "Access to '%s' denied for %s (%s)", name.c_str(), address_.c_str(),
                identity_.c_str());
        }
        return admitted;
    }

    After AnswerValue(std::string_view text)
    {
        if (!veltrane::IsHandle(text)) {
            return Refuse("this is no handle of a value");
        }
        std::string handle(text);
        std::vector<char> value(VT_BUFSIZE + 1);  // a value that fills the buffer goes without its zero
        bool found = false;
        {
            const ServedPolicy::ReadLock lock = policy_.Lock();
            found = Admits("literal", handle) && ReturnLiteralData(policy_.Context(), handle.data(), value.data()) != 0;
        }
        if (!found) {
            return Refuse("no such value is served to you");
        }
        const size_t length = strnlen(value.data(), kLongestValue);
        return SendTransaction(Info(), value.data(), static_cast<int>(length), 't') == 0 ? After::next_request
                                                                                         : After::close;
    }

    // The caller reads four bare bytes: any other answer would pass for an acceptance. Whatever becomes of the call,
    // the connection ends here without another byte, for once it is handed over it is the hub process that talks on it.
    After AnswerCollectCall()
    {
        bool admitted = false;
        {
            const ServedPolicy::ReadLock lock = policy_.Lock();
            admitted = Admits("context", veltrane::kCollectCalls);
        }
        if (admitted && share_()) {
            const bool accepted = ReceiveCollectCall(state_.get());
            Log(LOG_LEVEL_VERBOSE, "A collect call of %s (%s) was %s", address_.c_str(), identity_.c_str(),
                accepted ? "accepted" : "not accepted");
        }
        return After::close;
    }

    const ServedPolicy &policy_;
    const std::function<bool()> &share_;
    std::string identity_;
    std::string address_;
    StatePtr state_;
};

}  // namespace

void ServeConnection(int fd, const ServedPolicy &policy, const std::function<bool()> &share)
{
    veltrane::AcceptedPeer peer = veltrane::AcceptPeer(fd);
    if (peer.refusal != veltrane::Refusal::none) {
        veltrane::LogRefusal(peer);
        return;
    }
    Log(LOG_LEVEL_VERBOSE, "Connection from %s: key %s", peer.address.c_str(), peer.identity.c_str());
    Conversation(std::move(peer), policy, share).Run();
}

}  // namespace vtserverd
