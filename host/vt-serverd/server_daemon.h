// The daemon's main loop: it listens, gives each connection a thread, reads its policy again on SIGHUP, and ends on
// SIGTERM or SIGINT.
//
// A connection may also be one that this host made: when the plug-in's collect call has been accepted, the hub asks its
// questions on the connection that we opened, and it is served like an accepted one. It is always served, whatever
// max_connections says, for the hub does what we asked it for; there is at most one at a time.
//
// Peers cannot hold it up: the number of connections is bounded by max_connections, and half of that for the peers of
// one address, so that one that is silent or slow leaves room for others; an IPv6 address counts by its first 64 bits,
// for a peer may have all that share them. Beyond a bound a connection is closed at once. Every read and write ends at
// its time-out, and a whole answer at its pace (send_pace.h).
//
// It enters its sandbox (privilege.h) once its port is bound and the plug-in is loaded: policy and peers are read
// inside. A port below 1024 that the policy closes cannot be opened again by a reload, therefore. Whether it listens,
// policy says, and on a hub the plug-in: a port that is taken by somebody else ends only a daemon that is to listen.
#ifndef HOST_VT_SERVERD_SERVER_DAEMON_H
#define HOST_VT_SERVERD_SERVER_DAEMON_H

#include <chrono>
#include <optional>
#include <string>

#include "libveltrane/connection_threads.h"
#include "vt-serverd/served_policy.h"

namespace vtserverd {

struct DaemonOptions {
    std::string policy_file;
    std::string bind_address;  // "" = every address of the machine
    std::string port;          // "0" = any free one
};

// Lets one line through in a while, so that a flood of peers is no flood of lines.
class RateLimit {
  public:
    explicit RateLimit(std::chrono::seconds interval) : interval_(interval) {}

    // Whether the line may be logged now.
    bool Allows();

  private:
    std::chrono::seconds interval_;
    std::optional<std::chrono::steady_clock::time_point> last_;
};

class ServerDaemon {
  public:
    explicit ServerDaemon(DaemonOptions options);
    ~ServerDaemon();
    ServerDaemon(const ServerDaemon &) = delete;
    ServerDaemon &operator=(const ServerDaemon &) = delete;

    // Serve until a signal ends it. Prints "Listening on <address>:<port>" on standard output when it accepts
    // connections. Result: the exit status, 0, or 1 after an error line when it could not start.
    int Run();

  private:
    bool Start();
    void Bind();
    bool Confine();  // false after an error line
    bool Listen();   // or stop listening, as the policy and the plug-in say; false after an error line
    int OpenListener(size_t queue_size);
    static int InitServer(size_t queue_size, char *bind_address);
    void LogNoListener() const;
    void StopListening();
    void FollowPolicy();
    void Loop();
    void Reload();
    void AcceptAll();
    void Serve(int fd, size_t max_connections);
    void ServeCollectCall();
    void DropCollectCall();

    DaemonOptions options_;
    ServedPolicy policy_;
    veltrane::ConnectionThreads connections_;
    int listener_ = -1;   // bound; listening when listening_
    int bind_error_ = 0;  // errno of the binding at start, until it has been said
    bool listening_ = false;
    bool wanted_ = false;         // the plug-in has asked for the listener
    bool makes_calls_ = false;    // collect calls; stays when a reload ends them, for one may be under way
    bool accept_paused_ = false;  // the process is out of descriptors
    RateLimit too_many_{std::chrono::seconds(10)};
    RateLimit accept_failed_{std::chrono::seconds(10)};
};

}  // namespace vtserverd

#endif
