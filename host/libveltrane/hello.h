// The first words on a new connection: the TLS client says the highest protocol version it speaks, the server answers
// with the one to use, the lower of both.
//
//   client  't' "HELLO <highest>"
//   server  't' "HELLO <agreed>"     2 to 4
//
// A version below 2 has no wire form: there is no common protocol then.
#ifndef HOST_LIBVELTRANE_HELLO_H
#define HOST_LIBVELTRANE_HELLO_H

#include <veltrane/net.h>

#include <string_view>

namespace veltrane {

constexpr int kLowestWireProtocol = VT_PROTOCOL_TLS;
constexpr int kHighestWireProtocol = VT_PROTOCOL_FILESTREAM;

// The number of a HELLO, 0 to 9999; -1 when the text is none.
int ParseHello(std::string_view text);

// Send a HELLO. 0, or -1 with errno.
int SendHello(ConnectionInfo *info, int version);

// Receive a HELLO and hand back its number, or -1 when the text is none. The result is false, with errno, when nothing
// came at all.
[[nodiscard]] bool ReceiveHello(ConnectionInfo *info, int *ret_version);

}  // namespace veltrane

#endif
