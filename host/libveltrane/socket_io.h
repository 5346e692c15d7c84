// Reading and writing a socket against a deadline, plainly or below a TLS object.
//
// No call here blocks in the kernel: each asks without waiting, then polls until the deadline. The deadline is looked
// at even while bytes keep coming, so that a peer that sends one byte a second ends at it like a silent one. Whether
// the descriptor itself blocks does not matter, and SIGPIPE is never raised.
#ifndef HOST_LIBVELTRANE_SOCKET_IO_H
#define HOST_LIBVELTRANE_SOCKET_IO_H

#include <openssl/bio.h>
#include <sys/types.h>

#include <chrono>
#include <optional>

namespace veltrane {

using Deadline = std::chrono::steady_clock::time_point;

// CONNTIMEOUT from now; one second when it is set to less.
Deadline TransactionDeadline();

// Wait until the socket is ready for events (POLLIN, POLLOUT). false with errno, ETIMEDOUT when the deadline came
// first.
bool WaitForSocket(int fd, short events, Deadline deadline);

// At least one byte; 0 at the end of the stream; -1 with errno.
ssize_t ReadSocket(int fd, void *buffer, size_t size, Deadline deadline);

// All size bytes. false with errno.
bool WriteSocket(int fd, const void *bytes, size_t size, Deadline deadline);

// A BIO over a socket that reads and writes by the rules above, so that OpenSSL takes it for a blocking one. It never
// closes the socket. Reads and writes end at the deadline that is set, and without one each at its own
// TransactionDeadline. new (NULL without memory); BIO_free, or the TLS object that takes it over, ends it.
BIO *SocketBioNew(int fd);

// Whether bio was made by SocketBioNew.
bool IsSocketBio(BIO *bio);
void SocketBioSetDeadline(BIO *bio, std::optional<Deadline> deadline);

// errno of the last failed read or write; 0 when none failed.
int SocketBioError(BIO *bio);

}  // namespace veltrane

#endif
