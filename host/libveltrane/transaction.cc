// Transactions: what travels between hosts.
//
//   byte   0       status letter: 'm' more follows, 't' done
//   bytes  1 to 3  length of the payload, most significant first, 0 to 4096
//   then           the payload
//
// Over TLS, transactions with status 'm' are gathered until they fill a record; 't' sends all there is, so that between
// two messages nothing waits on either side. A flush that fails is reported by the call that flushes. Each write has
// its time-out, and all of a message together the time of its SendPace.
#include <openssl/err.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <string>
#include <utility>

#include <veltrane/net.h>

#include "libveltrane/connection_info.h"
#include "libveltrane/socket_io.h"

namespace {

using veltrane::Deadline;

constexpr size_t kHeaderSize = 4;
constexpr size_t kRecordSize = 16384;  // most that one TLS record carries

// Lends the BIO below a TLS object a deadline for one transaction.
class DeadlineBelow {
  public:
    DeadlineBelow(SSL *ssl, Deadline deadline) : bio_(SSL_get_rbio(ssl))
    {
        if (veltrane::IsSocketBio(bio_)) {
            veltrane::SocketBioSetDeadline(bio_, deadline);
        }
    }
    ~DeadlineBelow()
    {
        if (veltrane::IsSocketBio(bio_)) {
            veltrane::SocketBioSetDeadline(bio_, std::nullopt);
        }
    }
    DeadlineBelow(const DeadlineBelow &) = delete;
    DeadlineBelow &operator=(const DeadlineBelow &) = delete;

    // errno of what made a call on the TLS object fail with result; 0 when the peer closed in good order.
    int ErrorOf(SSL *ssl, int result) const
    {
        switch (SSL_get_error(ssl, result)) {
            case SSL_ERROR_ZERO_RETURN:
                return 0;
            case SSL_ERROR_SYSCALL: {
                const int error = veltrane::IsSocketBio(bio_) ? veltrane::SocketBioError(bio_) : errno;
                return error != 0 ? error : ECONNRESET;
            }
            case SSL_ERROR_SSL:
                return ERR_GET_REASON(ERR_peek_error()) == SSL_R_UNEXPECTED_EOF_WHILE_READING ? ECONNRESET : EPROTO;
            default:
                return EPROTO;
        }
    }

  private:
    BIO *bio_;
};

// Fail a call on a connection that is ended, or end it now.
int Fail(ConnectionInfo *info, int error)
{
    veltrane::ConnectionEnd(info, error);
    errno = info->internal->failure;
    return -1;
}

// 0, or errno.
int WriteTls(SSL *ssl, const char *bytes, size_t size, Deadline deadline)
{
    const DeadlineBelow below(ssl, deadline);
    ERR_clear_error();
    size_t written = 0;
    const int result = SSL_write_ex(ssl, bytes, size, &written);
    if (result == 1 && written == size) {
        return 0;
    }
    const int error = below.ErrorOf(ssl, result);
    ERR_clear_error();
    return error != 0 ? error : EPIPE;
}

// Write bytes of the message under way. 0, or errno.
int WriteAtPace(ConnectionInfoInternal_ *internal, const char *bytes, size_t size)
{
    const auto begin = std::chrono::steady_clock::now();
    const Deadline time_out = veltrane::TransactionDeadline();
    const Deadline deadline = std::min(time_out, begin + internal->pace.TimeFor(size, time_out - begin));
    int error = 0;
    if (internal->ssl != nullptr) {
        error = WriteTls(internal->ssl.get(), bytes, size, deadline);
    } else if (!veltrane::WriteSocket(internal->socket, bytes, size, deadline)) {
        error = errno;
    }
    internal->pace.Sent(size, std::chrono::steady_clock::now() - begin);
    return error;
}

// Send what is gathered: only whole records, or all of it. 0, or errno.
int Flush(ConnectionInfoInternal_ *internal, bool all)
{
    size_t sent = 0;
    int error = 0;
    while (error == 0 && internal->gathered.size() - sent >= kRecordSize) {
        error = WriteAtPace(internal, internal->gathered.data() + sent, kRecordSize);
        sent += kRecordSize;
    }
    if (error == 0 && all && sent < internal->gathered.size()) {
        error = WriteAtPace(internal, internal->gathered.data() + sent, internal->gathered.size() - sent);
        sent = internal->gathered.size();
    }
    internal->gathered.erase(0, sent);
    return error;
}

// Fetch the next record's bytes. One read a record, not one a transaction: that is most of the cost of short ones. It
// takes nothing beyond the record, which a sender ends with each message. 0, or errno.
int FetchRecord(ConnectionInfoInternal_ *internal, Deadline deadline, bool *ret_closed)
{
    SSL *ssl = internal->ssl.get();
    if (internal->record == nullptr) {
        internal->record = std::make_unique<char[]>(kRecordSize);
    }
    const DeadlineBelow below(ssl, deadline);
    ERR_clear_error();
    size_t n = 0;
    const int result = SSL_read_ex(ssl, internal->record.get(), kRecordSize, &n);
    if (result == 1) {
        internal->record_begin = 0;
        internal->record_end = n;
        return 0;
    }
    const int error = below.ErrorOf(ssl, result);
    ERR_clear_error();
    *ret_closed = error == 0 || error == ECONNRESET;
    return error != 0 ? error : ECONNRESET;
}

int ReadTls(ConnectionInfoInternal_ *internal, char *buffer, size_t size, Deadline deadline, bool *ret_closed)
{
    for (size_t done = 0; done < size;) {
        if (internal->record_begin == internal->record_end) {
            bool closed = false;
            if (const int error = FetchRecord(internal, deadline, &closed); error != 0) {
                *ret_closed = closed && done == 0;
                return error;
            }
        }
        const size_t n = std::min(size - done, internal->record_end - internal->record_begin);
        memcpy(buffer + done, internal->record.get() + internal->record_begin, n);
        internal->record_begin += n;
        done += n;
    }
    return 0;
}

int ReadPlain(int fd, char *buffer, size_t size, Deadline deadline, bool *ret_closed)
{
    for (size_t done = 0; done < size;) {
        const ssize_t n = veltrane::ReadSocket(fd, buffer + done, size - done, deadline);
        if (n <= 0) {
            const int error = n == 0 ? ECONNRESET : errno;
            *ret_closed = done == 0 && error == ECONNRESET;
            return error;
        }
        done += static_cast<size_t>(n);
    }
    return 0;
}

// All size bytes of the stream. 0 when they came, errno when not; *ret_closed: the stream ended before the first.
int ReadStream(ConnectionInfoInternal_ *internal, char *buffer, size_t size, Deadline deadline, bool *ret_closed)
{
    return internal->ssl != nullptr ? ReadTls(internal, buffer, size, deadline, ret_closed)
                                    : ReadPlain(internal->socket, buffer, size, deadline, ret_closed);
}

// Why a connection cannot be used, as errno; 0 when it can.
int Unusable(const ConnectionInfoInternal_ *internal)
{
    if (internal->failure != 0) {
        return internal->failure;
    }
    return internal->ssl == nullptr && internal->socket < 0 ? ENOTCONN : 0;
}

}  // namespace

extern "C" {

int SendTransaction(ConnectionInfo *info, const char *buffer, int length, char status)
{
    if (length < 0 || length > VT_BUFSIZE || (status != 'm' && status != 't')) {
        errno = EINVAL;
        return -1;
    }
    ConnectionInfoInternal_ *internal = info->internal;
    if (internal->before_next_send) {
        std::exchange(internal->before_next_send, nullptr)();
    }
    if (const int error = Unusable(internal); error != 0) {
        errno = error;
        return -1;
    }
    internal->at_rest = false;
    const char header[kHeaderSize] = {status, static_cast<char>(length >> 16), static_cast<char>(length >> 8),
                                      static_cast<char>(length)};
    internal->gathered.append(header, sizeof(header));
    if (length > 0) {
        internal->gathered.append(buffer, static_cast<size_t>(length));
    }
    int error = 0;
    if (internal->ssl != nullptr) {
        error = Flush(internal, status == 't');
    } else {
        error = WriteAtPace(internal, internal->gathered.data(), internal->gathered.size());
        internal->gathered.clear();
    }
    if (status == 't') {
        internal->pace.Restart();
    }
    return error == 0 ? 0 : Fail(info, error);
}

int ReceiveTransaction(ConnectionInfo *info, char *buffer, bool *ret_more)
{
    ConnectionInfoInternal_ *internal = info->internal;
    if (const int error = Unusable(internal); error != 0) {
        errno = error;
        return -1;
    }
    // One deadline for the whole transaction, so that a peer cannot stretch it byte by byte.
    const Deadline deadline = veltrane::TransactionDeadline();
    std::array<unsigned char, kHeaderSize> header{};
    bool closed = false;
    int error = ReadStream(internal, reinterpret_cast<char *>(header.data()), header.size(), deadline, &closed);
    if (error != 0) {
        internal->peer_closed = closed;
        return Fail(info, error);
    }
    const size_t length = static_cast<size_t>(header[1]) << 16 | static_cast<size_t>(header[2]) << 8 | header[3];
    if ((header[0] != 'm' && header[0] != 't') || length > VT_BUFSIZE) {
        return Fail(info, EPROTO);
    }
    error = ReadStream(internal, buffer, length, deadline, &closed);
    if (error != 0) {
        return Fail(info, error);
    }
    if (length < VT_BUFSIZE) {
        buffer[length] = '\0';
    }
    internal->at_rest = header[0] == 't';
    if (ret_more != nullptr) {
        *ret_more = header[0] == 'm';
    }
    return static_cast<int>(length);
}

}  // extern "C"
