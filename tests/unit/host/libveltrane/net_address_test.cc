#include "libveltrane/net_address.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include <veltrane/net.h>
#include <veltrane/owned.h>

#include "support/log_capture.h"
#include "support/sockets.h"
#include "support/work_dir.h"

namespace {

using testing::IsEmpty;
using veltrane::AddressIn;
using veltrane::TextPtr;

std::string Split(std::string text)
{
    char *host = nullptr;
    char *port = nullptr;
    ParseHostPort(text.data(), &host, &port);
    return std::string(host) + "|" + (port != nullptr ? port : "(none)");
}

TEST(HostAndPort, TheLastColonOutsideBracketsSplits)
{
    EXPECT_EQ(Split("hub"), "hub|(none)");
    EXPECT_EQ(Split("hub:6127"), "hub|6127");
    EXPECT_EQ(Split("10.0.0.1:1"), "10.0.0.1|1");
    EXPECT_EQ(Split("[::1]:6127"), "::1|6127");
    EXPECT_EQ(Split("[::1]"), "::1|(none)");
    EXPECT_EQ(Split("[fe80::1%eth0]:2"), "fe80::1%eth0|2");
    EXPECT_EQ(Split("a:b:c"), "a:b|c");
    EXPECT_EQ(Split(":6127"), "|6127");
    EXPECT_EQ(Split("hub:"), "hub|(none)") << "nothing after the colon is no port";
    EXPECT_EQ(Split(""), "|(none)");
    EXPECT_EQ(Split("["), "[|(none)");
    EXPECT_EQ(Split("[::1"), "[::1|(none)") << "an open bracket hides every colon";
}

TEST(ProtocolPolicy, NamesAndNumbersAreRead)
{
    LogCapture log;
    EXPECT_EQ(ParseProtocolVersionPolicy("classic"), VT_PROTOCOL_CLASSIC);
    EXPECT_EQ(ParseProtocolVersionPolicy("1"), VT_PROTOCOL_CLASSIC);
    EXPECT_EQ(ParseProtocolVersionPolicy("tls"), VT_PROTOCOL_TLS);
    EXPECT_EQ(ParseProtocolVersionPolicy("2"), VT_PROTOCOL_TLS);
    EXPECT_EQ(ParseProtocolVersionPolicy("cookie"), VT_PROTOCOL_COOKIE);
    EXPECT_EQ(ParseProtocolVersionPolicy("3"), VT_PROTOCOL_COOKIE);
    EXPECT_EQ(ParseProtocolVersionPolicy("filestream"), VT_PROTOCOL_FILESTREAM);
    EXPECT_EQ(ParseProtocolVersionPolicy("latest"), VT_PROTOCOL_FILESTREAM);
    EXPECT_EQ(ParseProtocolVersionPolicy("4"), VT_PROTOCOL_FILESTREAM);
    EXPECT_EQ(ParseProtocolVersionPolicy(nullptr), VT_PROTOCOL_UNDEFINED);
    EXPECT_EQ(ParseProtocolVersionPolicy(""), VT_PROTOCOL_UNDEFINED);
    EXPECT_EQ(ParseProtocolVersionPolicy("undefined"), VT_PROTOCOL_UNDEFINED);
    EXPECT_THAT(log.lines, IsEmpty());
}

TEST(ProtocolPolicy, AnythingElseIsUndefinedAndAnError)
{
    for (const std::string text : {"5", "0", "TLS", "tls ", "newest"}) {
        LogCapture log;
        EXPECT_EQ(ParseProtocolVersionPolicy(text.c_str()), VT_PROTOCOL_UNDEFINED);
        EXPECT_TRUE(log.Has(LOG_LEVEL_ERR, "Unknown protocol version '" + text + "'"));
    }
}

std::string HubAddress(const WorkDirectory &work, const std::string &bytes)
{
    WriteFile(work.path / "hub_address", bytes);
    const TextPtr address(PolicyServerGetIP());
    return address != nullptr ? address.get() : "(none)";
}

TEST(HubAddress, TheFirstLineOfTheFileCounts)
{
    const WorkDirectory work;
    EXPECT_EQ(PolicyServerGetIP(), nullptr) << "no file";
    EXPECT_EQ(HubAddress(work, "127.0.0.9\n127.0.0.8\n"), "127.0.0.9");
    EXPECT_EQ(HubAddress(work, " 127.0.0.9\t\r\n"), "127.0.0.9");
    EXPECT_EQ(HubAddress(work, "::1"), "::1");
    EXPECT_EQ(HubAddress(work, ""), "(none)");
    EXPECT_EQ(HubAddress(work, "\n127.0.0.9\n"), "(none)");
    EXPECT_EQ(HubAddress(work, "127.0.0.1.1.1.1.."), "(none)") << "a name that no resolver takes";
}

TEST(HubAddress, LocalhostIsPassedOnAsItStands)
{
    const WorkDirectory work;
    EXPECT_EQ(HubAddress(work, "localhost\n"), "localhost");
}

TEST(Networks, AnAddressLiesInItselfAndInItsNetworks)
{
    EXPECT_TRUE(AddressIn("10.1.2.3", "10.1.2.3"));
    EXPECT_TRUE(AddressIn("10.1.2.3", "10.0.0.0/8"));
    EXPECT_TRUE(AddressIn("10.1.2.3", "10.1.2.200/24")) << "host bits of the network do not matter";
    EXPECT_TRUE(AddressIn("10.1.2.3", "0.0.0.0/0"));
    EXPECT_TRUE(AddressIn("10.1.2.3", "10.1.2.2/31"));
    EXPECT_TRUE(AddressIn("2001:db8::5", "2001:db8::/32"));
    EXPECT_TRUE(AddressIn("fe80::1%eth0", "fe80::/10"));
    EXPECT_TRUE(AddressIn("::ffff:10.1.2.3", "10.0.0.0/8"));
}

TEST(Networks, AnAddressOutsideDoesNot)
{
    EXPECT_FALSE(AddressIn("10.1.2.3", "10.1.2.4"));
    EXPECT_FALSE(AddressIn("10.1.2.3", "10.1.2.4/30"));
    EXPECT_FALSE(AddressIn("11.0.0.1", "10.0.0.0/8"));
    EXPECT_FALSE(AddressIn("2001:db9::5", "2001:db8::/32"));
    EXPECT_FALSE(AddressIn("2001:db8::5", "0.0.0.0/0")) << "every IPv4 address is no IPv6 one";
}

TEST(Networks, WhatIsMalformedHoldsNobody)
{
    for (const std::string network : {"", "10.0.0", "10.0.0.0/33", "10.0.0.0/-1", "10.0.0.0/", "10.0.0.0/8x",
                                      "10.0.0.0/ 8", "::/129", "any", "10.0.0.0 /8", "/8"}) {
        EXPECT_FALSE(AddressIn("10.0.0.1", network)) << network;
        EXPECT_FALSE(veltrane::IsAddressOrNetwork(network)) << network;
    }
    EXPECT_FALSE(AddressIn("", "0.0.0.0/0"));
    EXPECT_FALSE(AddressIn("hub.example.org", "0.0.0.0/0"));
    EXPECT_TRUE(veltrane::IsAddressOrNetwork("10.0.0.0/8"));
}

TEST(Listening, AFreePortIsFoundAndSaid)
{
    const Descriptor fd(veltrane::OpenListeningSocket(8, "127.0.0.1", "0"));
    ASSERT_GE(fd.Get(), 0);
    const std::string where = veltrane::LocalAddressAndPort(fd.Get());
    EXPECT_THAT(where, testing::MatchesRegex("127\\.0\\.0\\.1:[1-9][0-9]*"));
    const Descriptor peer = ConnectLoopback(where.substr(where.find(':') + 1));
    const Descriptor accepted(accept(fd.Get(), nullptr, nullptr));
    EXPECT_EQ(veltrane::PeerAddress(accepted.Get()), "127.0.0.1");
}

TEST(Listening, WithoutAnAddressBothFamiliesAreTaken)
{
    for (const char *any : {static_cast<const char *>(nullptr), ""}) {
        const Descriptor fd(veltrane::OpenListeningSocket(8, any, "0"));
        ASSERT_GE(fd.Get(), 0);
        const std::string where = veltrane::LocalAddressAndPort(fd.Get());
        const Descriptor peer = ConnectLoopback(where.substr(where.rfind(':') + 1));
        const Descriptor accepted(accept(fd.Get(), nullptr, nullptr));
        EXPECT_EQ(veltrane::PeerAddress(accepted.Get()), "127.0.0.1") << "IPv4 is written as IPv4";
    }
}

TEST(Listening, AnAddressOfIpv6StandsInBrackets)
{
    const Descriptor fd(veltrane::OpenListeningSocket(8, "::1", "0"));
    if (fd.Get() < 0) {
        EXPECT_THAT(errno, testing::AnyOf(EADDRNOTAVAIL, EAFNOSUPPORT)) << "only a machine without IPv6 may fail";
        return;
    }
    EXPECT_THAT(veltrane::LocalAddressAndPort(fd.Get()), testing::MatchesRegex("\\[::1\\]:[1-9][0-9]*"));
}

TEST(Listening, ATakenPortAndABadAddressFailWithTheReason)
{
    const LoopbackListener taken;
    EXPECT_EQ(veltrane::OpenListeningSocket(8, "127.0.0.1", taken.port.c_str()), -1);
    EXPECT_EQ(errno, EADDRINUSE);
    EXPECT_EQ(veltrane::OpenListeningSocket(8, "127.0.0.1.1.1.1..", "0"), -1);
    EXPECT_EQ(errno, EHOSTUNREACH);
}

TEST(Listening, AcceptingNeverWaits)
{
    const Descriptor fd(veltrane::OpenListeningSocket(8, "127.0.0.1", "0"));
    EXPECT_EQ(accept(fd.Get(), nullptr, nullptr), -1);
    EXPECT_EQ(errno, EAGAIN);
}

TEST(Addresses, ASocketPairHasNone)
{
    const SocketPair sockets;
    EXPECT_EQ(veltrane::PeerAddress(sockets.ours.Get()), "");
    EXPECT_EQ(veltrane::LocalAddressAndPort(sockets.ours.Get()), "");
    EXPECT_EQ(veltrane::PeerAddress(-1), "");
}

TEST(NetworkOf, AnIpv4AddressIsItsOwnNetwork)
{
    EXPECT_NE(veltrane::NetworkOf("10.0.0.1"), veltrane::NetworkOf("10.0.0.2"));
    EXPECT_EQ(veltrane::NetworkOf("10.0.0.1"), veltrane::NetworkOf("10.0.0.1"));
}

TEST(NetworkOf, Ipv6AddressesWithTheSame64BitsAreOneNetwork)
{
    EXPECT_EQ(veltrane::NetworkOf("2001:db8::1"), veltrane::NetworkOf("2001:db8::ffff:1"));
    EXPECT_NE(veltrane::NetworkOf("2001:db8::1"), veltrane::NetworkOf("2001:db8:0:1::1"));
    EXPECT_EQ(veltrane::NetworkOf("fe80::1%lo"), veltrane::NetworkOf("fe80::2"));
    EXPECT_NE(veltrane::NetworkOf("::1"), veltrane::NetworkOf("127.0.0.1"));
}

TEST(NetworkOf, WhatIsNoAddressHasNone)
{
    EXPECT_EQ(veltrane::NetworkOf(""), "");
    EXPECT_EQ(veltrane::NetworkOf("localhost"), "");
}

TEST(Listening, ABoundSocketAnswersNobodyUntilItListens)
{
    const Descriptor fd(veltrane::OpenBoundSocket("127.0.0.1", "0"));
    const std::string address = veltrane::LocalAddressAndPort(fd.Get());
    const std::string port = address.substr(address.rfind(':') + 1);
    EXPECT_THROW(ConnectLoopback(port), std::runtime_error);
    ASSERT_TRUE(veltrane::Listen(fd.Get(), 8));
    EXPECT_NO_THROW(ConnectLoopback(port));
    EXPECT_FALSE(veltrane::Listen(-1, 8));
}

}  // namespace
