#include "libveltrane/socket_io.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <climits>

#include <veltrane/globals.h>

namespace veltrane {

namespace {

using Clock = std::chrono::steady_clock;

struct SocketBio {
    int fd;
    std::optional<Deadline> deadline;
    int error = 0;
    bool at_end = false;
};

SocketBio *StateOf(BIO *bio) { return static_cast<SocketBio *>(BIO_get_data(bio)); }

int BioRead(BIO *bio, char *buffer, size_t size, size_t *ret_read)
{
    SocketBio *state = StateOf(bio);
    BIO_clear_retry_flags(bio);
    const ssize_t n = ReadSocket(state->fd, buffer, size, state->deadline.value_or(TransactionDeadline()));
    *ret_read = n > 0 ? static_cast<size_t>(n) : 0;
    if (n < 0) {
        state->error = errno;
    } else if (n == 0) {
        state->at_end = true;
    }
    return n > 0 ? 1 : static_cast<int>(n);  // an end is told from a failure, as by OpenSSL's own
}

int BioWrite(BIO *bio, const char *bytes, size_t size, size_t *ret_written)
{
    SocketBio *state = StateOf(bio);
    BIO_clear_retry_flags(bio);
    const bool written = WriteSocket(state->fd, bytes, size, state->deadline.value_or(TransactionDeadline()));
    *ret_written = written ? size : 0;
    if (!written) {
        state->error = errno;
    }
    return written ? 1 : 0;
}

long BioControl(BIO *bio, int command, long, void *pointer)
{
    SocketBio *state = StateOf(bio);
    switch (command) {
        case BIO_C_GET_FD:
            if (pointer != nullptr) {
                *static_cast<int *>(pointer) = state->fd;
            }
            return state->fd;
        case BIO_CTRL_EOF:
            return state->at_end ? 1 : 0;
        case BIO_CTRL_FLUSH:
            return 1;
        default:
            return 0;
    }
}

int BioDestroy(BIO *bio)
{
    delete StateOf(bio);
    BIO_set_data(bio, nullptr);
    return 1;
}

int TypeNumber()
{
    static const int number = BIO_get_new_index() | BIO_TYPE_SOURCE_SINK | BIO_TYPE_DESCRIPTOR;
    return number;
}

BIO_METHOD *MakeMethod()
{
    BIO_METHOD *method = BIO_meth_new(TypeNumber(), "socket");
    if (method != nullptr) {
        BIO_meth_set_read_ex(method, BioRead);
        BIO_meth_set_write_ex(method, BioWrite);
        BIO_meth_set_ctrl(method, BioControl);
        BIO_meth_set_destroy(method, BioDestroy);
    }
    return method;
}

// One for the process; it lives as long as any BIO may.
const BIO_METHOD *Method()
{
    static const BIO_METHOD *const method = MakeMethod();
    return method;
}

bool WouldBlock(int error) { return error == EAGAIN || error == EWOULDBLOCK; }

bool DeadlinePassed(Deadline deadline)
{
    if (Clock::now() < deadline) {
        return false;
    }
    errno = ETIMEDOUT;
    return true;
}

}  // namespace

Deadline TransactionDeadline() { return Clock::now() + std::chrono::seconds(std::max(CONNTIMEOUT, 1)); }

bool WaitForSocket(int fd, short events, Deadline deadline)
{
    while (true) {
        // Rounded up: a wait that ends a fraction early would spin.
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
        if (left <= 0) {
            errno = ETIMEDOUT;
            return false;
        }
        pollfd waiting{fd, events, 0};
        const int ready = poll(&waiting, 1, static_cast<int>(std::min<long long>(left, INT_MAX)));
        if (ready > 0) {
            return true;  // an error or a hang-up as well: the next read or write says which
        }
        if (ready < 0 && errno != EINTR) {
            return false;
        }
    }
}

ssize_t ReadSocket(int fd, void *buffer, size_t size, Deadline deadline)
{
    while (!DeadlinePassed(deadline)) {
        const ssize_t n = recv(fd, buffer, size, MSG_DONTWAIT);
        if (n >= 0) {
            return n;
        }
        if (errno == EINTR) {
            continue;
        }
        if (!WouldBlock(errno) || !WaitForSocket(fd, POLLIN, deadline)) {
            return -1;
        }
    }
    return -1;
}

bool WriteSocket(int fd, const void *bytes, size_t size, Deadline deadline)
{
    const char *next = static_cast<const char *>(bytes);
    const char *const end = next + size;
    while (next < end) {
        if (DeadlinePassed(deadline)) {
            return false;
        }
        const ssize_t n = send(fd, next, static_cast<size_t>(end - next), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (n >= 0) {
            next += n;
        } else if (errno != EINTR && (!WouldBlock(errno) || !WaitForSocket(fd, POLLOUT, deadline))) {
            return false;
        }
    }
    return true;
}

BIO *SocketBioNew(int fd)
{
    BIO *bio = Method() != nullptr ? BIO_new(Method()) : nullptr;
    if (bio != nullptr) {
        BIO_set_data(bio, new SocketBio{fd, std::nullopt});
        BIO_set_init(bio, 1);
    }
    return bio;
}

bool IsSocketBio(BIO *bio) { return bio != nullptr && BIO_method_type(bio) == TypeNumber(); }

void SocketBioSetDeadline(BIO *bio, std::optional<Deadline> deadline) { StateOf(bio)->deadline = deadline; }

int SocketBioError(BIO *bio) { return StateOf(bio)->error; }

}  // namespace veltrane
