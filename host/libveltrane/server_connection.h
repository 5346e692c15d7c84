// The client's side of a connection, for the library's own programs.
#ifndef HOST_LIBVELTRANE_SERVER_CONNECTION_H
#define HOST_LIBVELTRANE_SERVER_CONNECTION_H

#include <veltrane/net.h>

namespace veltrane {

// Failures of ServerConnection as it hands them back in ret_error.
enum ConnectError {
    kNoSuchHost = -1,
    kNoAnswer = -2,
    kNotTrusted = -3,
    kNoCommonProtocol = -4,
};

// Be the TLS client on a socket that is connected already: handshake, trust, HELLO. Takes over the socket when it
// succeeds; otherwise it stays the caller's, and ret_error and errno are set as by ServerConnection.
AgentConnection *ConnectOverSocket(int fd, const Rlist *restrict_keys, ConnectionFlags flags, int *ret_error);

// A new AgentConnection around a connection, which it takes over: for in-process peers, as the function given to
// ServerConnectionReplace hands them out. DisconnectServer or DeleteAgentConn ends it.
AgentConnection *AgentConnectionNew(ConnectionInfo *info);

// Close every AgentConnection that is still open.
void CloseOpenConnections();

}  // namespace veltrane

#endif
