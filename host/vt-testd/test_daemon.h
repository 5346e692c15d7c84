// The test daemon's main loop: it listens, gives each connection a thread, and ends on SIGTERM or SIGINT.
//
// It has no policy: it serves nothing of its machine. As many connections as it serves at once are open at most; the
// next one waits until one of them ends. It enters its sandbox (privilege.h) before the first peer.
#ifndef HOST_VT_TESTD_TEST_DAEMON_H
#define HOST_VT_TESTD_TEST_DAEMON_H

#include <string>

#include <veltrane/owned.h>

#include "libveltrane/connection_threads.h"

namespace vttestd {

struct DaemonOptions {
    std::string bind_address;  // "" = every address of the machine
    std::string port;          // "0" = any free one
};

class TestDaemon {
  public:
    TestDaemon();

    // Serve until a signal ends it. Prints "Listening on <address>:<port>" on standard output when it accepts
    // connections. Result: the exit status, 0, or 1 after an error line when it could not start.
    int Run(const DaemonOptions &options);

  private:
    bool Start(const DaemonOptions &options);  // false after an error line
    void Loop();
    void Accept();

    veltrane::ConnectionThreads connections_;
    veltrane::Descriptor listener_;
};

}  // namespace vttestd

#endif
