// The evaluation stack: its path, its promisees, and what an iteration keeps.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <veltrane/eval_context.h>
#include <veltrane/owned.h>
#include <veltrane/ring_buffer.h>
#include <veltrane/rlist.h>

#include "libveltrane/eval_context_internal.h"
#include "libveltrane/policy_internal.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using veltrane::TextPtr;

Rval Scalar(const char *text) { return RvalNew(text, RVAL_TYPE_SCALAR); }

class EvalContextStackTest : public testing::Test {
  protected:
    Promise *NewPromise(const char *promiser, Rval promisee = Rval{})
    {
        return BundleSectionAppendPromise(section_, promiser, promisee, SourceOffset{7, 5});
    }

    std::string Path() const { return TextPtr(EvalContextStackPath(ctx_.get())).get(); }

    std::vector<std::string> Promisees() const
    {
        const veltrane::StringSetPtr set(EvalContextStackPromisees(ctx_.get()));
        std::vector<std::string> all;
        StringSetIterator i = StringSetIteratorInit(set.get());
        while (const char *promisee = StringSetIteratorNext(&i)) { all.emplace_back(promisee); }
        return all;
    }

    std::vector<std::string> Messages() const
    {
        std::vector<std::string> all;
        RingBufferIterator *i = RingBufferIteratorNew(EvalContextStackCurrentMessages(ctx_.get()));
        while (const void *message = RingBufferIteratorNext(i)) {
            all.emplace_back(static_cast<const char *>(message));
        }
        RingBufferIteratorDestroy(i);
        return all;
    }

    // Logs through the hook alone: what reaches it is the same whatever level is in force.
    void Hear(LogLevel level, const char *message)
    {
        LoggingPrivContext hook{};
        hook.param = ctx_.get();
        HubviewLogHook(&hook, level, message);
    }

    veltrane::PolicyPtr policy_{PolicyNew()};
    Bundle *bundle_ = PolicyAppendBundle(policy_.get(), nullptr, "main", "agent", "/inputs/promises.vt");
    BundleSection *section_ = BundleAppendSection(bundle_, "files");
    veltrane::EvalContextPtr ctx_{EvalContextNew()};
};

TEST_F(EvalContextStackTest, AtRestThePathIsEmpty)
{
    EXPECT_EQ(Path(), "");
    EXPECT_THAT(Promisees(), IsEmpty());
    EXPECT_EQ(EvalContextStackCurrentMessages(ctx_.get()), nullptr);
    EXPECT_EQ(veltrane::EvalContextStackCurrentBundle(ctx_.get()), nullptr);
}

TEST_F(EvalContextStackTest, ThePathGrowsWithEachLevelAndShrinksAgain)
{
    const Promise *pp = NewPromise("/etc/motd");
    EvalContextStackPushBundle(ctx_.get(), bundle_);
    EXPECT_EQ(Path(), "/default/main");
    EvalContextStackPushSection(ctx_.get(), section_);
    EXPECT_EQ(Path(), "/default/main/files");
    EvalContextStackPushPromise(ctx_.get(), pp);
    EXPECT_EQ(Path(), "/default/main/files/'/etc/motd'");
    EvalContextStackPushIteration(ctx_.get(), pp, 3);
    EXPECT_EQ(Path(), "/default/main/files/'/etc/motd'[3]");
    for (int i = 0; i < 4; i++) { EvalContextStackPop(ctx_.get()); }
    EXPECT_EQ(Path(), "");
}

TEST_F(EvalContextStackTest, AnIterationShowsItsExpandedPromiser)
{
    const veltrane::PromisePtr expanded(veltrane::PromiseNewDetached(section_, "/etc/b", Rval{}, SourceOffset{}));
    EvalContextStackPushPromise(ctx_.get(), NewPromise("/etc/$(name)"));
    EvalContextStackPushIteration(ctx_.get(), expanded.get(), 1);
    EXPECT_EQ(Path(), "/'/etc/b'[1]");
}

TEST_F(EvalContextStackTest, ABundleCalledByAPromiseNestsInThePath)
{
    const Promise *pp = NewPromise("hardening");
    const Bundle *called = PolicyAppendBundle(policy_.get(), "site", "hardening", "agent", nullptr);
    EvalContextStackPushBundle(ctx_.get(), bundle_);
    EvalContextStackPushPromise(ctx_.get(), pp);
    EvalContextStackPushIteration(ctx_.get(), pp, 0);
    EvalContextStackPushBundle(ctx_.get(), called);
    EXPECT_EQ(Path(), "/default/main/'hardening'[0]/site/hardening");
    EXPECT_EQ(veltrane::EvalContextStackCurrentBundle(ctx_.get()), called);
}

TEST_F(EvalContextStackTest, PromiseesOfEveryPromiseOnTheStackAreOneSet)
{
    const Promise *outer = NewPromise("call", Scalar("security"));
    const Promise *inner = NewPromise("/etc/motd", Rval{RlistFromSplitString("ops,security,web", ','), RVAL_TYPE_LIST});
    EvalContextStackPushPromise(ctx_.get(), outer);
    EvalContextStackPushIteration(ctx_.get(), outer, 0);
    EvalContextStackPushPromise(ctx_.get(), inner);
    EXPECT_THAT(Promisees(), ElementsAre("security", "ops", "web"));
}

TEST_F(EvalContextStackTest, AnIterationsPromiseesStandForThoseOfItsPromise)
{
    const veltrane::PromisePtr expanded(veltrane::PromiseNewDetached(section_, "x", Scalar("team-a"), SourceOffset{}));
    EvalContextStackPushPromise(ctx_.get(), NewPromise("x", Scalar("team-$(t)")));
    EvalContextStackPushIteration(ctx_.get(), expanded.get(), 0);
    EXPECT_THAT(Promisees(), ElementsAre("team-a"));
}

TEST_F(EvalContextStackTest, APromiseWithoutPromiseesAddsNone)
{
    EvalContextStackPushPromise(ctx_.get(), NewPromise("x"));
    EXPECT_THAT(Promisees(), IsEmpty());
}

TEST_F(EvalContextStackTest, AnIterationBeginsWithoutMessages)
{
    EvalContextStackPushIteration(ctx_.get(), NewPromise("x"), 0);
    EXPECT_THAT(Messages(), IsEmpty());
}

TEST_F(EvalContextStackTest, CriticalToInfoAreKeptVerboseAndDebugAreNot)
{
    EvalContextStackPushIteration(ctx_.get(), NewPromise("x"), 0);
    Hear(LOG_LEVEL_CRIT, "crit");
    Hear(LOG_LEVEL_ERR, "err");
    Hear(LOG_LEVEL_WARNING, "warning");
    Hear(LOG_LEVEL_VERBOSE, "verbose");
    Hear(LOG_LEVEL_DEBUG, "debug");
    Hear(LOG_LEVEL_NOTHING, "nothing");
    Hear(LOG_LEVEL_NOTICE, "notice");
    Hear(LOG_LEVEL_INFO, "info");
    EXPECT_THAT(Messages(), ElementsAre("crit", "err", "warning", "notice", "info"));
}

TEST_F(EvalContextStackTest, OfMoreThanFiveMessagesTheOldestFallOut)
{
    EvalContextStackPushIteration(ctx_.get(), NewPromise("x"), 0);
    for (const char *message : {"1", "2", "3", "4", "5", "6", "7"}) { Hear(LOG_LEVEL_INFO, message); }
    EXPECT_THAT(Messages(), ElementsAre("3", "4", "5", "6", "7"));
}

TEST_F(EvalContextStackTest, OutsideAnIterationMessagesAreNotKept)
{
    const Promise *pp = NewPromise("x");
    Hear(LOG_LEVEL_ERR, "at rest");
    EvalContextStackPushIteration(ctx_.get(), pp, 0);
    EvalContextStackPushBundle(ctx_.get(), bundle_);
    Hear(LOG_LEVEL_ERR, "in the called bundle");
    EXPECT_EQ(EvalContextStackCurrentMessages(ctx_.get()), nullptr);
    EvalContextStackPop(ctx_.get());
    EXPECT_THAT(Messages(), IsEmpty());
}

TEST_F(EvalContextStackTest, TheNextIterationDoesNotSeeTheMessagesOfTheOneBefore)
{
    const Promise *pp = NewPromise("x");
    EvalContextStackPushIteration(ctx_.get(), pp, 0);
    Hear(LOG_LEVEL_ERR, "first");
    EvalContextStackPop(ctx_.get());
    EvalContextStackPushIteration(ctx_.get(), pp, 1);
    EXPECT_THAT(Messages(), IsEmpty());
}

TEST_F(EvalContextStackTest, ABoundHookKeepsWhatIsLogged)
{
    LoggingPrivContext hook{};
    hook.log_hook = HubviewLogHook;
    hook.param = ctx_.get();
    hook.force_hook_level = LOG_LEVEL_INFO;
    LoggingPrivContext *previous = LoggingPrivGetContext();
    LoggingPrivSetContext(&hook);
    EvalContextStackPushIteration(ctx_.get(), NewPromise("x"), 0);
    Log(LOG_LEVEL_INFO, "Updated '%s'", "x");
    LoggingPrivSetContext(previous);
    EXPECT_THAT(Messages(), ElementsAre("Updated 'x'"));
}

TEST_F(EvalContextStackTest, TheWorstOutcomeNotedStays)
{
    EvalContextStackPushIteration(ctx_.get(), NewPromise("x"), 0);
    EXPECT_EQ(veltrane::EvalContextIterationResult(ctx_.get()), PROMISE_RESULT_SKIPPED);
    veltrane::EvalContextIterationNote(ctx_.get(), PROMISE_RESULT_CHANGE);
    veltrane::EvalContextIterationNote(ctx_.get(), PROMISE_RESULT_NOOP);
    EXPECT_EQ(veltrane::EvalContextIterationResult(ctx_.get()), PROMISE_RESULT_CHANGE);
    veltrane::EvalContextIterationNote(ctx_.get(), PROMISE_RESULT_FAIL);
    EXPECT_EQ(veltrane::EvalContextIterationResult(ctx_.get()), PROMISE_RESULT_FAIL);
}

TEST_F(EvalContextStackTest, WithoutAnIterationOnTopNothingIsNoted)
{
    const Promise *pp = NewPromise("x");
    veltrane::EvalContextIterationNote(ctx_.get(), PROMISE_RESULT_FAIL);
    EvalContextStackPushIteration(ctx_.get(), pp, 0);
    EvalContextStackPushPromise(ctx_.get(), pp);
    veltrane::EvalContextIterationNote(ctx_.get(), PROMISE_RESULT_FAIL);
    EXPECT_EQ(veltrane::EvalContextIterationResult(ctx_.get()), PROMISE_RESULT_SKIPPED);
    EvalContextStackPop(ctx_.get());
    EXPECT_EQ(veltrane::EvalContextIterationResult(ctx_.get()), PROMISE_RESULT_SKIPPED);
}

TEST_F(EvalContextStackTest, PoppingAnEmptyStackIsAProgrammingError)
{
    EXPECT_DEATH(EvalContextStackPop(ctx_.get()), "programming error: Nothing is on the evaluation stack");
}

}  // namespace
