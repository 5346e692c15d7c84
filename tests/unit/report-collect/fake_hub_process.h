// A process that takes connections, as this test wants it to behave: the listening end of a local socket.
#ifndef TESTS_UNIT_REPORT_COLLECT_FAKE_HUB_PROCESS_H
#define TESTS_UNIT_REPORT_COLLECT_FAKE_HUB_PROCESS_H

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <functional>
#include <iterator>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <veltrane/owned.h>

#include "report-collect/hub_calls.h"

// The answer to whoever asks for a place.
inline void TellPlaceTo(int line, int32_t number) { (void)send(line, &number, sizeof(number), MSG_NOSIGNAL); }

class FakeHubProcess {
  public:
    explicit FakeHubProcess(const std::string &path = report_collect::HubCallsPath(), int backlog = 16)
        : listener_(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0))
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof(address.sun_path) - 1);
        if (bind(listener_.Get(), reinterpret_cast<sockaddr *>(&address), sizeof(address)) != 0 ||
            listen(listener_.Get(), backlog) != 0) {
            throw std::runtime_error("no local socket at " + path);
        }
    }
    ~FakeHubProcess()
    {
        if (thread_.joinable()) {
            thread_.join();
        }
    }
    FakeHubProcess(const FakeHubProcess &) = delete;
    FakeHubProcess &operator=(const FakeHubProcess &) = delete;

    // Hand the next line to serve, in a thread.
    void Serve(std::function<void(veltrane::Descriptor)> serve)
    {
        thread_ = std::thread([this, serve = std::move(serve)] {
            serve(veltrane::Descriptor(accept4(listener_.Get(), nullptr, nullptr, SOCK_CLOEXEC)));
        });
    }

    void Join() { thread_.join(); }

  private:
    veltrane::Descriptor listener_;
    std::thread thread_;
};

struct LinePair {
    explicit LinePair(int type = SOCK_SEQPACKET)
    {
        int fds[2];
        if (socketpair(AF_UNIX, type | SOCK_CLOEXEC, 0, fds) != 0) {
            throw std::runtime_error("no socket pair");
        }
        ours = veltrane::Descriptor(fds[0]);
        theirs = veltrane::Descriptor(fds[1]);
    }

    veltrane::Descriptor ours;
    veltrane::Descriptor theirs;
};

// Send bytes and descriptors as no well-behaved process does.
inline bool SendAnything(int line, const std::string &bytes, const std::vector<int> &descriptors)
{
    std::string copy = bytes;
    iovec part{copy.data(), copy.size()};
    std::vector<cmsghdr> control(CMSG_SPACE(descriptors.size() * sizeof(int)) / sizeof(cmsghdr) + 1);
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    if (!descriptors.empty()) {
        message.msg_control = control.data();
        message.msg_controllen = CMSG_SPACE(descriptors.size() * sizeof(int));
        cmsghdr *rights = CMSG_FIRSTHDR(&message);
        rights->cmsg_level = SOL_SOCKET;
        rights->cmsg_type = SCM_RIGHTS;
        rights->cmsg_len = CMSG_LEN(descriptors.size() * sizeof(int));
        std::memcpy(CMSG_DATA(rights), descriptors.data(), descriptors.size() * sizeof(int));
    }
    return sendmsg(line, &message, MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
}

// How many descriptors this process has open.
inline std::ptrdiff_t OpenDescriptors()
{
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), std::filesystem::directory_iterator());
}

inline bool IsSameFile(int a, int b)
{
    struct stat of_a {};
    struct stat of_b {};
    return fstat(a, &of_a) == 0 && fstat(b, &of_b) == 0 && of_a.st_dev == of_b.st_dev && of_a.st_ino == of_b.st_ino;
}

#endif
