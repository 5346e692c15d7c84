// Tests of the policy evaluator: bundles, passes, iterations.
#include "libveltrane/evaluator.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <veltrane/globals.h>
#include <veltrane/owned.h>
#include <veltrane/set.h>

#include "libveltrane/promise_attributes.h"
#include "support/log_capture.h"
#include "support/work_dir.h"

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::Pair;

namespace {

class Evaluator : public testing::Test {
  protected:
    Evaluator()
    {
        PR_KEPT = PR_REPAIRED = PR_NOTKEPT = 0;
        EvalContextClassPutHard(ctx.get(), "any", nullptr);
        // Reports are told to the test; one whose text begins with an outcome's word has that outcome.
        evaluation.actuators["reports"] = [this](EvalContext *, const Promise *expanded) {
            const std::string text = expanded->promiser;
            reports.push_back(text);
            if (const char *file = veltrane::AttributeText(expanded, "to_file"); file != nullptr) {
                files.emplace_back(file);
            }
            return text.starts_with("repair") ? PROMISE_RESULT_CHANGE
                   : text.starts_with("warn") ? PROMISE_RESULT_WARN
                   : text.starts_with("fail") ? PROMISE_RESULT_FAIL
                   : text.starts_with("skip") ? PROMISE_RESULT_SKIPPED
                                              : PROMISE_RESULT_NOOP;
        };
        evaluation.outcome = [this](EvalContext *, const Promise *pp, PromiseResult result) {
            outcomes.push_back(std::string(pp->parent_section->promise_type) + " " + pp->promiser + " " +
                               static_cast<char>(result));
        };
    }

    void Parse(const std::string &text)
    {
        const std::filesystem::path path = work_dir.path / "inputs/policy.vt";
        WriteFile(path, text);
        char *error = nullptr;
        policy.reset(PolicyParseFile(path.c_str(), &error));
        ASSERT_NE(policy, nullptr) << veltrane::TextPtr(error).get();
        log.lines.clear();
    }

    bool Evaluate(const std::string &text, const char *kind = "agent")
    {
        Parse(text);
        return veltrane::EvaluateBundles(ctx.get(), policy.get(), kind, evaluation);
    }

    // A policy of one bundle main with these promises, evaluated.
    void Main(const std::string &promises)
    {
        EXPECT_TRUE(Evaluate("bundles:\n  - agent: main\n    promises:\n" + promises));
    }

    bool IsDefined(const char *name) { return CheckClassExpression(ctx.get(), name) == EXPRESSION_VALUE_TRUE; }

    WorkDirectory work_dir;
    veltrane::EvalContextPtr ctx{EvalContextNew()};
    veltrane::PolicyPtr policy;
    veltrane::Evaluation evaluation;
    std::vector<std::string> reports;
    std::vector<std::string> files;  // of those reports that go to one
    std::vector<std::string> outcomes;
    LogCapture log;
};

}  // namespace

TEST_F(Evaluator, APolicyIsReadOrItsMistakeIsToldOnce)
{
    const std::string path = (work_dir.path / "inputs/policy.vt").string();
    WriteFile(path, "bundles:\n  - agent: main\n");
    EXPECT_NE(veltrane::ReadPolicy(path), nullptr);
    EXPECT_THAT(log.UpTo(LOG_LEVEL_NOTICE), IsEmpty());

    WriteFile(path, "bundles:\n  - agent: main\n    promise: []\n");
    EXPECT_EQ(veltrane::ReadPolicy(path), nullptr);
    EXPECT_THAT(log.UpTo(LOG_LEVEL_NOTICE),
                ElementsAre(Pair(LOG_LEVEL_ERR, path + ":3:5: unknown key 'promise' of a bundle")));
}

TEST_F(Evaluator, KeepsPromisesInTheOrderOfTheFile)
{
    Main(R"j(
      - reports: one
      - vars: x
        string: two
      - reports: "$(x)"
      - classes: c
        expression: any
      - reports: three
)j");

    EXPECT_THAT(outcomes, ElementsAre("reports one n", "vars x n", "reports two n", "classes c n", "reports three n"));
}

TEST_F(Evaluator, RunsTheCommonBundlesAndThenMainAlone)
{
    EXPECT_TRUE(Evaluate(R"j(
bundles:
  - agent: other
    promises:
      - reports: other
  - agent: main
    promises:
      - reports: "$(site.name)"
  - common: site
    promises:
      - vars: name
        string: from common
  - server: rules
    promises:
      - vars: x
        string: y
)j"));

    EXPECT_THAT(reports, ElementsAre("from common"));
    EXPECT_THAT(outcomes, ElementsAre("vars name n", "reports from common n"));
    EXPECT_TRUE(IsDefined("agent"));
    EXPECT_FALSE(IsDefined("server"));
}

TEST_F(Evaluator, SaysWhenThereIsNoMainBundleAndChangesNothing)
{
    EXPECT_FALSE(Evaluate(R"j(
bundles:
  - common: site
    promises:
      - reports: never
  - agent: other
    promises:
      - reports: never
)j"));

    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_ERR, "The policy has no agent bundle 'main'")));
    EXPECT_THAT(reports, IsEmpty());
}

TEST_F(Evaluator, RunsAllServerBundlesForAServer)
{
    const char *text = R"j(
bundles:
  - server: first
    promises:
      - access: delta
        resource: query
        admit_keys: ["SHA=1"]
  - agent: main
    promises:
      - reports: never
  - server: second
    promises:
      - access: rebase
        resource: query
        admit_keys: ["@(all.keys)"]
  - common: all
    promises:
      - vars: keys
        slist: ["SHA=2", "SHA=3"]
)j";
    std::vector<std::string> accesses;
    evaluation.actuators["access"] = [&accesses](EvalContext *, const Promise *expanded) {
        accesses.push_back(expanded->promiser +
                           testing::PrintToString(veltrane::AttributeTexts(expanded, "admit_keys")));
        return PROMISE_RESULT_NOOP;
    };

    EXPECT_TRUE(Evaluate(text, "server"));

    EXPECT_THAT(accesses, ElementsAre("delta{ \"SHA=1\" }", "rebase{ \"SHA=2\", \"SHA=3\" }"));
    EXPECT_THAT(reports, IsEmpty());
    EXPECT_TRUE(IsDefined("server.!agent"));
}

TEST_F(Evaluator, RunsTheCommonBundlesAloneForTheKindCommon)
{
    EXPECT_TRUE(Evaluate(R"j(
bundles:
  - common: site
    promises:
      - classes: here
        expression: any
  - agent: main
    promises:
      - reports: never
)j",
                         "common"));

    EXPECT_TRUE(IsDefined("here"));
    EXPECT_FALSE(IsDefined("common"));
    EXPECT_THAT(reports, IsEmpty());
}

TEST_F(Evaluator, PassesOverTypesOfOtherPrograms)
{
    evaluation.actuators.clear();

    Main("      - reports: never\n      - commands: /bin/false\n      - vars: x\n        string: y\n");

    EXPECT_THAT(outcomes, ElementsAre("vars x n"));
    EXPECT_THAT(log.UpTo(LOG_LEVEL_INFO), IsEmpty());
}

TEST_F(Evaluator, JudgesAPromiseOnceHoweverManyPassesItTakes)
{
    Main(R"j(
      - reports: once
      - reports: when late
        if: late
      - classes: late
        expression: later
      - classes: later
        expression: any
)j");

    EXPECT_THAT(reports, ElementsAre("once", "when late"));
    EXPECT_EQ(PR_KEPT, 4);
}

TEST_F(Evaluator, GivesUpAfterThreePasses)
{
    Main(R"j(
      - reports: never reached
        if: d
      - classes: d
        expression: c
      - classes: c
        expression: b
      - classes: b
        expression: a
      - classes: a
        expression: any
)j");

    EXPECT_THAT(reports, IsEmpty());
    EXPECT_TRUE(IsDefined("a.b.c.!d"));
    EXPECT_TRUE(
        log.Has(LOG_LEVEL_VERBOSE, "Skipping promise 'never reached' of type 'reports': 'if: d' stands against it"));
    EXPECT_TRUE(log.Has(LOG_LEVEL_VERBOSE, "Skipping promise 'd' of type 'classes': its expression does not hold"));
}

TEST_F(Evaluator, IfAndUnlessGuardAPromise)
{
    Main(R"j(
      - reports: a
        if: any
      - reports: b
        if: nothing
      - reports: c
        unless: any
      - reports: d
        unless: nothing
      - reports: e
        if: any
        unless: "any|nothing"
)j");

    EXPECT_THAT(reports, ElementsAre("a", "d"));
    EXPECT_TRUE(log.Has(LOG_LEVEL_VERBOSE, "Skipping promise 'c' of type 'reports': 'unless: any' stands against it"));
}

TEST_F(Evaluator, GuardsMayHoldVariablesListsAndFunctions)
{
    Main(R"j(
      - vars: names
        slist: [one, two]
      - classes: two
        expression: any
      - reports: "is $(names)"
        if: "$(names)"
      - reports: matched
        if: {classmatch: ["t.o"]}
      - reports: not matched
        if: {classmatch: ["z.*"]}
)j");

    EXPECT_THAT(reports, ElementsAre("is two", "matched"));
}

TEST_F(Evaluator, AGuardThatIsNoExpressionAfterExpansionIsAnErrorOnce)
{
    Main(R"j(
      - vars: text
        string: "a b"
      - reports: never
        handle: h
        if: "$(text)"
)j");

    EXPECT_THAT(reports, IsEmpty());
    EXPECT_THAT(log.UpTo(LOG_LEVEL_NOTICE),
                ElementsAre(Pair(LOG_LEVEL_ERR, "Promise 'h' is skipped: its 'if' is no class expression: 'a b'")));
}

TEST_F(Evaluator, AGuardIsLookedAtBeforeAnyFunctionIsCalled)
{
    Main(R"j(
      - vars: x
        string: {readfile: [/nonexistent/file]}
        if: nothing
)j");

    EXPECT_THAT(log.UpTo(LOG_LEVEL_NOTICE), IsEmpty());
}

TEST_F(Evaluator, APromiseWithAVariableThatHasNoValueIsSkippedAndSaidOnce)
{
    Main("      - reports: \"$(nothing)\"\n");

    EXPECT_THAT(reports, IsEmpty());
    EXPECT_THAT(outcomes, IsEmpty());
    EXPECT_EQ(PR_KEPT + PR_REPAIRED + PR_NOTKEPT, 0);
    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_VERBOSE, "Bundle 'main'"),
                                       Pair(LOG_LEVEL_VERBOSE,
                                            "Skipping promise '$(nothing)' of type 'reports': variable 'nothing' "
                                            "has no value")));
}

TEST_F(Evaluator, AVariableMayGetItsValueInALaterPass)
{
    Main(R"j(
      - reports: "$(late)"
      - vars: late
        string: here
)j");

    EXPECT_THAT(reports, ElementsAre("here"));
}

TEST_F(Evaluator, AFunctionThatFailsLeavesItsPromiseSkippedAndSaysWhyOnce)
{
    Main(R"j(
      - vars: x
        string: {readfile: [/nonexistent/file]}
      - vars: y
        string: {hostswithclass: [a, key]}
      - reports: goes on
)j");

    EXPECT_THAT(outcomes, ElementsAre("reports goes on n"));
    EXPECT_THAT(
        log.UpTo(LOG_LEVEL_NOTICE),
        ElementsAre(
            Pair(LOG_LEVEL_ERR,
                 "Function 'readfile' failed: could not open '/nonexistent/file' (open: No such file or directory)"),
            Pair(LOG_LEVEL_ERR, "Function 'hostswithclass' failed: 'key' is neither name nor address")));
}

TEST_F(Evaluator, AListInParenthesesIterates)
{
    Main(R"j(
      - vars: list
        slist: [a, b, c]
      - reports: "<$(list)> <$(list)>"
)j");

    EXPECT_THAT(reports, ElementsAre("<a> <a>", "<b> <b>", "<c> <c>"));
    EXPECT_EQ(PR_KEPT, 4);
}

TEST_F(Evaluator, SeveralListsGiveEveryPairTheFirstChangingSlowest)
{
    Main(R"j(
      - vars: one
        slist: [a, b]
      - vars: two
        ilist: ["1", "2"]
      - reports: "$(one)$(two)"
)j");

    EXPECT_THAT(reports, ElementsAre("a1", "a2", "b1", "b2"));
}

TEST_F(Evaluator, AListInAnAttributeIteratesAsWell)
{
    Main(R"j(
      - vars: list
        slist: [a, b]
      - reports: same
        to_file: "/tmp/$(list)"
)j");

    EXPECT_THAT(files, ElementsAre("/tmp/a", "/tmp/b"));
}

TEST_F(Evaluator, AnEmptyListGivesNoIterationUntilItHasItems)
{
    Main(R"j(
      - vars: empty
        slist: []
      - vars: filled
        slist: []
      - reports: "never $(empty)"
      - reports: "then $(filled)"
      - vars: filled
        slist: [late]
)j");

    EXPECT_THAT(reports, ElementsAre("then late"));
}

TEST_F(Evaluator, ThisPromiserIsTheExpandedPromiser)
{
    Main(R"j(
      - vars: list
        slist: [a, b]
      - reports: "x$(list)"
        to_file: "/tmp/$(this.promiser)"
)j");

    EXPECT_THAT(files, ElementsAre("/tmp/xa", "/tmp/xb"));
}

TEST_F(Evaluator, TooManyIterationsEndWithAnError)
{
    std::string items = "\"0\"";
    for (int i = 1; i < 400; ++i) { items += ", \"" + std::to_string(i) + "\""; }

    Main("      - vars: list\n        slist: [" + items +
         "]\n      - vars: again\n        slist: \"@(list)\"\n      - reports: \"$(list) $(again)\"\n        handle: "
         "many\n");

    EXPECT_EQ(reports.size(), 100'000u);
    EXPECT_TRUE(log.Has(LOG_LEVEL_ERR,
                        "The lists of promise 'many' give more than 100000 iterations: the others are left out"));
}

TEST_F(Evaluator, EachIterationIsJudgedForItself)
{
    Main(R"j(
      - vars: names
        slist: [early, late]
      - classes: early
        expression: any
      - reports: "$(names)"
        if: "$(names)"
      - classes: late
        expression: any
)j");

    EXPECT_THAT(reports, ElementsAre("early", "late"));
}

TEST_F(Evaluator, CountsEachFinalOutcomeAndTellsIt)
{
    Main(R"j(
      - reports: keep
      - reports: repair
      - reports: warn
      - reports: fail
      - reports: skip
)j");

    EXPECT_EQ(PR_KEPT, 1);
    EXPECT_EQ(PR_REPAIRED, 1);
    EXPECT_EQ(PR_NOTKEPT, 2);
    EXPECT_THAT(outcomes, ElementsAre("reports keep n", "reports repair c", "reports warn w", "reports fail f"));
    EXPECT_THAT(reports, ElementsAre("keep", "repair", "warn", "fail", "skip")) << "a skipped one is not tried again";
}

TEST_F(Evaluator, WhatWasNotedCountsAsMuchAsWhatWasReturned)
{
    evaluation.actuators["reports"] = [](EvalContext *context, const Promise *expanded) {
        RecordFailure(context, expanded, nullptr, "noted");
        return PROMISE_RESULT_NOOP;
    };
    Main("      - reports: x\n");

    EXPECT_THAT(outcomes, ElementsAre("reports x f"));
    EXPECT_EQ(PR_NOTKEPT, 1);
}

TEST_F(Evaluator, TheIterationIsOnTheStackWhenItsOutcomeIsTold)
{
    std::vector<std::string> paths;
    evaluation.outcome = [&paths](EvalContext *context, const Promise *pp, PromiseResult) {
        const veltrane::TextPtr path(EvalContextStackPath(context));
        if (std::string(pp->parent_section->promise_type) == "reports") {
            paths.emplace_back(path.get());
        }
    };
    Main(R"j(
      - vars: list
        slist: [a, b]
      - methods: inner
        args: "@(list)"
  - agent: inner
    promises:
      - reports: "r $(args)"
)j");

    EXPECT_THAT(paths, ElementsAre("/default/main/methods/'inner'[0]/default/inner/reports/'r a'[0]",
                                   "/default/main/methods/'inner'[0]/default/inner/reports/'r b'[1]"));
    const veltrane::TextPtr at_rest(EvalContextStackPath(ctx.get()));
    EXPECT_STREQ(at_rest.get(), "");
}

TEST_F(Evaluator, AnExpandedPromiseKeepsItsPlaceAndHasAllItsTextsExpanded)
{
    std::vector<std::string> seen;
    evaluation.actuators["reports"] = [&seen](EvalContext *, const Promise *expanded) {
        seen.emplace_back(PromiseGetHandle(expanded));
        seen.push_back(std::to_string(expanded->offset.line));
        seen.emplace_back(PromiseGetBundle(expanded)->name);
        seen.emplace_back(RvalScalarValue(expanded->promisee) != nullptr
                              ? RvalScalarValue(expanded->promisee)
                              : RlistScalarValue(RvalRlistValue(expanded->promisee)));
        return PROMISE_RESULT_NOOP;
    };
    Main(R"j(
      - vars: who
        string: ops
      - reports: x
        handle: h
        promisees: ["$(who)"]
)j");

    EXPECT_THAT(seen, ElementsAre("h", "7", "main", "ops"));
}

TEST_F(Evaluator, OutcomeClassesOfAPromiseAreSeenByLaterOnes)
{
    evaluation.actuators["reports"] = [this](EvalContext *context, const Promise *expanded) {
        const Attributes attr = veltrane::CommonAttributes(expanded);
        reports.emplace_back(expanded->promiser);
        RecordChange(context, expanded, &attr, "changed");
        return PROMISE_RESULT_CHANGE;
    };
    Main(R"j(
      - reports: after
        if: changed
      - reports: first
        classes: {repaired: changed}
)j");

    EXPECT_THAT(reports, ElementsAre("first", "after"));
}

TEST_F(Evaluator, MethodsRunAnotherAgentBundleWithItsArguments)
{
    Main(R"j(
      - vars: list
        slist: [a, b]
      - methods: inner
        args: ["@(list)", c]
      - methods: inner
        args: one
      - methods: inner
  - agent: inner
    promises:
      - reports: "got $(args)"
      - reports: ran
)j");

    EXPECT_THAT(reports, ElementsAre("got a", "got b", "got c", "ran", "got one", "ran", "ran"));
}

TEST_F(Evaluator, MethodsAreAsGoodAsTheWorstPromiseOfTheirBundle)
{
    Main(R"j(
      - vars: bundles
        slist: [kept, repaired, warned, failed, nothing]
      - methods: "$(bundles)"
  - agent: kept
    promises:
      - reports: keep
      - reports: skip
  - agent: repaired
    promises:
      - reports: keep
      - reports: repair
  - agent: warned
    promises:
      - reports: warn
      - reports: repair
  - agent: failed
    promises:
      - reports: fail
      - reports: repair
  - agent: nothing
    promises:
      - reports: skip
)j");

    EXPECT_THAT(outcomes, testing::IsSupersetOf({"methods kept n", "methods repaired c", "methods warned w",
                                                 "methods failed f", "methods nothing n"}));
    EXPECT_TRUE(log.Has(LOG_LEVEL_VERBOSE, "Bundle 'kept' is kept"));
    EXPECT_TRUE(log.Has(LOG_LEVEL_INFO, "Bundle 'repaired' made repairs"));
    EXPECT_TRUE(log.Has(LOG_LEVEL_WARNING, "Bundle 'warned' is not kept"));
    EXPECT_TRUE(log.Has(LOG_LEVEL_ERR, "Bundle 'failed' is not kept"));
}

TEST_F(Evaluator, MethodsOfAnUnknownBundleFail)
{
    Main("      - methods: nobody\n      - reports: goes on\n");

    EXPECT_THAT(outcomes, ElementsAre("methods nobody f", "reports goes on n"));
    EXPECT_TRUE(log.Has(LOG_LEVEL_ERR, "There is no agent bundle 'nobody'"));
}

TEST_F(Evaluator, MethodsThatCallEachOtherForEverEnd)
{
    Main(R"j(
      - methods: ping
  - agent: ping
    promises:
      - reports: deeper
      - methods: pong
  - agent: pong
    promises:
      - methods: ping
)j");

    EXPECT_EQ(reports.size(), 16u);
    EXPECT_TRUE(log.Has(LOG_LEVEL_ERR, "Bundle 'ping' is called too deep inside other bundles"));
    EXPECT_THAT(outcomes, Contains("methods ping f"));
}

TEST_F(Evaluator, MethodsFindBundlesOfTheirNamespaceAndOfOthers)
{
    EXPECT_TRUE(Evaluate(R"j(
bundles:
  - agent: main
    promises:
      - methods: "site:web"
  - agent: web
    namespace: site
    promises:
      - reports: site web
      - methods: more
      - methods: "default:more"
  - agent: more
    namespace: site
    promises:
      - reports: site more
  - agent: more
    promises:
      - reports: default more
)j"));

    EXPECT_THAT(reports, ElementsAre("site web", "site more", "default more"));
}

TEST_F(Evaluator, ClassesOfABundleAloneEndWithIt)
{
    Main(R"j(
      - methods: inner
      - reports: outer
        unless: local
  - agent: inner
    promises:
      - classes: local
        expression: any
        scope: bundle
      - reports: inner
        if: local
)j");

    EXPECT_THAT(reports, ElementsAre("inner", "outer"));
}

TEST_F(Evaluator, SettingUpAContextDescribesMachineAndEdition)
{
    Parse(
        "control:\n  common:\n    protocol_version: tls\n    lastseen_expire_after: 3600\n    package_inventory: "
        "[apt]\n"
        "bundles: []\n");
    const veltrane::EvalContextPtr fresh(EvalContextNew());

    veltrane::SetUpContext(fresh.get(), policy.get());

    EXPECT_EQ(CheckClassExpression(fresh.get(), "any.linux.core_edition"), EXPRESSION_VALUE_TRUE);
    EXPECT_STREQ(EvalContextVariableControlCommonGet(fresh.get(), COMMON_CONTROL_PROTOCOL_VERSION), "tls");
    EXPECT_STREQ(RlistScalarValue(GetDefaultInventoryFromContext(fresh.get())), "apt");
    EXPECT_EQ(LASTSEENEXPIREAFTER, 3600);

    Parse("bundles: []\n");
    veltrane::SetUpContext(veltrane::EvalContextPtr(EvalContextNew()).get(), policy.get());

    EXPECT_EQ(LASTSEENEXPIREAFTER, 604800) << "what a policy before has set does not live on";
}
