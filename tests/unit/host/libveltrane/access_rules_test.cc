#include "libveltrane/access_rules.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <veltrane/owned.h>
#include <veltrane/policy.h>
#include <veltrane/rlist.h>

#include "support/log_capture.h"
#include "support/texts.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using veltrane::AccessRules;

const std::string kHub = "SHA=" + std::string(64, 'a');
const std::string kOther = "SHA=" + std::string(64, 'b');

class Access : public testing::Test {
  protected:
    Access()
        : policy(PolicyNew()),
          section(
              BundleAppendSection(PolicyAppendBundle(policy.get(), "default", "rules", "server", "/p.vt"), "access"))
    {
    }

    // An access promise with lists of texts and, where the name says so, a scalar.
    Promise *Promised(const char *promiser, const char *resource,
                      const std::vector<std::pair<const char *, std::vector<std::string>>> &lists)
    {
        Promise *pp = BundleSectionAppendPromise(section, promiser, Rval{nullptr, RVAL_TYPE_NONE}, SourceOffset{7, 5});
        PromiseAppendConstraint(pp, "resource", RvalNew(resource, RVAL_TYPE_SCALAR));
        for (const auto &[name, texts] : lists) { PromiseAppendConstraint(pp, name, ListRval(texts)); }
        return pp;
    }

    void AddFilter(const char *promiser)
    {
        Promise *pp = Promised(promiser, "query", {{"admit_keys", {kHub}}});
        PromiseAppendConstraint(pp, "report_data_select", RvalNew("", RVAL_TYPE_SCALAR));
        rules.Add(pp);
    }

    veltrane::PolicyPtr policy;
    BundleSection *section;
    AccessRules rules;
};

TEST_F(Access, NobodyIsAdmittedWhoIsNotNamed)
{
    EXPECT_FALSE(rules.Admits("query", "delta", kHub, "10.0.0.1"));
    rules.Add(Promised("delta", "query", {{"admit_keys", {kHub}}}));
    EXPECT_TRUE(rules.Admits("query", "delta", kHub, "10.0.0.1"));
    EXPECT_FALSE(rules.Admits("query", "delta", kOther, "10.0.0.1"));
    EXPECT_FALSE(rules.Admits("query", "delta", "", ""));
}

TEST_F(Access, APromiseWithoutListsAdmitsNobody)
{
    rules.Add(Promised("delta", "query", {}));
    EXPECT_FALSE(rules.Admits("query", "delta", kHub, "10.0.0.1"));
}

TEST_F(Access, TheWordAndTheResourceMustBeTheSame)
{
    rules.Add(Promised("delta", "query", {{"admit_keys", {kHub}}}));
    EXPECT_FALSE(rules.Admits("query", "rebase", kHub, ""));
    EXPECT_FALSE(rules.Admits("query", "delt", kHub, ""));
    EXPECT_FALSE(rules.Admits("literal", "delta", kHub, ""));
    EXPECT_FALSE(rules.Admits("context", "delta", kHub, ""));
}

TEST_F(Access, AnAddressAdmitsWhoComesFromThere)
{
    rules.Add(Promised("delta", "query", {{"admit_ips", {"192.0.2.1", "10.0.0.0/8"}}}));
    EXPECT_TRUE(rules.Admits("query", "delta", kOther, "10.9.9.9"));
    EXPECT_TRUE(rules.Admits("query", "delta", kOther, "192.0.2.1"));
    EXPECT_FALSE(rules.Admits("query", "delta", kOther, "192.0.2.2"));
    EXPECT_FALSE(rules.Admits("query", "delta", kOther, ""));
}

TEST_F(Access, ADeniedKeyIsRefusedWhateverElseNamesIt)
{
    rules.Add(Promised("delta", "query", {{"admit_keys", {kHub, kOther}}, {"admit_ips", {"0.0.0.0/0"}}}));
    EXPECT_TRUE(rules.Admits("query", "delta", kHub, "10.0.0.1"));
    rules.Add(Promised("delta", "query", {{"deny_keys", {kHub}}}));
    EXPECT_FALSE(rules.Admits("query", "delta", kHub, "10.0.0.1")) << "in a later promise as well";
    EXPECT_TRUE(rules.Admits("query", "delta", kOther, "10.0.0.1"));
}

TEST_F(Access, PromisesAboutTheSameThingAddUp)
{
    rules.Add(Promised("delta", "query", {{"admit_keys", {kHub}}}));
    rules.Add(Promised("delta", "query", {{"admit_keys", {kOther}}}));
    EXPECT_TRUE(rules.Admits("query", "delta", kHub, ""));
    EXPECT_TRUE(rules.Admits("query", "delta", kOther, ""));
}

TEST_F(Access, ALiteralIsNamedByItsHandle)
{
    Promise *pp = Promised("10.2.0.1/24", "literal", {{"admit_keys", {kHub}}});
    PromiseAppendConstraint(pp, "handle", RvalNew("site_network", RVAL_TYPE_SCALAR));
    rules.Add(pp);
    EXPECT_TRUE(rules.Admits("literal", "site_network", kHub, ""));
    EXPECT_FALSE(rules.Admits("literal", "10.2.0.1/24", kHub, ""));
}

TEST_F(Access, AnEntryThatIsNoneAdmitsNobodyAndIsWarnedOf)
{
    LogCapture log;
    rules.Add(Promised("delta", "query",
                       {{"admit_keys", {"any", kHub}}, {"admit_ips", {"example.org"}}, {"deny_keys", {"SHA=1"}}}));
    EXPECT_TRUE(rules.Admits("query", "delta", kHub, ""));
    EXPECT_FALSE(rules.Admits("query", "delta", "any", "example.org"));
    EXPECT_THAT(
        log.UpTo(LOG_LEVEL_WARNING),
        ElementsAre(LogCapture::Line(LOG_LEVEL_WARNING, "Access promise '/p.vt:7': 'any' in admit_keys is no key"),
                    LogCapture::Line(LOG_LEVEL_WARNING,
                                     "Access promise '/p.vt:7': 'example.org' in admit_ips is no address or network"),
                    LogCapture::Line(LOG_LEVEL_WARNING, "Access promise '/p.vt:7': 'SHA=1' in deny_keys is no key")));
}

TEST_F(Access, TheRulesOutliveThePromiseTheyCameFrom)
{
    {
        const veltrane::PromisePtr passing(
            veltrane::PromiseNewDetached(section, "delta", Rval{nullptr, RVAL_TYPE_NONE}, SourceOffset{1, 1}));
        PromiseAppendConstraint(passing.get(), "resource", RvalNew("query", RVAL_TYPE_SCALAR));
        PromiseAppendConstraint(passing.get(), "report_data_select", RvalNew("", RVAL_TYPE_SCALAR));
        PromiseAppendConstraint(passing.get(), "admit_keys", RvalNew(kHub.c_str(), RVAL_TYPE_SCALAR));
        rules.Add(passing.get());
    }
    EXPECT_TRUE(rules.Admits("query", "delta", kHub, "")) << "one key may stand without a list";
    rules.ApplyReportFilters();
}

TEST_F(Access, AFilterForDeltaAloneIsWarnedOf)
{
    LogCapture log;
    AddFilter("delta");
    rules.WarnOfHalfFilters();
    EXPECT_TRUE(log.Has(LOG_LEVEL_WARNING,
                        "Only 'delta' queries have a report filter: 'rebase' queries are answered with everything"));
}

TEST_F(Access, AFilterForRebaseAloneIsWarnedOf)
{
    LogCapture log;
    rules.Add(Promised("delta", "query", {{"admit_keys", {kHub}}, {"metatags_include", {"inventory"}}}));
    AddFilter("rebase");
    rules.WarnOfHalfFilters();
    EXPECT_TRUE(log.Has(LOG_LEVEL_WARNING,
                        "Only 'rebase' queries have a report filter: 'delta' queries are answered with everything"));
}

TEST_F(Access, FiltersForBothOrForNeitherAreFine)
{
    LogCapture log;
    rules.WarnOfHalfFilters();
    AddFilter("delta");
    AddFilter("rebase");
    rules.WarnOfHalfFilters();
    EXPECT_THAT(log.UpTo(LOG_LEVEL_WARNING), IsEmpty());
}

}  // namespace
