#include "libvtenterprise/evaluated_promise.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include <veltrane/owned.h>
#include <veltrane/string_lib.h>

#include "support/log_capture.h"
#include "support/promise_site.h"
#include "support/record_text.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

namespace {

using ExecutionPtr = std::unique_ptr<HubPromiseExecution, veltrane::Destroyer<HubPromiseExecutionDelete>>;

ExecutionPtr Record(const PromiseSite &site, PromiseResult result = PROMISE_RESULT_CHANGE)
{
    return ExecutionPtr(HubPromiseExecutionFromEvalPromise(site.ctx(), site.promise(), result));
}

std::string Cut(size_t size, char c = 'x') { return std::string(size - 3, c) + "..."; }

std::string TruncationLine(const std::string &label, const std::string &value, size_t max)
{
    return "Truncating '" + label + "' attribute. Value: '" + value + "' Max size: " + std::to_string(max);
}

// The array of these messages as compact JSON.
std::string Array(const Texts &messages)
{
    std::string text = "[";
    for (const std::string &message : messages) { text += (text.size() > 1 ? ",\"" : "\"") + message + "\""; }
    return text + "]";
}

// How much the record counts besides its messages.
size_t HeaderOf(const HubPromiseExecution *record)
{
    size_t size = record->line_number <= 99999 ? 5 : 10;
    for (const char *text :
         {record->release_id, record->promise_hash, record->stack_path, record->handle,
          record->promisee_list_serialized, record->ns, record->bundle, record->promise_type, record->promiser,
          record->policy_file, record->policy_file_hash, record->meta_serialized}) {
        size += SafeStringLength(text);
    }
    return size;
}

// A site whose header leaves exactly this much for the messages: its release id makes up the difference.
PromiseSite SiteWithBudget(size_t budget, size_t line = 7)
{
    PromiseSettings settings;
    settings.release_id = "";
    settings.line = line;
    const size_t header = HeaderOf(Record(PromiseSite(settings)).get());
    const std::string release_id(kRecordBudget - budget - header, 'r');
    settings.release_id = release_id.c_str();
    return PromiseSite(settings);
}

}  // namespace

// --- TruncateString ---

TEST(TruncateString, AShorterTextIsACopy)
{
    LogCapture log;
    EXPECT_EQ(Taken(TruncateString("abcd", 5, "thing")), "abcd");
    EXPECT_EQ(Taken(TruncateString("", 5, "thing")), "");
    EXPECT_THAT(log.lines, IsEmpty());
}

TEST(TruncateString, ATextOfExactlyTheLimitIsCutToo)
{
    LogCapture log;
    EXPECT_EQ(Taken(TruncateString("abcde", 5, "thing")), "ab...");
    EXPECT_EQ(Taken(TruncateString("abcdefgh", 5, "thing")), "ab...");
    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_VERBOSE, TruncationLine("thing", "ab...", 5)),
                                       Pair(LOG_LEVEL_VERBOSE, TruncationLine("thing", "ab...", 5))));
}

TEST(TruncateString, NoTextStaysNone)
{
    LogCapture log;
    EXPECT_EQ(TruncateString(nullptr, 5, "thing"), nullptr);
    EXPECT_THAT(log.lines, IsEmpty());
}

TEST(TruncateString, ALimitBelowTheMarkGivesWhatFitsOfIt)
{
    EXPECT_EQ(Taken(TruncateString("abcdef", 3, "thing")), "...");
    EXPECT_EQ(Taken(TruncateString("abcdef", 2, "thing")), "..");
    EXPECT_EQ(Taken(TruncateString("abcdef", 0, "thing")), "");
}

// --- The record ---

TEST(EvaluatedPromise, EveryFieldComesFromThePromiseAndTheContext)
{
    PromiseSite site({.promisees = {"ops", "web"}, .line = 12});
    site.Scalar("handle", "motd");
    site.List("meta", {"critical", "team=ops"});
    site.Message("Created file");
    LogCapture log;

    const ExecutionPtr record = Record(site);

    EXPECT_STREQ(record->release_id, "r1");
    EXPECT_EQ(std::string(record->promise_hash).size(), 64u);
    EXPECT_EQ(std::string(record->promise_hash).find_first_not_of("0123456789abcdef"), std::string::npos);
    EXPECT_STREQ(record->ns, "default");
    EXPECT_STREQ(record->bundle, "main");
    EXPECT_STREQ(record->promise_type, "files");
    EXPECT_STREQ(record->promiser, "/etc/motd");
    EXPECT_STREQ(record->stack_path, "/default/main/files/'/etc/motd'[0]");
    EXPECT_STREQ(record->handle, "motd");
    EXPECT_STREQ(record->promisee_list_serialized, "[\"ops\",\"web\"]");
    EXPECT_STREQ(record->message_list_serialized, "[\"Created file\"]");
    EXPECT_STREQ(record->meta_serialized, "[\"critical\",\"team=ops\"]");
    EXPECT_STREQ(record->policy_file, "/inputs/promises.vt");
    EXPECT_STREQ(record->policy_file_hash, "00ff");
    EXPECT_EQ(record->line_number, 12u);
    EXPECT_EQ(record->promise_outcome, PROMISE_STATE_REPAIRED);
    EXPECT_THAT(log.lines, IsEmpty());
}

TEST(EvaluatedPromise, WhatIsUnknownIsSaidOrAbsent)
{
    const PromiseSite site({.release_id = nullptr, .source_path = nullptr});

    const ExecutionPtr record = Record(site);

    EXPECT_STREQ(record->release_id, "<unknown-release-id>");
    EXPECT_STREQ(record->policy_file, "<unknown-source-file>");
    EXPECT_EQ(record->policy_file_hash, nullptr);
    EXPECT_EQ(record->handle, nullptr);
    EXPECT_STREQ(record->promisee_list_serialized, "[]");
    EXPECT_STREQ(record->message_list_serialized, "[]");
    EXPECT_STREQ(record->meta_serialized, "[]");
}

TEST(EvaluatedPromise, TheHashIsThatOfThePromiseWithoutSalt)
{
    const PromiseSite site;
    unsigned char digest[EVP_MAX_MD_SIZE];
    PromiseRuntimeHash(site.promise(), "", digest, HASH_METHOD_SHA256);
    char hex[65];
    StringBytesToHex(hex, sizeof(hex), digest, VT_SHA256_LEN);

    EXPECT_STREQ(Record(site)->promise_hash, hex);
    EXPECT_STRNE(Record(PromiseSite({.promiser = "/etc/issue"}))->promise_hash, hex);
}

TEST(EvaluatedPromise, EachResultHasItsOutcome)
{
    const PromiseSite site;
    EXPECT_EQ(Record(site, PROMISE_RESULT_CHANGE)->promise_outcome, PROMISE_STATE_REPAIRED);
    EXPECT_EQ(Record(site, PROMISE_RESULT_NOOP)->promise_outcome, PROMISE_STATE_KEPT);
    for (const PromiseResult result : {PROMISE_RESULT_DENIED, PROMISE_RESULT_FAIL, PROMISE_RESULT_INTERRUPTED,
                                       PROMISE_RESULT_TIMEOUT, PROMISE_RESULT_WARN}) {
        EXPECT_EQ(Record(site, result)->promise_outcome, PROMISE_STATE_NOTKEPT) << static_cast<char>(result);
    }
    EXPECT_EQ(Record(site, static_cast<PromiseResult>('z'))->promise_outcome, PROMISE_STATE_ANY);
}

TEST(EvaluatedPromise, ASkippedPromiseIsAProgrammingError)
{
    const PromiseSite site;
    EXPECT_DEATH(Record(site, PROMISE_RESULT_SKIPPED),
                 "programming error: Attempted to log compliance for skipped promise");
}

TEST(EvaluatedPromise, AHandleThatIsAListIsAbsent)
{
    PromiseSite site;
    site.List("handle", {"motd"});
    EXPECT_EQ(Record(site)->handle, nullptr);
}

TEST(EvaluatedPromise, TextsBelowTheirLimitsAreWhole)
{
    const std::string ns(99, 'x');
    const std::string source = "/" + std::string(498, 'x');
    PromiseSite site({.ns = ns.c_str(),
                      .bundle = std::string(199, 'x'),
                      .source_path = source.c_str(),
                      .promiser = std::string(499, 'x')});
    site.Scalar("handle", std::string(499, 'x'));

    const ExecutionPtr record = Record(site);

    EXPECT_EQ(record->ns, ns);
    EXPECT_EQ(record->bundle, std::string(199, 'x'));
    EXPECT_EQ(record->promiser, std::string(499, 'x'));
    EXPECT_EQ(record->handle, std::string(499, 'x'));
    EXPECT_EQ(record->policy_file, source);
}

TEST(EvaluatedPromise, TextsOfExactlyTheirLimitsAreCutInTheOrderOfTheFields)
{
    const std::string ns(100, 'x');
    const std::string source = "/" + std::string(499, 'x');
    PromiseSite site({.ns = ns.c_str(),
                      .bundle = std::string(200, 'x'),
                      .source_path = source.c_str(),
                      .promiser = std::string(500, 'x')});
    site.Scalar("handle", std::string(500, 'x'));
    LogCapture log;

    const ExecutionPtr record = Record(site);

    const std::string cut_source = "/" + Cut(499);
    const std::string cut_path = "/" + std::string(100, 'x') + "/" + std::string(200, 'x') + "/files/'" + Cut(190);
    EXPECT_EQ(record->ns, Cut(100));
    EXPECT_EQ(record->bundle, Cut(200));
    EXPECT_EQ(record->promiser, Cut(500));
    EXPECT_EQ(record->handle, Cut(500));
    EXPECT_EQ(record->policy_file, cut_source);
    EXPECT_EQ(record->stack_path, cut_path);
    EXPECT_EQ(cut_path.size(), 500u);
    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_VERBOSE, TruncationLine("source_file", cut_source, 500)),
                                       Pair(LOG_LEVEL_VERBOSE, TruncationLine("namespace", Cut(100), 100)),
                                       Pair(LOG_LEVEL_VERBOSE, TruncationLine("bundle name", Cut(200), 200)),
                                       Pair(LOG_LEVEL_VERBOSE, TruncationLine("promiser", Cut(500), 500)),
                                       Pair(LOG_LEVEL_VERBOSE, TruncationLine("stack path", cut_path, 500)),
                                       Pair(LOG_LEVEL_VERBOSE, TruncationLine("promise handle", Cut(500), 500))));
}

TEST(EvaluatedPromise, ACutInsideACharacterKeepsItsFirstBytes)
{
    const PromiseSite site({.promiser = std::string(496, 'x') + "\xe2\x82\xac and more"});
    EXPECT_EQ(std::string(Record(site)->promiser), std::string(496, 'x') + "\xe2...");
}

// --- Meta tags ---

TEST(EvaluatedPromise, ATagThatDoesNotFitIsLeftOutAndAShorterOneTaken)
{
    PromiseSite site;
    site.List("meta", {std::string(250, 'a'), std::string(10, 'b')});
    EXPECT_EQ(Record(site)->meta_serialized, Array({std::string(10, 'b')}));
}

TEST(EvaluatedPromise, ATagFitsWhenOneByteMoreStaysBelowTheBudget)
{
    PromiseSite fits;
    fits.List("meta", {std::string(196, 'a'), ""});
    EXPECT_EQ(Record(fits)->meta_serialized, Array({std::string(196, 'a')}));  // 1 is left: not even "" fits

    PromiseSite too_long;
    too_long.List("meta", {std::string(197, 'a'), ""});
    EXPECT_EQ(Record(too_long)->meta_serialized, Array({""}));
}

TEST(EvaluatedPromise, TagsShareOneBudget)
{
    PromiseSite site;
    site.List("meta", {std::string(100, 'a'), std::string(96, 'b'), std::string(95, 'c'), "d"});
    // 198 - 101 = 97; 97 is too much for that, 96 leaves 1.
    EXPECT_EQ(Record(site)->meta_serialized, Array({std::string(100, 'a'), std::string(95, 'c')}));
}

TEST(EvaluatedPromise, AMetaAttributeThatIsNoListHasNoTags)
{
    PromiseSite site;
    site.Scalar("meta", "alone");
    EXPECT_STREQ(Record(site)->meta_serialized, "[]");
}

// --- Messages ---

TEST(EvaluatedPromise, MessagesThatFitAreWhole)
{
    PromiseSite site;
    const Texts messages = {std::string(300, 'a'), std::string(300, 'b'), std::string(300, 'c')};
    for (const std::string &message : messages) { site.Message(message); }
    LogCapture log;

    EXPECT_EQ(Record(site)->message_list_serialized, Array(messages));
    EXPECT_THAT(log.lines, IsEmpty());
}

TEST(EvaluatedPromise, EmptyMessagesAreLeftOut)
{
    PromiseSite site;
    for (const char *message : {"", "one", "", "two"}) { site.Message(message); }
    EXPECT_STREQ(Record(site)->message_list_serialized, "[\"one\",\"two\"]");
}

TEST(EvaluatedPromise, AMessageOf399BytesIsWholeAndOneOf400IsCut)
{
    PromiseSite site;
    site.Message(std::string(399, 'a'));
    site.Message(std::string(400, 'x'));
    site.Message(std::string(450, 'x'));
    LogCapture log;

    EXPECT_EQ(Record(site)->message_list_serialized, Array({std::string(399, 'a'), Cut(400), Cut(400)}));
    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_VERBOSE, TruncationLine("log message", Cut(400), 400)),
                                       Pair(LOG_LEVEL_VERBOSE, TruncationLine("log message", Cut(400), 400))));
}

TEST(EvaluatedPromise, OnlyTheNewestMessagesOfTheRingAreTold)
{
    PromiseSite site;
    for (const char *message : {"1", "2", "3", "4", "5", "6"}) { site.Message(message); }
    EXPECT_EQ(Record(site)->message_list_serialized, Array({"2", "3", "4", "5", "6"}));
}

TEST(EvaluatedPromise, BytesThatAreNotUtf8AreReplacedInTheLists)
{
    PromiseSite site({.promisees = {"o\xffps"}});
    site.List("meta", {"t\xc3"});
    site.Message("Cannot read '\xfe'");
    const ExecutionPtr record = Record(site);
    EXPECT_STREQ(record->promisee_list_serialized, "[\"o\xef\xbf\xbdps\"]");
    EXPECT_STREQ(record->meta_serialized, "[\"t\xef\xbf\xbd\"]");
    EXPECT_STREQ(record->message_list_serialized, "[\"Cannot read '\xef\xbf\xbd'\"]");
}

TEST(EvaluatedPromise, OutsideAnIterationThereAreNoMessages)
{
    PromiseSite site;
    site.Message("gone");
    EvalContextStackPop(site.ctx());
    EXPECT_STREQ(Record(site)->message_list_serialized, "[]");
}

// --- The budget ---

TEST(EvaluatedPromise, ABudgetOf401TakesAMessageWholeAndOneOf400Cuts)
{
    PromiseSite whole = SiteWithBudget(401);
    whole.Message(std::string(399, 'a'));
    EXPECT_EQ(Record(whole)->message_list_serialized, Array({std::string(399, 'a')}));

    PromiseSite cut = SiteWithBudget(400);
    cut.Message(std::string(399, 'a'));
    cut.Message(std::string(400, 'x'));
    // Below the limit of a message and of the budget: the copy is whole all the same.
    EXPECT_EQ(Record(cut)->message_list_serialized, Array({std::string(399, 'a'), Cut(400)}));
}

TEST(EvaluatedPromise, MessagesUseUpTheBudgetUntilTheyAreCut)
{
    PromiseSite site = SiteWithBudget(700);
    for (int i = 0; i < 4; i++) { site.Message(std::string(350, 'x')); }
    // 700 - 350 = 350 is no more than 400: from here on each is cut to 350 bytes, and none lowers the budget.
    EXPECT_EQ(Record(site)->message_list_serialized, Array({std::string(350, 'x'), Cut(350), Cut(350), Cut(350)}));
}

TEST(EvaluatedPromise, ABudgetOfThreeOrLessLeavesOnlyTheMark)
{
    PromiseSite four = SiteWithBudget(4);
    four.Message("Created file");
    EXPECT_EQ(Record(four)->message_list_serialized, Array({"C..."}));
    for (const size_t budget : {3, 1, 0}) {
        PromiseSite site = SiteWithBudget(budget);
        site.Message("Created file");
        site.Message("ok");
        LogCapture log;
        EXPECT_EQ(Record(site)->message_list_serialized, Array({"...", "..."})) << budget;
        EXPECT_THAT(log.lines, IsEmpty());
    }
}

TEST(EvaluatedPromise, AHeaderBeyondTheBudgetCutsMessagesByTheirOwnLimitOnly)
{
    const std::string release_id(4000, 'r');
    PromiseSite site({.release_id = release_id.c_str()});
    for (int i = 0; i < 4; i++) { site.Message(std::string(399, 'a')); }
    site.Message(std::string(400, 'x'));
    const std::string whole(399, 'a');
    EXPECT_EQ(Record(site)->message_list_serialized, Array({whole, whole, whole, whole, Cut(400)}));
}

TEST(EvaluatedPromise, ALineNumberAbove99999CountsFiveBytesMore)
{
    PromiseSite at_limit = SiteWithBudget(401, 99999);
    at_limit.Message(std::string(390, 'x'));
    at_limit.Message(std::string(390, 'x'));
    EXPECT_EQ(Record(at_limit)->message_list_serialized, Array({std::string(390, 'x'), Cut(11)}));

    PromiseSettings settings;
    settings.release_id = "";
    settings.line = 99999;
    const size_t header = HeaderOf(Record(PromiseSite(settings)).get());
    const std::string release_id(kRecordBudget - 401 - header, 'r');
    settings.release_id = release_id.c_str();
    settings.line = 100000;
    PromiseSite beyond(settings);
    beyond.Message(std::string(390, 'x'));  // 396 are left, so even a copy of 390 bytes uses nothing up
    beyond.Message(std::string(397, 'x'));
    EXPECT_EQ(Record(beyond)->message_list_serialized, Array({std::string(390, 'x'), Cut(396)}));
}
