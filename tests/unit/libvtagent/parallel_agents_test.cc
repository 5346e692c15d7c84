#include "libvtagent/processes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/log_capture.h"
#include "support/process_tree.h"

using testing::IsEmpty;
using testing::Pair;

namespace {

const Texts kAgent = {"/var/veltrane/bin/vt-agent", "--verbose"};
const Texts kTwin = {"/var/veltrane/bin/vt-twin"};

}  // namespace

TEST(ParallelAgents, OneAgentIsTheCallerItself)
{
    const ProcessTree processes({{"/sbin/init"}, kAgent, {"bash"}});
    LogCapture log;
    EXPECT_FALSE(AreParallelAgentsExecuting());
    EXPECT_THAT(log.lines, IsEmpty());
}

TEST(ParallelAgents, NoAgentAtAllIsNoneInParallel)
{
    const ProcessTree processes({{"/sbin/init"}});
    EXPECT_FALSE(AreParallelAgentsExecuting());
}

TEST(ParallelAgents, TwoAgentsRunInParallel)
{
    const ProcessTree processes({kAgent, {"vt-agent", "--workdir", "/elsewhere"}});
    EXPECT_TRUE(AreParallelAgentsExecuting());
}

TEST(ParallelAgents, AnAgentAndATwinRunInParallel)
{
    const ProcessTree processes({kAgent, kTwin});
    EXPECT_TRUE(AreParallelAgentsExecuting());
}

TEST(ParallelAgents, TwoTwinsRunInParallel)
{
    const ProcessTree processes({kTwin, kTwin});
    EXPECT_TRUE(AreParallelAgentsExecuting());
}

TEST(ParallelAgents, AnAgentsNameFurtherOnInACommandLineDoesNotCount)
{
    const ProcessTree processes({kAgent, {"tail", "-f", "/var/log/vt-agent.log"}, {"sh", "-c", "vt-twin"}});
    EXPECT_FALSE(AreParallelAgentsExecuting());
}

TEST(ParallelAgents, TheFirstWordCountsByAnyPartOfIt)
{
    const ProcessTree processes({kAgent, {"/opt/vt-agent-tools/run"}});
    EXPECT_TRUE(AreParallelAgentsExecuting());
}

TEST(ParallelAgents, AProgramUnderBothNamesCountsTwice)
{
    const ProcessTree processes({{"/opt/vt-agent/bin/vt-twin"}});
    EXPECT_TRUE(AreParallelAgentsExecuting());
}

TEST(ParallelAgents, ATableThatIsLoadedIsNotReadAgain)
{
    ProcessTree processes({kAgent});
    EXPECT_FALSE(AreParallelAgentsExecuting());
    processes.Start(kAgent);
    EXPECT_FALSE(AreParallelAgentsExecuting());
    ClearProcessTable();
    EXPECT_TRUE(AreParallelAgentsExecuting());
}

TEST(ParallelAgents, WithoutAProcessTableNoneIsSeenAndTheHostHasSaidSo)
{
    ProcessTableSetSource("/nowhere");
    ClearProcessTable();
    LogCapture log;
    EXPECT_FALSE(AreParallelAgentsExecuting());
    EXPECT_THAT(log.lines, testing::ElementsAre(Pair(LOG_LEVEL_ERR, testing::_)));
    ProcessTableSetSource(nullptr);
    ClearProcessTable();
}
