// A real agent, daemon and hub that ask a real directory server.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "support/agent_host.h"
#include "support/fake_directory.h"
#include "support/site.h"
#include "support/slapd.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

namespace {

using Lines = std::vector<std::string>;

Lines LinesOf(const std::string &text)
{
    Lines lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) { lines.push_back(line); }
    return lines;
}

std::string Quoted(const std::string &text) { return "\"" + text + "\""; }

class Directory : public testing::Test {
  protected:
    static void SetUpTestSuite()
    {
        slapd = std::make_unique<Slapd>(SlapdOptions{.machines = 25, .large_value = 5 * 1024 * 1024});
    }
    static void TearDownTestSuite() { slapd.reset(); }

    static std::unique_ptr<Slapd> slapd;
};

std::unique_ptr<Slapd> Directory::slapd;

class DirectoryAgent : public Directory {
  protected:
    DirectoryAgent()
    {
        host_.InstallPlugIn();
        host_.environment["LDAPNOINIT"] = "1";
    }

    // The arguments of a look-up, as they stand in a policy.
    static std::string Asked(const std::string &base, const std::string &rest, const std::string &uri = slapd->uri)
    {
        return Quoted(uri) + ", " + Quoted(base) + ", " + rest;
    }

    Lines Reports(const std::string &promises)
    {
        host_.WritePolicy(promises);
        result_ = host_.Run();
        EXPECT_EQ(result_.status, 0);
        return LinesOf(result_.out);
    }

    AgentHost host_;
    ProcessResult result_;
};

class DirectoryHub : public Directory {
  protected:
    DirectoryHub()
    {
        host_.InstallPlugIn();
        host_.environment["LDAPNOINIT"] = "1";
    }

    ProcessResult Run(Lines arguments, const std::string &input = "")
    {
        ProcessOptions options = host_.Options({"ldap"});
        options.arguments.insert(options.arguments.end(), arguments.begin(), arguments.end());
        options.input = input;
        return RunProcess(std::string(VT_TEST_BIN_DIR) + "/vt-hub", options);
    }
    ProcessResult Check(const std::string &password, Lines more = {})
    {
        Lines all{"check", "--uri", slapd->uri, "--dn", slapd->anna};
        all.insert(all.end(), more.begin(), more.end());
        return Run(all, password);
    }
    ProcessResult Search(const std::string &base, Lines more = {})
    {
        Lines all{"search", "--uri", slapd->uri, "--base", base};
        all.insert(all.end(), more.begin(), more.end());
        return Run(all, "anna-secret\n");
    }
    ProcessResult List(const std::string &base, const std::string &attribute, Lines more = {})
    {
        Lines all{"list", "--uri", slapd->uri, "--base", base, attribute};
        all.insert(all.end(), more.begin(), more.end());
        return Run(all);
    }

    AgentHost host_;
};

using DirectoryServer = Directory;

}  // namespace

TEST_F(DirectoryAgent, WhatADirectoryHoldsBecomesValuesListsArraysAndClasses)
{
    const Lines reports =
        Reports("      - vars: role\n        string: {ldapvalue: [" +
                Asked("cn=web1,ou=hosts,dc=example,dc=org", "'(objectClass=*)', role, base, none") +
                "]}\n"
                "      - classes: \"$(role)\"\n        expression: any\n"
                "      - vars: mails\n        slist: {ldaplist: [" +
                Asked("ou=people,dc=example,dc=org", "'(uid=anna)', mail, subtree, none") +
                "]}\n"
                "      - classes: found\n        expression: {ldaparray: [person, " +
                Asked("ou=people,dc=example,dc=org", "'(uid=anna)', subtree, none") +
                "]}\n"
                "      - classes: administrator\n        expression: {regldap: [" +
                Asked("ou=groups,dc=example,dc=org", "'(cn=admins)', member, subtree, 'uid=anna,.*', none") +
                "]}\n"
                "      - classes: stranger\n        expression: {regldap: [" +
                Asked("ou=groups,dc=example,dc=org", "'(cn=admins)', member, subtree, 'uid=carl,.*', none") +
                "]}\n"
                "      - reports: \"role $(role)\"\n        if: web_server\n"
                "      - reports: \"mail $(mails)\"\n"
                "      - reports: \"person $(person[cn])\"\n        if: found\n"
                "      - reports: \"administrator\"\n        if: administrator\n"
                "      - reports: \"stranger\"\n        if: stranger\n");
    EXPECT_THAT(reports, ElementsAre("R: role web_server", "R: mail anna@example.org", "R: mail a.berg@example.org",
                                     "R: mail postmaster@example.org", "R: person Anna Berg", "R: administrator"));
    EXPECT_THAT(result_.err, IsEmpty());
}

TEST_F(DirectoryAgent, AFailedLookUpLeavesItsPromiseSkippedAndSaysWhyOnce)
{
    const std::string nowhere = "ldap://127.0.0.1:1";
    const Lines reports = Reports("      - vars: role\n        string: {ldapvalue: [" +
                                  Asked("dc=example,dc=org", "'(cn=web1)', role, subtree, none", nowhere) +
                                  "]}\n"
                                  "      - reports: \"role $(role)\"\n"
                                  "      - reports: goes on\n");
    EXPECT_THAT(reports, ElementsAre("R: goes on"));
    EXPECT_THAT(LinesOf(result_.err),
                ElementsAre("   error: Function 'ldapvalue' failed: no answer from 'ldap://127.0.0.1:1' for "
                            "'(cn=web1)' below 'dc=example,dc=org', or no value of 'role' in it"));
}

TEST_F(DirectoryAgent, AListWithoutValuesIsAFailureAndNeverAnEmptyList)
{
    const Lines reports = Reports("      - vars: mails\n        slist: {ldaplist: [" +
                                  Asked("ou=empty,dc=example,dc=org", "'(uid=*)', mail, subtree, none") +
                                  "]}\n"
                                  "      - reports: \"mail $(mails)\"\n");
    EXPECT_THAT(reports, IsEmpty());
    EXPECT_THAT(LinesOf(result_.err), ElementsAre(HasSubstr("Function 'ldaplist' failed: no answer from")));
}

TEST_F(DirectoryAgent, ASearchThatFailsSaysWhatTheDirectorySays)
{
    Reports("      - classes: x\n        expression: {regldap: [" +
            Asked("ou=nowhere,dc=example,dc=org", "'(cn=*)', cn, subtree, '.*', none") + "]}\n");
    EXPECT_THAT(LinesOf(result_.err), ElementsAre("   error: LDAP search failed: No such object",
                                                  HasSubstr("Function 'regldap' failed: no answer from")));
}

TEST_F(DirectoryAgent, ValuesAreTextAndNeverPolicy)
{
    const Lines reports = Reports(
        "      - vars: d\n        string: leaked\n"
        "      - vars: text\n        string: {ldapvalue: [" +
        Asked("ou=values,dc=example,dc=org", "'(cn=quoted)', description, subtree, none") +
        "]}\n"
        "      - reports: \"$(text)\"\n");
    EXPECT_THAT(reports, ElementsAre("R: a, b \"c\" and $(d) 100%s"));
}

TEST_F(DirectoryAgent, AValueThatIsTooLongIsAFailure)
{
    const std::string asked = Asked("ou=values,dc=example,dc=org", "'(cn=large)', description, subtree, none");
    const Lines reports = Reports("      - vars: text\n        string: {ldapvalue: [" + asked +
                                  "]}\n"
                                  "      - vars: texts\n        slist: {ldaplist: [" +
                                  asked + "]}\n      - reports: goes on\n");
    EXPECT_THAT(reports, ElementsAre("R: goes on"));
    EXPECT_THAT(
        LinesOf(result_.err),
        ElementsAre("   error: Function 'ldapvalue' failed: a value of 'description' is longer than 1048576 bytes",
                    "   error: Function 'ldaplist' failed: a value of 'description' is longer than 1048576 bytes"));
}

TEST_F(DirectoryAgent, BytesThatAreNoTextReachTheReports)
{
    const Lines reports = Reports("      - vars: bytes\n        string: {ldapvalue: [" +
                                  Asked("cn=no-utf8,ou=values,dc=example,dc=org", "'(cn=*)', jpegPhoto, base, none") +
                                  "]}\n"
                                  "      - vars: zero\n        string: {ldapvalue: [" +
                                  Asked("cn=zero,ou=values,dc=example,dc=org", "'(cn=*)', jpegPhoto, base, none") +
                                  "]}\n"
                                  "      - reports: \"$(bytes) $(zero)\"\n");
    EXPECT_THAT(reports, ElementsAre("R: \xFF\xFE\x80 ab"));
    EXPECT_THAT(result_.err, IsEmpty());
}

TEST_F(DirectoryAgent, ASilentServerDoesNotHoldTheRun)
{
    const FakeDirectory silent({}, FakeDirectory::End::kIsSilent);
    host_.environment.erase("LDAPNOINIT");  // the time-out is a setting like others
    host_.environment["LDAPTIMEOUT"] = "1";
    const Lines reports = Reports("      - classes: x\n        expression: {regldap: [" +
                                  Asked("dc=org", "'(cn=*)', cn, subtree, '.*', none", silent.uri) +
                                  "]}\n"
                                  "      - reports: goes on\n");
    EXPECT_THAT(reports, ElementsAre("R: goes on"));
    EXPECT_THAT(result_.err, HasSubstr("Function 'regldap' failed: no answer from"));
}

TEST_F(DirectoryAgent, ASearchWithoutAnEndDoesNotHoldTheRun)
{
    const FakeDirectory slow({ldap_bytes::Message(1, ldap_bytes::BindResult(0)),
                              ldap_bytes::Message(2, ldap_bytes::SearchEntry("cn=a", ""))},
                             FakeDirectory::End::kIsSilent);
    host_.environment.erase("LDAPNOINIT");
    host_.environment["LDAPTIMEOUT"] = "1";
    Reports("      - vars: x\n        string: {ldapvalue: [" +
            Asked("dc=org", "'(cn=*)', cn, subtree, none", slow.uri) + "]}\n");
    EXPECT_THAT(LinesOf(result_.err), ElementsAre("   error: LDAP search failed: Timed out",
                                                  HasSubstr("Function 'ldapvalue' failed: no answer from")));
}

TEST_F(DirectoryAgent, TimeOutsArePresetForWhateverItStarts)
{
    const Lines reports = Reports(
        "      - vars: seconds\n        string: {execresult: [\"printenv LDAPTIMEOUT LDAPNETWORK_TIMEOUT\", noshell]}\n"
        "      - reports: \"$(seconds)\"\n");
    EXPECT_THAT(reports, ElementsAre("R: 30", "10"));
}

TEST_F(DirectoryAgent, WithoutThePlugInLookUpsFail)
{
    std::filesystem::remove(host_.work / "lib/veltrane-enterprise.so");
    const Lines reports =
        Reports("      - vars: x\n        string: {ldapvalue: [" + Asked("dc=org", "'(cn=*)', cn, subtree, none") +
                "]}\n"
                "      - reports: goes on\n");
    EXPECT_THAT(reports, ElementsAre("R: goes on"));
    EXPECT_THAT(LinesOf(result_.err), ElementsAre("   error: Directory look-ups need the enterprise plug-in",
                                                  StartsWith("   error: Function 'ldapvalue' failed: ")));
}

TEST_F(DirectoryServer, ADaemonTakesItsPeersFromADirectoryAtItsStartAndInItsSandbox)
{
    Site site;
    const auto policy = [&](const std::string &filter) {
        return "bundles:\n  - agent: main\n    promises:\n      - classes: x\n        expression: any\n"
               "  - server: reports\n    promises:\n"
               "      - classes: known\n        expression: {regldap: [" +
               Quoted(slapd->uri) + ", \"ou=people,dc=example,dc=org\", \"" + filter +
               "\", mail, subtree, \"anna@.*\", none]}\n"
               "      - access: delta\n        resource: query\n        if: known\n        admit_keys: [\"" +
               site.hub_key + "\"]\n";
    };
    ASSERT_TRUE(site.TrustEachOther());
    site.WritePolicy(policy("(uid=carl)"));
    setenv("LDAPNOINIT", "1", 1);  // for the daemon
    ASSERT_TRUE(site.StartDaemon());
    unsetenv("LDAPNOINIT");
    EXPECT_NE(site.Collect("delta").status, 0);

    site.WritePolicy(policy("(uid=anna)"));
    site.daemon->Signal(SIGHUP);
    ASSERT_TRUE(site.daemon->WaitForLine("Read the policy"));
    EXPECT_EQ(site.Collect("delta").status, 0);
}

TEST_F(DirectoryHub, CheckAcceptsTheRightPassword)
{
    for (const char *input : {"anna-secret", "anna-secret\n", "anna-secret\nmore\n"}) {
        const ProcessResult result = Check(input);
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.out, "accepted\n");
        EXPECT_EQ(result.err, "");
    }
}

TEST_F(DirectoryHub, CheckRefusesAWrongPassword)
{
    const ProcessResult result = Check("wrong\n");
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "refused\n");
    EXPECT_EQ(result.err, "");
}

TEST_F(DirectoryHub, CheckTakesNoEmptyPassword)
{
    const Slapd lenient({.global_lines = "allow bind_anon_dn\n"});  // which would let it in
    for (const std::string &input :
         {std::string(), std::string("\n"), std::string("\nx"), std::string("\0x", 2), std::string(4097, 'x')}) {
        const ProcessResult result = Run({"check", "--uri", lenient.uri, "--dn", lenient.anna}, input);
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(result.err, "   error: No password: it must have from 1 to 4096 bytes, and none of them zero\n");
    }
}

TEST_F(DirectoryHub, CheckWantsToKnowWhosePasswordItIs)
{
    EXPECT_EQ(Run({"check", "--uri", slapd->uri}, "x").status, 2);
    EXPECT_EQ(Run({"check", "--uri", slapd->uri, "--dn", ""}, "x").status, 2);
    EXPECT_EQ(Run({"check", "--dn", slapd->anna}, "x").status, 2);
    EXPECT_EQ(Run({}, "x").status, 2);
}

TEST_F(DirectoryHub, CheckReadsAPasswordFile)
{
    const std::string file = (host_.directory.path / "password").string();
    WriteFile(file, "anna-secret\n");
    EXPECT_EQ(Check("", {"--password-file", file}).status, 0);
    WriteFile(file, "wrong\n");
    EXPECT_EQ(Check("", {"--password-file", file}).status, 1);
    const ProcessResult missing = Check("", {"--password-file", file + "2"});
    EXPECT_EQ(missing.status, 1);
    EXPECT_THAT(missing.err, StartsWith("   error: No password: could not open '" + file + "2'"));
}

TEST_F(DirectoryHub, CheckEncryptsWhenAsked)
{
    EXPECT_EQ(Check("anna-secret", {"--starttls"}).status, 0);
    const Slapd plain({.tls = false});
    const ProcessResult result = Run({"check", "--uri", plain.uri, "--dn", plain.anna, "--starttls"}, "anna-secret");
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_THAT(result.err, HasSubstr("Unable to negotiate TLS encryption with LDAP server: Protocol error"));
}

TEST_F(DirectoryHub, CheckWorksOverLdapsToo)
{
    EXPECT_EQ(Run({"check", "--uri", slapd->tls_uri, "--dn", slapd->anna}, "anna-secret").status, 0);
}

TEST_F(DirectoryHub, CheckSaysWhyThereIsNoAnswer)
{
    const ProcessResult result = Run({"check", "--uri", "ldap://127.0.0.1:1", "--dn", slapd->anna}, "x");
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "   error: No answer from 'ldap://127.0.0.1:1': Can't contact LDAP server\n");
}

TEST_F(DirectoryHub, CheckLeavesASilentServer)
{
    const FakeDirectory silent({}, FakeDirectory::End::kIsSilent);
    const ProcessResult result = Run({"check", "--uri", silent.uri, "--dn", "cn=x", "--timeout", "1"}, "x");
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "   error: No answer from '" + silent.uri + "': Timed out\n");
}

TEST_F(DirectoryHub, SearchAndListLeaveASilentServerToo)
{
    const FakeDirectory silent({ldap_bytes::Message(1, ldap_bytes::BindResult(0))}, FakeDirectory::End::kIsSilent);
    host_.environment.erase("LDAPNOINIT");  // the time-out is a setting like others
    for (const Lines &command : {Lines{"search"}, Lines{"list", "cn"}}) {
        Lines all = command;
        all.insert(all.end(), {"--uri", silent.uri, "--base", "dc=org", "--timeout", "1"});
        const ProcessResult result = Run(all);
        EXPECT_EQ(result.status, 1);
        EXPECT_THAT(result.err, HasSubstr("No answer from '" + silent.uri + "': Timed out"));
    }
}

TEST_F(DirectoryHub, SearchGivesTheNamesThatItFinds)
{
    const ProcessResult result = Search("ou=people,dc=example,dc=org", {"--filter", "(mail=*)"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "uid=anna,ou=people,dc=example,dc=org\nuid=bert,ou=people,dc=example,dc=org\n");
    EXPECT_EQ(LinesOf(Search("ou=people,dc=example,dc=org", {"--scope", "base"}).out).size(), 1u);
}

TEST_F(DirectoryHub, SearchMayAskAsAUser)
{
    EXPECT_EQ(Search(slapd->anna, {"--dn", slapd->anna, "--starttls"}).status, 0);
    const ProcessResult result = Search(slapd->anna, {"--dn", "uid=bert,ou=people,dc=example,dc=org"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "   error: No answer from '" + slapd->uri + "': the directory did not let us in\n");
}

TEST_F(DirectoryHub, SearchThatFindsNothingSaysSo)
{
    const ProcessResult result = Search("ou=empty,dc=example,dc=org", {"--filter", "(cn=*)"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_THAT(result.err, HasSubstr("Nothing found"));
}

TEST_F(DirectoryHub, SearchThatFailsSaysWhy)
{
    const ProcessResult result = Search("ou=nowhere,dc=example,dc=org");
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(LinesOf(result.err), ElementsAre("   error: LDAP search failed: No such object",
                                                 "   error: No answer from '" + slapd->uri + "': No such object"));
}

TEST_F(DirectoryHub, ListGivesOnePageOfValues)
{
    const std::string base = "ou=machines,dc=example,dc=org";
    EXPECT_EQ(LinesOf(List(base, "cn", {"--filter", "(cn=*)"}).out).size(), 25u);
    EXPECT_EQ(List(base, "cn", {"--scope", "onelevel", "--page", "2", "--per-page", "2"}).out, "m0002\nm0003\nm0004\n");
    const ProcessResult beyond = List(base, "cn", {"--page", "9"});
    EXPECT_EQ(beyond.status, 1);
    EXPECT_THAT(beyond.err, HasSubstr("Nothing found"));
}

TEST_F(DirectoryHub, ListOfAnotherNameIsNothing)
{
    EXPECT_EQ(List(slapd->anna, "mail").status, 0);
    EXPECT_EQ(List(slapd->anna, "Mail").status, 1);
}

TEST_F(DirectoryHub, NothingThatADirectorySaysSteersTheTerminal)
{
    EXPECT_EQ(List("cn=no-utf8,ou=values,dc=example,dc=org", "jpegPhoto").out, "\\xff\\xfe\\x80\n");
    const FakeDirectory server(
        FakeDirectory::Answer({ldap_bytes::SearchEntry("cn=\x1B[2J", ldap_bytes::Attribute("cn", {"a\x1B[2J\nb"})),
                               ldap_bytes::SearchDone(0)}));
    EXPECT_EQ(Run({"list", "--uri", server.uri, "--base", "", "cn"}).out, "a\\x1b[2J\\nb\n");
    EXPECT_THAT(Run({"search", "--uri", server.uri, "--base", ""}).out, Not(HasSubstr("\x1B")));
}

TEST_F(DirectoryHub, UnknownWordsAreWrongUsage)
{
    EXPECT_EQ(Search("dc=org", {"--scope", "ONELEVEL"}).status, 2);
    EXPECT_EQ(List("dc=org", "cn", {"--page", "0"}).status, 2);
    EXPECT_EQ(List("dc=org", "cn", {"--per-page", "-1"}).status, 2);
    EXPECT_EQ(Run({"list", "--uri", slapd->uri, "--base", "dc=org"}).status, 2);
    EXPECT_EQ(Check("x", {"--password", "x"}).status, 2);
}

TEST_F(DirectoryHub, WithoutThePlugInThereIsNoAnswer)
{
    std::filesystem::remove(host_.work / "lib/veltrane-enterprise.so");
    for (const ProcessResult &result : {Check("anna-secret"), Search("dc=org"), List("dc=org", "cn")}) {
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.err, "   error: Asking a directory needs the enterprise plug-in, and it is not installed\n");
    }
}
