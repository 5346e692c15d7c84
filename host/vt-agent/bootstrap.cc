// Bootstrap of a host to its hub.
#include "vt-agent/bootstrap.h"

#include <cerrno>

#include <veltrane/errors.h>
#include <veltrane/globals.h>
#include <veltrane/logging.h>
#include <veltrane/net.h>
#include <veltrane/owned.h>
#include <veltrane/rlist.h>

#include "libveltrane/keys.h"
#include "libveltrane/server_connection.h"

namespace veltrane {

namespace {

// How a contact with the hub ended.
enum class Contact {
    kTrustsUs,     // it is the right one
    kTrustsUsNot,  // it is the right one, and closed the connection as soon as it knew our key
    kNone,         // errno and the error of ServerConnection say why
};

Contact ContactHub(const HubAddress &hub, const std::string &key, int *ret_error)
{
    Rlist *keys = nullptr;
    RlistAppendScalar(&keys, key.c_str());
    const RlistPtr owner(keys);
    ConnectionFlags flags{};
    flags.trust_server = true;  // as keys has it, this one key alone
    errno = 0;
    AgentConnection *conn = ServerConnection(hub.host.c_str(), hub.port.empty() ? nullptr : hub.port.c_str(), keys,
                                             static_cast<unsigned int>(CONNTIMEOUT), flags, ret_error);
    if (conn != nullptr) {
        DisconnectServer(conn);
        return Contact::kTrustsUs;
    }
    const int failure = errno;
    const bool right_key = *ret_error == kNotTrusted && failure != EACCES && IsTrusted(key);  // we refuse with EACCES
    errno = failure;
    return right_key ? Contact::kTrustsUsNot : Contact::kNone;
}

std::string WhyNoContact(int error, const std::string &key)
{
    switch (error) {
        case kNoSuchHost:
            return "there is no such host";
        case kNotTrusted:
            return errno == EACCES ? "its key is not " + key : std::string(GetErrorStr());
        case kNoCommonProtocol:
            return "it speaks another protocol";
        default:
            return GetErrorStr();
    }
}

bool Keep(const HubAddress &hub)
{
    const Trouble trouble = WriteHubAddress(hub);
    if (trouble.has_value()) {
        Log(LOG_LEVEL_ERR, "Bootstrap failed: %s", trouble->c_str());
    }
    return !trouble.has_value();
}

bool BecomeHub()
{
    if (!Keep({kHubItself, ""})) {
        return false;
    }
    Log(LOG_LEVEL_NOTICE, "The key is this host's own: this host is the hub");
    return true;
}

}  // namespace

std::optional<HubAddress> ParseHub(const std::string &text)
{
    std::string copy = text;
    char *host = nullptr;
    char *port = nullptr;
    ParseHostPort(copy.data(), &host, &port);
    HubAddress hub{host, port != nullptr ? port : ""};
    const bool says_port = text.find(':') != std::string::npos && text.back() != ']';
    const bool is_name = !hub.host.empty() && (text[0] == '[' || hub.host.find(':') == std::string::npos) &&
                         hub.host.find_first_of(" \t\r\n") == std::string::npos;
    return is_name && (says_port ? IsPortNumber(hub.port) : hub.port.empty()) ? std::optional(hub) : std::nullopt;
}

bool Bootstrap(const HubAddress &hub, const std::string &key)
{
    vtnet_Init();
    std::string why;
    const KeyPtr own = OwnKey(&why);
    if (own == nullptr || !vtnet_IsInitialized()) {
        Log(LOG_LEVEL_ERR, "Bootstrap failed: this host has no key. %s", why.c_str());
        return false;
    }
    const std::string identity = KeyIdentity(own.get());
    if (key == identity) {
        return BecomeHub();
    }
    if (hub.host == kHubItself) {
        Log(LOG_LEVEL_ERR, "Bootstrap failed: '%s' would make this host the hub, and the key is another's", kHubItself);
        return false;
    }
    int error = 0;
    const Contact contact = ContactHub(hub, key, &error);
    if (contact == Contact::kNone) {
        Log(LOG_LEVEL_ERR, "Bootstrap to '%s' failed: %s", hub.host.c_str(), WhyNoContact(error, key).c_str());
        return false;
    }
    if (!Keep(hub)) {
        return false;
    }
    const std::string port = hub.port.empty() ? "" : " port " + hub.port;
    Log(LOG_LEVEL_NOTICE, "The hub of this host is '%s'%s from now on, and its key %s is trusted", hub.host.c_str(),
        port.c_str(), key.c_str());
    if (contact == Contact::kTrustsUsNot) {
        Log(LOG_LEVEL_NOTICE, "The hub does not trust this host yet. To be run there: vt-serverd trust add %s",
            identity.c_str());
    }
    return true;
}

}  // namespace veltrane
