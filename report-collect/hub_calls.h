// How a host that calls gets from the hub's server daemon, where it called, to the hub process, which asks it.
//
// The hub process listens on a local socket (SOCK_SEQPACKET: each message is whole or is not there). For each caller
// the daemon connects to it:
//
//   hub process   int32, host byte order: the caller's place in the queue, from 1; 0 = the queue is full, and it closes
//   daemon        tells the caller that number inside TLS, and only then:
//                 one message: a text and the zero that ends it, with exactly one descriptor, the caller's socket
//
// So the hub process cannot begin its handshake on the socket before the caller has its answer. A daemon that closes
// without the message gives its place back. Both sides talk only to their own user or to root.
#ifndef REPORT_COLLECT_HUB_CALLS_H
#define REPORT_COLLECT_HUB_CALLS_H

#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include <veltrane/known_dirs.h>

namespace report_collect {

constexpr int kMaxWaitingCalls = 64;
constexpr size_t kMaxHandOverText = 4095;  // without its zero

inline std::string HubCallsPath() { return std::string(GetStateDir()) + "/hub_calls.sock"; }

// Whether a process of this user may be trusted with a connection, and trusted to hand one over.
inline bool IsOurUser(uid_t user, uid_t own) { return user == own || user == 0; }

// Whether the process on the other side of a local socket runs as this user or as root. false, too, for a socket that
// is not local.
inline bool PeerIsOurs(int fd)
{
    ucred peer{};
    socklen_t size = sizeof(peer);
    return getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 && size == sizeof(peer) &&
           IsOurUser(peer.uid, geteuid());
}

}  // namespace report_collect

#endif
