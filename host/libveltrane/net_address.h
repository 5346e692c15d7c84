// Host names, addresses and listening sockets.
#ifndef HOST_LIBVELTRANE_NET_ADDRESS_H
#define HOST_LIBVELTRANE_NET_ADDRESS_H

#include <netdb.h>
#include <sys/socket.h>

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include <veltrane/owned.h>

namespace veltrane {

using AddressListPtr = std::unique_ptr<addrinfo, Destroyer<freeaddrinfo>>;

// The stream addresses of a host and a numeric port; NULL, with errno, when there are none.
//
// flags  of getaddrinfo, for instance AI_PASSIVE
AddressListPtr ResolveHost(const char *host, const char *port, int family, int flags);

// The numeric text of an address, without its port; an IPv4 address inside IPv6 is written as IPv4. "" for none.
std::string AddressText(const sockaddr *address, socklen_t length);

// The same of the peer of a socket; "" for a socket that has none or is no internet one.
std::string PeerAddress(int fd);

// Which network a numeric address counts for where peers are counted: an IPv4 address for itself, an IPv6 address for
// all that share its first 64 bits. Bytes to compare, no text; "" when the address is malformed.
std::string NetworkOf(std::string_view address);

// Whether a numeric address lies in an address or a network "address/bits"; false when either is malformed.
bool AddressIn(std::string_view address, std::string_view network);

// Whether text is an address or a network that AddressIn understands.
bool IsAddressOrNetwork(std::string_view text);

// Open the listening socket of a daemon: close-on-exec, non-blocking (a peer that goes away before accept must not
// hold it), SO_REUSEADDR.
//
// queue_size    connections that may wait for accept
// bind_address  an address or name; NULL or "" = every address of the machine, IPv6 and IPv4 alike
// port          numeric; "0" = any free one
// Result        its descriptor, or -1 with errno
int OpenListeningSocket(size_t queue_size, const char *bind_address, const char *port);

// The same in two steps, for a program that binds while it still has the right to and listens later: bound but silent,
// and then listening. -1, or false, with errno.
int OpenBoundSocket(const char *bind_address, const char *port);
[[nodiscard]] bool Listen(int fd, size_t queue_size);

// "<address>:<port>" that a socket is bound to, IPv6 addresses in brackets; "" when it has none.
std::string LocalAddressAndPort(int fd);

}  // namespace veltrane

#endif
