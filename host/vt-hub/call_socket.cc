#include "vt-hub/call_socket.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include <report-collect/hub_calls.h>

#include <veltrane/errors.h>
#include <veltrane/file_lib.h>
#include <veltrane/known_dirs.h>
#include <veltrane/logging.h>

namespace vthub {

namespace {

bool Fail(const std::string &path, const char *call)
{
    Log(LOG_LEVEL_ERR, "Could not wait for calls at '%s'. (%s: %s)", path.c_str(), call, GetErrorStr());
    return false;
}

}  // namespace

CallSocket::~CallSocket()
{
    if (!path_.empty()) {
        (void)unlink(path_.c_str());  // while the lock is held; one that stays is replaced by the next process
    }
}

bool CallSocket::Lock()
{
    const std::string path = std::string(GetStateDir()) + "/locks/hub_calls.lock";
    lock_ = veltrane::Descriptor(safe_open(path.c_str(), O_RDWR | O_CREAT));
    if (!lock_.IsOpen()) {
        return Fail(path, "open");
    }
    if (flock(lock_.Get(), LOCK_EX | LOCK_NB) == 0) {
        return true;
    }
    if (errno == EWOULDBLOCK) {
        Log(LOG_LEVEL_ERR, "Another vt-hub waits for calls in '%s' already", GetWorkDir());
        return false;
    }
    return Fail(path, "flock");
}

bool CallSocket::Open()
{
    const std::string path = report_collect::HubCallsPath();
    if (!Lock()) {
        return false;
    }
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path)) {
        errno = ENAMETOOLONG;
        return Fail(path, "bind");
    }
    path.copy(address.sun_path, path.size());
    veltrane::Descriptor listener(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!listener.IsOpen()) {
        return Fail(path, "socket");
    }
    if (unlink(path.c_str()) != 0 && errno != ENOENT) {
        return Fail(path, "unlink");
    }
    if (bind(listener.Get(), reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0) {
        return Fail(path, "bind");
    }
    path_ = path;
    // Nobody else gets into the directory either.
    if (chmod(path.c_str(), S_IRUSR | S_IWUSR) != 0 ||
        listen(listener.Get(), 2 * report_collect::kMaxWaitingCalls) != 0) {
        return Fail(path, "listen");
    }
    listener_ = std::move(listener);
    return true;
}

veltrane::Descriptor CallSocket::Accept() const
{
    while (true) {
        veltrane::Descriptor line(accept4(listener_.Get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (!line.IsOpen()) {
            if (errno == EINTR || errno == ECONNABORTED) {
                continue;
            }
            return line;
        }
        if (report_collect::PeerIsOurs(line.Get())) {
            return line;
        }
        Log(LOG_LEVEL_WARNING, "Refused a call that a process of another user announced");
    }
}

}  // namespace vthub
