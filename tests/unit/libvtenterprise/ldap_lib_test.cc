// The three operations of hub programs, against a real directory server.
#include "libvtenterprise/ldap_lib.h"

#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <veltrane/owned.h>

#include "support/fake_directory.h"
#include "support/left_handles.h"
#include "support/log_capture.h"
#include "support/slapd.h"
#include "support/texts.h"

using ldap_bytes::Attribute;
using ldap_bytes::SearchDone;
using ldap_bytes::SearchEntry;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

namespace {

constexpr char kNowhere[] = "ldap://127.0.0.1:1";
constexpr char kUnset[] = "unset";
constexpr char kLine[] = "LDAP Query result received";

// The values of a list, which is destroyed.
Texts Taken(Rlist *list)
{
    const veltrane::RlistPtr owned(list);
    Texts texts;
    for (const Rlist *node = list; node != nullptr; node = node->next) { texts.emplace_back(RlistScalarValue(node)); }
    return texts;
}

Texts Taken(StringSet *set)
{
    const veltrane::StringSetPtr owned(set);
    Texts texts;
    if (set == nullptr) {
        return {"(failed)"};
    }
    StringSetIterator i = StringSetIteratorInit(set);
    while (const char *text = StringSetIteratorNext(&i)) { texts.emplace_back(text); }
    return texts;
}

class LdapLib : public testing::Test {
  protected:
    static void SetUpTestSuite()
    {
        setenv("LDAPNOINIT", "1", 1);
        slapd = std::make_unique<Slapd>(SlapdOptions{.machines = 2500});
    }
    static void TearDownTestSuite() { slapd.reset(); }

    bool Accepts(const std::string &password, const char *method = nullptr, bool starttls = false)
    {
        return VtLDAPAuthenticate(slapd->uri.c_str(), slapd->anna.c_str(), password.c_str(), method, starttls, 0,
                                  &error_);
    }

    // A search as nobody.
    StringSet *Names(const std::string &base, const char *filter, const char *scope)
    {
        return VtLDAP_SearchDNs(slapd->uri.c_str(), "", "", base.c_str(), filter, scope, "none", false, &error_);
    }
    StringSet *NamesFrom(const char *uri)
    {
        return VtLDAP_SearchDNs(uri, "", "", "dc=org", "(a=*)", "base", "none", false, &error_);
    }
    Rlist *Values(const std::string &base, const char *filter, const char *name, size_t page = 0, size_t size = 0,
                  const char *scope = "onelevel")
    {
        return VtLDAP_GetSingleAttributeList("", slapd->uri.c_str(), "", base.c_str(), filter, name, scope, "none",
                                             false, page, size, &error_);
    }
    Rlist *ValuesFrom(const std::string &uri, const char *name)
    {
        return VtLDAP_GetSingleAttributeList("", uri.c_str(), "", "", "(a=*)", name, "base", "none", false, 0, 0,
                                             &error_);
    }
    Texts Machines(size_t page, size_t size)
    {
        return Taken(Values("ou=machines,dc=example,dc=org", "(objectClass=device)", "cn", page, size));
    }

    static std::string Machine(size_t number)
    {
        char name[16];
        snprintf(name, sizeof(name), "m%04zu", number);
        return name;
    }

    static std::unique_ptr<Slapd> slapd;
    const char *error_ = kUnset;
    LogCapture log_;
};

std::unique_ptr<Slapd> LdapLib::slapd;

using LdapCredentials = LdapLib;
using LdapNames = LdapLib;
using LdapValues = LdapLib;

}  // namespace

TEST_F(LdapCredentials, TheRightPasswordIsAccepted)
{
    EXPECT_TRUE(Accepts("anna-secret"));
    EXPECT_TRUE(Accepts("anna-secret", "sasl"));
    EXPECT_THAT(log_.lines, IsEmpty());
}

TEST_F(LdapCredentials, AWrongPasswordIsRefusedWithoutAnErrorText)
{
    EXPECT_FALSE(Accepts("wrong"));
    EXPECT_EQ(error_, nullptr);
    EXPECT_THAT(log_.lines, IsEmpty());
}

TEST_F(LdapCredentials, SoIsAUserWhoDoesNotExist)
{
    EXPECT_FALSE(
        VtLDAPAuthenticate(slapd->uri.c_str(), "uid=nobody,dc=example,dc=org", "x", nullptr, false, 0, &error_));
    EXPECT_EQ(error_, nullptr);
}

TEST_F(LdapCredentials, AnUnreachableServerGivesTheLibrarysText)
{
    EXPECT_FALSE(VtLDAPAuthenticate(kNowhere, slapd->anna.c_str(), "anna-secret", nullptr, false, 0, &error_));
    EXPECT_STREQ(error_, "Can't contact LDAP server");
}

TEST_F(LdapCredentials, AnAddressThatIsNoneGivesTheLibrarysText)
{
    EXPECT_FALSE(VtLDAPAuthenticate("nonsense", slapd->anna.c_str(), "anna-secret", nullptr, false, 0, &error_));
    EXPECT_STREQ(error_, "Bad parameter to an ldap routine");
}

TEST_F(LdapCredentials, ANameThatIsNoneGivesTheLibrarysText)
{
    EXPECT_FALSE(VtLDAPAuthenticate(slapd->uri.c_str(), "anna", "anna-secret", nullptr, false, 0, &error_));
    EXPECT_STREQ(error_, "Invalid DN syntax");
}

TEST_F(LdapCredentials, NobodyNeedsToWantTheErrorText)
{
    EXPECT_FALSE(VtLDAPAuthenticate(kNowhere, "", "x", nullptr, false, 0, nullptr));
    EXPECT_FALSE(VtLDAPAuthenticate("nonsense", "", "x", nullptr, false, 0, nullptr));
    EXPECT_FALSE(VtLDAPAuthenticate(slapd->uri.c_str(), slapd->anna.c_str(), "wrong", nullptr, false, 0, nullptr));
}

TEST_F(LdapCredentials, AnyOtherMethodBindsAsNobodyAndAcceptsWhateverThePasswordIs)
{
    EXPECT_TRUE(Accepts("wrong", "simple"));
    EXPECT_TRUE(Accepts("wrong", "SASL"));
}

TEST_F(LdapCredentials, ThisServerRefusesAnEmptyPassword)
{
    EXPECT_FALSE(Accepts(""));
    EXPECT_STREQ(error_, "Server is unwilling to perform");
}

TEST_F(LdapCredentials, StartTlsIsUsedWhenAskedFor)
{
    const Slapd strict({.global_lines = "security simple_bind=128\n"});
    const auto ask = [&](bool starttls) {
        return VtLDAPAuthenticate(strict.uri.c_str(), strict.anna.c_str(), "anna-secret", nullptr, starttls, 0,
                                  &error_);
    };
    EXPECT_FALSE(ask(false));
    EXPECT_STREQ(error_, "Confidentiality required");
    EXPECT_TRUE(ask(true));
}

TEST_F(LdapCredentials, ARefusedStartTlsIsARefusal)
{
    const LeftHandles left;
    const Slapd plain({.tls = false});
    EXPECT_FALSE(VtLDAPAuthenticate(plain.uri.c_str(), plain.anna.c_str(), "anna-secret", nullptr, true, 0, &error_));
    EXPECT_STREQ(error_, "Protocol error");
    EXPECT_TRUE(log_.Has(LOG_LEVEL_ERR, "Unable to negotiate TLS encryption with LDAP server: Protocol error"));
}

TEST_F(LdapCredentials, ASilentServerIsLeftAfterTheTimeOut)
{
    const FakeDirectory silent({}, FakeDirectory::End::kIsSilent);
    EXPECT_FALSE(VtLDAPAuthenticate(silent.uri.c_str(), "cn=x", "y", nullptr, false, 1, &error_));
    EXPECT_STREQ(error_, "Timed out");
}

TEST_F(LdapCredentials, NeitherOutcomeKeepsADescriptor)
{
    ASSERT_TRUE(Accepts("anna-secret"));  // what the library opens once
    const size_t before = OpenDescriptors();
    for (int i = 0; i < 10; i++) {
        EXPECT_FALSE(Accepts("wrong"));
        EXPECT_TRUE(Accepts("anna-secret"));
    }
    EXPECT_EQ(OpenDescriptors(), before);
}

TEST_F(LdapNames, AreThoseOfAllEntriesThatTheSearchFinds)
{
    EXPECT_THAT(Taken(Names("ou=people,dc=example,dc=org", "(mail=*)", "subtree")),
                ElementsAre("uid=anna,ou=people,dc=example,dc=org", "uid=bert,ou=people,dc=example,dc=org"));
    EXPECT_EQ(error_, nullptr);
    EXPECT_THAT(log_.lines, IsEmpty());
}

TEST_F(LdapNames, ScopesAreTheBaseItsChildrenOrTheSubtree)
{
    const auto count = [&](const char *scope) {
        return Taken(Names("ou=people,dc=example,dc=org", "(objectClass=*)", scope)).size();
    };
    EXPECT_EQ(count("base"), 1u);
    EXPECT_EQ(count("onelevel"), 3u);
    EXPECT_EQ(count("subtree"), 4u);
}

TEST_F(LdapNames, AScopeInCapitalLettersIsTheSubtree)
{
    EXPECT_EQ(Taken(Names("ou=people,dc=example,dc=org", "(objectClass=*)", "ONELEVEL")).size(), 4u);
}

TEST_F(LdapNames, ASearchThatFindsNothingGivesAnEmptySet)
{
    StringSet *const names = Names("ou=empty,dc=example,dc=org", "(cn=*)", "onelevel");
    ASSERT_NE(names, nullptr);
    EXPECT_THAT(Taken(names), IsEmpty());
    EXPECT_EQ(error_, nullptr);
}

TEST_F(LdapNames, ReferralsAreNoNames)
{
    EXPECT_THAT(Taken(Names("ou=referrals,dc=example,dc=org", "(objectClass=*)", "onelevel")),
                ElementsAre("cn=beside-it-all,ou=referrals,dc=example,dc=org"));
}

TEST_F(LdapNames, EachIsThereOnceAndAnEntryWithoutOneIsPassedOver)
{
    const FakeDirectory server(FakeDirectory::Answer(
        {SearchEntry("cn=a", ""), SearchEntry("cn=a", ""), ldap_bytes::EntryWithoutName(), SearchDone(0)}));
    EXPECT_THAT(Taken(NamesFrom(server.uri.c_str())), ElementsAre("cn=a"));
}

TEST_F(LdapNames, AWrongBaseIsAnError)
{
    EXPECT_EQ(Names("ou=nowhere,dc=example,dc=org", "(cn=*)", "subtree"), nullptr);
    EXPECT_STREQ(error_, "No such object");
    EXPECT_THAT(log_.lines, ElementsAre(Pair(LOG_LEVEL_ERR, "LDAP search failed: No such object")));
}

TEST_F(LdapNames, ABadFilterIsAnError)
{
    EXPECT_EQ(Names(slapd->base, "(cn=", "subtree"), nullptr);
    EXPECT_STREQ(error_, "Bad search filter");
    EXPECT_THAT(log_.lines, ElementsAre(Pair(LOG_LEVEL_ERR, "LDAP search failed: Bad search filter")));
}

TEST_F(LdapNames, AFailedBindSetsNoErrorTextAndIsNotLogged)
{
    const LeftHandles left;
    EXPECT_EQ(VtLDAP_SearchDNs(slapd->uri.c_str(), slapd->anna.c_str(), "wrong", slapd->base.c_str(), "(cn=*)",
                               "subtree", "sasl", false, &error_),
              nullptr);
    EXPECT_EQ(NamesFrom(kNowhere), nullptr);
    EXPECT_STREQ(error_, kUnset);
    EXPECT_THAT(log_.lines, IsEmpty());
}

TEST_F(LdapNames, AnAddressThatIsNoneIsAnError)
{
    EXPECT_EQ(NamesFrom("nonsense"), nullptr);
    EXPECT_STREQ(error_, "Bad parameter to an ldap routine");
}

TEST_F(LdapNames, AServerThatClosesInTheMiddleIsAnError)
{
    const std::string whole = ldap_bytes::Message(2, SearchEntry("cn=a", Attribute("cn", {"a"})));
    for (size_t cut = 0; cut <= whole.size(); cut++) {
        log_.lines.clear();
        const FakeDirectory server({ldap_bytes::Message(1, ldap_bytes::BindResult(0)), whole.substr(0, cut)});
        EXPECT_EQ(NamesFrom(server.uri.c_str()), nullptr) << cut;
        EXPECT_STREQ(error_, "Can't contact LDAP server") << cut;
        EXPECT_THAT(log_.lines, ElementsAre(Pair(LOG_LEVEL_ERR, "LDAP search failed: Can't contact LDAP server")));
    }
}

TEST_F(LdapNames, BytesThatAreNoMessageAreAnError)
{
    const LeftHandles left;  // libldap loses the buffer of a message that it cannot read
    for (const char *bytes :
         {"HTTP/1.1 400 Bad Request\r\n\r\n", "\x30\x03\x02\x01\x02", "\x30\x05\xFF\xFF\xFF\xFF\xFF"}) {
        const FakeDirectory server({ldap_bytes::Message(1, ldap_bytes::BindResult(0)), bytes});
        error_ = nullptr;
        EXPECT_EQ(NamesFrom(server.uri.c_str()), nullptr);
        EXPECT_NE(error_, nullptr);
    }
}

TEST_F(LdapNames, AreSearchedUnderTheNameOfTheUser)
{
    const Slapd closed({.global_lines = "disallow bind_anon\nrequire authc\n"});
    const auto ask = [&](const char *security) {
        return VtLDAP_SearchDNs(closed.uri.c_str(), closed.anna.c_str(), "anna-secret", "ou=people,dc=example,dc=org",
                                "(uid=anna)", "subtree", security, true, &error_);
    };
    EXPECT_THAT(Taken(ask("sasl")), ElementsAre(closed.anna));
    const LeftHandles left;
    EXPECT_EQ(ask("none"), nullptr);
}

TEST_F(LdapValues, AreAllThoseOfTheAttributeInAllEntries)
{
    EXPECT_THAT(Taken(Values("ou=people,dc=example,dc=org", "(mail=*)", "mail")),
                ElementsAre("anna@example.org", "a.berg@example.org", "postmaster@example.org", "bert@example.org"));
    EXPECT_EQ(error_, nullptr);
}

TEST_F(LdapValues, WithoutPageAndSizeComeFromTheFirstThousandMessages)
{
    const Texts machines = Machines(0, 0);
    ASSERT_EQ(machines.size(), 1000u);
    EXPECT_EQ(machines.front(), Machine(1));
    EXPECT_EQ(machines.back(), Machine(1000));
    EXPECT_FALSE(log_.Has(LOG_LEVEL_VERBOSE, kLine));  // the result is message 2501
}

TEST_F(LdapValues, OfPageOneComeFromMessagesOneToSize)
{
    const Texts machines = Machines(1, 10);
    ASSERT_EQ(machines.size(), 10u);
    EXPECT_EQ(machines.front(), Machine(1));
    EXPECT_EQ(machines.back(), Machine(10));
}

TEST_F(LdapValues, OfPageTwoBeginWithTheLastMessageOfPageOne)
{
    const Texts machines = Machines(2, 10);
    ASSERT_EQ(machines.size(), 11u);
    EXPECT_EQ(machines.front(), Machine(10));
    EXPECT_EQ(machines.back(), Machine(20));
}

TEST_F(LdapValues, PageByPageAreAllThereWithTheBoundariesTwice)
{
    size_t values = 0;
    for (size_t page = 1; page <= 3; page++) { values += Machines(page, 1000).size(); }
    EXPECT_EQ(values, 2500u + 2);
    EXPECT_TRUE(log_.Has(LOG_LEVEL_VERBOSE, "LDAP search was successful, 2500 entries, 0 references"));
}

TEST_F(LdapValues, OfAPageBeyondTheEndAreNone)
{
    EXPECT_THAT(Machines(4, 1000), IsEmpty());
    EXPECT_EQ(error_, nullptr);
    EXPECT_THAT(Machines(SIZE_MAX, SIZE_MAX), IsEmpty());
    EXPECT_EQ(error_, nullptr);
}

TEST_F(LdapValues, ReferencesAreCountedAsMessages)
{
    EXPECT_THAT(Taken(Values("ou=referrals,dc=example,dc=org", "(objectClass=*)", "cn", 1, 1)), IsEmpty());
    EXPECT_TRUE(
        log_.Has(LOG_LEVEL_VERBOSE, "Search reference: ldap://127.0.0.1:1/ou=elsewhere,dc=example,dc=org??base"));
    EXPECT_FALSE(log_.Has(LOG_LEVEL_VERBOSE, "LDAP query found dn: cn=beside-it-all,ou=referrals,dc=example,dc=org"));
}

TEST_F(LdapValues, AreNoneWhereTheFirstMessageIsAReference)
{
    EXPECT_THAT(Taken(Values("ou=referrals,dc=example,dc=org", "(objectClass=*)", "cn")), IsEmpty());
    EXPECT_EQ(error_, nullptr);
    EXPECT_TRUE(log_.Has(LOG_LEVEL_VERBOSE, "LDAP query found dn: cn=beside-it-all,ou=referrals,dc=example,dc=org"));
    EXPECT_TRUE(log_.Has(LOG_LEVEL_VERBOSE, "LDAP search was successful, 1 entries, 1 references"));
}

TEST_F(LdapValues, OfAnAttributeThatTheFirstEntryLacksAreNone)
{
    EXPECT_THAT(Taken(Values("ou=mixed,dc=example,dc=org", "(cn=*)", "owner")), IsEmpty());
    EXPECT_THAT(Taken(Values("ou=mixed,dc=example,dc=org", "(cn=second)", "owner")), ElementsAre(slapd->anna));
    EXPECT_THAT(Taken(Values("ou=mixed,dc=example,dc=org", "(cn=*)", "serialNumber")), ElementsAre("1", "2"));
}

TEST_F(LdapValues, OfANameInOtherLettersAreNone)
{
    EXPECT_THAT(Taken(Values("ou=people,dc=example,dc=org", "(uid=anna)", "MAIL")), IsEmpty());
    EXPECT_EQ(error_, nullptr);
}

TEST_F(LdapValues, EndAtAZeroAndKeepOtherBytes)
{
    EXPECT_THAT(Taken(Values("ou=values,dc=example,dc=org", "(cn=zero)", "jpegPhoto")), ElementsAre("ab"));
    EXPECT_THAT(Taken(Values("ou=values,dc=example,dc=org", "(cn=no-utf8)", "jpegPhoto")), ElementsAre("\xFF\xFE\x80"));
    EXPECT_THAT(Taken(Values("ou=values,dc=example,dc=org", "(cn=quoted)", "description")),
                ElementsAre("a, b \"c\" and $(d) 100%s"));
    EXPECT_TRUE(log_.Has(LOG_LEVEL_VERBOSE, "Located LDAP value 'description' => 'a, b \"c\" and $(d) 100%s'"));
}

TEST_F(LdapValues, OfFiveMegabytesComeWhole)
{
    const Slapd large({.large_value = 5 * 1024 * 1024});
    const Texts values =
        Taken(VtLDAP_GetSingleAttributeList("", large.uri.c_str(), "", "cn=large,ou=values,dc=example,dc=org", "(cn=*)",
                                            "description", "base", "none", false, 0, 0, &error_));
    ASSERT_EQ(values.size(), 1u);
    EXPECT_EQ(values[0], std::string(5 * 1024 * 1024, 'x'));
}

TEST_F(LdapValues, ABaseThatIsWrongIsAnError)
{
    EXPECT_EQ(Values("ou=nowhere,dc=example,dc=org", "(cn=*)", "cn"), nullptr);
    EXPECT_STREQ(error_, "No such object");
    EXPECT_THAT(log_.lines, ElementsAre(Pair(LOG_LEVEL_ERR, "LDAP search failed: No such object")));
}

TEST_F(LdapValues, AFailedBindSetsNoErrorText)
{
    const LeftHandles left;
    EXPECT_EQ(VtLDAP_GetSingleAttributeList("wrong", slapd->uri.c_str(), slapd->anna.c_str(), slapd->base.c_str(),
                                            "(cn=*)", "cn", "subtree", "sasl", false, 0, 0, &error_),
              nullptr);
    EXPECT_STREQ(error_, kUnset);
}

TEST_F(LdapValues, AReferenceThatCannotBeParsedLosesAllAndIsAnError)
{
    const FakeDirectory server(FakeDirectory::Answer(
        {SearchEntry("cn=a", Attribute("cn", {"a"})), ldap_bytes::Tlv('\x73', "\x04\x7Fldap"), SearchDone(0)}));
    EXPECT_EQ(ValuesFrom(server.uri, "cn"), nullptr);
    EXPECT_STREQ(error_, "Decoding error");
    EXPECT_TRUE(log_.Has(LOG_LEVEL_ERR, "Unable to parse LDAP references: Decoding error"));
}

TEST_F(LdapValues, OfAnEntryWithoutANameAreReadAllTheSame)
{
    const FakeDirectory server(FakeDirectory::Answer({ldap_bytes::EntryWithoutName(), SearchDone(0)}));
    EXPECT_THAT(Taken(ValuesFrom(server.uri, "cn")), IsEmpty());
    EXPECT_TRUE(log_.Has(LOG_LEVEL_VERBOSE, "No LDAP query found"));
    EXPECT_EQ(error_, nullptr);
}

TEST_F(LdapValues, AnAttributeWithoutValuesIsNoTrouble)
{
    const FakeDirectory server(FakeDirectory::Answer({SearchEntry("cn=a", Attribute("cn", {})), SearchDone(0)}));
    EXPECT_THAT(Taken(ValuesFrom(server.uri, "cn")), IsEmpty());
    EXPECT_TRUE(log_.Has(LOG_LEVEL_DEBUG, "LDAP query found attribute 'cn'"));
}
