// vt-hub as an operator meets it: options, files, hosts that do not answer as they should.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "support/site.h"

using testing::ContainsRegex;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace {

ProcessResult RunHub(const Site &site, std::vector<std::string> arguments)
{
    return site.Run("vt-hub", site.Hub(), std::move(arguments));
}

ProcessResult ShowText(const Site &site, const std::string &stream, std::vector<std::string> arguments = {})
{
    const std::filesystem::path file = site.Hub() / "stream";
    WriteFile(file, stream);
    arguments.insert(arguments.begin(), {"show", file.string()});
    return RunHub(site, std::move(arguments));
}

TEST(Hub, WrongOptionsAreWrongUsage)
{
    Site site;
    EXPECT_EQ(RunHub(site, {}).status, 2);
    EXPECT_EQ(RunHub(site, {"collect"}).status, 2);
    EXPECT_EQ(RunHub(site, {"collect", "localhost"}).status, 2);
    EXPECT_EQ(RunHub(site, {"collect", "localhost", "--type", "weekly"}).status, 2);
    EXPECT_EQ(RunHub(site, {"collect", "localhost", "--type", "delta", "--since", "-5"}).status, 2);
    EXPECT_EQ(RunHub(site, {"frobnicate"}).status, 2);
}

TEST(Hub, HelpAndVersionAreNoFailure)
{
    Site site;
    const ProcessResult help = RunHub(site, {"--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_THAT(help.out, HasSubstr("collect"));
    const ProcessResult version = RunHub(site, {"--version"});
    EXPECT_EQ(version.status, 0);
    EXPECT_EQ(version.out, "Veltrane Core 3.27.0\nVeltrane Enterprise 3.27.0\n");
}

TEST(Hub, AHostThatIsNotThereIsAPlainError)
{
    Site site;
    const int taken = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);  // bound, not listening: connecting is refused
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(bind(taken, reinterpret_cast<sockaddr *>(&address), sizeof(address)), 0);
    socklen_t size = sizeof(address);
    ASSERT_EQ(getsockname(taken, reinterpret_cast<sockaddr *>(&address), &size), 0);

    const ProcessResult result =
        RunHub(site, {"collect", "127.0.0.1:" + std::to_string(ntohs(address.sin_port)), "--type", "delta"});

    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.out, IsEmpty());
    EXPECT_THAT(result.err, HasSubstr("Could not connect to '127.0.0.1': no answer. (connect: Connection refused)"));
    close(taken);
}

TEST(Hub, AHostWithAnotherKeyThanAskedForIsRefused)
{
    Site site;
    ASSERT_TRUE(site.TrustEachOther());
    site.SetPolicy("      - classes: a_class\n        expression: any\n");
    ASSERT_EQ(site.RunAgent().status, 0);
    ASSERT_TRUE(site.StartDaemon());

    const ProcessResult other = site.Collect("rebase", {"--key", "SHA=" + std::string(64, 'a')});
    const ProcessResult same = site.Collect("rebase", {"--key", site.host_key});

    EXPECT_EQ(other.status, 1);
    EXPECT_THAT(other.out, IsEmpty());
    EXPECT_EQ(same.status, 0) << same.err;
}

TEST(Hub, TrustIsListedAndTakenBack)
{
    Site site;
    ASSERT_EQ(RunHub(site, {"trust", "add", (site.Host() / "keys/host.pub").string()}).status, 0);
    EXPECT_THAT(RunHub(site, {"trust", "list"}).out, HasSubstr(site.host_key));
    ASSERT_EQ(RunHub(site, {"trust", "remove", site.host_key}).status, 0);
    EXPECT_THAT(RunHub(site, {"trust", "list"}).out, Not(HasSubstr(site.host_key)));
    EXPECT_EQ(RunHub(site, {"trust", "remove", site.host_key}).status, 1);
    EXPECT_EQ(RunHub(site, {"trust", "add", (site.Hub() / "no-such-file").string()}).status, 1);
    WriteFile(site.Hub() / "junk.pub", "this is no key\n");
    EXPECT_EQ(RunHub(site, {"trust", "add", (site.Hub() / "junk.pub").string()}).status, 1);
}

TEST(Hub, AFileThatIsNotThereIsAPlainError)
{
    Site site;
    const ProcessResult result = RunHub(site, {"show", (site.Hub() / "nothing").string()});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("No such file or directory"));
}

TEST(Hub, AStreamWithoutAHeaderIsRefused)
{
    Site site;
    const ProcessResult result = ShowText(site, "CLD\n1700000000,1,linux,\n");
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("Invalid header format in reporting data: 'CLD'"));
    EXPECT_THAT(result.out, IsEmpty());
}

TEST(Hub, ADumpWithRemarksIsShown)
{
    Site site;
    const ProcessResult result = ShowText(site,
                                          "# delta from 0 to 1700000000 at 1700000000\nVTR: 0 1700000000 27\nCLD\n"
                                          "1700000000,1,linux,\"a,b\"\n# send QUERY complete successful\n");
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_THAT(result.out, ContainsRegex("ADD +linux +a,b"));
}

TEST(Hub, ARowWithALineFeedInsideItsQuotesIsOneRow)
{
    Site site;
    const ProcessResult result =
        ShowText(site, "VTR: 0 1700000000 0\nVAD\n1700000000,1,,main,x,0,\"two\nlines\",\nCLD\n1700000000,1,linux,\n");
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_THAT(result.out, HasSubstr("two\\nlines"));
    EXPECT_THAT(result.out, ContainsRegex("ADD +linux"));
}

TEST(Hub, AnOpenQuoteAtTheEndIsNoWholeStream)
{
    Site site;
    const ProcessResult result = ShowText(site, "VTR: 0 1700000000 0\nCLD\n1700000000,1,\"linux,\n");
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("is no whole report stream: a quote stays open to its end"));
}

TEST(Hub, ControlBytesOfAHostNeverReachTheTerminal)
{
    Site site;
    const ProcessResult result = ShowText(site, "VTR: 0 1700000000 0\nCLD\n1700000000,1,\x1b[2Jcleared,\xff\n");
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_THAT(result.out, HasSubstr("\\x1b[2Jcleared"));
    EXPECT_THAT(result.out, HasSubstr("\\xff"));
    EXPECT_EQ(result.out.find('\x1b'), std::string::npos);
}

}  // namespace
