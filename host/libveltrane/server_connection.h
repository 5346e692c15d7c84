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

// A stretch of one thread's work that may leave connections open: those that the thread made in it, and nobody ended or
// put aside, are closed at its end. Other threads' connections stay. Of two, one inside the other, the inner one
// counts.
class ConnectionScope {
  public:
    ConnectionScope();
    ~ConnectionScope();
    ConnectionScope(const ConnectionScope &) = delete;
    ConnectionScope &operator=(const ConnectionScope &) = delete;

  private:
    const ConnectionScope *const outer_;
};

}  // namespace veltrane

#endif
