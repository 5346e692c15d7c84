// What the directory functions of the policy say of their arguments, and of a host without the plug-in. What they find
// in a directory is shown with a real one, by the system tests.
#include "libveltrane/policy_functions_directory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "libveltrane/policy_functions.h"
#include "support/log_capture.h"
#include "support/promise_site.h"
#include "support/work_dir.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

namespace {

constexpr char kUri[] = "ldap://127.0.0.1:1";
constexpr char kNoPlugIn[] = "Directory look-ups need the enterprise plug-in";

class PolicyFunctionsDirectory : public testing::Test {
  protected:
    // The error lines of a call that fails.
    std::vector<std::string> Complaints(const char *name, std::vector<std::string> arguments)
    {
        log_.lines.clear();
        const veltrane::Answer answer =
            veltrane::CallPolicyFunction({site_.ctx(), site_.promise(), name, std::move(arguments)});
        EXPECT_FALSE(answer.ok);
        std::vector<std::string> texts;
        for (const LogCapture::Line &line : log_.UpTo(LOG_LEVEL_INFO)) {
            EXPECT_EQ(line.first, LOG_LEVEL_ERR);
            texts.push_back(line.second);
        }
        return texts;
    }

    WorkDirectory work_;  // without the plug-in
    PromiseSite site_;
    LogCapture log_;
};

}  // namespace

TEST_F(PolicyFunctionsDirectory, NeedThePlugInAndSayWhatWasAsked)
{
    const std::string asked = "no answer from 'ldap://127.0.0.1:1' for '(cn=*)' below 'dc=org'";
    EXPECT_THAT(Complaints("ldapvalue", {kUri, "dc=org", "(cn=*)", "role", "base", "none"}),
                ElementsAre(kNoPlugIn, "Function 'ldapvalue' failed: " + asked + ", or no value of 'role' in it"));
    EXPECT_THAT(Complaints("ldaplist", {kUri, "dc=org", "(cn=*)", "role", "base", "none"}),
                ElementsAre(kNoPlugIn, "Function 'ldaplist' failed: " + asked + ", or no value of 'role' in it"));
    EXPECT_THAT(Complaints("ldaparray", {"host", kUri, "dc=org", "(cn=*)", "base", "none"}),
                ElementsAre(kNoPlugIn, "Function 'ldaparray' failed: " + asked));
    EXPECT_THAT(Complaints("regldap", {kUri, "dc=org", "(cn=*)", "role", "base", "web.*", "none"}),
                ElementsAre(kNoPlugIn, "Function 'regldap' failed: " + asked));
}

TEST_F(PolicyFunctionsDirectory, TakeSixArgumentsAndTheMatchSeven)
{
    for (const char *name : {"ldapvalue", "ldaplist", "ldaparray"}) {
        for (const size_t given : {size_t{0}, size_t{5}, size_t{7}}) {
            EXPECT_THAT(Complaints(name, std::vector<std::string>(given, "x")),
                        ElementsAre("Function '" + std::string(name) + "' failed: it does not take " +
                                    std::to_string(given) + " arguments"));
        }
    }
    for (const size_t given : {size_t{6}, size_t{8}}) {
        EXPECT_THAT(Complaints("regldap", std::vector<std::string>(given, "x")),
                    ElementsAre("Function 'regldap' failed: it does not take " + std::to_string(given) + " arguments"));
    }
}

TEST_F(PolicyFunctionsDirectory, AskNobodyForAnArrayWithoutAProperName)
{
    for (const char *name : {"", "a b", "a[b]", "$(x)", "a\nb"}) {
        EXPECT_THAT(Complaints("ldaparray", {name, kUri, "dc=org", "(cn=*)", "base", "none"}),
                    ElementsAre("Function 'ldaparray' failed: '" + std::string(name) + "' is no name of an array"));
    }
}

TEST_F(PolicyFunctionsDirectory, AskNobodyForAMatchOfAnExpressionThatIsNone)
{
    EXPECT_THAT(Complaints("regldap", {kUri, "dc=org", "(cn=*)", "role", "base", "(web", "none"}),
                ElementsAre("Function 'regldap' failed: '(web' is no regular expression: missing closing parenthesis "
                            "(at byte 4)"));
}
