// Connections that were put aside for the next caller, as the flag cache_connection asks.
//
// Only one that is at rest is kept: open, every request answered to its last transaction, nothing waiting in either
// direction. So the next caller never reads what another one left. Any thread may use these functions.
#ifndef HOST_LIBVELTRANE_CONNECTION_CACHE_H
#define HOST_LIBVELTRANE_CONNECTION_CACHE_H

#include <string>

#include <veltrane/net.h>

namespace veltrane {

// Most connections that are put aside; beyond it the oldest is closed.
constexpr size_t kCachedConnections = 8;

// What tells connections apart: only one that was made for the same key serves again.
std::string ConnectionCacheKey(const std::string &server, const std::string &port, const ConnectionFlags &flags);

// Put a connection aside. false: it is not at rest, and stays the caller's to close. It may be the oldest of too many
// that is handed back in ret_surplus (else NULL), for the caller to close.
[[nodiscard]] bool PutConnectionAside(AgentConnection *conn, AgentConnection **ret_surplus);

// Take a connection out that is still at rest; NULL when there is none. One that the server has closed meanwhile is
// handed back in ret_stale (else NULL), for the caller to close.
AgentConnection *TakeConnection(const std::string &key, AgentConnection **ret_stale);

// Forget a connection that is about to be freed.
void DropConnection(AgentConnection *conn);

}  // namespace veltrane

// The host's own part of an AgentConnection.
struct AgentConnectionInternal_ {
    std::string cache_key;        // empty: close it when it is disconnected
    const void *scope = nullptr;  // the ConnectionScope that closes it; guarded with the set of open connections
};

#endif
