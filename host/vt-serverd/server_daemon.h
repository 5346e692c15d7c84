// The daemon's main loop: it listens, gives each connection a thread, reads its policy again on SIGHUP, and ends on
// SIGTERM or SIGINT.
//
// Peers cannot hold it up: the number of connections is bounded by max_connections, and half of that for the peers of
// one address, so that one that is silent or slow leaves room for others; an IPv6 address counts by its first 64 bits,
// for a peer may have all that share them. Beyond a bound a connection is closed at once. Every read and write ends at
// its time-out, and a whole answer at its pace (send_pace.h).
//
// It enters its sandbox (privilege.h) once its port is bound and the plug-in is loaded: policy and peers are read
// inside. A port below 1024 that the policy closes cannot be opened again by a reload, therefore.
#ifndef HOST_VT_SERVERD_SERVER_DAEMON_H
#define HOST_VT_SERVERD_SERVER_DAEMON_H

#include <chrono>
#include <optional>
#include <string>

#include "vt-serverd/connection_threads.h"
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
    bool Bind();     // false after an error line
    bool Confine();  // false after an error line
    bool Listen();   // or stop listening, as the policy says; false after an error line
    void LogNoListener() const;
    void StopListening();
    void Loop();
    void Reload();
    void AcceptAll();
    void Serve(int fd, size_t max_connections);

    DaemonOptions options_;
    ServedPolicy policy_;
    ConnectionThreads connections_;
    int listener_ = -1;  // bound; listening when listening_
    bool listening_ = false;
    bool accept_paused_ = false;  // the process is out of descriptors
    RateLimit too_many_{std::chrono::seconds(10)};
    RateLimit accept_failed_{std::chrono::seconds(10)};
};

}  // namespace vtserverd

#endif
