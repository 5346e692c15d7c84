// Kills agents and daemons with SIGKILL at moments spread over the time that their work takes, and looks at the files
// of the classes report each time: old or new, whole, and the next run or query goes on from there. No difference row
// is there twice, none is invented, and none is lost but by a run that died between its cache and its rows.
//
// VT_KILLS says how many are killed of each; without it 300 agents and 200 daemons are.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/kill_moments.h"
#include "support/state_site.h"

using testing::AllOf;
using testing::AnyOf;
using testing::ContainsRegex;
using testing::Each;
using testing::EndsWith;
using testing::IsEmpty;

namespace {

constexpr int kKilled = 128 + SIGKILL;

class KillTest : public testing::Test {
  protected:
    // What a killed process may leave beside the files: content that was not yet in its place.
    void ExpectGoodDebris() const { EXPECT_THAT(site.Debris(), Each(EndsWith(".new"))); }

    StateSite site;
};

TEST_F(KillTest, AKilledAgentLeavesTheOldOrTheNewState)
{
    const auto prepare = [&] { site.Write(site.before_run); };
    prepare();
    KillMoments moments([&] { ASSERT_EQ(site.site.RunAgent().status, 0); });
    std::map<std::string, int> seen;
    int hits = 0;
    ProcessOptions options;
    options.arguments = {"--workdir", site.site.Host().string()};

    for (int kill = KillsOr(300); kill > 0; kill--) {
        prepare();
        {
            BackgroundProcess agent(std::string(VT_TEST_BIN_DIR) + "/vt-agent", options);
            moments.Wait();
            agent.Kill();
            hits += agent.Wait().status == kKilled ? 1 : 0;
        }
        SCOPED_TRACE("kill " + std::to_string(kill));
        const StateFiles found = site.Read();
        const StateFiles rows_lost = {site.after_run.cache, site.before_run.diff, site.before_run.index};
        ASSERT_THAT(found, AnyOf(site.before_run, site.after_run, rows_lost)) << found.diff.value_or("");
        site.ExpectThatEveryFileParses();
        ExpectGoodDebris();
        seen[found == site.before_run ? "old" : found == site.after_run ? "new" : "rows lost"]++;

        const ProcessResult next = site.site.RunAgent();
        ASSERT_EQ(next.status, 0) << next.err;
        EXPECT_EQ(next.err, "");
        ASSERT_EQ(site.Read(), found == site.before_run ? site.after_run : found);
        site.ExpectThatEveryFileParses();
    }
    for (const auto &[state, times] : seen) { printf("%s: %d\n", state.c_str(), times); }
    EXPECT_GT(hits, 0) << "every agent was through before it could be killed";
}

// What is known of one kind of query: the state that an honest answer leaves.
struct Query {
    std::string type;
    StateFiles after;
};

TEST_F(KillTest, AKilledDaemonLeavesTheOldOrTheNewState)
{
    const StateFiles before = site.before_query;
    // An honest answer; the daemon ends after it, with everything done.
    const auto ask = [&](const std::string &type) {
        EXPECT_TRUE(site.site.StartDaemon()) << site.site.daemon->Err();
        const ProcessResult reply = site.Collect(type);
        EXPECT_EQ(reply.status, 0) << reply.err;
        site.StopDaemon();
        return reply;
    };
    std::vector<Query> queries;
    for (const char *type : {"delta", "rebase"}) {
        site.Write(before);
        ask(type);
        queries.push_back({type, site.Read()});
    }
    ASSERT_TRUE(site.site.StartDaemon()) << site.site.daemon->Err();
    KillMoments moments([&] {
        site.Write(before);
        EXPECT_EQ(site.Collect("rebase").status, 0);
    });
    site.StopDaemon();
    std::map<std::string, int> seen;

    for (int kill = KillsOr(200); kill > 0; kill--) {
        const auto &[type, after] = queries[static_cast<size_t>(kill) % queries.size()];
        SCOPED_TRACE(type + ", kill " + std::to_string(kill));
        site.Write(before);
        ASSERT_TRUE(site.site.StartDaemon()) << site.site.daemon->Err();
        ProcessOptions options;
        options.arguments = {
            "--workdir", site.site.Hub().string(),         "collect", site.site.address, "--type", type,
            "--since",   std::to_string(StateSite::kSince)};
        BackgroundProcess hub(std::string(VT_TEST_BIN_DIR) + "/vt-hub", options);
        moments.Wait();
        site.site.daemon->Kill();
        ASSERT_EQ(site.site.daemon->Wait().status, kKilled);
        ASSERT_THAT(hub.Wait().status, AnyOf(0, 1)) << hub.Err();

        const StateFiles found = site.Read();
        ASSERT_EQ(found.cache, before.cache);
        ASSERT_THAT(found.diff, AnyOf(before.diff, after.diff));
        ASSERT_THAT(found.index, AnyOf(before.index, after.index));
        site.ExpectThatEveryFileParses();
        ExpectGoodDebris();
        seen[type + (found == before ? ", old" : found == after ? ", new" : ", in between")]++;

        const ProcessResult reply = ask(type);
        ASSERT_EQ(site.Read(), after);
        if (type == "delta") {
            EXPECT_THAT(reply.out, AllOf(ContainsRegex("ADD +new_class"), ContainsRegex("REMOVE +lost_class"),
                                         ContainsRegex("CHANGE +kept_class")));
        } else {
            EXPECT_THAT(reply.out, AllOf(ContainsRegex("ADD +new_class"), ContainsRegex("ADD +kept_class")));
        }
        ASSERT_FALSE(HasFailure());
    }
    for (const auto &[state, times] : seen) { printf("%s: %d\n", state.c_str(), times); }
}

}  // namespace
