// A packed reply on its way from a server daemon to a hub: TLS 1.3 over loopback, both ends in one process.
#include <openssl/ssl.h>

#include <cstring>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

#include <veltrane/alloc.h>
#include <veltrane/net.h>
#include <veltrane/owned.h>

#include "bench/bare_tls.h"
#include "bench/figure.h"
#include "libveltrane/server_handshake.h"
#include "libveltrane/tls_context.h"
#include "libvtserverd/server.h"
#include "support/sockets.h"

namespace {

using bench::Cost;
using bench::Side;
using bench::Work;
using veltrane::SslPtr;
using AgentPtr = std::unique_ptr<AgentConnection, veltrane::Destroyer<DisconnectServer>>;
using ServerPtr = std::unique_ptr<ServerConnectionState, veltrane::Destroyer<ServerConnectionStateDestroy>>;

// A line and the zero that ends it: what one message carries.
constexpr int kMessageSize = bench::kReportLineLength + 1;

veltrane::SeqPtr PackedReply(size_t size)
{
    veltrane::SeqPtr lines(SeqNew(size, free));
    for (size_t i = 0; i < size; i++) { SeqAppend(lines.get(), xstrdup(bench::ReportLine(i).c_str())); }
    return lines;
}

void CheckProtocol(SSL *ssl)
{
    if (SSL_version(ssl) != TLS1_3_VERSION || SSL_get0_peer_certificate(ssl) == nullptr) {
        throw std::runtime_error("not a mutual TLS 1.3 connection");
    }
}

// The time from the first byte sent to the last one received.
Cost Transfer(const std::function<bool()> &send, const std::function<size_t()> &receive, size_t size)
{
    const bench::Stopwatch watch;
    bool sent = false;
    std::thread sender([&] { sent = send(); });
    const size_t received = receive();
    sender.join();
    const Cost cost = watch.Stop();
    if (!sent || received != size) {
        throw std::runtime_error("lines are missing");
    }
    return cost;
}

// The lines received up to the completion of the reply.
size_t ReceiveReply(ConnectionInfo *info)
{
    char message[VT_BUFSIZE];
    bool more = true;
    size_t lines = 0;
    while (ReceiveTransaction(info, message, &more) >= 0 && more) { lines++; }
    return lines;
}

// A connection as daemon and hub have it.
Cost SendTransactions(const Work &work)
{
    bench::EnterHost(work);
    vtnet_Init();
    const LoopbackListener listener;
    ServerPtr server;
    std::thread accepting([&] {
        Descriptor fd = listener.Accept();
        veltrane::AcceptedPeer peer = veltrane::AcceptPeer(fd.Get());
        if (peer.connection != nullptr) {
            (void)fd.Release();
            server.reset(ServerConnectionStateNew(peer.connection.release()));
        }
    });
    int error = 0;
    const AgentPtr hub(ServerConnection("127.0.0.1", listener.port.c_str(), nullptr, 10, {}, &error));
    accepting.join();
    if (hub == nullptr || server == nullptr) {
        throw std::runtime_error("no connection");
    }
    CheckProtocol(ConnectionInfoSSL(hub->conn_info));
    const veltrane::SeqPtr lines = PackedReply(work.size);
    return Transfer(
        [&] {
            ReportDump no_dump;
            return SendReply(server.get(), lines.get(), false, &no_dump);
        },
        [&] { return ReceiveReply(hub->conn_info); }, work.size);
}

// The same cipher and kind of key, and nothing between the lines and OpenSSL.
Cost WriteLineByLine(const Work &work)
{
    const ForeignHost host;
    const LoopbackListener listener;
    Descriptor server_fd;
    SslPtr server;
    std::thread accepting([&] {
        server_fd = listener.Accept();
        server = bench::BareHandshake(host.contexts->server.get(), server_fd.Get(), true);
    });
    const Descriptor hub_fd = ConnectLoopback(listener.port);
    const SslPtr hub = bench::BareHandshake(host.contexts->client.get(), hub_fd.Get(), false);
    accepting.join();
    CheckProtocol(hub.get());
    const veltrane::SeqPtr lines = PackedReply(work.size);
    return Transfer(
        [&] {
            bool sent = true;
            for (size_t i = 0; sent && i < work.size; i++) {
                sent = SSL_write(server.get(), SeqAt(lines.get(), i), kMessageSize) == kMessageSize;
            }
            return sent;
        },
        [&] {
            char message[VT_BUFSIZE];
            size_t received = 0;
            while (received < work.size && SSL_read(hub.get(), message, sizeof(message)) == kMessageSize) {
                received++;
            }
            return received;
        },
        work.size);
}

const bench::Job kJobs[] = {{"send_reply.transactions", SendTransactions}, {"send_reply.bare", WriteLineByLine}};

const bench::Figure kFigure = {
    .title = "1,000,000 report lines of 95 bytes over TLS 1.3 on loopback, packed to received",
    .peer_title = "one `SSL_write` a line in a bare loop",
    .bound = 3,
    .aim = 10,
    .size = 1'000'000,
    .ours = [](const Work &work) -> Side { return {bench::JobCommand("send_reply.transactions", work)}; },
    .peer = [](const Work &work) -> Side { return {bench::JobCommand("send_reply.bare", work)}; },
};

void SendingAReply(benchmark::State &state) { bench::Measure(state, kFigure); }
BENCHMARK(SendingAReply)->Apply(bench::AtGrowingSizes);

}  // namespace
