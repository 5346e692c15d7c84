// Connecting to a server: name, socket, TLS, trust, protocol version, in this order, each step within its time-out.
//
// A server that closes after the handshake instead of saying HELLO does not trust our key: that is how a daemon
// refuses. Every AgentConnection that is open stands in one set, so that vtnet_Shut can close what callers left open.
#include "libveltrane/server_connection.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <veltrane/alloc.h>
#include <veltrane/globals.h>
#include <veltrane/rlist.h>
#include <veltrane/string_lib.h>

#include "libveltrane/connection_cache.h"
#include "libveltrane/connection_info.h"
#include "libveltrane/hello.h"
#include "libveltrane/keys.h"
#include "libveltrane/last_seen.h"
#include "libveltrane/net_address.h"
#include "libveltrane/socket_io.h"
#include "libveltrane/tls_context.h"

namespace veltrane {

namespace {

std::mutex open_connections_mutex;  // guards the set below and each connection's scope

thread_local const ConnectionScope *present_scope = nullptr;

std::set<AgentConnection *> &OpenConnections()
{
    static std::set<AgentConnection *> connections;
    return connections;
}

void Register(AgentConnection *conn)
{
    const std::lock_guard lock(open_connections_mutex);
    OpenConnections().insert(conn);
    if (conn->internal != nullptr) {
        conn->internal->scope = present_scope;
    }
}

// Nobody's scope closes it any more.
void LeaveScope(AgentConnection *conn)
{
    const std::lock_guard lock(open_connections_mutex);
    conn->internal->scope = nullptr;
}

void Unregister(AgentConnection *conn)
{
    const std::lock_guard lock(open_connections_mutex);
    OpenConnections().erase(conn);
}

AgentConnection *Refuse(ConnectError failure, int error, int *ret_error)
{
    *ret_error = failure;
    errno = error;
    return nullptr;
}

void FreeConnection(AgentConnection *conn)
{
    Unregister(conn);
    DropConnection(conn);
    ConnectionInfoDestroy(conn->conn_info);
    free(conn->session_key);
    delete conn->internal;
    free(conn);
}

// Close in good order and free.
void Close(AgentConnection *conn)
{
    if (conn->conn_info != nullptr) {
        const int fd = ConnectionInfoSocket(conn->conn_info);
        ConnectionSayGoodbye(conn->conn_info);
        if (fd >= 0) {
            close(fd);
        }
    }
    FreeConnection(conn);
}

bool SetBlocking(int fd, bool blocking)
{
    const int flags = fcntl(fd, F_GETFL);
    return flags >= 0 && fcntl(fd, F_SETFL, blocking ? flags & ~O_NONBLOCK : flags | O_NONBLOCK) == 0;
}

// Connect a socket; false with errno.
bool ConnectBefore(int fd, const addrinfo &address, Deadline deadline)
{
    if (!SetBlocking(fd, false)) {
        return false;
    }
    if (connect(fd, address.ai_addr, address.ai_addrlen) != 0) {
        if ((errno != EINPROGRESS && errno != EINTR) || !WaitForSocket(fd, POLLOUT, deadline)) {
            return false;
        }
        int error = 0;
        socklen_t length = sizeof(error);
        if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) != 0) {
            return false;
        }
        if (error != 0) {
            errno = error;
            return false;
        }
    }
    const int on = 1;
    (void)setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));  // slower without, but right
    return SetBlocking(fd, true);  // for an extension that reads from the TLS object itself
}

// A socket connected to the first address that answers; -1 with errno of the last one. An address that is silent must
// not use up the time of those after it, so each gets its share of what is left.
int ConnectToAny(const addrinfo *addresses, Deadline deadline)
{
    int left = 0;
    for (const addrinfo *address = addresses; address != nullptr; address = address->ai_next) { ++left; }
    for (const addrinfo *address = addresses; address != nullptr; address = address->ai_next, --left) {
        const int fd = socket(address->ai_family, SOCK_STREAM | SOCK_CLOEXEC, address->ai_protocol);
        if (fd < 0) {
            continue;
        }
        const auto now = std::chrono::steady_clock::now();
        if (ConnectBefore(fd, *address, now + (deadline - now) / left)) {
            return fd;
        }
        const int error = errno;
        close(fd);
        errno = error;
    }
    return -1;
}

bool AmongKeys(const std::string &identity, const Rlist *keys)
{
    for (const Rlist *node = keys; node != nullptr; node = node->next) {
        if (identity == RlistScalarValue(node)) {
            return true;
        }
    }
    return false;
}

// Whether the server may be talked to. A stranger's key is remembered, or trusted when the caller said so.
bool ServerIsTrusted(EVP_PKEY *key, const std::string &identity, const Rlist *restrict_keys, bool trust_server)
{
    if (identity.empty() || (restrict_keys != nullptr && !AmongKeys(identity, restrict_keys))) {
        return false;
    }
    if (IsTrusted(identity) || (trust_server && TrustKey(key).empty())) {
        return true;
    }
    RememberSeenKey(key);
    return false;
}

// Agree on a protocol version; 0, else a ConnectError with errno.
int AgreeOnProtocol(ConnectionInfo *info, int highest)
{
    int agreed = -1;
    if (SendHello(info, highest) != 0 || !ReceiveHello(info, &agreed)) {
        return errno == ECONNRESET || errno == EPIPE ? kNotTrusted : kNoAnswer;
    }
    if (agreed < kLowestWireProtocol || agreed > highest) {
        errno = EPROTONOSUPPORT;
        return kNoCommonProtocol;
    }
    ConnectionInfoSetProtocolVersion(info, static_cast<ProtocolVersion>(agreed));
    return 0;
}

// The highest version that the flags allow on a wire; -1 for none.
int HighestProtocol(const ConnectionFlags &flags)
{
    if (flags.protocol_version == VT_PROTOCOL_UNDEFINED) {
        return kHighestWireProtocol;
    }
    return flags.protocol_version < kLowestWireProtocol ? -1
                                                        : std::min<int>(flags.protocol_version, kHighestWireProtocol);
}

// A new connection to a server.
AgentConnection *ConnectAnew(const char *server, const char *port, const Rlist *restrict_keys,
                             unsigned int connect_timeout, ConnectionFlags flags, int *ret_error)
{
    const AddressListPtr addresses = ResolveHost(server, port, flags.force_ipv4 ? AF_INET : AF_UNSPEC, 0);
    if (addresses == nullptr) {
        return Refuse(kNoSuchHost, errno, ret_error);
    }
    const Deadline deadline = connect_timeout == 0
                                  ? TransactionDeadline()
                                  : std::chrono::steady_clock::now() + std::chrono::seconds(connect_timeout);
    const int fd = ConnectToAny(addresses.get(), deadline);
    if (fd < 0) {
        return Refuse(kNoAnswer, errno, ret_error);
    }
    AgentConnection *conn = ConnectOverSocket(fd, restrict_keys, flags, ret_error);
    if (conn == nullptr) {
        const int error = errno;
        close(fd);
        errno = error;
    }
    return conn;
}

// A connection that was put aside for this server, as long as its key is still trusted and wanted; else NULL.
AgentConnection *ConnectAgain(const std::string &cache_key, const Rlist *restrict_keys)
{
    AgentConnection *stale = nullptr;
    AgentConnection *conn = TakeConnection(cache_key, &stale);
    if (conn != nullptr) {
        const std::string identity = ConnectionInfoIdentity(conn->conn_info);
        if (!IsTrusted(identity) || (restrict_keys != nullptr && !AmongKeys(identity, restrict_keys))) {
            stale = std::exchange(conn, nullptr);
        }
    }
    if (stale != nullptr) {
        Close(stale);
    }
    return conn;
}

AgentConnection *ConnectTo(const char *server, const char *port, const Rlist *restrict_keys,
                           unsigned int connect_timeout, ConnectionFlags flags, int *ret_error)
{
    if (HighestProtocol(flags) < 0) {
        return Refuse(kNoCommonProtocol, EPROTONOSUPPORT, ret_error);
    }
    if (port == nullptr || *port == '\0') {
        port = VELTRANE_PORT_STR;
    }
    if (!flags.cache_connection) {
        return ConnectAnew(server, port, restrict_keys, connect_timeout, flags, ret_error);
    }
    const std::string cache_key = ConnectionCacheKey(server, port, flags);
    AgentConnection *conn = ConnectAgain(cache_key, restrict_keys);
    if (conn == nullptr) {
        conn = ConnectAnew(server, port, restrict_keys, connect_timeout, flags, ret_error);
        if (conn != nullptr) {
            conn->internal->cache_key = cache_key;
        }
    }
    return conn;
}

std::atomic<ServerConnectionFunction> connect_function{ConnectTo};

}  // namespace

AgentConnection *ConnectOverSocket(int fd, const Rlist *restrict_keys, ConnectionFlags flags, int *ret_error)
{
    const int highest = HighestProtocol(flags);
    if (highest < 0) {
        return Refuse(kNoCommonProtocol, EPROTONOSUPPORT, ret_error);
    }
    const std::shared_ptr<const TlsContexts> contexts = CurrentTlsContexts();
    if (contexts == nullptr) {
        return Refuse(kNotTrusted, ENOKEY, ret_error);  // without a key of our own nobody can trust us
    }
    SslPtr ssl;
    const int error = TlsHandshake(*contexts, TlsRole::client, fd, &ssl);
    if (error != 0) {
        return Refuse(error == EPROTO ? kNoCommonProtocol : kNoAnswer, error, ret_error);
    }
    const KeyPtr key = PeerKey(ssl.get());
    const std::string identity = key != nullptr ? KeyIdentity(key.get()) : std::string();
    if (!ServerIsTrusted(key.get(), identity, restrict_keys, flags.trust_server)) {
        return Refuse(kNotTrusted, EACCES, ret_error);
    }
    ConnectionInfoPtr info(ConnectionInfoNew());
    ConnectionInfoSetSocket(info.get(), fd);
    ConnectionInfoSetSSL(info.get(), ssl.release());
    if (const int failure = AgreeOnProtocol(info.get(), highest); failure != 0) {
        return Refuse(static_cast<ConnectError>(failure), errno, ret_error);
    }
    if (!flags.off_the_record) {
        NoteSeenPeer(identity, PeerAddress(fd), SeenDirection::outgoing);
    }
    AgentConnection *conn = AgentConnectionNew(info.release());
    Register(conn);
    return conn;
}

AgentConnection *AgentConnectionNew(ConnectionInfo *info)
{
    auto *conn = static_cast<AgentConnection *>(xcalloc(1, sizeof(AgentConnection)));
    conn->conn_info = info;
    conn->internal = new AgentConnectionInternal_;
    return conn;
}

void CloseOpenConnections()
{
    std::set<AgentConnection *> left;
    {
        const std::lock_guard lock(open_connections_mutex);
        left.swap(OpenConnections());
    }
    for (AgentConnection *conn : left) { Close(conn); }
}

ConnectionScope::ConnectionScope() : outer_(std::exchange(present_scope, this)) {}

ConnectionScope::~ConnectionScope()
{
    present_scope = outer_;
    std::vector<AgentConnection *> left;
    {
        const std::lock_guard lock(open_connections_mutex);
        for (AgentConnection *conn : OpenConnections()) {
            if (conn->internal != nullptr && conn->internal->scope == this) {
                left.push_back(conn);
            }
        }
    }
    for (AgentConnection *conn : left) { Close(conn); }
}

}  // namespace veltrane

extern "C" {

AgentConnection *ServerConnection(const char *server, const char *port, const Rlist *restrict_keys,
                                  unsigned int connect_timeout, ConnectionFlags flags, int *ret_error)
{
    AgentConnection *conn =
        veltrane::connect_function.load()(server, port, restrict_keys, connect_timeout, flags, ret_error);
    if (conn != nullptr) {
        veltrane::Register(conn);
    }
    return conn;
}

ServerConnectionFunction ServerConnectionReplace(ServerConnectionFunction connect)
{
    return veltrane::connect_function.exchange(connect != nullptr ? connect : veltrane::ConnectTo);
}

void DisconnectServer(AgentConnection *conn)
{
    if (conn == nullptr) {
        return;
    }
    AgentConnection *to_close = nullptr;
    const bool for_the_next = conn->internal != nullptr && !conn->internal->cache_key.empty();
    if (for_the_next) {
        veltrane::LeaveScope(conn);  // before it is aside, where another thread may take it
    }
    if (!for_the_next || !veltrane::PutConnectionAside(conn, &to_close)) {
        to_close = conn;
    }
    if (to_close != nullptr) {
        veltrane::Close(to_close);
    }
}

void DeleteAgentConn(AgentConnection *conn)
{
    if (conn != nullptr) {
        veltrane::FreeConnection(conn);
    }
}

ServerConnectionState *ServerConnectionStateNew(ConnectionInfo *info)
{
    auto *conn = static_cast<ServerConnectionState *>(xcalloc(1, sizeof(ServerConnectionState)));
    conn->conn_info = info;
    return conn;
}

void ServerConnectionStateDestroy(ServerConnectionState *conn)
{
    if (conn == nullptr) {
        return;
    }
    if (conn->conn_info != nullptr) {
        const int fd = ConnectionInfoSocket(conn->conn_info);
        ConnectionInfoDestroy(conn->conn_info);
        if (fd >= 0) {
            close(fd);
        }
    }
    free(conn->session_key);
    free(conn);
}

}  // extern "C"
