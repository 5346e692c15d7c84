// The local socket at which the hub's server daemon announces the hosts that call; report-collect/hub_calls.h tells
// what is said there.
//
// One hub process a work directory takes calls: it holds a kernel lock, which goes with it however it ends, so whatever
// socket file is found under the lock is a dead process's and is replaced.
#ifndef HOST_VT_HUB_CALL_SOCKET_H
#define HOST_VT_HUB_CALL_SOCKET_H

#include <string>

#include <veltrane/owned.h>

namespace vthub {

class CallSocket {
  public:
    CallSocket() = default;
    ~CallSocket();
    CallSocket(const CallSocket &) = delete;
    CallSocket &operator=(const CallSocket &) = delete;

    // Listen. false after one error line, as when another hub process of this work directory does.
    [[nodiscard]] bool Open();

    // For poll: readable when somebody waits.
    int Get() const { return listener_.Get(); }

    // The next line of a process of ours; none when nobody waits, with errno EAGAIN, or when taking one failed, with
    // another errno. A foreign process's line is closed after a warning, and the next one is taken.
    veltrane::Descriptor Accept() const;

  private:
    [[nodiscard]] bool Lock();

    veltrane::Descriptor lock_;
    veltrane::Descriptor listener_;
    std::string path_;  // of the socket that is ours to remove; "" = none yet
};

}  // namespace vthub

#endif
