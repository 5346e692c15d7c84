// Peers that are silent, slow, half gone, too large, mad, too many, or pretend to be somebody else. Each is refused or
// given up, the daemon stays as small as it was, and the next honest hub is answered.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/resource.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "support/peers.h"
#include "support/site.h"

namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;

constexpr long kMoreMemory = 48 * 1024;  // KiB that a crowd of peers may cost
constexpr char kGreeting[] = "HELLO 4";

class Peers : public testing::Test {
  protected:
    // time_out  seconds that the daemon gives a peer for each step
    // promises  of the policy, beside those that admit the hub to reports
    void Start(int time_out = 1, const std::string &control = "", const std::string &promises = "")
    {
        std::string policy = control.empty() ? "" : "control:\n  server:\n" + control;
        policy += "bundles:\n  - server: reports\n    promises:\n";
        for (const char *word : {"delta", "rebase"}) {
            policy += std::string("      - access: ") + word + "\n        resource: query\n        admit_keys: [\"" +
                      site.hub_key + "\"]\n";
        }
        site.WritePolicy(policy + promises);
        ASSERT_TRUE(site.TrustEachOther());
        options.insert(options.end(), {"--timeout", std::to_string(time_out)});
        ASSERT_TRUE(site.StartDaemon(options)) << site.daemon->Err();
        port = site.address.substr(site.address.rfind(':') + 1);
        hub_key = ReadPrivateKey(site.Hub() / "keys/host.priv");
        ASSERT_NE(hub_key, nullptr);
        idle_threads = Threads();
        ExpectAHubIsAnswered();
        idle_memory = Memory();
        ASSERT_TRUE(Eventually([this] { return IsIdle(); }));
    }

    void TearDown() override
    {
        ExpectAHubIsAnswered();
        EXPECT_TRUE(Eventually([this] { return IsIdle(); })) << Threads() << " threads are left";
        EXPECT_LT(Memory(), idle_memory + kMoreMemory);
    }

    void ExpectAHubIsAnswered() const
    {
        const ProcessResult result = site.Collect("delta", {"--raw"});
        EXPECT_EQ(result.status, 0) << result.err << site.daemon->Err();
        EXPECT_THAT(result.out, testing::StartsWith("VTR: "));
    }

    long Threads() const { return ProcessNumber(site.daemon->Pid(), "Threads"); }
    long Memory() const { return ProcessNumber(site.daemon->Pid(), "VmRSS"); }
    bool IsIdle() const { return Threads() <= idle_threads; }
    bool Says(const std::string &line) { return site.daemon->WaitForLine(line); }

    // A base state far beyond what the sockets between two processes hold.
    void MakeLargeState() const
    {
        std::filesystem::create_directories(site.Host() / "state/previous_state");
        std::string rows;
        for (int i = 0; i < 200'000; ++i) {
            rows += "class_number_" + std::to_string(i) + ",\"inventory,attribute_name=none,source=agent\"\r\n";
        }
        WriteFile(site.Host() / "state/previous_state/classes.cache", rows);
    }

    Site site;
    std::vector<std::string> options{"--verbose"};  // of the daemon
    std::string port;
    veltrane::KeyPtr hub_key;
    long idle_threads = 0;
    long idle_memory = 0;
};

std::string Transaction(char status, size_t length, const std::string &payload)
{
    return std::string{status, static_cast<char>(length >> 16), static_cast<char>(length >> 8),
                       static_cast<char>(length)} +
           payload;
}

// A byte every tenth of a second until the other side ends the connection; false when it never does.
bool SendSlowlyUntilEnded(int fd, const std::function<bool(char)> &send_byte, const std::string &bytes)
{
    for (int i = 0; i < 100; ++i) {
        if (!send_byte(bytes[static_cast<size_t>(i) % bytes.size()]) || IsEnded(fd, 100ms)) {
            return true;
        }
    }
    return false;
}

TEST_F(Peers, SilentOnesAreGivenUpAtEachStep)
{
    Start();
    const Descriptor before_the_handshake = ConnectLoopback(port);
    TlsPeer after_it(hub_key.get());
    TlsPeer after_the_greeting(hub_key.get());
    ASSERT_TRUE(after_it.Connect(port));
    ASSERT_EQ(after_the_greeting.ConnectAndGreet(port), veltrane::kHighestWireProtocol);
    EXPECT_TRUE(IsEnded(before_the_handshake.Get()));
    EXPECT_TRUE(IsEnded(after_it.fd.Get()));
    EXPECT_TRUE(IsEnded(after_the_greeting.fd.Get()));
}

TEST_F(Peers, AHandshakeAByteAtATimeIsGivenUp)
{
    Start();
    const Descriptor fd = ConnectLoopback(port);
    // A TLS record that holds the begin of a client's greeting of 512 bytes.
    const std::string begin = std::string("\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03", 11) + std::string(500, 'r');
    std::size_t next = 0;
    EXPECT_TRUE(SendSlowlyUntilEnded(
        fd.Get(), [&](char) { return SendBytes(fd.Get(), begin.substr(next++ % begin.size(), 1)); }, begin));
}

TEST_F(Peers, ATransactionAByteAtATimeIsGivenUp)
{
    Start();
    TlsPeer peer(hub_key.get());
    ASSERT_GT(peer.ConnectAndGreet(port), 0);
    const std::string request = Transaction('t', 4000, std::string(4000, 'q'));
    std::size_t next = 0;
    EXPECT_TRUE(SendSlowlyUntilEnded(
        peer.fd.Get(), [&](char) { return peer.SendInside(request.substr(next++, 1)); }, request));
}

TEST_F(Peers, HalfClosedOnesAreClosedAtOnce)
{
    Start(60);
    const Descriptor before = ConnectLoopback(port);
    shutdown(before.Get(), SHUT_WR);
    EXPECT_TRUE(IsEnded(before.Get()));

    TlsPeer after(hub_key.get());
    ASSERT_TRUE(after.Connect(port));
    shutdown(after.fd.Get(), SHUT_WR);
    EXPECT_TRUE(IsEnded(after.fd.Get()));

    TlsPeer greeted(hub_key.get());
    ASSERT_GT(greeted.ConnectAndGreet(port), 0);
    ASSERT_TRUE(greeted.SendInside(Transaction('t', 100, "half a req")));
    shutdown(greeted.fd.Get(), SHUT_WR);
    EXPECT_TRUE(IsEnded(greeted.fd.Get()));
}

TEST_F(Peers, VanishedOnesAreGivenUpAtOnceWhereverTheyWere)
{
    MakeLargeState();
    Start(60);
    Descriptor before = ConnectLoopback(port);
    Vanish(&before);
    TlsPeer after(hub_key.get());
    ASSERT_TRUE(after.Connect(port));
    Vanish(&after.fd);
    TlsPeer amid_a_reply(hub_key.get());
    ASSERT_GT(amid_a_reply.ConnectAndGreet(port), 0);
    ASSERT_TRUE(amid_a_reply.SendInside(Transaction('t', 16, "QUERY rebase 0 0")));
    char payload[VT_BUFSIZE];
    ASSERT_GT(ReceiveTransaction(amid_a_reply.info.get(), payload, nullptr), 0);
    Vanish(&amid_a_reply.fd);
    EXPECT_TRUE(Eventually([this] { return IsIdle(); }, 10s));
    idle_memory += 4 * kMoreMemory;  // what the large reply was made in; the allocator keeps some of it
}

TEST_F(Peers, ATransactionOf4097BytesEndsTheConnection)
{
    Start(60);
    TlsPeer peer(hub_key.get());
    ASSERT_GT(peer.ConnectAndGreet(port), 0);
    ASSERT_TRUE(peer.SendInside(Transaction('t', 4097, std::string(4097, 'x'))));
    EXPECT_TRUE(IsEnded(peer.fd.Get()));
}

TEST_F(Peers, AGreetingTooLongToBeOneEndsTheConnection)
{
    Start(60);
    TlsPeer peer(hub_key.get());
    ASSERT_TRUE(peer.Connect(port));
    ASSERT_TRUE(peer.SendInside(Transaction('t', 4096, std::string(4096, '9'))));
    EXPECT_TRUE(IsEnded(peer.fd.Get()));
}

TEST_F(Peers, ARequestThatNeverEndsIsNotListenedTo)
{
    Start(60);
    TlsPeer peer(hub_key.get());
    ASSERT_GT(peer.ConnectAndGreet(port), 0);
    const std::string more = Transaction('m', 4096, std::string(4096, 'x'));
    int sent = 0;
    while (sent < 100'000 && peer.SendInside(more)) { ++sent; }
    EXPECT_LT(sent, 100'000);
    EXPECT_TRUE(IsEnded(peer.fd.Get()));
}

TEST_F(Peers, AHandshakeMessageThatNeverEndsIsNotGathered)
{
    Start(60);
    const Descriptor fd = ConnectLoopback(port);
    // A client's greeting that announces 16 MiB, in records of 16 KiB.
    std::string record = std::string("\x16\x03\x01\x40\x00", 5) + std::string(16384, '\0');
    record.replace(5, 4, std::string("\x01\xff\xff\xff", 4));
    int sent = 0;
    while (sent < 1024 && SendBytes(fd.Get(), record)) { ++sent; }
    EXPECT_LT(sent, 1024);
    EXPECT_TRUE(IsEnded(fd.Get()));
}

TEST_F(Peers, WordsOfOtherProtocolsAreNoHandshake)
{
    Start(60);
    const std::vector<std::string> rubbish = {
        Transaction('t', 7, kGreeting),                                  // this one without TLS
        Transaction('t', 33, "CAUTH 127.0.0.1 hub.example root "),       // one from before TLS
        "SSH-2.0-OpenSSH_9.2\r\n",                                       // a lost login
        std::string("\x80\x2e\x01\x00\x02\x00\x15\x00\x00\x00\x10", 11)  // the TLS before TLS had a name
            + std::string(60, '\1'),
        std::string("\x15\x03\x03\x00\x02\x02\x28", 7),  // an alert as the first word
        std::string(5000, '\0'),
        std::string(5000, '\xff'),
    };
    for (size_t i = 0; i < rubbish.size(); ++i) {
        const Descriptor fd = ConnectLoopback(port);
        ASSERT_TRUE(SendBytes(fd.Get(), rubbish[i]));
        EXPECT_TRUE(IsEnded(fd.Get())) << "rubbish " << i;
    }
}

TEST_F(Peers, RubbishWhereAGreetingOrARequestBelongsEndsTheConnection)
{
    Start(60);
    const std::vector<std::string> rubbish = {std::string(100, '\0'),           std::string(100, '\xff'),
                                              Transaction('x', 4, "QUER"),      Transaction('t', 0, ""),
                                              Transaction('t', 9, "GET / HTT"), "GET / HTTP/1.1\r\n\r\n"};
    for (size_t i = 0; i < rubbish.size(); ++i) {
        TlsPeer before_the_greeting(hub_key.get());
        ASSERT_TRUE(before_the_greeting.Connect(port));
        ASSERT_TRUE(before_the_greeting.SendInside(rubbish[i]));
        EXPECT_TRUE(IsEnded(before_the_greeting.fd.Get())) << "rubbish " << i;
        TlsPeer after_it(hub_key.get());
        ASSERT_GT(after_it.ConnectAndGreet(port), 0);
        ASSERT_TRUE(after_it.SendInside(rubbish[i]));
        EXPECT_TRUE(IsEnded(after_it.fd.Get())) << "rubbish " << i;
    }
}

TEST_F(Peers, BytesAmidTheTlsStreamEndTheConnection)
{
    Start(60);
    TlsPeer peer(hub_key.get());
    ASSERT_GT(peer.ConnectAndGreet(port), 0);
    ASSERT_TRUE(SendBytes(peer.fd.Get(), "\x17\x03\x03" + std::string("\x00\x20", 2) + std::string(32, 'x')));
    EXPECT_TRUE(IsEnded(peer.fd.Get()));
}

class Crowd : public Peers {
  protected:
    Crowd()
    {
        rlimit limit{};
        getrlimit(RLIMIT_NOFILE, &limit);
        limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, 4096);
        setrlimit(RLIMIT_NOFILE, &limit);
        most_peers = limit.rlim_cur >= 2100 ? 2000 : static_cast<int>(limit.rlim_cur) - 100;
    }

    int most_peers = 0;
    std::vector<Descriptor> crowd;
};

TEST_F(Crowd, ThousandsOfSilentPeersAtOneAddressLeaveRoomForTheHub)
{
    Start(5);
    for (int i = 0; i < most_peers; ++i) { crowd.push_back(ConnectFrom(2, port)); }
    ASSERT_TRUE(Says("Closed a connection from 127.0.0.2 at once: 100 are open already from there"));
    ExpectAHubIsAnswered();
    EXPECT_LE(Threads(), idle_threads + 101);
    EXPECT_LT(Memory(), idle_memory + kMoreMemory);
    for (const Descriptor &peer : crowd) { EXPECT_TRUE(IsEnded(peer.Get(), 20s)); }
}

TEST_F(Crowd, ThousandsOfSilentPeersEverywhereAreGivenUpAtTheTimeOut)
{
    Start(3);
    for (int i = 0; i < most_peers; ++i) { crowd.push_back(ConnectFrom(2 + i % 40, port)); }
    ASSERT_TRUE(Says(" at once: 200 are open already"));
    EXPECT_LE(Threads(), idle_threads + 200);
    EXPECT_LT(Memory(), idle_memory + kMoreMemory);
    for (const Descriptor &peer : crowd) { EXPECT_TRUE(IsEnded(peer.Get(), 20s)); }
    ASSERT_TRUE(Eventually([this] { return IsIdle(); }));
}

TEST_F(Crowd, OneConnectionAtLeastIsEveryAddresss)
{
    Start(3, "    max_connections: 1\n");
    const Descriptor only = ConnectFrom(2, port);
    const Descriptor further = ConnectFrom(3, port);
    EXPECT_TRUE(IsEnded(further.Get(), 1s)) << "closed at once: the first has its place";
    EXPECT_TRUE(IsEnded(only.Get()));
    ASSERT_TRUE(Eventually([this] { return IsIdle(); }));
}

TEST_F(Peers, AKeyFileUnderAnothersNameTrustsNobody)
{
    Start(60);
    const ForeignHost stranger;
    const ForeignHost another;
    const veltrane::FilePtr file(fopen((site.Host() / "keys" / (stranger.identity + ".pub")).c_str(), "w"));
    ASSERT_NE(file, nullptr);
    ASSERT_EQ(PEM_write_PUBKEY(file.get(), another.key.get()), 1);
    ASSERT_EQ(fflush(file.get()), 0);
    for (const ForeignHost *host : {&stranger, &another}) {
        TlsPeer peer(host->key.get());
        EXPECT_EQ(peer.ConnectAndGreet(port), -1);
        EXPECT_TRUE(Says("Refused a connection from 127.0.0.1: key " + host->identity + " is not trusted"));
    }
}

TEST_F(Peers, OnlyTheKeyOfACertificateCounts)
{
    Start(60);
    constexpr long kYear = 365 * 24 * 60 * 60;
    const ForeignHost stranger;
    EVP_PKEY *key = hub_key.get();
    const CertificatePtr expired = MakeCertificate(key, key, -2 * kYear, -kYear);
    const CertificatePtr not_yet_valid = MakeCertificate(key, key, kYear, 2 * kYear);
    const CertificatePtr signed_by_a_stranger = MakeCertificate(key, stranger.key.get(), -60, kYear);
    for (const CertificatePtr *certificate : {&expired, &not_yet_valid, &signed_by_a_stranger}) {
        TlsPeer peer(key, certificate->get());
        EXPECT_EQ(peer.ConnectAndGreet(port), veltrane::kHighestWireProtocol);
    }
    const CertificatePtr signed_by_the_hub = MakeCertificate(stranger.key.get(), key, -60, kYear);
    TlsPeer pretender(stranger.key.get(), signed_by_the_hub.get());
    EXPECT_EQ(pretender.ConnectAndGreet(port), -1) << "a trusted key vouches for no other";
    EXPECT_TRUE(Says("key " + stranger.identity + " is not trusted"));
}

TEST_F(Peers, WithoutACertificateThereIsNoConnection)
{
    Start(60);
    TlsPeer peer(hub_key.get());
    peer.context.reset(SSL_CTX_new(TLS_client_method()));
    EXPECT_EQ(peer.ConnectAndGreet(port), -1);
    EXPECT_TRUE(Says("No handshake with 127.0.0.1"));
}

TEST_F(Peers, TlsOlderThan12IsRefused)
{
    Start(60);
    for (const int version : {TLS1_VERSION, TLS1_1_VERSION}) {
        TlsPeer peer(hub_key.get());
        SSL_CTX_set_security_level(peer.context.get(), 0);  // else the client itself would refuse
        SSL_CTX_set_min_proto_version(peer.context.get(), TLS1_VERSION);
        SSL_CTX_set_max_proto_version(peer.context.get(), version);
        EXPECT_FALSE(peer.Connect(port)) << version;
        EXPECT_TRUE(IsEnded(peer.fd.Get()));
    }
    TlsPeer peer(hub_key.get());
    SSL_CTX_set_max_proto_version(peer.context.get(), TLS1_2_VERSION);
    EXPECT_GT(peer.ConnectAndGreet(port), 0);
}

TEST_F(Peers, AProtocolOlderThanTheOldestIsRefusedInWords)
{
    Start(60);
    for (const int version : {0, 1}) {
        TlsPeer peer(hub_key.get());
        ASSERT_TRUE(peer.Connect(port));
        ASSERT_EQ(veltrane::SendHello(peer.info.get(), version), 0);
        char payload[VT_BUFSIZE];
        ASSERT_GT(ReceiveTransaction(peer.info.get(), payload, nullptr), 0);
        EXPECT_STREQ(payload, "BAD: no common protocol version");
        EXPECT_TRUE(IsEnded(peer.fd.Get()));
    }
}

TEST_F(Peers, NoSessionIsKeptAndNoneNegotiatedAnew)
{
    Start(60);
    for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
        TlsPeer peer(hub_key.get());
        SSL_CTX_set_max_proto_version(peer.context.get(), version);
        ASSERT_GT(peer.ConnectAndGreet(port), 0);
        EXPECT_EQ(SSL_SESSION_has_ticket(SSL_get0_session(peer.Ssl())), 0);
        EXPECT_EQ(SSL_session_reused(peer.Ssl()), 0);
    }
    TlsPeer peer(hub_key.get());
    SSL_CTX_set_max_proto_version(peer.context.get(), TLS1_2_VERSION);
    ASSERT_GT(peer.ConnectAndGreet(port), 0);
    (void)SSL_renegotiate(peer.Ssl());
    EXPECT_NE(SSL_do_handshake(peer.Ssl()), 1);
}

TEST_F(Peers, AReaderThatStopsAmidALargeReplyIsGivenUp)
{
    MakeLargeState();
    Start(2);
    TlsPeer peer(hub_key.get());
    ASSERT_GT(peer.ConnectAndGreet(port), 0);
    ASSERT_TRUE(peer.SendInside(Transaction('t', 16, "QUERY rebase 0 0")));
    char payload[VT_BUFSIZE];
    ASSERT_GT(ReceiveTransaction(peer.info.get(), payload, nullptr), 0);
    ExpectAHubIsAnswered();
    EXPECT_TRUE(Says("Failed send. (send: Connection timed out)"));
    EXPECT_TRUE(Eventually([this] { return IsIdle(); }));
    idle_memory += 4 * kMoreMemory;  // what the large reply was made in; the allocator keeps some of it
}

class AskersOfValues : public Peers {
  protected:
    void Start()
    {
        const std::string value(4000, 'v');
        options.clear();  // it would say each value
        Peers::Start(1, "",
                     "      - access: \"" + value + "\"\n        resource: literal\n        handle: h\n" +
                         "        admit_keys: [\"" + site.hub_key + "\"]\n");
        peer = std::make_unique<TlsPeer>(hub_key.get());
        ASSERT_EQ(peer->ConnectAndGreet(port), veltrane::kHighestWireProtocol);
    }

    std::unique_ptr<TlsPeer> peer;
};

TEST_F(AskersOfValues, WhoReadNoneOfThemAreGivenUp)
{
    Start();
    // Until neither side's buffers hold more, and the daemon waits in the middle of an answer.
    const timeval moment{0, 100'000};
    setsockopt(peer->fd.Get(), SOL_SOCKET, SO_SNDTIMEO, &moment, sizeof(moment));
    const std::string request = Transaction('t', 5, "VAR h");
    int sent = 0;
    while (sent < 1'000'000 && peer->SendInside(request)) { ++sent; }
    EXPECT_LT(sent, 1'000'000) << "it reads no further request while its answer is not taken";
    ASSERT_TRUE(Eventually([this] { return IsIdle(); }));
}

TEST_F(AskersOfValues, WhoseRequestIsCutOffAreGivenUp)
{
    Start();
    ASSERT_TRUE(peer->SendInside(Transaction('t', 5, "VAR ")));
    EXPECT_TRUE(IsEnded(peer->fd.Get()));
}

TEST_F(AskersOfValues, WhoseRequestHas4097BytesAreClosed)
{
    Start();
    ASSERT_TRUE(peer->SendInside(Transaction('t', 4097, "VAR " + std::string(4093, 'h'))));
    EXPECT_TRUE(IsEnded(peer->fd.Get()));
}

TEST_F(AskersOfValues, WhoseHandleFillsARequestAreRefusedInWords)
{
    Start();
    ASSERT_TRUE(peer->SendInside(Transaction('t', 4096, "VAR " + std::string(4092, 'h'))));
    char answer[VT_BUFSIZE];
    const int length = ReceiveTransaction(peer->info.get(), answer, nullptr);
    ASSERT_GT(length, 0);
    EXPECT_EQ(std::string(answer, static_cast<size_t>(length)), "BAD: this is no handle of a value");
}

TEST(TimeOutOption, IsANumberOfSecondsUpToAnHour)
{
    const Site site;
    for (const char *program : {"vt-serverd", "vt-hub"}) {
        const std::filesystem::path workdir = site.Host();
        for (const char *wrong : {"0", "3601", "-1", "x", ""}) {
            EXPECT_EQ(site.Run(program, workdir, {"--timeout", wrong, "key"}).status, 2) << program << " " << wrong;
        }
        EXPECT_EQ(site.Run(program, workdir, {"--timeout", "3600", "key"}).status, 0) << program;
        EXPECT_THAT(site.Run(program, workdir, {"--help"}).out, HasSubstr("--timeout"));
    }
}

TEST(TimeOutOption, AHubGivesASilentHostUpByIt)
{
    const Site site;
    const LoopbackListener silent;
    const ProcessResult result =
        site.Run("vt-hub", site.Hub(), {"collect", "127.0.0.1:" + silent.port, "--type", "delta", "--timeout", "1"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("no answer"));
}

}  // namespace
