// Transactions over a socket pair, both roles. Received: any bytes end in whole messages or an end of the connection.
// Sent: any cutting of the input into messages arrives as the same messages.
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <veltrane/globals.h>
#include <veltrane/net.h>
#include <veltrane/owned.h>

#include "fuzz/fuzz_support.h"

namespace {

using ConnectionInfoPtr = std::unique_ptr<ConnectionInfo, veltrane::Destroyer<ConnectionInfoDestroy>>;

// Two ends of a connection with room for a whole input in between.
struct Pair {
    Pair()
    {
        Require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0);
        const int room = 1 << 20;
        Require(setsockopt(ends[0], SOL_SOCKET, SO_SNDBUF, &room, sizeof(room)) == 0);
    }
    ~Pair()
    {
        close(ends[0]);
        close(ends[1]);
    }
    int ends[2];
};

ConnectionInfoPtr Over(int fd)
{
    ConnectionInfoPtr info(ConnectionInfoNew());
    ConnectionInfoSetSocket(info.get(), fd);
    ConnectionInfoSetProtocolVersion(info.get(), VT_PROTOCOL_FILESTREAM);
    return info;
}

void Receive(const uint8_t *data, size_t size)
{
    Pair pair;
    Require(write(pair.ends[0], data, size) == static_cast<ssize_t>(size));
    shutdown(pair.ends[0], SHUT_WR);
    const ConnectionInfoPtr info = Over(pair.ends[1]);
    char payload[VT_BUFSIZE];
    bool more = false;
    size_t taken = 0;
    for (int length = 0; (length = ReceiveTransaction(info.get(), payload, &more)) != -1;) {
        Require(length >= 0 && length <= VT_BUFSIZE);
        taken += 4 + static_cast<size_t>(length);
    }
    Require(taken <= size);
}

// The first byte of what is left says how long the next message is, in sixteens.
std::vector<std::string> Cut(const uint8_t *data, size_t size)
{
    std::vector<std::string> messages;
    while (size > 0) {
        const size_t length = std::min<size_t>(size - 1, std::min<size_t>(data[0] * 16U, VT_BUFSIZE));
        messages.emplace_back(reinterpret_cast<const char *>(data + 1), length);
        data += 1 + length;
        size -= 1 + length;
    }
    return messages;
}

void Send(const std::vector<std::string> &messages)
{
    Pair pair;
    const ConnectionInfoPtr sender = Over(pair.ends[0]);
    const ConnectionInfoPtr receiver = Over(pair.ends[1]);
    for (const std::string &message : messages) {
        Require(SendTransaction(sender.get(), message.data(), static_cast<int>(message.size()), 'm') == 0);
    }
    Require(SendTransaction(sender.get(), "end", 3, 't') == 0);
    char payload[VT_BUFSIZE];
    bool more = false;
    for (const std::string &message : messages) {
        Require(ReceiveTransaction(receiver.get(), payload, &more) == static_cast<int>(message.size()) && more);
        Require(std::memcmp(payload, message.data(), message.size()) == 0);
    }
    Require(ReceiveTransaction(receiver.get(), payload, &more) == 3 && !more);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzWorkDirectory();
    CONNTIMEOUT = 60;  // nobody is waited for; a machine that is too busy must not look like a finding
    size = std::min<size_t>(size, 64 * 1024);
    Receive(data, size);
    Send(Cut(data, size));
    return 0;
}
