// A collect call on loopback, from the moment that the host wakes up to the hub's query in its hands: the hub's two
// processes are the real programs, the host is this one.
#include <netinet/tcp.h>
#include <openssl/ssl.h>

#include <cstring>
#include <ctime>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

#include <veltrane/globals.h>
#include <veltrane/known_dirs.h>
#include <veltrane/net.h>
#include <veltrane/string_lib.h>

#include "bench/bare_tls.h"
#include "bench/figure.h"
#include "libveltrane/server_handshake.h"
#include "libveltrane/tls_context.h"
#include "libvtserverd/collect_call_hub.h"
#include "support/calling_site.h"
#include "support/sockets.h"

namespace {

using bench::Cost;
using bench::Side;
using bench::Work;
using veltrane::SslPtr;

constexpr char kRequest[] = "SCALLBACK CALL_ME_BACK collect_calls";
constexpr char kQuery[] = "QUERY delta 0 1700000000";

void Add(Cost *sum, const Cost &cost)
{
    sum->wall_seconds += cost.wall_seconds;
    sum->cpu_seconds += cost.cpu_seconds;
}

// Call, be called back, and read the query; what is measured ends there.
veltrane::AcceptedPeer CallOnce(Cost *sum, Descriptor *ret_socket)
{
    const bench::Stopwatch watch;
    std::optional<AcceptedCall> call = CallHub();
    if (!call) {
        throw std::runtime_error("the hub takes no call");
    }
    veltrane::AcceptedPeer hub = veltrane::AcceptPeer(call->socket.Get());
    char request[VT_BUFSIZE];
    if (hub.connection == nullptr || ReceiveTransaction(hub.connection.get(), request, nullptr) <= 0 ||
        strncmp(request, "QUERY delta ", strlen("QUERY delta ")) != 0) {
        throw std::runtime_error("no query came");
    }
    Add(sum, watch.Stop());
    *ret_socket = std::move(call->socket);
    return hub;
}

// The smallest reply that is whole.
void Answer(ConnectionInfo *hub)
{
    constexpr char kHeader[] = "VTR: 0 1700000000 0";
    constexpr char kCompletion[] = "QUERY complete";
    if (SendTransaction(hub, kHeader, sizeof(kHeader), 'm') != 0 ||
        SendTransaction(hub, kCompletion, sizeof(kCompletion), 't') != 0) {
        throw std::runtime_error("no reply sent");
    }
}

Cost CallTheHub(const Work &work)
{
    CallingSite site;
    if (!site.StartHubDaemon() || !site.StartListening({"--raw"})) {
        throw std::runtime_error("no hub");
    }
    SetWorkDir(site.Host().c_str());
    StringCopy(site.port.c_str(), VELTRANE_PORT_STR, sizeof(VELTRANE_PORT_STR));
    vtnet_Init();
    Cost sum;
    for (size_t i = 0; i < work.size; ++i) {
        Descriptor socket;
        const veltrane::AcceptedPeer hub = CallOnce(&sum, &socket);
        Answer(hub.connection.get());
    }
    vtnet_Shut();
    return sum;
}

// Without it each message would wait for the other side's acknowledgement of the one before.
void SendAtOnce(int fd)
{
    const int on = 1;
    (void)setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
}

template <size_t size>
void Write(const SslPtr &ssl, const char (&text)[size])
{
    if (SSL_write(ssl.get(), text, size) != size) {
        throw std::runtime_error("nothing written");
    }
}

template <size_t size>
void Read(const SslPtr &ssl, const char (&expected)[size])
{
    char text[size];
    if (SSL_read(ssl.get(), text, size) != size || memcmp(text, expected, size) != 0) {
        throw std::runtime_error("nothing read");
    }
}

// The same messages between two threads: handshake, request, answer, handshake in the other direction, query.
Cost TalkBare(const Work &work)
{
    const ForeignHost host;
    const ForeignHost hub;
    const LoopbackListener listener;
    std::thread hub_side([&] {
        for (size_t i = 0; i < work.size; ++i) {
            const Descriptor fd = listener.Accept();
            SendAtOnce(fd.Get());
            {
                const SslPtr called = bench::BareHandshake(hub.contexts->server.get(), fd.Get(), true);
                Read(called, kRequest);
                Write(called, {1, 0, 0, 0});
            }
            const SslPtr calling = bench::BareHandshake(hub.contexts->client.get(), fd.Get(), false);
            Write(calling, kQuery);
            char end = 0;
            (void)recv(fd.Get(), &end, 1, 0);
        }
    });
    Cost sum;
    for (size_t i = 0; i < work.size; ++i) {
        const bench::Stopwatch watch;
        const Descriptor fd = ConnectLoopback(listener.port);
        SendAtOnce(fd.Get());
        {
            const SslPtr calling = bench::BareHandshake(host.contexts->client.get(), fd.Get(), false);
            Write(calling, kRequest);
            Read(calling, {1, 0, 0, 0});
        }
        const SslPtr called = bench::BareHandshake(host.contexts->server.get(), fd.Get(), true);
        Read(called, kQuery);
        Add(&sum, watch.Stop());
    }
    hub_side.join();
    return sum;
}

const bench::Job kJobs[] = {{"collect_call.programs", CallTheHub}, {"collect_call.bare", TalkBare}};

// A hundred calls, so that the table's seconds read as tens of milliseconds a call: 5 s would be 50 ms each.
const bench::Figure kFigure = {
    .title = "100 collect calls, each from the host's waking up to the hub's query (5 s are 50 ms a call)",
    .peer_title = "the same two TLS handshakes and messages between two threads",
    .ratio = bench::Ratio::time,
    .bound = 10,
    .size = 100,
    .ours = [](const Work &work) -> Side { return {bench::JobCommand("collect_call.programs", work)}; },
    .peer = [](const Work &work) -> Side { return {bench::JobCommand("collect_call.bare", work)}; },
};

void CallingTheHub(benchmark::State &state) { bench::Measure(state, kFigure); }
BENCHMARK(CallingTheHub)->Arg(100)->Iterations(1)->Repetitions(7)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace
