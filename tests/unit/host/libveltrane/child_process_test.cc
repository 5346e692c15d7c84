// Tests of the commands that policy runs.
#include "libveltrane/child_process.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>

#include "support/work_dir.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Optional;
using veltrane::Command;
using veltrane::CommandResult;
using veltrane::RunCommand;
using veltrane::SplitWords;

namespace {

Command Shell(const std::string &line)
{
    Command command;
    command.words = {"/bin/sh", "-c", line};
    return command;
}

double Seconds(std::chrono::steady_clock::time_point since)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

}  // namespace

TEST(SplitWords, CutsAtBlanks)
{
    EXPECT_THAT(SplitWords("  /bin/a  b\tc\n"), Optional(ElementsAre("/bin/a", "b", "c")));
    EXPECT_THAT(SplitWords(""), Optional(IsEmpty()));
    EXPECT_THAT(SplitWords("   "), Optional(IsEmpty()));
}

TEST(SplitWords, KeepsQuotedBlanksAndTakesTheQuotesOff)
{
    EXPECT_THAT(SplitWords("a 'b  c' \"d e\"f 'g'\"h\""), Optional(ElementsAre("a", "b  c", "d ef", "gh")));
    EXPECT_THAT(SplitWords("a '' \"\""), Optional(ElementsAre("a", "", "")));
    EXPECT_THAT(SplitWords("'say \"x\"'"), Optional(ElementsAre("say \"x\"")));
}

TEST(SplitWords, LetsABackslashTakeTheMeaningOfTheNextByteOutsideSingleQuotes)
{
    EXPECT_THAT(SplitWords("a\\ b \"c\\\"d\" 'e\\f' g\\\\"), Optional(ElementsAre("a b", "c\"d", "e\\f", "g\\")));
    EXPECT_THAT(SplitWords("end\\"), Optional(ElementsAre("end\\")));
}

TEST(SplitWords, RefusesAQuoteThatStaysOpen)
{
    EXPECT_EQ(SplitWords("a 'b"), std::nullopt);
    EXPECT_EQ(SplitWords("a \"b'"), std::nullopt);
}

TEST(RunCommand, HandsOverItsWordsAsTheyAre)
{
    Command command;
    command.words = {"printf", "%s|", "a b", "$HOME", "*", "'"};  // found in PATH

    const CommandResult result = RunCommand(command);

    EXPECT_TRUE(result.Succeeded());
    EXPECT_EQ(result.output, "a b|$HOME|*|'|");
}

TEST(RunCommand, CollectsBothStreamsAndTheExitStatus)
{
    const CommandResult result = RunCommand(Shell("echo out; echo err >&2; exit 3"));

    EXPECT_EQ(result.end, CommandResult::End::kExited);
    EXPECT_EQ(result.code, 3);
    EXPECT_EQ(result.output, "out\n");
    EXPECT_EQ(result.errors, "err\n");
    EXPECT_EQ(result.Describe(), "exit status 3");
    EXPECT_FALSE(result.Succeeded());
}

TEST(RunCommand, TellsASignal)
{
    const CommandResult result = RunCommand(Shell("kill -TERM $$"));

    EXPECT_EQ(result.end, CommandResult::End::kSignalled);
    EXPECT_EQ(result.Describe(), "signal 15");
}

TEST(RunCommand, TellsWhyItCouldNotStart)
{
    Command command;
    command.words = {"/nonexistent/command"};
    CommandResult result = RunCommand(command);
    EXPECT_EQ(result.end, CommandResult::End::kNotStarted);
    EXPECT_EQ(result.Describe(), "could not be started: No such file or directory");

    command.words = {"true"};
    command.directory = "/nonexistent";
    result = RunCommand(command);
    EXPECT_EQ(result.end, CommandResult::End::kNotStarted);
    EXPECT_EQ(result.code, ENOENT);

    command.words.clear();
    result = RunCommand(command);
    EXPECT_EQ(result.end, CommandResult::End::kNotStarted);
    EXPECT_EQ(result.code, EINVAL);
}

TEST(RunCommand, RunsInItsDirectoryWithItsEnvironmentAndAnEmptyInput)
{
    const TemporaryDirectory directory;
    setenv("VT_TEST_KEPT", "kept", 1);
    setenv("VT_TEST_REPLACED", "old", 1);
    Command command = Shell("pwd; echo $VT_TEST_KEPT $VT_TEST_REPLACED; wc -c");
    command.directory = directory.path;
    command.environment = {{"VT_TEST_REPLACED", "new value"}};

    const CommandResult result = RunCommand(command);

    EXPECT_EQ(result.output, std::filesystem::canonical(directory.path).string() + "\nkept new value\n0\n");
}

TEST(RunCommand, InheritsNoDescriptorEvenOneThatIsNotCloseOnExec)
{
    const int fd = open("/dev/null", O_RDONLY);
    ASSERT_GE(fd, 0);

    const CommandResult result =
        RunCommand(Shell("if [ -e /proc/self/fd/" + std::to_string(fd) + " ]; then echo open; fi"));
    close(fd);

    EXPECT_EQ(result.output, "");
    EXPECT_TRUE(result.Succeeded());
}

TEST(RunCommand, RestoresTheSignalThatProgramsIgnore)
{
    signal(SIGPIPE, SIG_IGN);
    const CommandResult result = RunCommand(Shell("kill -PIPE $$; echo survived"));
    signal(SIGPIPE, SIG_DFL);

    EXPECT_EQ(result.Describe(), "signal 13");
}

TEST(RunCommand, KillsItsWholeProcessGroupWhenTheTimeIsOver)
{
    const TemporaryDirectory directory;
    const std::string fifo = directory.path / "fifo";  // its reader is told when the last writer has ended
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const int fd = open(fifo.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    const auto start = std::chrono::steady_clock::now();
    Command command = Shell("echo before; { echo x; exec sleep 1000; } > '" + fifo + "' & wait");
    command.timeout_seconds = 1;

    const CommandResult result = RunCommand(command);

    EXPECT_EQ(result.end, CommandResult::End::kTimedOut);
    EXPECT_EQ(result.Describe(), "timed out");
    EXPECT_EQ(result.output, "before\n");
    EXPECT_LT(Seconds(start), 100);
    char bytes[8];
    EXPECT_EQ(read(fd, bytes, sizeof(bytes)), 2) << "the child of the shell was at work";
    pollfd writers{fd, POLLIN, 0};
    EXPECT_EQ(poll(&writers, 1, 20'000), 1);
    EXPECT_NE(writers.revents & POLLHUP, 0);
    close(fd);
}

TEST(RunCommand, DoesNotWaitForWhatItLeftInTheBackground)
{
    const auto start = std::chrono::steady_clock::now();

    const CommandResult result = RunCommand(Shell("sleep 1000 & echo $!"));

    EXPECT_TRUE(result.Succeeded());
    EXPECT_LT(Seconds(start), 100);
    const pid_t left_behind = static_cast<pid_t>(std::stol(result.output));
    EXPECT_EQ(kill(left_behind, SIGKILL), 0) << "it lives on";
}

TEST(RunCommand, WaitsForACommandThatClosedItsStreams)
{
    const TemporaryDirectory directory;
    const CommandResult result =
        RunCommand(Shell("exec >&- 2>&-; sleep 0.2; : > '" + (directory.path / "done").string() + "'; exit 4"));

    EXPECT_EQ(result.code, 4);
    EXPECT_TRUE(std::filesystem::exists(directory.path / "done"));
}

TEST(RunCommand, ReadsMoreThanItKeeps)
{
    Command command = Shell("head -c 300000 /dev/zero | tr '\\0' x; echo end >&2");
    command.output_limit = 1000;

    const CommandResult result = RunCommand(command);

    EXPECT_TRUE(result.Succeeded());
    EXPECT_TRUE(result.cut);
    EXPECT_EQ(result.output, std::string(1000, 'x'));
    EXPECT_EQ(result.errors, "end\n");
}

TEST(RunCommand, KeepsAllOfALongOutput)
{
    const CommandResult result = RunCommand(Shell("head -c 300000 /dev/zero | tr '\\0' x"));

    EXPECT_EQ(result.output.size(), 300000u);
    EXPECT_FALSE(result.cut);
}
