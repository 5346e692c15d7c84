// Promise executions.
#include <cstring>
#include <memory>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include <veltrane/string_lib.h>

#include "libvtenterprise/enterprise_install.h"
#include "support/record_text.h"

namespace {

using Execution = HubPromiseExecution;
using ExecutionPtr = std::unique_ptr<Execution, veltrane::Destroyer<HubPromiseExecutionDelete>>;

ExecutionPtr Executed()
{
    return ExecutionPtr(HubPromiseExecutionNew("release", PROMISE_STATE_REPAIRED, "hash", "ns", "bundle", "files",
                                               "/etc/motd", "/path", "handle", "[\"who\"]", "[\"done\"]", "meta",
                                               "policy.vt", 42, "filehash"));
}

void Replace(char *&text, const char *value)
{
    free(text);
    text = SafeStringDuplicate(value);
}

bool SameValue(const ExecutionPtr &a, const ExecutionPtr &b)
{
    return HubPromiseExecutionCompareValues(a.get(), b.get());
}

ExecutionPtr Read(const std::vector<std::string> &fields)
{
    return ExecutionPtr(static_cast<Execution *>(HubPromiseExecutionFromAttributeList(Fields(fields).get())));
}

// The first `count` columns of a row, with more invented at the end where the row has no more.
std::vector<std::string> Columns(size_t count)
{
    std::vector<std::string> all = {"hash",  "policy.vt", "release", "114",    "ns", "bundle",   "files", "/etc/motd",
                                    "/path", "handle",    "[who]",   "[done]", "42", "filehash", "meta"};
    all.resize(count, "more");
    return all;
}

const std::pair<const char *, char * Execution::*> kTexts[] = {
    {"release", &Execution::release_id},
    {"hash", &Execution::promise_hash},
    {"ns", &Execution::ns},
    {"bundle", &Execution::bundle},
    {"files", &Execution::promise_type},
    {"/etc/motd", &Execution::promiser},
    {"/path", &Execution::stack_path},
    {"handle", &Execution::handle},
    {"[\"who\"]", &Execution::promisee_list_serialized},
    {"[\"done\"]", &Execution::message_list_serialized},
    {"meta", &Execution::meta_serialized},
    {"policy.vt", &Execution::policy_file},
    {"filehash", &Execution::policy_file_hash},
};

TEST(HubPromiseExecution, ANegativeLineNumberReadsAsZero)
{
    std::vector<std::string> columns = Columns(13);
    columns[12] = "-700";

    EXPECT_EQ(Read(columns)->line_number, 0U);
}

}  // namespace

TEST(PromiseState, HasTheNumbersOfItsLetters)
{
    EXPECT_EQ(PROMISE_STATE_KEPT, 99);
    EXPECT_EQ(PROMISE_STATE_NOTKEPT, 110);
    EXPECT_EQ(PROMISE_STATE_REPAIRED, 114);
    EXPECT_EQ(PROMISE_STATE_ANY, 120);
}

TEST(PromiseState, IsWrittenAsAWord)
{
    EXPECT_STREQ(PromiseStateToString(PROMISE_STATE_KEPT), "KEPT");
    EXPECT_STREQ(PromiseStateToString(PROMISE_STATE_REPAIRED), "REPAIRED");
    EXPECT_STREQ(PromiseStateToString(PROMISE_STATE_NOTKEPT), "NOTKEPT");
    for (const int other : {120, 0, -1, 100000}) {
        EXPECT_STREQ(PromiseStateToString(static_cast<PromiseState>(other)), "UNKNOWN") << other;
    }
}

TEST(PromiseState, IsReadFromAnExactWord)
{
    EXPECT_EQ(PromiseStateFromString("REPAIRED"), PROMISE_STATE_REPAIRED);
    EXPECT_EQ(PromiseStateFromString("NOTKEPT"), PROMISE_STATE_NOTKEPT);
    EXPECT_EQ(PromiseStateFromString("KEPT"), PROMISE_STATE_KEPT);
    for (const char *other : {"kept", "KEPT ", "", "UNKNOWN", "x"}) {
        EXPECT_EQ(PromiseStateFromString(other), PROMISE_STATE_ANY) << other;
    }
    EXPECT_EQ(PromiseStateFromString(nullptr), PROMISE_STATE_ANY);
}

TEST(HubPromiseExecution, EachArgumentFindsItsField)
{
    const ExecutionPtr e = Executed();
    for (const auto &[text, field] : kTexts) { EXPECT_STREQ((*e).*field, text); }
    EXPECT_EQ(e->line_number, 42u);
    EXPECT_EQ(e->promise_outcome, PROMISE_STATE_REPAIRED);
}

TEST(HubPromiseExecution, ACopyIsDeepAndHasEveryField)
{
    ExecutionPtr e = Executed();
    Replace(e->ns, nullptr);
    const ExecutionPtr copy(static_cast<Execution *>(HubPromiseExecutionDup(e.get())));
    e.reset();
    for (const auto &[text, field] : kTexts) {
        if (field == &Execution::ns) {
            EXPECT_EQ(copy->ns, nullptr);
        } else {
            EXPECT_STREQ((*copy).*field, text);
        }
    }
    EXPECT_EQ(copy->line_number, 42u);
    EXPECT_EQ(copy->promise_outcome, PROMISE_STATE_REPAIRED);
}

TEST(HubPromiseExecution, NoneIsDeletedInPeace) { HubPromiseExecutionDelete(nullptr); }

TEST(HubPromiseExecution, TheHashIsItsIdentity)
{
    const ExecutionPtr e = Executed();
    const ExecutionPtr same = Executed();
    Replace(same->promiser, "other");
    const ExecutionPtr later = Executed();
    Replace(later->promise_hash, "hashes");
    EXPECT_EQ(HubPromiseExecutionCompareKeys(e.get(), same.get(), nullptr), 0);
    EXPECT_EQ(HubPromiseExecutionCompareKeys(e.get(), later.get(), nullptr), -1);
    EXPECT_EQ(HubPromiseExecutionCompareKeys(later.get(), e.get(), nullptr), 1);
    EXPECT_EQ(HubPromiseExecutionCompareKeys(nullptr, e.get(), nullptr), -1);
    EXPECT_EQ(HubPromiseExecutionCompareKeys(e.get(), nullptr, nullptr), -1);
    EXPECT_EQ(HubPromiseExecutionCompareKeys(nullptr, nullptr, nullptr), -1);
}

TEST(HubPromiseExecution, EveryTextButTypePathAndHashIsItsValue)
{
    for (const auto &[text, field] : kTexts) {
        const bool is_value =
            field != &Execution::promise_type && field != &Execution::stack_path && field != &Execution::promise_hash;
        const ExecutionPtr changed = Executed();
        Replace((*changed).*field, "changed");
        EXPECT_EQ(SameValue(Executed(), changed), !is_value) << text;
    }
}

TEST(HubPromiseExecution, LineAndOutcomeAreOfItsValue)
{
    EXPECT_TRUE(SameValue(Executed(), Executed()));
    const ExecutionPtr line = Executed();
    line->line_number = 43;
    EXPECT_FALSE(SameValue(Executed(), line));
    const ExecutionPtr outcome = Executed();
    outcome->promise_outcome = PROMISE_STATE_KEPT;
    EXPECT_FALSE(SameValue(Executed(), outcome));
    EXPECT_FALSE(SameValue(Executed(), nullptr));
    EXPECT_FALSE(SameValue(nullptr, Executed()));
    EXPECT_FALSE(SameValue(nullptr, nullptr));
}

TEST(HubPromiseExecution, ItsMainKeyIsACopyOfTheHash)
{
    const ExecutionPtr e = Executed();
    EXPECT_EQ(Taken(HubPromiseExecutionGetMainKey(e.get())), "hash");
    Replace(e->promise_hash, nullptr);
    EXPECT_EQ(HubPromiseExecutionGetMainKey(e.get()), nullptr);
    EXPECT_EQ(HubPromiseExecutionGetMainKey(nullptr), nullptr);
}

TEST(HubPromiseExecution, ItsColumnsAreFifteen)
{
    EXPECT_EQ(CsvOf<void>(HubPromiseExecutionToCSV, Executed().get()),
              "hash,policy.vt,release,114,ns,bundle,files,/etc/motd,/path,handle,\"[\"\"who\"\"]\",\"[\"\"done\"\"]\","
              "42,filehash,meta\r\n");
    const ExecutionPtr bare(HubPromiseExecutionNew(nullptr, PROMISE_STATE_KEPT, nullptr, nullptr, nullptr, nullptr,
                                                   nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                                   18446744073709551615u, nullptr));
    EXPECT_EQ(CsvOf<void>(HubPromiseExecutionToCSV, bare.get()), ",,,99,,,,,,,,,18446744073709551615,,\r\n");
}

TEST(HubPromiseExecution, ReadsBack)
{
    const ExecutionPtr e = Read(Columns(15));
    EXPECT_STREQ(e->promise_hash, "hash");
    EXPECT_STREQ(e->policy_file, "policy.vt");
    EXPECT_STREQ(e->release_id, "release");
    EXPECT_EQ(e->promise_outcome, PROMISE_STATE_REPAIRED);
    EXPECT_STREQ(e->ns, "ns");
    EXPECT_STREQ(e->bundle, "bundle");
    EXPECT_STREQ(e->promise_type, "files");
    EXPECT_STREQ(e->promiser, "/etc/motd");
    EXPECT_STREQ(e->stack_path, "/path");
    EXPECT_STREQ(e->handle, "handle");
    EXPECT_STREQ(e->promisee_list_serialized, "[who]");
    EXPECT_STREQ(e->message_list_serialized, "[done]");
    EXPECT_EQ(e->line_number, 42u);
    EXPECT_STREQ(e->policy_file_hash, "filehash");
    EXPECT_STREQ(e->meta_serialized, "meta");
}

TEST(HubPromiseExecution, EmptyColumnsReadAsAbsentOrZero)
{
    const ExecutionPtr e = Read(std::vector<std::string>(15));
    for (const auto &[text, field] : kTexts) { EXPECT_EQ((*e).*field, nullptr) << text; }
    EXPECT_EQ(e->line_number, 0u);
    EXPECT_EQ(e->promise_outcome, 0);
}

TEST(HubPromiseExecution, MissingTrailingColumnsAreZeroOrAbsent)
{
    EXPECT_EQ(Read(Columns(11)), nullptr);
    EXPECT_EQ(HubPromiseExecutionFromAttributeList(nullptr), nullptr);

    const ExecutionPtr twelve = Read(Columns(12));
    EXPECT_STREQ(twelve->message_list_serialized, "[done]");
    EXPECT_EQ(twelve->line_number, 0u);
    EXPECT_EQ(twelve->policy_file_hash, nullptr);
    EXPECT_EQ(twelve->meta_serialized, nullptr);

    const ExecutionPtr thirteen = Read(Columns(13));
    EXPECT_EQ(thirteen->line_number, 42u);
    EXPECT_EQ(thirteen->policy_file_hash, nullptr);

    const ExecutionPtr fourteen = Read(Columns(14));
    EXPECT_STREQ(fourteen->policy_file_hash, "filehash");
    EXPECT_EQ(fourteen->meta_serialized, nullptr);
}

TEST(HubPromiseExecution, TheFifteenthColumnCountsOnlyAsTheLast)
{
    const ExecutionPtr e = Read(Columns(16));
    EXPECT_EQ(e->line_number, 42u);
    EXPECT_STREQ(e->policy_file_hash, "filehash");
    EXPECT_EQ(e->meta_serialized, nullptr);
}

TEST(HubPromiseExecution, NumbersAreReadUnchecked)
{
    std::vector<std::string> columns = Columns(15);
    columns[3] = "-5rest";
    columns[12] = "42rest";
    const ExecutionPtr e = Read(columns);
    EXPECT_EQ(e->promise_outcome, -5);
    EXPECT_STREQ(PromiseStateToString(e->promise_outcome), "UNKNOWN");
    EXPECT_EQ(e->line_number, 0u);
}
