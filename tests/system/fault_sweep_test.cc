// Lets the first, second, third ... call of each kind fail until none is left to fail, during an agent run and during
// each kind of answer, and looks at the files of the classes report after each: they hold the old bytes or the new
// bytes, the failure is told in its words, and the next honest run or query ends where it should.
//
// What else may be found, because the behaviour says so:
//   rows lost          the cache is replaced before the rows are appended: a run that cannot append them loses them
//   all added          a cache that cannot be read counts as empty, so every class is an addition
//   index forgotten    an untracked index that cannot be read counts as empty
//   history removed    a difference file that ageing cannot rewrite is removed
#include <functional>
#include <sstream>

#include "faults/sweep_table.h"
#include "faults/swept_site.h"

using testing::AllOf;
using testing::AnyOf;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace {

constexpr std::array<const char *, fault_calls> kCallNames = {"open", "write", "sync", "rename", "close", "memory"};
constexpr std::array<const char *, 3> kModeNames = {"once", "from then on", "torn"};

// Bounds of the sweeps of memory, which end at the last request. They keep the whole file under 90 seconds on two
// processors: about 1,000 runs of the agent, 1,000 of the driver and 25 of the daemon, of 10 milliseconds and more.
constexpr uint64_t kEachPointUpTo = 200;
constexpr uint64_t kStrideOfRun = 97;
constexpr uint64_t kStrideOfState = 11;
constexpr uint64_t kStrideOfPacking = 31;
constexpr uint64_t kStrideOfDaemon = 503;

// One point: let the call `at` fail, look at what is left, add it to the row. False when the call was not reached.
using Point = std::function<bool(FaultCall call, FaultMode mode, uint64_t at, const std::string &row)>;

std::string RowName(FaultCall call, FaultMode mode) { return std::string(kCallNames[call]) + ", " + kModeNames[mode]; }

bool Says(const std::string &text, const std::string &words) { return text.find(words) != std::string::npos; }

// A log of a run without the lines that say how the end of a torn log was repaired.
std::string WithoutRepairs(const std::string &log)
{
    std::string others;
    std::istringstream lines(log);
    for (std::string line; std::getline(lines, line);) {
        others += line.rfind(" warning: Cut off an unfinished record at the end of '", 0) == 0 ? "" : line + "\n";
    }
    return others;
}

// Every point of every kind of call on files.
void SweepFileCalls(SweepTable *table, const Point &point)
{
    for (const FaultCall call : {fault_open, fault_write, fault_sync, fault_rename, fault_close}) {
        for (const FaultMode mode : {fault_once, fault_on, fault_torn}) {
            if (mode == fault_torn && call != fault_write) {
                continue;
            }
            const std::string row = RowName(call, mode);
            table->Begin(row);
            uint64_t at = 1;
            for (; point(call, mode, at, row); at++) {
                ASSERT_FALSE(testing::Test::HasFailure()) << row << " at call " << at;
                ASSERT_LT(at, 1000u) << "the sweep does not end";
            }
            ASSERT_FALSE(testing::Test::HasFailure()) << row;
            ASSERT_GT(at, 1u) << row << ": nothing was reached";
        }
    }
}

// How a process may end that got no memory at one point: it goes on, it refuses and says why, or it ends at once. Never
// by a signal.
void ExpectGoodEnd(const ProcessResult &run)
{
    EXPECT_THAT(run.status, AnyOf(0, 1, 255)) << run.err;
    EXPECT_TRUE(run.status != 255 || Says(run.err, "critical: Out of memory")) << run.err;
    EXPECT_TRUE(run.status != 1 || Says(run.err, "memory")) << run.err;
}

// Some points of requests for memory, of which there are thousands: the first of them, and from there on every
// stride-th, a prime, so that no rhythm of the program hides anything from it.
void SweepMemory(SweepTable *table, const std::string &what, uint64_t stride, const Point &point)
{
    for (const FaultMode mode : {fault_once, fault_on}) {
        const std::string row = what + ", " + kModeNames[mode];
        table->Begin(row);
        uint64_t at = 1;
        for (; point(fault_memory, mode, at, row); at += at < kEachPointUpTo ? 1 : stride) {
            ASSERT_FALSE(testing::Test::HasFailure()) << row << " at call " << at;
        }
        ASSERT_FALSE(testing::Test::HasFailure()) << row;
        ASSERT_GT(at, 1u) << row << ": nothing was reached";
    }
}

// An agent run that turns the state of the first policy into that of the second.
class AgentSweep : public testing::Test {
  protected:
    // The name of the state after a run, once it is known to be a good one; "" otherwise.
    std::string StateAfterRun()
    {
        const StateFiles files = site.Read();
        const StateFiles &before = site.before_run;
        const StateFiles &after = site.after_run;
        if (files == before) {
            return "old";
        }
        if (files == after) {
            return "new";
        }
        if (files == StateFiles{after.cache, before.diff, before.index}) {
            return "rows lost";
        }
        if (files == StateFiles{after.cache, *before.diff + site.EverythingAdded(*after.cache), before.index}) {
            return "all added";
        }
        ADD_FAILURE() << "a third state: cache\n" << *files.cache << "\nrows\n" << files.diff.value_or("(no file)");
        return "";
    }

    // A run without faults ends in the new state; what was lost stays lost, and nothing is told twice.
    void ExpectHonestRunAfter(const std::string &state, bool torn = false)
    {
        const StateFiles found = site.Read();
        const ProcessResult run = site.site.RunAgent();
        EXPECT_EQ(run.status, 0) << run.err;
        EXPECT_EQ(torn ? WithoutRepairs(run.err) : run.err, "");
        EXPECT_EQ(site.Read(), state == "old" ? site.after_run : found);
        EXPECT_THAT(site.Debris(), IsEmpty());
        site.ExpectThatEveryFileParses();
    }

    SweptSite site;
};

TEST_F(AgentSweep, AFailingCallLeavesTheOldOrTheNewState)
{
    SweepTable table("agent run");
    SweepFileCalls(&table, [&](FaultCall call, FaultMode mode, uint64_t at, const std::string &row) {
        site.Write(site.before_run);
        site.faults.Arm(call, mode, at);
        const ProcessResult run = site.RunAgentWithFaults();
        if (!site.faults.Reached()) {
            EXPECT_EQ(run.status, 0) << run.err;
            EXPECT_EQ(site.Read(), site.after_run);
            return false;
        }
        SCOPED_TRACE(site.faults.Path() + "\n" + run.err);
        EXPECT_THAT(run.status, AnyOf(0, 1));
        EXPECT_TRUE(run.status == 0 || Says(run.err, "   error: "));
        EXPECT_THAT(run.err, HasSubstr(MessageOfFailure(site, call, true)));
        EXPECT_THAT(site.Debris(), IsEmpty());
        site.ExpectThatEveryFileParses();
        const std::string state = StateAfterRun();
        EXPECT_TRUE(state != "rows lost" || Says(run.err, "   error: Could not write diff to the file: "));
        EXPECT_TRUE(state != "all added" || Says(run.err, " verbose: Could not read cached state: "));
        table.Add(row, state);
        ExpectHonestRunAfter(state, mode == fault_torn);
        return true;
    });
}

// Two sweeps: the whole run, and more closely what it does with the state, which begins when it looks for the temporary
// cache.
TEST_F(AgentSweep, LackOfMemoryNeverCrashesTheAgentAndLeavesTheOldOrTheNewState)
{
    SweepTable table("agent run without memory");
    std::string begin;
    uint64_t ended_at_once = 0;
    const Point point = [&](FaultCall call, FaultMode mode, uint64_t at, const std::string &row) {
        site.Write(site.before_run);
        site.faults.Arm(call, mode, at, begin);
        const ProcessResult run = site.RunAgentWithFaults();
        if (!site.faults.Reached()) {
            EXPECT_EQ(site.Read(), site.after_run);
            return false;
        }
        SCOPED_TRACE(run.err);
        ExpectGoodEnd(run);
        ended_at_once += run.status == 255 ? 1 : 0;
        if (run.status != 255) {
            EXPECT_THAT(site.Debris(), IsEmpty());
        }
        const std::string state = StateAfterRun();
        EXPECT_THAT(state, AnyOf("old", "new", "rows lost"));
        EXPECT_TRUE(state != "rows lost" || run.status == 255);
        table.Add(row, state);
        if (state != "old" || at % 10 == 0) {
            ExpectHonestRunAfter(state);
        }
        return true;
    };

    SweepMemory(&table, "whole run", kStrideOfRun, point);
    begin = "/state/context.cache.tmp";
    SweepMemory(&table, "from the state on", kStrideOfState, point);

    EXPECT_GT(ended_at_once, 0u);
}

// An answer of the daemon, which lives through all faults of a sweep.
class AnswerSweep : public testing::Test {
  protected:
    // type  the query; hide  whether the host's filter hides secrets
    void Prepare(const std::string &type, bool hide)
    {
        type_ = type;
        hide_ = hide;
        site.Hide(hide);
        ASSERT_TRUE(site.StartDaemonWithFaults()) << site.NewLogLines();
        before = site.before_query;
        site.Write({before.cache, before.diff, std::nullopt});
        ExpectHonestAnswer();
        index_forgotten = site.Read().index;
        site.Write(before);
        ExpectHonestAnswer();
        after = site.Read();
        ASSERT_NE(after.diff, before.diff);
        ASSERT_NE(after.index, before.index);
    }

    // Ask without faults, and wait until the connection is through with its work; the daemon then has what it had open
    // before.
    ProcessResult ExpectHonestAnswer()
    {
        ProcessResult reply = site.Collect(type_);
        EXPECT_EQ(reply.status, 0) << reply.err;
        EXPECT_TRUE(site.WaitUntilIdle()) << site.NewLogLines();
        return reply;
    }

    // The name of the state after an answer, once it is known to be a good one; "" otherwise.
    std::string StateAfterAnswer() const
    {
        const StateFiles files = site.Read();
        EXPECT_EQ(files.cache, before.cache);
        if (files == before) {
            return "old";
        }
        if (files == after) {
            return "new";
        }
        const std::string diff = files.diff == after.diff    ? "history new"
                                 : files.diff == before.diff ? "history old"
                                 : !files.diff.has_value()   ? "history removed"
                                                             : "";
        const std::string index = files.index == after.index       ? "index new"
                                  : files.index == before.index    ? "index old"
                                  : files.index == index_forgotten ? "index forgotten"
                                                                   : "";
        EXPECT_NE(diff, "") << "a third history:\n" << *files.diff;
        EXPECT_NE(index, "") << "a third index:\n" << files.index.value_or("(no file)");
        return diff + " and " + index;
    }

    // The same query without faults brings everything that is still there, and ends in the new state.
    void ExpectHonestAnswerAfter(const std::string &state)
    {
        const StateFiles found = site.Read();
        StateFiles expected = after;
        if (Says(state, "index forgotten")) {
            expected.index = found.index;
        }
        const bool removed = Says(state, "history removed");
        if (removed) {
            expected = found;  // no rows, so the index is not looked at
        }
        const ProcessResult reply = ExpectHonestAnswer();
        EXPECT_EQ(site.Read(), expected);
        EXPECT_THAT(site.Debris(), IsEmpty());
        site.ExpectThatEveryFileParses();
        if (type_ == "rebase") {
            EXPECT_THAT(reply.out, AllOf(ContainsRegex("ADD +kept_class +[^\n]*two"), ContainsRegex("ADD +new_class")));
        } else if (!removed) {
            EXPECT_THAT(reply.out, AllOf(ContainsRegex("ADD +new_class"), ContainsRegex("REMOVE +lost_class"),
                                         ContainsRegex("CHANGE +kept_class +[^\n]*two")));
        }
    }

    void Sweep(const std::string &operation)
    {
        SweepTable table(operation);
        (void)site.NewLogLines();
        SweepFileCalls(&table, [&](FaultCall call, FaultMode mode, uint64_t at, const std::string &row) {
            site.Write(before);
            site.faults.Arm(call, mode, at);
            const ProcessResult reply = site.Collect(type_);
            EXPECT_TRUE(site.WaitUntilIdle());
            site.faults.Disarm();
            const std::string log = site.NewLogLines();
            if (!site.faults.Reached()) {
                EXPECT_EQ(reply.status, 0) << reply.err;
                EXPECT_EQ(site.Read(), after);
                return false;
            }
            SCOPED_TRACE(site.faults.Path() + "\n" + log + reply.err);
            EXPECT_TRUE(reply.status == 0 || Says(log, "Refused a connection"));
            EXPECT_THAT(log, HasSubstr(MessageOfFailure(site, call, false)));
            EXPECT_THAT(site.Debris(), IsEmpty());
            site.ExpectThatEveryFileParses();
            const std::string state = StateAfterAnswer();
            EXPECT_TRUE(!Says(state, "history removed") || Says(log, "Removing file for safety."));
            EXPECT_TRUE(!Says(state, "index forgotten") || Says(log, " verbose: Could not read file: "));
            table.Add(row, state);
            ExpectHonestAnswerAfter(state);
            (void)site.NewLogLines();
            return true;
        });
        site.StopDaemon();
    }

    // The same answer, packed by the driver with too little memory.
    void SweepMemoryOfPacking(SweepTable *table, const std::string &what)
    {
        SweepMemory(table, what, kStrideOfPacking,
                    [&](FaultCall call, FaultMode mode, uint64_t at, const std::string &row) {
                        site.Write(before);
                        site.faults.Arm(call, mode, at);
                        const ProcessResult packed = site.PackWithFaults(type_, hide_);
                        SCOPED_TRACE(packed.err);
                        ExpectGoodEnd(packed);
                        if (!site.faults.Reached()) {
                            EXPECT_EQ(packed.status, 0);
                            EXPECT_EQ(site.Read(), after);
                            return false;
                        }
                        if (packed.status != 255) {
                            EXPECT_THAT(site.Debris(), IsEmpty());
                        }
                        const std::string state = StateAfterAnswer();
                        EXPECT_TRUE(!Says(state, "history removed") || Says(packed.err, "Removing file for safety."));
                        EXPECT_THAT(state, Not(HasSubstr("index forgotten")));
                        table->Add(row, state);
                        if (at % 20 == 0) {
                            ExpectHonestAnswerAfter(state);
                        }
                        return true;
                    });
    }

    // A few points of the daemon's own requests, most of which are made by TLS. One that ends is started again.
    void SweepMemoryOfDaemon(SweepTable *table, const std::string &what)
    {
        table->Begin(what);
        for (uint64_t at = 1;; at += kStrideOfDaemon) {
            site.Write(before);
            (void)site.NewLogLines();
            site.faults.Arm(fault_memory, fault_once, at);
            const ProcessResult reply = site.Collect(type_);
            const bool lives = site.WaitUntilIdle();
            site.faults.Disarm();
            if (!site.faults.Reached()) {
                EXPECT_EQ(reply.status, 0) << reply.err;
                break;
            }
            SCOPED_TRACE("memory " + std::to_string(at));
            if (!lives) {
                const ProcessResult ended = site.site.daemon->Wait();
                const std::string log = site.NewLogLines();
                EXPECT_EQ(ended.status, 255) << log;
                EXPECT_TRUE(Says(log, "critical: Out of memory")) << log;
            } else {
                EXPECT_THAT(site.Debris(), IsEmpty());
            }
            const std::string state = StateAfterAnswer();
            table->Add(what, state);
            if (!lives) {
                ASSERT_TRUE(site.StartDaemonWithFaults()) << site.NewLogLines();
            }
            ExpectHonestAnswerAfter(state);
            ASSERT_FALSE(HasFailure());
        }
        site.StopDaemon();
    }

    SweptSite site;
    StateFiles before;
    StateFiles after;

  private:
    std::string type_;
    bool hide_ = false;
    std::optional<std::string> index_forgotten;  // what an honest answer makes of a missing index
};

TEST_F(AnswerSweep, AFailingCallInADeltaLeavesTheOldOrTheNewState)
{
    Prepare("delta", false);
    Sweep("delta");
}

TEST_F(AnswerSweep, AFailingCallInARebaseLeavesTheOldOrTheNewState)
{
    Prepare("rebase", true);
    Sweep("rebase");
}

TEST_F(AnswerSweep, AFailingCallInADeltaThatHidesLeavesTheOldOrTheNewState)
{
    Prepare("delta", true);
    Sweep("delta that hides");
}

TEST_F(AnswerSweep, LackOfMemoryNeverCrashesTheDaemonAndLeavesTheOldOrTheNewState)
{
    SweepTable table("daemon without memory");
    Prepare("delta", true);
    SweepMemoryOfDaemon(&table, "delta");
}

TEST_F(AnswerSweep, LackOfMemoryNeverCrashesThePackingOfADeltaAndLeavesTheOldOrTheNewState)
{
    SweepTable table("delta without memory");
    Prepare("delta", true);
    SweepMemoryOfPacking(&table, "packing");
}

TEST_F(AnswerSweep, LackOfMemoryNeverCrashesThePackingOfARebaseAndLeavesTheOldOrTheNewState)
{
    SweepTable table("rebase without memory");
    Prepare("rebase", true);
    SweepMemoryOfPacking(&table, "packing");
}

}  // namespace
