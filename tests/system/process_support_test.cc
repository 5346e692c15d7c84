// Tests of what the system tests stand on: running processes, waiting for their lines, ending them.
#include "support/process.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>

#include <filesystem>

#include "support/work_dir.h"

namespace {

ProcessOptions Shell(const std::string &line)
{
    ProcessOptions options;
    options.arguments = {"-c", line};
    return options;
}

}  // namespace

TEST(ProcessSupport, CollectsBothOutputsAndTheStatus)
{
    const ProcessResult result = RunProcess("/bin/sh", Shell("echo out; echo err >&2; exit 7"));

    EXPECT_EQ(result.status, 7);
    EXPECT_FALSE(result.timed_out);
    EXPECT_EQ(result.out, "out\n");
    EXPECT_EQ(result.err, "err\n");
}

TEST(ProcessSupport, HandsOverInputEnvironmentAndDirectory)
{
    const TemporaryDirectory directory;
    ProcessOptions options = Shell("cat; echo $VT_PROCESS_TEST; pwd");
    options.input = "input\n";
    options.environment = {{"VT_PROCESS_TEST", "value"}};
    options.working_directory = std::filesystem::canonical(directory.path);

    EXPECT_EQ(RunProcess("/bin/sh", options).out, "input\nvalue\n" + options.working_directory + "\n");
}

TEST(ProcessSupport, TellsASignalAndAProgramThatIsNotThere)
{
    EXPECT_EQ(RunProcess("/bin/sh", Shell("kill -KILL $$")).status, 128 + SIGKILL);
    EXPECT_EQ(RunProcess("/nonexistent/program").status, 127);
}

TEST(ProcessSupport, CollectsMoreThanAPipeHolds)
{
    EXPECT_EQ(RunProcess("/bin/sh", Shell("head -c 1000000 /dev/zero")).out.size(), 1'000'000u);
}

TEST(ProcessSupport, KillsAProcessThatTakesTooLong)
{
    ProcessOptions options = Shell("echo before; sleep 1000");
    options.time_out = std::chrono::milliseconds(300);

    const ProcessResult result = RunProcess("/bin/sh", options);

    EXPECT_TRUE(result.timed_out);
    EXPECT_EQ(result.status, -1);
    EXPECT_EQ(result.out, "before\n");
}

TEST(ProcessSupport, WaitsForALineOfEitherOutput)
{
    BackgroundProcess process("/bin/sh", Shell("echo starting; echo port 17 >&2; read wait; sleep 1000"));

    std::string line;
    EXPECT_TRUE(process.WaitForLine("port ", std::chrono::seconds(20), &line));
    EXPECT_EQ(line, "port 17");
    EXPECT_TRUE(process.WaitForLine("start")) << "a line that was read before is found again";
}

TEST(ProcessSupport, ALineThatNeverComesIsFalseAtTheEndOfTheProcess)
{
    BackgroundProcess process("/bin/sh", Shell("echo one; printf 'unended port'"));

    EXPECT_FALSE(process.WaitForLine("port"));
    EXPECT_EQ(process.Wait().status, 0);
    EXPECT_EQ(process.Wait().out, "one\nunended port");
}

TEST(ProcessSupport, SignalsReachTheProcess)
{
    BackgroundProcess process("/bin/sh",
                              Shell("trap 'echo told; exit 5' TERM; echo ready; while :; do sleep 0.01; done"));
    ASSERT_TRUE(process.WaitForLine("ready"));

    process.Signal(SIGTERM);

    EXPECT_EQ(process.Wait().status, 5);
    EXPECT_EQ(process.Out(), "ready\ntold\n");
}

TEST(ProcessSupport, ItsWholeGroupEndsWithItsOwner)
{
    const TemporaryDirectory directory;
    const std::string fifo = directory.path / "fifo";  // its reader is told when the last writer has ended
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const int fd = open(fifo.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    pollfd writers{fd, POLLIN, 0};
    char bytes[8];
    {
        BackgroundProcess process("/bin/sh", Shell("{ echo x; exec sleep 1000; } > '" + fifo + "' & wait"));
        ASSERT_EQ(poll(&writers, 1, 20'000), 1);
        ASSERT_EQ(read(fd, bytes, sizeof(bytes)), 2);
        ASSERT_EQ(poll(&writers, 1, 0), 0) << "the child of the process is at work";
    }
    EXPECT_EQ(poll(&writers, 1, 20'000), 1);
    EXPECT_EQ(read(fd, bytes, sizeof(bytes)), 0);
    close(fd);
}
