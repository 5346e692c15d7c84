// Outcomes: which is worse, and what reporting one logs, notes and defines.
#include <veltrane/outcome.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include <veltrane/attributes.h>
#include <veltrane/json.h>
#include <veltrane/owned.h>

#include "libveltrane/eval_context_internal.h"
#include "support/log_capture.h"

namespace {

using testing::ElementsAre;
using testing::Pair;

TEST(Outcome, TheWorseOfTwoResultsStays)
{
    const std::string from_worst = "itdfwcns";
    for (size_t i = 0; i < from_worst.size(); i++) {
        for (size_t j = 0; j < from_worst.size(); j++) {
            const auto a = static_cast<PromiseResult>(from_worst[i]);
            const auto b = static_cast<PromiseResult>(from_worst[j]);
            EXPECT_EQ(PromiseResultUpdate(a, b), i < j ? a : b) << from_worst[i] << from_worst[j];
        }
    }
}

class RecordTest : public testing::Test {
  protected:
    RecordTest()
    {
        JsonElement *classes = nullptr;
        EXPECT_EQ(JsonParse(R"({"kept":"motd_ok","repaired":["motd_changed","site:changed"],"failed":["motd-failed"]})",
                            &classes),
                  JSON_PARSE_OK);
        classes_.reset(classes);
        attr_.classes = classes_.get();
        EvalContextStackPushIteration(ctx_.get(), pp_, 0);
    }

    bool IsDefined(const char *name) const { return CheckClassExpression(ctx_.get(), name) == EXPRESSION_VALUE_TRUE; }
    PromiseResult Noted() const { return veltrane::EvalContextIterationResult(ctx_.get()); }

    veltrane::PolicyPtr policy_{PolicyNew()};
    Bundle *bundle_ = PolicyAppendBundle(policy_.get(), nullptr, "main", "agent", nullptr);
    Promise *pp_ =
        BundleSectionAppendPromise(BundleAppendSection(bundle_, "files"), "/etc/motd", Rval{}, SourceOffset{});
    veltrane::JsonPtr classes_;
    Attributes attr_{};
    veltrane::EvalContextPtr ctx_{EvalContextNew()};
    LogCapture log_;
};

TEST_F(RecordTest, NoChangeIsVerboseAndKept)
{
    RecordNoChange(ctx_.get(), pp_, &attr_, "File '%s' is right", "/etc/motd");
    EXPECT_THAT(log_.lines, ElementsAre(Pair(LOG_LEVEL_VERBOSE, "File '/etc/motd' is right")));
    EXPECT_EQ(Noted(), PROMISE_RESULT_NOOP);
    EXPECT_TRUE(IsDefined("motd_ok.!motd_changed.!motd_failed"));
}

TEST_F(RecordTest, ChangeIsInfoAndRepaired)
{
    RecordChange(ctx_.get(), pp_, &attr_, "Wrote '%s'", "/etc/motd");
    EXPECT_THAT(log_.lines, ElementsAre(Pair(LOG_LEVEL_INFO, "Wrote '/etc/motd'")));
    EXPECT_EQ(Noted(), PROMISE_RESULT_CHANGE);
    EXPECT_TRUE(IsDefined("motd_changed.site:changed.!motd_ok"));
}

TEST_F(RecordTest, WarningIsNotKept)
{
    RecordWarning(ctx_.get(), pp_, &attr_, "Should write '%s'", "/etc/motd");
    EXPECT_THAT(log_.lines, ElementsAre(Pair(LOG_LEVEL_WARNING, "Should write '/etc/motd'")));
    EXPECT_EQ(Noted(), PROMISE_RESULT_WARN);
    EXPECT_TRUE(IsDefined("motd_failed.!motd_ok"));
}

TEST_F(RecordTest, FailureIsAnErrorAndNotKept)
{
    RecordFailure(ctx_.get(), pp_, &attr_, "Cannot write '%s'", "/etc/motd");
    EXPECT_THAT(log_.lines, ElementsAre(Pair(LOG_LEVEL_ERR, "Cannot write '/etc/motd'")));
    EXPECT_EQ(Noted(), PROMISE_RESULT_FAIL);
    EXPECT_TRUE(IsDefined("motd_failed.!motd_changed"));
}

TEST_F(RecordTest, WithoutAttributesNoClassIsDefined)
{
    RecordFailure(ctx_.get(), pp_, nullptr, "one");
    attr_.classes = nullptr;
    RecordFailure(ctx_.get(), pp_, &attr_, "two");
    const veltrane::ClassTableIteratorPtr classes(
        EvalContextClassTableIteratorNewGlobal(ctx_.get(), nullptr, true, true));
    EXPECT_EQ(ClassTableIteratorNext(classes.get()), nullptr);
    EXPECT_EQ(Noted(), PROMISE_RESULT_FAIL);
}

TEST_F(RecordTest, AnOutcomeThatAttributesDoNotNameDefinesNothing)
{
    const veltrane::JsonPtr only_kept(JsonObjectCreate(1));
    JsonObjectAppendString(only_kept.get(), "kept", "motd_ok");
    attr_.classes = only_kept.get();
    RecordChange(ctx_.get(), pp_, &attr_, "Wrote it");
    EXPECT_FALSE(IsDefined("motd_ok"));
}

TEST_F(RecordTest, ClassesOfAPromiseBelongToItsNamespace)
{
    Bundle *bundle = PolicyAppendBundle(policy_.get(), "web", "other", "agent", nullptr);
    const Promise *pp = BundleSectionAppendPromise(BundleAppendSection(bundle, "files"), "x", Rval{}, SourceOffset{});
    RecordChange(ctx_.get(), pp, &attr_, "Wrote it");
    EXPECT_TRUE(IsDefined("web:motd_changed.site:changed.!motd_changed"));
}

TEST_F(RecordTest, DefinedClassesAreSoft)
{
    RecordNoChange(ctx_.get(), pp_, &attr_, "Right");
    const veltrane::ClassTableIteratorPtr hard(
        EvalContextClassTableIteratorNewGlobal(ctx_.get(), nullptr, true, false));
    EXPECT_EQ(ClassTableIteratorNext(hard.get()), nullptr);
}

TEST_F(RecordTest, TheWorstOfSeveralOutcomesIsNoted)
{
    RecordFailure(ctx_.get(), pp_, nullptr, "failed");
    RecordChange(ctx_.get(), pp_, nullptr, "changed");
    RecordNoChange(ctx_.get(), pp_, nullptr, "kept");
    EXPECT_EQ(Noted(), PROMISE_RESULT_FAIL);
}

}  // namespace
