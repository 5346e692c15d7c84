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

TEST(Hub, ARowThatTravelsWithItsRecordEndIsOneRow)
{
    Site site;
    const ProcessResult result =
        ShowText(site, "VTR: 0 1700000000 0\nCLD\n1700000000,1,linux,\r\n\n1700000000,1,web,\r\n\n");
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_THAT(result.out, HasSubstr("CLD  classes, 2 rows"));
    EXPECT_THAT(result.out, Not(HasSubstr("\\r")));
}

// What a host sends beside its state.
constexpr char kLogsAndMeasurements[] =
    "VTR: 0 1700000000 0\n"
    "CNG\n1700000700,/etc/a \"name,P,mode 0600 set to 0644\n1700000400,/etc/motd,M,content, and more\n"
    "CND\n1700000400,/etc/motd,motd_ok,\"-,1,old\a+,1,new (TAB)\"\"text\"\"\a+,3,(TRUNCATED)\"\r\n\n"
    "1700000300,/etc/hosts,,odd\r\n\n"
    "MOM\nload_1m,0.250000,0.125000,0.500000,1700000300\n"
    "MOY\nload_1m,0.250000,0.125000,0.500000,1699833600\n"
    "MOH\nload_1m,4,7,9\n"
    "PLG\n1700000180,9f86d081,promises.vt,rel-1,114,default,main,files,/etc/motd,/default/"
    "main,motd_ok,[],[],42,ab,[]\n";

TEST(Hub, LogsAndMeasurementsAreTablesToo)
{
    Site site;
    const ProcessResult result = ShowText(site, kLogsAndMeasurements);

    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_THAT(result.out, HasSubstr("CNG  file changes, 2 rows"));
    EXPECT_THAT(result.out, HasSubstr("1700000700,/etc/a \"name,P,mode 0600 set to 0644"));
    EXPECT_THAT(result.out, ContainsRegex("/etc/motd +content +content  and more"));
    EXPECT_THAT(result.out, HasSubstr("CND  file differences, 2 rows"));
    EXPECT_THAT(result.out, ContainsRegex("  /etc/motd  .motd_ok.\n    - 1  old\n    \\+ 1  new .TAB.\"text\"\n"
                                          "    \\+ 3  .TRUNCATED.\n"));
    EXPECT_THAT(result.out, HasSubstr("  /etc/hosts\n      odd\n"));
    EXPECT_THAT(result.out, HasSubstr("MOM  recent measurements, 1 row\n"));
    EXPECT_THAT(result.out, ContainsRegex("load_1m +0.250000 +0.125000 +0.500000 +20"));
    EXPECT_THAT(result.out, HasSubstr("MOY  weekly averages, 1 row\n"));
    EXPECT_THAT(result.out, HasSubstr("MOH  histograms, 1 row\n"));
    EXPECT_THAT(result.out, ContainsRegex("load_1m +4 7 9\n"));
    EXPECT_THAT(result.out, HasSubstr("PLG  repaired and not kept, 1 row\n"));
    EXPECT_THAT(result.out, ContainsRegex("REPAIRED +main +files +/etc/motd +motd_ok"));
}

TEST(Hub, AnOpenQuoteAtTheEndIsNoWholeStream)
{
    Site site;
    const ProcessResult result = ShowText(site, "VTR: 0 1700000000 0\nCLD\n1700000000,1,\"linux,\n");
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("is no whole report stream: a quote stays open to its end"));
}

// A row of each state chapter, as a host sends it.
constexpr char kEveryState[] =
    "VTR: 0 1700000000 0\n"
    "ELD\n1700000000,1,00ff,promises.vt,r1,110,default,main,files,/etc/motd,/default/main/files,motd,\"[\"\"ops\"\"]\","
    "\"[\"\"no\"\"]\",7,ff00,[]\n"
    "SPD\n1700000000,2,openssl,3.0.19,x,0\n"
    "SDI\n1700000000,1,bash,5.2.15-2,x\n"
    "LSD\n1700000000,3,43,SHA=0011,192.0.2.7,1.500000,1700000000\n"
    "VAD\n1700000000,1,default,main,list,3,\"{\"\"a\"\"}\",inventory\n1700000000,1,default,main,odd,9,x,\n"
    "CLD\n1700000000,1,linux,inventory\n";

TEST(Hub, EveryStateChapterIsATableWithWordsForItsNumbers)
{
    Site site;
    const ProcessResult result = ShowText(site, kEveryState);
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_THAT(result.out,
                ContainsRegex("CLD  classes, 1 row\n  TIME +KIND +CLASS +TAGS\n.* ADD +linux +inventory\n"));
    EXPECT_THAT(result.out,
                ContainsRegex("VAD  variables, 2 rows\n  TIME +KIND +NAMESPACE +SCOPE +NAME +TYPE +VALUE +TAGS\n"
                              ".* ADD +default +main +list +slist +\\{\"a\"\\} +inventory\n"
                              ".* ADD +default +main +odd +9 +x\n"));
    EXPECT_THAT(result.out,
                ContainsRegex("LSD  peers, 1 row\n  TIME +KIND +DIRECTION +KEY +ADDRESS +USUAL INTERVAL .H. +"
                              "LAST SEEN\n.* CHANGE +OUTGOING +SHA=0011 +192.0.2.7 +1.500000 +20"));
    EXPECT_THAT(result.out, ContainsRegex("SDI  software, 1 row\n  TIME +KIND +NAME +VERSION +ARCHITECTURE\n"
                                          ".* ADD +bash +5.2.15-2 +x\n"));
    EXPECT_THAT(result.out, ContainsRegex("SPD  patches, 1 row\n  TIME +KIND +NAME +VERSION +ARCHITECTURE\n"
                                          ".* REMOVE +openssl +3.0.19 +x\n"));
    EXPECT_THAT(
        result.out,
        ContainsRegex("ELD  promise outcomes, 1 row\n  TIME +KIND +OUTCOME +BUNDLE +TYPE +PROMISER +HANDLE +MESSAGES\n"
                      ".* ADD +NOTKEPT +main +files +/etc/motd +motd +.\"no\".\n"));
}

TEST(Hub, ChaptersStandInTheOrderOfTheStream)
{
    Site site;
    const std::string out = ShowText(site, kEveryState).out;
    EXPECT_LT(out.find("\nELD"), out.find("\nSPD"));
    EXPECT_LT(out.find("\nSPD"), out.find("\nSDI"));
    EXPECT_LT(out.find("\nVAD"), out.find("\nCLD"));
}

TEST(Hub, WideShowsAllColumnsAndCutsNothing)
{
    Site site;
    const std::string tags(100, 't');
    const std::string stream = kEveryState + ("1700000000,1,long," + tags + "\n");
    const ProcessResult cut = ShowText(site, stream);
    const ProcessResult wide = ShowText(site, stream, {"--wide"});
    EXPECT_THAT(cut.out, HasSubstr(std::string(69, 't') + "...\n"));
    EXPECT_THAT(wide.out, HasSubstr(tags + "\n"));
    EXPECT_THAT(wide.out, HasSubstr("  STATUS\n"));
    EXPECT_THAT(wide.out, ContainsRegex(" ADD +00ff +promises.vt +r1 +NOTKEPT +default +main +files +/etc/motd "
                                        "+/default/main/files +motd +.\"ops\". +.\"no\". +7 +ff00 +..\n"));
}

TEST(Hub, FieldsBeyondTheKnownColumnsAreShown)
{
    Site site;
    EXPECT_THAT(ShowText(site, "VTR: 0 1700000000 0\nSDI\n1700000000,1,bash,5,x,more,and more\n").out,
                ContainsRegex("ADD +bash +5 +x +more +and more\n"));
}

TEST(Hub, ControlBytesInAnyChapterNeverReachTheTerminal)
{
    Site site;
    const ProcessResult result = ShowText(site,
                                          "VTR: 0 1700000000 0\n"
                                          "ELD\n1\x1b,\x1b,\x1b,\x1b,\x1b,\x1b,\x1b,\x1b,\x1b,\x1b,\x1b,\x1b,\x1b,\x1b,"
                                          "\x1b,\x1b,\x1b,\x1b\n"
                                          "LSD\n\x1b,\x1b,\x1b,\x1b,\x1b,\x1b,\x1b\n"
                                          "VAD\n\x1b,\x1b,\x1b,\x1b,\x1b,\x1b,\x1b,\x1b\n"
                                          "XYZ\x1b[2J\nPLG\n\x1b[2J\n",
                                          {"--wide"});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out.find('\x1b'), std::string::npos);
    EXPECT_THAT(result.out, HasSubstr("\\x1b"));
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
