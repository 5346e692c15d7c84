#include "report-collect/hand_over.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <vector>

#include <veltrane/errors.h>
#include <veltrane/globals.h>

#include "report-collect/hub_calls.h"

namespace report_collect {

namespace {

using veltrane::Descriptor;

constexpr size_t kMostDescriptors = 253;  // more the kernel does not carry in one message
constexpr char kForeign[] = "the process there belongs to another user";

std::string Failed(const char *call)
{
    if (errno == EAGAIN || errno == EWOULDBLOCK) {
        errno = ETIMEDOUT;  // what the time-out of a socket shows itself as
    }
    return std::string("(") + call + ": " + GetErrorStr() + ")";
}

// Let every call on a socket of ours end within the time-out, connecting included.
bool SetTimeOut(int fd)
{
    const timeval time_out{std::max(CONNTIMEOUT, 1), 0};
    return setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &time_out, sizeof(time_out)) == 0 &&
           setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &time_out, sizeof(time_out)) == 0;
}

// A line to the process that listens at path; none, with ret_error set, when there is no such process of ours.
Descriptor ConnectLine(const std::string &path, std::string *ret_error)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path)) {
        *ret_error = "the path is too long for a local socket";
        return Descriptor();
    }
    path.copy(address.sun_path, path.size());
    Descriptor line(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    if (!line.IsOpen() || !SetTimeOut(line.Get())) {
        *ret_error = Failed("socket");
        return Descriptor();
    }
    int result = 0;
    do {
        result = connect(line.Get(), reinterpret_cast<const sockaddr *>(&address), sizeof(address));
    } while (result != 0 && errno == EINTR);
    if (result != 0) {
        *ret_error = Failed("connect");
        return Descriptor();
    }
    if (!PeerIsOurs(line.Get())) {
        *ret_error = kForeign;
        return Descriptor();
    }
    return line;
}

// Wait until something can be read, or the time is over.
bool WaitToRead(int fd)
{
    using Clock = std::chrono::steady_clock;
    const Clock::time_point deadline = Clock::now() + std::chrono::seconds(std::max(CONNTIMEOUT, 1));
    while (true) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
        pollfd waiting{fd, POLLIN, 0};
        const int ready = poll(&waiting, 1, static_cast<int>(std::max<long long>(left, 0)));
        if (ready > 0) {
            return true;
        }
        if (ready == 0) {
            errno = ETIMEDOUT;
            return false;
        }
        if (errno != EINTR) {
            return false;
        }
    }
}

// Every descriptor that came with a message.
std::vector<Descriptor> DescriptorsOf(msghdr *message)
{
    std::vector<Descriptor> descriptors;
    for (cmsghdr *part = CMSG_FIRSTHDR(message); part != nullptr; part = CMSG_NXTHDR(message, part)) {
        if (part->cmsg_level != SOL_SOCKET || part->cmsg_type != SCM_RIGHTS) {
            continue;
        }
        for (size_t at = CMSG_LEN(0); at + sizeof(int) <= part->cmsg_len; at += sizeof(int)) {
            int fd = -1;
            std::memcpy(&fd, reinterpret_cast<const char *>(part) + at, sizeof(fd));
            descriptors.emplace_back(fd);
        }
    }
    return descriptors;
}

// What is wrong with a message of so many bytes and descriptors; "" when nothing is.
std::string WhyUnfit(const char *bytes, size_t size, size_t descriptors, int flags)
{
    if (size == 0 && descriptors == 0) {
        return "the other side closed without handing anything over";
    }
    if ((flags & MSG_CTRUNC) != 0) {
        return "its descriptors could not all be taken";
    }
    if (descriptors != 1) {
        return std::to_string(descriptors) + " descriptors came instead of one";
    }
    if ((flags & MSG_TRUNC) != 0 || size == 0 || std::memchr(bytes, '\0', size) != bytes + size - 1) {
        return "its message is no text of at most " + std::to_string(kMaxHandOverText) + " bytes";
    }
    return "";
}

}  // namespace

Place AskForPlace(const std::string &path)
{
    Place place;
    Descriptor line = ConnectLine(path, &place.trouble);
    if (!line.IsOpen()) {
        return place;
    }
    int32_t number = 0;
    ssize_t n = 0;
    do {
        n = recv(line.Get(), &number, sizeof(number), 0);
    } while (n < 0 && errno == EINTR);
    if (n < 0) {
        place.trouble = Failed("recv");
    } else if (n != sizeof(number) || number < 0) {
        place.trouble = "the process there tells no place";
    } else if (number > 0) {
        place.number = number;
        place.line = std::move(line);
    }
    return place;
}

std::string HandOver(int line, int descriptor, const std::string &text)
{
    if (text.size() > kMaxHandOverText) {
        return "the message is longer than " + std::to_string(kMaxHandOverText) + " bytes";
    }
    std::string bytes = text;
    iovec part{bytes.data(), bytes.size() + 1};  // with its zero: a message of no bytes would read as an end
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    cmsghdr *rights = CMSG_FIRSTHDR(&message);
    rights->cmsg_level = SOL_SOCKET;
    rights->cmsg_type = SCM_RIGHTS;
    rights->cmsg_len = CMSG_LEN(sizeof(int));
    std::memcpy(CMSG_DATA(rights), &descriptor, sizeof(descriptor));
    ssize_t n = 0;
    do {
        n = sendmsg(line, &message, MSG_NOSIGNAL);
    } while (n < 0 && errno == EINTR);
    return n == static_cast<ssize_t>(part.iov_len) ? "" : Failed("sendmsg");
}

TakenConnection TakeHandOver(int line)
{
    TakenConnection taken;
    if (!PeerIsOurs(line)) {
        taken.trouble = kForeign;
        return taken;
    }
    std::array<char, kMaxHandOverText + 1> bytes;
    iovec part{bytes.data(), bytes.size()};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(kMostDescriptors * sizeof(int))> control;
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    ssize_t n = -1;
    do {
        n = WaitToRead(line) ? recvmsg(line, &message, MSG_CMSG_CLOEXEC | MSG_DONTWAIT) : -1;
    } while (n < 0 && (errno == EINTR || errno == EAGAIN));
    if (n < 0) {
        taken.trouble = Failed("recvmsg");
        return taken;
    }
    std::vector<Descriptor> descriptors = DescriptorsOf(&message);
    taken.trouble = WhyUnfit(bytes.data(), static_cast<size_t>(n), descriptors.size(), message.msg_flags);
    if (taken.trouble.empty()) {
        taken.text = bytes.data();
        taken.socket = std::move(descriptors.front());
    }
    return taken;
}

}  // namespace report_collect
