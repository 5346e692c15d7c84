// Looking up values that another host publishes, one connection a look-up: both ends in one process, over loopback.
#include <netinet/tcp.h>
#include <openssl/ssl.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>

#include <veltrane/eval_context.h>
#include <veltrane/net.h>
#include <veltrane/owned.h>

#include "bench/bare_tls.h"
#include "bench/figure.h"
#include "libveltrane/server_connection.h"
#include "libveltrane/server_handshake.h"
#include "libveltrane/tls_context.h"
#include "libvtenterprise/entry_points_real.h"
#include "support/sockets.h"

namespace {

using bench::Cost;
using bench::Side;
using bench::Work;
using veltrane::SslPtr;

constexpr std::string_view kRequest = "VAR site_network";
constexpr std::string_view kValue = "10.2.0.1/24";

// The server's side of one look-up.
using Serve = std::function<void(int fd)>;

// The time of all look-ups, whose server takes one connection after the other.
Cost TimeLookUps(const Work &work, const LoopbackListener &listener, const Serve &serve,
                 const std::function<void()> &look_up)
{
    std::thread server([&] {
        for (size_t i = 0; i < work.size; i++) {
            const Descriptor fd = listener.Accept();
            serve(fd.Get());
        }
    });
    const bench::Stopwatch watch;
    for (size_t i = 0; i < work.size; i++) { look_up(); }
    const Cost cost = watch.Stop();
    server.join();
    return cost;
}

// A server as the daemon is one, but for its decision who may read what.
void ServeValue(int fd)
{
    const veltrane::AcceptedPeer peer = veltrane::AcceptPeer(fd);
    if (peer.connection == nullptr) {
        return;  // the look-up fails, and that is an error of the job
    }
    char payload[VT_BUFSIZE];
    while (ReceiveTransaction(peer.connection.get(), payload, nullptr) >= 0) {
        (void)SendTransaction(peer.connection.get(), kValue.data(), static_cast<int>(kValue.size()), 't');
    }
}

// A look-up as the policy function makes it, which closes what the plug-in left open.
Cost LookUpScalars(const Work &work)
{
    bench::EnterHost(work);
    vtnet_Init();
    const veltrane::EvalContextPtr ctx(EvalContextNew());
    const LoopbackListener listener;
    const std::string server = "127.0.0.1:" + listener.port;
    return TimeLookUps(work, listener, ServeValue, [&] {
        char word[] = "VAR";
        char handle[] = "site_network";
        char value[VT_BUFSIZE + 1] = {};
        const veltrane::ConnectionScope scope;
        if (GetRemoteScalar__real(ctx.get(), word, handle, server.c_str(), 0, value) != value || value != kValue) {
            throw std::runtime_error("not the value");
        }
    });
}

// Without it each look-up waits for an acknowledgement that the other side is in no hurry to send.
void SendAtOnce(int fd)
{
    const int on = 1;
    (void)setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
}

// The same certificates, and nothing between the request and OpenSSL.
Cost ConnectBarely(const Work &work)
{
    bench::EnterHost(work);
    vtnet_Init();
    const std::shared_ptr<const veltrane::TlsContexts> contexts = veltrane::CurrentTlsContexts();
    const LoopbackListener listener;
    const auto serve = [&](int fd) {
        SendAtOnce(fd);
        const SslPtr ssl = bench::BareHandshake(contexts->server.get(), fd, true);
        char message[VT_BUFSIZE];
        while (SSL_read(ssl.get(), message, sizeof(message)) > 0) {
            (void)SSL_write(ssl.get(), kValue.data(), static_cast<int>(kValue.size()));
        }
    };
    return TimeLookUps(work, listener, serve, [&] {
        const Descriptor fd = ConnectLoopback(listener.port);
        SendAtOnce(fd.Get());
        const SslPtr ssl = bench::BareHandshake(contexts->client.get(), fd.Get(), false);
        char message[VT_BUFSIZE];
        const bool sent = SSL_write(ssl.get(), kRequest.data(), static_cast<int>(kRequest.size())) > 0;
        const int received = sent ? SSL_read(ssl.get(), message, sizeof(message)) : -1;
        if (received < 0 || std::string_view(message, static_cast<size_t>(received)) != kValue) {
            throw std::runtime_error("not the value");
        }
        (void)SSL_shutdown(ssl.get());
    });
}

const bench::Job kJobs[] = {{"remote_lookup.scalars", LookUpScalars}, {"remote_lookup.bare", ConnectBarely}};

const bench::Figure kFigure = {
    .title = "2,000 remote look-ups over TLS on loopback, one connection each",
    .peer_title = "the same connect, send, receive, close in a bare OpenSSL loop",
    .bound = 0.4,
    .size = 2'000,
    .ours = [](const Work &work) -> Side { return {bench::JobCommand("remote_lookup.scalars", work)}; },
    .peer = [](const Work &work) -> Side { return {bench::JobCommand("remote_lookup.bare", work)}; },
};

void AtNumbersOfLookUps(benchmark::internal::Benchmark *b)
{
    b->Arg(200)->Arg(2'000);
    b->Iterations(1)->Repetitions(7)->UseManualTime()->Unit(benchmark::kMillisecond)->Complexity();
}

void LookingUpRemoteScalars(benchmark::State &state) { bench::Measure(state, kFigure); }
BENCHMARK(LookingUpRemoteScalars)->Apply(AtNumbersOfLookUps);

}  // namespace
