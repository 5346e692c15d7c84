#include "libveltrane/connection_cache.h"

#include <poll.h>

#include <algorithm>
#include <deque>
#include <mutex>

#include "libveltrane/connection_info.h"

namespace veltrane {

namespace {

std::mutex aside_mutex;  // guards the connections put aside, oldest first

std::deque<AgentConnection *> &Aside()
{
    static std::deque<AgentConnection *> connections;
    return connections;
}

bool AtRest(const AgentConnection *conn)
{
    const ConnectionInfoInternal_ *internal = conn->conn_info->internal;
    if (internal->failure != 0 || !internal->at_rest || internal->socket < 0 || !internal->gathered.empty()) {
        return false;
    }
    if (internal->record_begin != internal->record_end ||
        (internal->ssl != nullptr && SSL_pending(internal->ssl.get()) > 0)) {
        return false;
    }
    pollfd waiting{internal->socket, POLLIN, 0};
    return poll(&waiting, 1, 0) == 0;  // readable means closed by the server, or bytes nobody asked for
}

}  // namespace

std::string ConnectionCacheKey(const std::string &server, const std::string &port, const ConnectionFlags &flags)
{
    return server + '\0' + port + '\0' + std::to_string(flags.protocol_version) + (flags.force_ipv4 ? "4" : "");
}

bool PutConnectionAside(AgentConnection *conn, AgentConnection **ret_surplus)
{
    *ret_surplus = nullptr;
    if (!AtRest(conn)) {
        return false;
    }
    const std::lock_guard lock(aside_mutex);
    Aside().push_back(conn);
    if (Aside().size() > kCachedConnections) {
        *ret_surplus = Aside().front();
        Aside().pop_front();
    }
    return true;
}

AgentConnection *TakeConnection(const std::string &key, AgentConnection **ret_stale)
{
    *ret_stale = nullptr;
    const std::lock_guard lock(aside_mutex);
    auto found = std::find_if(Aside().begin(), Aside().end(),
                              [&key](const AgentConnection *conn) { return conn->internal->cache_key == key; });
    if (found == Aside().end()) {
        return nullptr;
    }
    AgentConnection *conn = *found;
    Aside().erase(found);
    if (!AtRest(conn)) {
        *ret_stale = conn;
        return nullptr;
    }
    return conn;
}

void DropConnection(AgentConnection *conn)
{
    const std::lock_guard lock(aside_mutex);
    std::erase(Aside(), conn);
}

}  // namespace veltrane
