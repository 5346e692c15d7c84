// One conversation with a directory: against a real server, and against one that says what no real one does.
#include "libvtenterprise/ldap_session.h"

#include <dlfcn.h>

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/fake_directory.h"
#include "support/left_handles.h"
#include "support/log_capture.h"
#include "support/slapd.h"
#include "support/texts.h"

using ldap_bytes::Attribute;
using ldap_bytes::Intermediate;
using ldap_bytes::SearchDone;
using ldap_bytes::SearchEntry;
using ldap_bytes::SearchReference;
using ldap_session::CollectValues;
using ldap_session::LdapPtr;
using ldap_session::MessagePtr;
using ldap_session::Open;
using ldap_session::Search;
using ldap_session::Then;
using ldap_session::Walk;
using ldap_session::WalkMessages;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

namespace {

int option_that_fails = -1;
bool results_fail = false;

template <typename Function>
Function *OfTheLibrary(Function *, const char *name)
{
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

}  // namespace

// What this program calls instead of libldap's own, which fail for reasons that no test can bring about.
extern "C" int ldap_set_option(LDAP *ld, int option, const void *value)
{
    static const auto real = OfTheLibrary(ldap_set_option, "ldap_set_option");
    return option == option_that_fails ? LDAP_OPT_ERROR : real(ld, option, value);
}

extern "C" int ldap_parse_result(LDAP *ld, LDAPMessage *message, int *code, char **matched, char **text,
                                 char ***referrals, LDAPControl ***controls, int free_it)
{
    static const auto real = OfTheLibrary(ldap_parse_result, "ldap_parse_result");
    return results_fail ? LDAP_DECODING_ERROR : real(ld, message, code, matched, text, referrals, controls, free_it);
}

namespace {

constexpr char kNowhere[] = "ldap://127.0.0.1:1";
constexpr char kUnset[] = "unset";

class LdapSession : public testing::Test {
  protected:
    void SetUp() override { setenv("LDAPNOINIT", "1", 1); }
    void TearDown() override
    {
        option_that_fails = -1;
        results_fail = false;
    }

    static int ProcessOption(int option)
    {
        int value = -1;
        EXPECT_EQ(ldap_get_option(nullptr, option, &value), LDAP_OPT_SUCCESS);
        return value;
    }

    // Seconds; -1 when there is no time-out.
    static long Timeout()
    {
        timeval *timeout = nullptr;
        EXPECT_EQ(ldap_get_option(nullptr, LDAP_OPT_TIMEOUT, &timeout), LDAP_OPT_SUCCESS);
        const long seconds = timeout != nullptr ? static_cast<long>(timeout->tv_sec) : -1;
        EXPECT_EQ(timeout != nullptr ? timeout->tv_usec : 0, 0);
        ldap_memfree(timeout);
        return seconds;
    }

    void ExpectOptionRefused(int option, const std::string &line)
    {
        option_that_fails = option;
        const char *error = kUnset;
        EXPECT_EQ(VeskLDAPConnect(kNowhere, false, 5, &error), nullptr);
        EXPECT_STREQ(error, ldap_err2string(LDAP_OPT_ERROR));
        EXPECT_THAT(log_.lines, ElementsAre(Pair(LOG_LEVEL_ERR, line)));
    }

    // An answer of these operations, walked.
    bool WalkFake(const std::vector<std::string> &operations, const Walk &walk, int *ret_code)
    {
        const FakeDirectory server(FakeDirectory::Answer(operations));
        const LdapPtr ld = Open({server.uri.c_str(), "", "none", nullptr, false}, nullptr);
        const MessagePtr answer = Ask(ld.get());
        results_fail = results_will_fail_;  // the library itself parsed results up to here
        return WalkMessages(
            ld.get(), answer.get(), walk,
            [&](LDAPMessage *entry) {
                const ldap_session::LdapText dn(ldap_get_dn(ld.get(), entry));
                visited_.emplace_back(dn != nullptr ? dn.get() : "(none)");
                return then_;
            },
            ret_code);
    }

    // The whole answer, also of a search that failed.
    static MessagePtr Ask(LDAP *ld)
    {
        int number = 0;
        LDAPMessage *answer = nullptr;
        EXPECT_EQ(ldap_search_ext(ld, "", LDAP_SCOPE_BASE, "(a=*)", nullptr, 0, nullptr, nullptr, nullptr, 0, &number),
                  LDAP_SUCCESS);
        EXPECT_GT(ldap_result(ld, number, LDAP_MSG_ALL, nullptr, &answer), 0);
        return MessagePtr(answer);
    }

    bool results_will_fail_ = false;
    Texts visited_;
    Then then_ = Then::kGoOn;
    LogCapture log_;
};

constexpr Walk kWalk{"%d entries, %d references"};

}  // namespace

TEST_F(LdapSession, ScopeWordsAreExactAndAllOthersMeanTheSubtree)
{
    EXPECT_EQ(VeskStr2Scope("subtree"), LDAP_SCOPE_SUBTREE);
    EXPECT_EQ(VeskStr2Scope("base"), LDAP_SCOPE_BASE);
    EXPECT_EQ(VeskStr2Scope("onelevel"), LDAP_SCOPE_ONELEVEL);
    for (const char *word : {"ONELEVEL", "Base", "base ", "one", "", static_cast<const char *>(nullptr)}) {
        EXPECT_EQ(VeskStr2Scope(word), LDAP_SCOPE_SUBTREE);
    }
}

TEST_F(LdapSession, ConnectingSendsNothing)
{
    const char *error = kUnset;
    const LdapPtr ld(VeskLDAPConnect(kNowhere, false, 0, &error));
    ASSERT_NE(ld, nullptr);
    EXPECT_STREQ(error, kUnset);
    int version = 0;
    EXPECT_EQ(ldap_get_option(ld.get(), LDAP_OPT_PROTOCOL_VERSION, &version), LDAP_OPT_SUCCESS);
    EXPECT_EQ(version, 3);
    EXPECT_THAT(log_.lines, IsEmpty());
}

TEST_F(LdapSession, OptionsOfTheProcessAreSetAtEachConnectionAndNeverRestored)
{
    for (int i = 0; i < 2; i++) {
        const int demand = LDAP_OPT_X_TLS_DEMAND;
        ASSERT_EQ(ldap_set_option(nullptr, LDAP_OPT_X_TLS_REQUIRE_CERT, &demand), LDAP_OPT_SUCCESS);
        ASSERT_EQ(ldap_set_option(nullptr, LDAP_OPT_REFERRALS, LDAP_OPT_ON), LDAP_OPT_SUCCESS);

        LdapPtr ld(VeskLDAPConnect(kNowhere, false, 0, nullptr));
        ld.reset();

        EXPECT_EQ(ProcessOption(LDAP_OPT_X_TLS_REQUIRE_CERT), LDAP_OPT_X_TLS_NEVER);
        EXPECT_EQ(ProcessOption(LDAP_OPT_REFERRALS), 0);
    }
}

TEST_F(LdapSession, ATimeOutIsOfTheProcessAndStaysUntilTheNext)
{
    LdapPtr(VeskLDAPConnect(kNowhere, false, 0, nullptr));
    EXPECT_EQ(Timeout(), -1);
    LdapPtr(VeskLDAPConnect(kNowhere, false, 7, nullptr));
    EXPECT_EQ(Timeout(), 7);
    LdapPtr(VeskLDAPConnect(kNowhere, false, 0, nullptr));
    LdapPtr(VeskLDAPConnect(kNowhere, false, -1, nullptr));
    EXPECT_EQ(Timeout(), 7);
}

TEST_F(LdapSession, AnAddressThatIsNoneIsAnError)
{
    const char *error = kUnset;
    EXPECT_EQ(VeskLDAPConnect("nonsense", false, 0, &error), nullptr);
    EXPECT_STREQ(error, "Bad parameter to an ldap routine");
    EXPECT_THAT(log_.lines,
                ElementsAre(Pair(LOG_LEVEL_ERR, "LDAP connection failed: Bad parameter to an ldap routine")));
}

TEST_F(LdapSession, WhoWantsNoErrorTextGetsTheErrorLineAlone)
{
    EXPECT_EQ(VeskLDAPConnect("nonsense", false, 0, nullptr), nullptr);
    EXPECT_EQ(log_.lines.size(), 1u);
}

TEST_F(LdapSession, AnOptionThatCannotBeSetIsAnError)
{
    const std::string why = ldap_err2string(LDAP_OPT_ERROR);
    ExpectOptionRefused(LDAP_OPT_TIMEOUT, "Unable to set global LDAP_OPT_TIMEOUT option: " + why);
    log_.lines.clear();
    ExpectOptionRefused(LDAP_OPT_X_TLS_REQUIRE_CERT, "Unable to set global LDAP TLS options: " + why);
    log_.lines.clear();
    ExpectOptionRefused(LDAP_OPT_REFERRALS, "Unable to disable LDAP referrals chasing: " + why);
    log_.lines.clear();
    ExpectOptionRefused(LDAP_OPT_PROTOCOL_VERSION, "Trouble setting LDAP option " + why);
}

TEST_F(LdapSession, StartTlsWorksWithACertificateThatNobodyTrusts)
{
    const Slapd slapd({.logs = true});
    const LdapPtr ld(VeskLDAPConnect(slapd.uri.c_str(), true, 0, nullptr));
    ASSERT_NE(ld, nullptr);
    EXPECT_EQ(ldap_tls_inplace(ld.get()), 1);
    EXPECT_EQ(VeskLDAPAuthenticate(ld.get(), slapd.anna.c_str(), "sasl", "anna-secret"), LDAP_SUCCESS);
    EXPECT_THAT(log_.lines, IsEmpty());
}

TEST_F(LdapSession, ARefusedStartTlsLeavesTheHandleAsItIs)
{
    const LeftHandles left;
    Slapd slapd({.tls = false, .logs = true});
    const size_t before = OpenDescriptors();
    const char *error = kUnset;
    EXPECT_EQ(VeskLDAPConnect(slapd.uri.c_str(), true, 0, &error), nullptr);
    EXPECT_STREQ(error, "Protocol error");
    EXPECT_THAT(log_.lines, ElementsAre(Pair(LOG_LEVEL_ERR,
                                             "Unable to negotiate TLS encryption with LDAP server: Protocol error")));
    // A second session is told of after whatever became of the first; both have a descriptor now.
    const LdapPtr second = Open({slapd.uri.c_str(), "", "none", nullptr, false}, nullptr);
    ASSERT_TRUE(slapd.WaitForOperation("op=0 RESULT tag=97"));
    EXPECT_EQ(slapd.Operations().find("UNBIND"), std::string::npos);
    EXPECT_EQ(OpenDescriptors(), before + 2);
}

TEST_F(LdapSession, ATlsHandshakeThatFailsGivesANewDiagnosticMessage)
{
    const LeftHandles left;
    const FakeDirectory server({ldap_bytes::Message(1, ldap_bytes::ExtendedResult(0)), "this is not TLS at all"});
    const char *error = kUnset;
    EXPECT_EQ(VeskLDAPConnect(server.uri.c_str(), true, 0, &error), nullptr);
    EXPECT_STRNE(error, kUnset);
    EXPECT_STRNE(error, ldap_err2string(LDAP_CONNECT_ERROR));
    free(const_cast<char *>(error));
    EXPECT_THAT(log_.lines,
                ElementsAre(Pair(LOG_LEVEL_ERR, "Unable to negotiate TLS encryption with LDAP server: Connect error")));
}

TEST_F(LdapSession, StartTlsWithoutAServerGivesTheLibrarysText)
{
    const LeftHandles left;
    const char *error = kUnset;
    EXPECT_EQ(VeskLDAPConnect(kNowhere, true, 0, &error), nullptr);
    EXPECT_STREQ(error, "Can't contact LDAP server");
}

TEST_F(LdapSession, SaslBindsWithNameAndPassword)
{
    Slapd slapd({.logs = true});
    const LdapPtr ld(VeskLDAPConnect(slapd.uri.c_str(), false, 0, nullptr));
    EXPECT_EQ(VeskLDAPAuthenticate(ld.get(), slapd.anna.c_str(), "sasl", "wrong"), LDAP_INVALID_CREDENTIALS);
    EXPECT_EQ(VeskLDAPAuthenticate(ld.get(), slapd.anna.c_str(), "sasl", "anna-secret"), LDAP_SUCCESS);
    EXPECT_TRUE(slapd.WaitForOperation("BIND dn=\"" + slapd.anna + "\" mech=SIMPLE"));
    EXPECT_THAT(log_.lines, IsEmpty());
}

TEST_F(LdapSession, EveryOtherWordBindsAsNobody)
{
    Slapd slapd({.logs = true});
    const LdapPtr ld(VeskLDAPConnect(slapd.uri.c_str(), false, 0, nullptr));
    for (const char *word : {"none", "SASL", "tls", "", static_cast<const char *>(nullptr)}) {
        EXPECT_EQ(VeskLDAPAuthenticate(ld.get(), slapd.anna.c_str(), word, "anna-secret"), LDAP_SUCCESS);
    }
    EXPECT_TRUE(slapd.WaitForOperation("op=4 BIND dn=\"\" method=128"));
    EXPECT_EQ(slapd.Operations().find("anna"), std::string::npos);
}

TEST_F(LdapSession, WithoutAPasswordSaslBindsWithAnEmptyOne)
{
    Slapd slapd({.logs = true, .global_lines = "allow bind_anon_dn\n"});
    const LdapPtr ld(VeskLDAPConnect(slapd.uri.c_str(), false, 0, nullptr));
    EXPECT_EQ(VeskLDAPAuthenticate(ld.get(), slapd.anna.c_str(), "sasl", nullptr), LDAP_SUCCESS);
    EXPECT_TRUE(slapd.WaitForOperation("BIND dn=\"" + slapd.anna + "\" method=128"));
}

TEST_F(LdapSession, AFailedBindLeavesTheHandleAndSetsNoErrorText)
{
    const LeftHandles left;
    Slapd slapd({.logs = true});
    const size_t before = OpenDescriptors();
    const char *error = kUnset;
    EXPECT_EQ(Open({slapd.uri.c_str(), slapd.anna.c_str(), "sasl", "wrong", false}, &error), nullptr);
    EXPECT_STREQ(error, kUnset);
    EXPECT_THAT(log_.lines, IsEmpty());
    const LdapPtr second = Open({slapd.uri.c_str(), "", "none", nullptr, false}, &error);
    ASSERT_TRUE(slapd.WaitForOperation("dn=\"\" method=128"));
    EXPECT_EQ(slapd.Operations().find("UNBIND"), std::string::npos);
    EXPECT_EQ(OpenDescriptors(), before + 2);
}

TEST_F(LdapSession, AnOpenSessionIsUnbound)
{
    Slapd slapd({.logs = true});
    Open({slapd.uri.c_str(), "", "none", nullptr, false}, nullptr).reset();
    EXPECT_TRUE(slapd.WaitForOperation("UNBIND"));
    EXPECT_TRUE(slapd.WaitForOperation("closed"));
}

TEST_F(LdapSession, ASearchThatFailsIsToldAndGivesItsCode)
{
    const Slapd slapd;
    const LdapPtr ld = Open({slapd.uri.c_str(), "", "none", nullptr, false}, nullptr);
    int code = -1;
    EXPECT_EQ(Search(ld.get(), {"ou=nowhere,dc=example,dc=org", "(cn=*)", "base"}, &code), nullptr);
    EXPECT_EQ(code, LDAP_NO_SUCH_OBJECT);
    EXPECT_EQ(Search(ld.get(), {slapd.base.c_str(), "(cn=*", "base"}, &code), nullptr);
    EXPECT_EQ(code, LDAP_FILTER_ERROR);
    EXPECT_EQ(Search(ld.get(), {"ou=elsewhere,ou=referrals,dc=example,dc=org", "(cn=*)", "subtree"}, &code), nullptr);
    EXPECT_EQ(code, LDAP_REFERRAL);
    EXPECT_THAT(log_.lines, ElementsAre(Pair(LOG_LEVEL_ERR, "LDAP search failed: No such object"),
                                        Pair(LOG_LEVEL_ERR, "LDAP search failed: Bad search filter"),
                                        Pair(LOG_LEVEL_ERR, "LDAP search failed: Referral")));
}

TEST_F(LdapSession, EntriesAreVisitedAndTheSuccessIsTold)
{
    int code = -1;
    EXPECT_TRUE(WalkFake(
        {SearchEntry("cn=a", ""), SearchReference("ldap://x/"), SearchEntry("cn=b", ""), SearchDone(0)}, kWalk, &code));
    EXPECT_THAT(visited_, ElementsAre("cn=a", "cn=b"));
    EXPECT_EQ(code, -1);
    EXPECT_THAT(log_.lines, ElementsAre(Pair(LOG_LEVEL_VERBOSE, "Search reference: ldap://x/"),
                                        Pair(LOG_LEVEL_VERBOSE, "LDAP Query result received"),
                                        Pair(LOG_LEVEL_VERBOSE, "2 entries, 1 references")));
}

TEST_F(LdapSession, AVisitMayEndTheWalk)
{
    int code = -1;
    then_ = Then::kStop;
    EXPECT_TRUE(WalkFake({SearchEntry("cn=a", ""), SearchEntry("cn=b", ""), SearchDone(0)}, kWalk, &code));
    EXPECT_THAT(visited_, ElementsAre("cn=a"));
    EXPECT_THAT(log_.lines, IsEmpty());
}

TEST_F(LdapSession, AResultThatSaysFailureIsToldInFullAndEndsNothing)
{
    int code = -1;
    EXPECT_TRUE(WalkFake({SearchEntry("cn=a", ""), SearchDone(LDAP_SIZELIMIT_EXCEEDED, "dc=org", "enough for today")},
                         kWalk, &code));
    EXPECT_EQ(code, -1);
    EXPECT_THAT(log_.lines,
                ElementsAre(Pair(LOG_LEVEL_VERBOSE, "LDAP Query result received"),
                            Pair(LOG_LEVEL_ERR, "LDAP search failed: Size limit exceeded"),
                            Pair(LOG_LEVEL_ERR, "enough for today"),
                            Pair(LOG_LEVEL_VERBOSE, "Part of the DN that matches an existing entry: dc=org")));
}

TEST_F(LdapSession, AResultThatSaysFailureAndNoMoreIsOneErrorLine)
{
    int code = -1;
    EXPECT_TRUE(WalkFake({SearchDone(LDAP_BUSY)}, kWalk, &code));
    EXPECT_THAT(log_.lines, ElementsAre(Pair(LOG_LEVEL_VERBOSE, "LDAP Query result received"),
                                        Pair(LOG_LEVEL_ERR, "LDAP search failed: Server is busy")));
}

TEST_F(LdapSession, AResultThatCannotBeParsedEndsTheWalk)
{
    int code = -1;
    results_will_fail_ = true;
    EXPECT_FALSE(WalkFake({SearchDone(0)}, kWalk, &code));
    EXPECT_EQ(code, LDAP_DECODING_ERROR);
    EXPECT_THAT(log_.lines, ElementsAre(Pair(LOG_LEVEL_VERBOSE, "LDAP Query result received"),
                                        Pair(LOG_LEVEL_ERR, "LDAP Error parsed: Decoding error")));
}

TEST_F(LdapSession, AReferenceThatCannotBeParsedEndsTheWalk)
{
    int code = -1;
    const std::string broken = ldap_bytes::Tlv('\x73', "\x04\x7Fldap");
    EXPECT_FALSE(WalkFake({SearchEntry("cn=a", ""), broken, SearchEntry("cn=b", ""), SearchDone(0)}, kWalk, &code));
    EXPECT_EQ(code, LDAP_DECODING_ERROR);
    EXPECT_THAT(visited_, ElementsAre("cn=a"));
    EXPECT_THAT(log_.lines, ElementsAre(Pair(LOG_LEVEL_ERR, "Unable to parse LDAP references: Decoding error")));
}

TEST_F(LdapSession, AMessageOfAnotherTypeIsPassedOverAndToldOnlyWhereThatIsWanted)
{
    int code = -1;
    Walk walk = kWalk;
    EXPECT_TRUE(WalkFake({Intermediate(), SearchDone(0)}, walk, &code));
    EXPECT_FALSE(log_.Has(LOG_LEVEL_VERBOSE, "Unknown message received"));
    walk.tells_unknown = true;
    EXPECT_TRUE(WalkFake({Intermediate(), SearchDone(0)}, walk, &code));
    EXPECT_TRUE(log_.Has(LOG_LEVEL_VERBOSE, "Unknown message received"));
}

TEST_F(LdapSession, MessagesOfAnyKindAreCountedFromOne)
{
    int code = -1;
    Walk walk = kWalk;
    walk.first = 2;
    walk.last = 4;
    EXPECT_TRUE(WalkFake({SearchEntry("cn=1", ""), SearchEntry("cn=2", ""), SearchReference("ldap://3/"),
                          SearchEntry("cn=4", ""), SearchEntry("cn=5", ""), SearchDone(0)},
                         walk, &code));
    EXPECT_THAT(visited_, ElementsAre("cn=2", "cn=4"));
    EXPECT_THAT(log_.lines, ElementsAre(Pair(LOG_LEVEL_VERBOSE, "Search reference: ldap://3/")));
}

TEST_F(LdapSession, ValuesAreToldAndNamesOfAttributesComeFromTheFirstMessage)
{
    const FakeDirectory server(FakeDirectory::Answer(
        {SearchEntry("cn=1", Attribute("mail", {"a"}) + Attribute("uid", {"u"})),
         SearchEntry("cn=2", Attribute("cn", {"x"}) + Attribute("mail", {"b", "c"})), SearchDone(0)}));
    const LdapPtr ld = Open({server.uri.c_str(), "", "none", nullptr, false}, nullptr);
    const MessagePtr answer = Ask(ld.get());
    veltrane::RlistPtr values;
    int code = -1;
    ASSERT_TRUE(CollectValues(ld.get(), answer.get(), kWalk, "mail", &values, &code));
    EXPECT_EQ(RlistLen(values.get()), 3u);
    EXPECT_THAT(log_.lines, ElementsAre(Pair(LOG_LEVEL_VERBOSE, "LDAP query found dn: cn=1"),
                                        Pair(LOG_LEVEL_DEBUG, "LDAP query found attribute 'mail'"),
                                        Pair(LOG_LEVEL_VERBOSE, "Located LDAP value 'mail' => 'a'"),
                                        Pair(LOG_LEVEL_DEBUG, "LDAP query found attribute 'uid'"),
                                        Pair(LOG_LEVEL_VERBOSE, "LDAP query found dn: cn=2"),
                                        Pair(LOG_LEVEL_DEBUG, "LDAP query found attribute 'mail'"),
                                        Pair(LOG_LEVEL_VERBOSE, "Located LDAP value 'mail' => 'b'"),
                                        Pair(LOG_LEVEL_VERBOSE, "Located LDAP value 'mail' => 'c'"),
                                        Pair(LOG_LEVEL_DEBUG, "LDAP query found attribute 'uid'"),
                                        Pair(LOG_LEVEL_VERBOSE, "LDAP Query result received"),
                                        Pair(LOG_LEVEL_VERBOSE, "2 entries, 0 references")));
}
