// The entry points behind the policy functions, against a real directory server.
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <veltrane/eval_context.h>
#include <veltrane/owned.h>
#include <veltrane/policy.h>

#include "libvtenterprise/entry_points_real.h"
#include "support/fake_directory.h"
#include "support/left_handles.h"
#include "support/log_capture.h"
#include "support/promise_site.h"
#include "support/slapd.h"

using ldap_bytes::Attribute;
using ldap_bytes::SearchDone;
using ldap_bytes::SearchEntry;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

namespace {

constexpr char kNowhere[] = "ldap://127.0.0.1:1";
constexpr char kFailed[] = "(null)";

// The text that an entry point made, or "(null)".
std::string Taken(void *text)
{
    const veltrane::TextPtr owned(static_cast<char *>(text));
    return owned != nullptr ? owned.get() : kFailed;
}

struct Asked {
    std::string base;
    std::string filter = "(objectClass=*)";
    std::string scope = "subtree";
    std::string security = "none";
};

class LdapFunctions : public testing::Test {
  protected:
    static void SetUpTestSuite()
    {
        setenv("LDAPNOINIT", "1", 1);
        slapd = std::make_unique<Slapd>();
    }
    static void TearDownTestSuite() { slapd.reset(); }

    void SetUp() override { uri_ = slapd->uri; }

    std::string Value(std::string name, Asked asked)
    {
        return Taken(VtLDAPValue__real(uri_.data(), asked.base.data(), asked.filter.data(), name.data(),
                                       asked.scope.data(), asked.security.data()));
    }

    Texts List(std::string name, Asked asked)
    {
        const veltrane::RlistPtr list(
            static_cast<Rlist *>(VtLDAPList__real(uri_.data(), asked.base.data(), asked.filter.data(), name.data(),
                                                  asked.scope.data(), asked.security.data())));
        if (list == nullptr) {
            return {kFailed};
        }
        Texts texts;
        for (const Rlist *node = list.get(); node != nullptr; node = node->next) {
            texts.emplace_back(RlistScalarValue(node));
        }
        return texts;
    }

    std::string Array(std::string array, Asked asked)
    {
        return Taken(VtLDAPArray__real(site_.ctx(), PromiseGetBundle(site_.promise()), array.data(), uri_.data(),
                                       asked.base.data(), asked.filter.data(), asked.scope.data(),
                                       asked.security.data()));
    }

    std::string Match(std::string name, std::string regex, Asked asked)
    {
        return Taken(VtRegLDAP__real(site_.ctx(), uri_.data(), asked.base.data(), asked.filter.data(), name.data(),
                                     asked.scope.data(), regex.data(), asked.security.data()));
    }

    // Every function once with the same question: whether all of them failed.
    void ExpectAllFail(const Asked &asked)
    {
        EXPECT_EQ(Value("cn", asked), kFailed);
        EXPECT_THAT(List("cn", asked), ElementsAre(kFailed));
        EXPECT_EQ(Array("a", asked), kFailed);
        EXPECT_EQ(Match("cn", ".*", asked), kFailed);
        EXPECT_THAT(Variables(), IsEmpty());
    }

    // Every function once: what they say when nothing is found.
    void ExpectAllFindNothing(const Asked &asked)
    {
        EXPECT_EQ(Value("cn", asked), kFailed);
        EXPECT_THAT(List("cn", asked), ElementsAre(kFailed));
        EXPECT_EQ(Array("a", asked), "!any");
        EXPECT_EQ(Match("cn", ".*", asked), "!any");
        EXPECT_THAT(Variables(), IsEmpty());
        EXPECT_THAT(log_.UpTo(LOG_LEVEL_INFO), IsEmpty());
    }

    // From now on the server is one that answers a search with these operations.
    void Pretend(const std::vector<std::string> &operations)
    {
        fake_ = std::make_unique<FakeDirectory>(FakeDirectory::Answer(operations));
        uri_ = fake_->uri;
    }

    // All variables as "scope.name[index] = value {tags}".
    Texts Variables() const
    {
        Texts texts;
        const veltrane::VariableTableIteratorPtr all(
            EvalContextVariableTableIteratorNew(site_.ctx(), nullptr, nullptr, nullptr));
        while (const Variable *one = VariableTableIteratorNext(all.get())) {
            const VarRef *ref = VariableGetRef(one);
            const veltrane::BufferPtr tags(StringSetToBuffer(VariableGetTags(one), ','));
            std::string text = std::string(ref->scope) + "." + ref->lval;
            for (size_t i = 0; i < ref->num_indices; i++) { text += std::string("[") + ref->indices[i] + "]"; }
            texts.push_back(text + " = " + RvalScalarValue(VariableGetRval(one, false)) + " {" +
                            BufferData(tags.get()) + "}");
        }
        std::sort(texts.begin(), texts.end());
        return texts;
    }

    const Asked anna_{"uid=anna,ou=people,dc=example,dc=org"};
    const Asked people_{"ou=people,dc=example,dc=org"};
    const Asked web1_{"cn=web1,ou=hosts,dc=example,dc=org"};

    static std::unique_ptr<Slapd> slapd;
    std::string uri_;
    std::unique_ptr<FakeDirectory> fake_;
    PromiseSite site_;
    LogCapture log_;
};

std::unique_ptr<Slapd> LdapFunctions::slapd;

// Pages of memory that this process has.
long ResidentPages()
{
    long size = 0;
    long resident = 0;
    const veltrane::FilePtr file(fopen("/proc/self/statm", "r"));
    return file != nullptr && fscanf(file.get(), "%ld %ld", &size, &resident) == 2 ? resident : -1;
}

#ifdef __SANITIZE_ADDRESS__
constexpr int kLookUps = 1000;  // what is freed stays for a while, so that memory says nothing; the leak checker does
#else
constexpr int kLookUps = 10'000;
#endif

}  // namespace

TEST_F(LdapFunctions, AValueIsTheFirstOfTheAttribute)
{
    EXPECT_EQ(Value("mail", anna_), "anna@example.org");
    EXPECT_THAT(log_.lines, ElementsAre(Pair(LOG_LEVEL_VERBOSE, "LDAP query found dn: " + anna_.base),
                                        Pair(LOG_LEVEL_VERBOSE, "Located LDAP value mail => anna@example.org")));
}

TEST_F(LdapFunctions, AValueIsThatOfTheFirstEntryThatHasIt)
{
    EXPECT_EQ(Value("owner", {"ou=mixed,dc=example,dc=org"}), slapd->anna);
}

TEST_F(LdapFunctions, AnAttributeThatNoEntryHasIsNoValue)
{
    EXPECT_EQ(Value("mail", {"uid=carl,ou=people,dc=example,dc=org"}), kFailed);
    EXPECT_THAT(log_.lines,
                ElementsAre(Pair(LOG_LEVEL_VERBOSE, "LDAP query found dn: uid=carl,ou=people,dc=example,dc=org"),
                            Pair(LOG_LEVEL_VERBOSE, "LDAP Query result received"),
                            Pair(LOG_LEVEL_VERBOSE, "LDAP search successful, 1 entries, 0 references")));
}

TEST_F(LdapFunctions, NamesOfAttributesAreComparedWithTheirCase)
{
    EXPECT_EQ(Value("cn", anna_), "Anna Berg");
    EXPECT_EQ(Value("CN", anna_), kFailed);
    EXPECT_THAT(List("CN", anna_), ElementsAre(kFailed));
    EXPECT_EQ(Match("cn", ".*", anna_), "any");
    EXPECT_EQ(Match("CN", ".*", anna_), "!any");
}

TEST_F(LdapFunctions, AValueEndsAtAZeroAndKeepsOtherBytes)
{
    EXPECT_EQ(Value("jpegPhoto", {"cn=zero,ou=values,dc=example,dc=org"}), "ab");
    EXPECT_EQ(Value("jpegPhoto", {"cn=no-utf8,ou=values,dc=example,dc=org"}), "\xFF\xFE\x80");
    EXPECT_EQ(Value("cn", {"uid=bert,ou=people,dc=example,dc=org"}), "Bert Sørensen");
}

TEST_F(LdapFunctions, AValueOfFiveMegabytesComesWhole)
{
    const Slapd large({.large_value = 5 * 1024 * 1024});
    uri_ = large.uri;
    const Asked asked{"cn=large,ou=values,dc=example,dc=org"};
    EXPECT_EQ(Value("description", asked), std::string(5 * 1024 * 1024, 'x'));
    EXPECT_THAT(List("description", asked), ElementsAre(std::string(5 * 1024 * 1024, 'x')));
    EXPECT_EQ(Match("description", "x.*", asked), "any");
    EXPECT_EQ(Array("big", asked), "any");
}

TEST_F(LdapFunctions, AnEntryWithoutANameHasNoValueButIsReadByTheOthers)
{
    // Its name is as malformed as the rest of it: nobody finds anything, and only the first function says so.
    Pretend({ldap_bytes::EntryWithoutName(), SearchDone(0)});
    EXPECT_EQ(Value("cn", {""}), kFailed);
    EXPECT_TRUE(log_.Has(LOG_LEVEL_VERBOSE, "No LDAP query result found"));
    log_.lines.clear();
    EXPECT_THAT(List("cn", {""}), ElementsAre(kFailed));
    EXPECT_TRUE(log_.Has(LOG_LEVEL_VERBOSE, "No LDAP query found"));
    log_.lines.clear();
    EXPECT_EQ(Array("a", {""}), "!any");
    EXPECT_EQ(Match("cn", ".*", {""}), "!any");
    EXPECT_FALSE(log_.Has(LOG_LEVEL_VERBOSE, "No LDAP query found"));
    EXPECT_FALSE(log_.Has(LOG_LEVEL_VERBOSE, "No LDAP query result found"));
}

TEST_F(LdapFunctions, AnAttributeWithoutValuesIsNotThere)
{
    Pretend({SearchEntry("cn=a", Attribute("cn", {})), SearchDone(0)});
    ExpectAllFindNothing({""});
}

TEST_F(LdapFunctions, AListHoldsAllValuesInAllEntries)
{
    EXPECT_THAT(List("mail", {people_.base, "(mail=*)"}),
                ElementsAre("anna@example.org", "a.berg@example.org", "postmaster@example.org", "bert@example.org"));
    EXPECT_TRUE(log_.Has(LOG_LEVEL_DEBUG, "LDAP query found attribute 'mail'"));
    EXPECT_TRUE(log_.Has(LOG_LEVEL_VERBOSE, "Located LDAP value 'mail' => 'a.berg@example.org'"));
    EXPECT_TRUE(log_.Has(LOG_LEVEL_VERBOSE, "LDAP search was successful, 2 entries, 0 references"));
}

TEST_F(LdapFunctions, AListKnowsTheNamesOfTheFirstEntryAlone)
{
    EXPECT_THAT(List("owner", {"ou=mixed,dc=example,dc=org", "(cn=*)"}), ElementsAre(kFailed));
    EXPECT_THAT(List("owner", {"ou=mixed,dc=example,dc=org", "(cn=second)"}), ElementsAre(slapd->anna));
}

TEST_F(LdapFunctions, AListIsEmptyWhereAReferenceComesFirst)
{
    const Asked asked{"ou=referrals,dc=example,dc=org", "(objectClass=*)", "onelevel"};
    EXPECT_THAT(List("cn", asked), ElementsAre(kFailed));
    EXPECT_EQ(Value("cn", asked), "beside-it-all");
}

TEST_F(LdapFunctions, AReferenceThatCannotBeParsedDiscardsTheList)
{
    Pretend({SearchEntry("cn=a", Attribute("cn", {"a"})), ldap_bytes::Tlv('\x73', "\x04\x7Fldap"), SearchDone(0)});
    EXPECT_THAT(List("cn", {""}), ElementsAre(kFailed));
    EXPECT_TRUE(log_.Has(LOG_LEVEL_ERR, "Unable to parse LDAP references: Decoding error"));
    EXPECT_EQ(Match("cn", "b", {""}), kFailed);
    EXPECT_EQ(Value("cn", {""}), "a");  // it was found before
}

TEST_F(LdapFunctions, AnArrayTakesTheFirstValueOfEachAttributeButTheClasses)
{
    EXPECT_EQ(Array("person", anna_), "any");
    EXPECT_THAT(
        Variables(),
        ElementsAre("main.person[cn] = Anna Berg {source=ldap}", "main.person[mail] = anna@example.org {source=ldap}",
                    "main.person[sn] = Berg {source=ldap}", "main.person[uid] = anna {source=ldap}"));
    EXPECT_TRUE(log_.Has(LOG_LEVEL_VERBOSE, "LDAP query found dn: " + anna_.base));
    EXPECT_TRUE(log_.Has(LOG_LEVEL_VERBOSE, "Setting person[mail] => anna@example.org, in context 'main'"));
}

TEST_F(LdapFunctions, AnArrayOfAnEntryWithANameAndItsClassesHoldsTheNameAlone)
{
    EXPECT_EQ(Array("host", {"cn=lonely,ou=hosts,dc=example,dc=org"}), "any");
    EXPECT_THAT(Variables(), ElementsAre("main.host[cn] = lonely {source=ldap}"));
}

TEST_F(LdapFunctions, AnArrayIsOfTheFirstEntryThatSetsSomething)
{
    EXPECT_EQ(Array("host", {"ou=hosts,dc=example,dc=org", "(cn=*)"}), "any");
    const Texts variables = Variables();
    EXPECT_THAT(variables, testing::Contains("main.host[cn] = web1 {source=ldap}"));
    EXPECT_FALSE(log_.Has(LOG_LEVEL_VERBOSE, "LDAP query found dn: cn=lonely,ou=hosts,dc=example,dc=org"));
}

TEST_F(LdapFunctions, AnArrayPassesOverEntriesThatSetNothing)
{
    Pretend({SearchEntry("cn=a", Attribute("objectClass", {"top"})), SearchEntry("cn=b", Attribute("cn", {"b", "c"})),
             SearchDone(0)});
    EXPECT_EQ(Array("x", {""}), "any");
    EXPECT_THAT(Variables(), ElementsAre("main.x[cn] = b {source=ldap}"));
}

TEST_F(LdapFunctions, AnArrayMayBeOfAnotherBundle)
{
    EXPECT_EQ(Array("other.host", {"cn=lonely,ou=hosts,dc=example,dc=org"}), "any");
    EXPECT_THAT(Variables(), ElementsAre("other.host[cn] = lonely {source=ldap}"));
}

TEST_F(LdapFunctions, TheNameOfAnElementIsCutAtItsBuffer)
{
    const std::string name(2000, 'n');
    Pretend({SearchEntry("cn=a", Attribute(name, {"v"})), SearchDone(0)});
    EXPECT_EQ(Array("x", {""}), "any");
    EXPECT_THAT(Variables(), ElementsAre("main.x[" + name.substr(0, 1021) + " = v {source=ldap}"));
}

TEST_F(LdapFunctions, ARegularExpressionMatchesWholeValues)
{
    EXPECT_EQ(Match("description", "in the cellar", web1_), "any");
    EXPECT_THAT(log_.lines,
                ElementsAre(Pair(LOG_LEVEL_VERBOSE, "LDAP query found dn: " + web1_.base),
                            Pair(LOG_LEVEL_VERBOSE, "Located regex matching LDAP value description => in the cellar")));
    EXPECT_EQ(Match("description", "the cellar", web1_), "!any");
    EXPECT_EQ(Match("description", "in the", web1_), "!any");
    EXPECT_EQ(Match("description", ".*cellar", web1_), "any");
}

TEST_F(LdapFunctions, ARegularExpressionMeetsEveryValueOfEveryEntry)
{
    EXPECT_EQ(Match("mail", "postmaster@.*", people_), "any");
    EXPECT_EQ(Match("mail", "bert@.*", people_), "any");
    EXPECT_EQ(Match("mail", "carl@.*", people_), "!any");
    EXPECT_TRUE(log_.Has(LOG_LEVEL_VERBOSE, "LDAP search successful, 4 entries, 0 references"));
}

TEST_F(LdapFunctions, OnlyTheRegularExpressionTellsOfMessagesThatNobodyKnows)
{
    Pretend({ldap_bytes::Intermediate(), SearchDone(0)});
    (void)Value("cn", {""});
    (void)List("cn", {""});
    (void)Array("a", {""});
    EXPECT_FALSE(log_.Has(LOG_LEVEL_VERBOSE, "Unknown message received"));
    EXPECT_EQ(Match("cn", ".*", {""}), "!any");
    EXPECT_TRUE(log_.Has(LOG_LEVEL_VERBOSE, "Unknown message received"));
}

TEST_F(LdapFunctions, ASearchThatFindsNothingSetsNothing)
{
    ExpectAllFindNothing({"ou=empty,dc=example,dc=org", "(cn=*)"});
}

TEST_F(LdapFunctions, AScopeInCapitalLettersIsTheSubtree)
{
    EXPECT_EQ(Value("uid", {slapd->base, "(uid=anna)", "onelevel"}), kFailed);
    EXPECT_EQ(Value("uid", {slapd->base, "(uid=anna)", "ONELEVEL"}), "anna");
}

TEST_F(LdapFunctions, ReferencesAreTold)
{
    ExpectAllFindNothing({"ou=referrals,dc=example,dc=org", "(cn=nothing)"});
    EXPECT_TRUE(
        log_.Has(LOG_LEVEL_VERBOSE, "Search reference: ldap://127.0.0.1:1/ou=elsewhere,dc=example,dc=org??sub"));
    EXPECT_TRUE(log_.Has(LOG_LEVEL_VERBOSE, "LDAP search successful, 0 entries, 1 references"));
}

TEST_F(LdapFunctions, FailWithOneErrorLineWhenTheBaseIsWrong)
{
    EXPECT_EQ(Value("cn", {"ou=nowhere,dc=example,dc=org"}), kFailed);
    EXPECT_THAT(log_.lines, ElementsAre(Pair(LOG_LEVEL_ERR, "LDAP search failed: No such object")));
    ExpectAllFail({"ou=nowhere,dc=example,dc=org"});
}

TEST_F(LdapFunctions, FailWithOneErrorLineWhenTheFilterIsWrong)
{
    EXPECT_EQ(Value("cn", {slapd->base, "(cn=*"}), kFailed);
    EXPECT_THAT(log_.lines, ElementsAre(Pair(LOG_LEVEL_ERR, "LDAP search failed: Bad search filter")));
    ExpectAllFail({slapd->base, "(cn=*"});
}

TEST_F(LdapFunctions, FailWithoutAWordWhenNobodyListens)
{
    const LeftHandles left;
    uri_ = kNowhere;
    ExpectAllFail(anna_);
    EXPECT_THAT(log_.lines, IsEmpty());
}

TEST_F(LdapFunctions, FailWhenTheAddressIsNone)
{
    uri_ = "nonsense";
    EXPECT_EQ(Value("cn", anna_), kFailed);
    EXPECT_THAT(log_.lines,
                ElementsAre(Pair(LOG_LEVEL_ERR, "LDAP connection failed: Bad parameter to an ldap routine")));
    ExpectAllFail(anna_);
}

TEST_F(LdapFunctions, FailWhenTheServerClosesInTheMiddle)
{
    fake_ = std::make_unique<FakeDirectory>(std::vector<std::string>{ldap_bytes::Message(1, ldap_bytes::BindResult(0)),
                                                                     ldap_bytes::Message(2, SearchEntry("cn=a", ""))});
    uri_ = fake_->uri;
    EXPECT_EQ(Value("cn", {""}), kFailed);
    EXPECT_THAT(log_.lines, ElementsAre(Pair(LOG_LEVEL_ERR, "LDAP search failed: Can't contact LDAP server")));
    ExpectAllFail({""});
}

TEST_F(LdapFunctions, SaslIsABindAsTheBaseWithAnEmptyPassword)
{
    const LeftHandles left;
    Asked asked = anna_;
    asked.security = "sasl";
    ExpectAllFail(asked);  // most servers refuse that
    EXPECT_THAT(log_.lines, IsEmpty());

    Slapd lenient({.logs = true, .global_lines = "allow bind_anon_dn\n"});
    uri_ = lenient.uri;
    EXPECT_EQ(Value("cn", asked), "Anna Berg");
    EXPECT_TRUE(lenient.WaitForOperation("BIND dn=\"" + anna_.base + "\" method=128"));
    EXPECT_TRUE(lenient.WaitForOperation("UNBIND"));
}

TEST_F(LdapFunctions, WithoutSaslNobodyIsBoundAndTheSessionEnds)
{
    Slapd telling({.logs = true});
    uri_ = telling.uri;
    EXPECT_EQ(Value("cn", anna_), "Anna Berg");
    EXPECT_TRUE(telling.WaitForOperation("BIND dn=\"\" method=128"));
    EXPECT_TRUE(telling.WaitForOperation("UNBIND"));
    EXPECT_EQ(telling.Operations().find("STARTTLS"), std::string::npos);
}

TEST_F(LdapFunctions, TenThousandLookUpsLeaveNothingBehind)
{
    LoggingPrivSetContext(nullptr);  // the capture would grow
    const Asked mails{people_.base, "(mail=*)"};
    const auto look_up = [&](int times) {
        for (int i = 0; i < times; i++) {
            switch (i % 5) {
                case 0:
                    ASSERT_EQ(Value("mail", anna_), "anna@example.org");
                    break;
                case 1:
                    ASSERT_EQ(List("mail", mails).size(), 4u);
                    break;
                case 2:
                    ASSERT_EQ(Array("person", anna_), "any");
                    break;
                case 3:
                    ASSERT_EQ(Match("mail", "no.*", mails), "!any");
                    break;
                default:
                    ASSERT_EQ(Value("nothing", mails), kFailed);
                    break;
            }
        }
    };
    look_up(kLookUps / 10);
    const size_t descriptors = OpenDescriptors();
    const long pages = ResidentPages();

    look_up(kLookUps);

    EXPECT_EQ(OpenDescriptors(), descriptors);
#ifndef __SANITIZE_ADDRESS__
    EXPECT_LT((ResidentPages() - pages) * sysconf(_SC_PAGESIZE), 256 * 1024);
#endif
    RecordProperty("pages_grown", static_cast<int>(ResidentPages() - pages));
}
