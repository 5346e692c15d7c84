// Reading processes: this machine's, and those of a tree in the shape of /proc.
#include "libveltrane/process_table.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <pwd.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <thread>

#include "support/child.h"
#include "support/log_capture.h"
#include "support/process.h"
#include "support/work_dir.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using veltrane::Process;
using veltrane::ReadProcesses;
using veltrane::ReadProcessTree;

namespace {

// The process of a number; one without a number when there is none.
Process Find(const std::optional<std::vector<Process>> &processes, pid_t pid)
{
    EXPECT_TRUE(processes.has_value());
    for (const Process &process : processes.value_or(std::vector<Process>())) {
        if (process.pid == pid) {
            return process;
        }
    }
    return {};
}

std::string OwnName()
{
    const passwd *entry = getpwuid(geteuid());
    return entry != nullptr ? entry->pw_name : std::to_string(geteuid());
}

// As the kernel flags it in /proc/PID/stat.
bool IsKernelThread(pid_t pid)
{
    const std::string stat = ReadFile("/proc/" + std::to_string(pid) + "/stat");
    unsigned long flags = 0;
    const size_t name_end = stat.rfind(')');
    return name_end != std::string::npos &&
           sscanf(stat.c_str() + name_end, ") %*c %*d %*d %*d %*d %*d %lu", &flags) == 1 && (flags & 0x00200000) != 0;
}

class ProcessTree : public testing::Test {
  protected:
    void Make(const std::string &pid, const std::string &command_line, const std::string &status)
    {
        std::filesystem::create_directory(tree.path / pid);
        WriteFile(tree.path / pid / "cmdline", command_line);
        if (!status.empty()) {
            WriteFile(tree.path / pid / "status", status);
        }
    }

    std::vector<Process> Read() { return ReadProcessTree(tree.path).value_or(std::vector<Process>()); }

    TemporaryDirectory tree;
};

// A process that is there until its owner goes, and what it shows of itself.
class Sleeper {
  public:
    explicit Sleeper(std::vector<std::string> arguments) : process_("/bin/sh", Options(std::move(arguments)))
    {
        EXPECT_TRUE(process_.WaitForLine("started"));
    }
    pid_t pid() const { return process_.Pid(); }

  private:
    static ProcessOptions Options(std::vector<std::string> arguments)
    {
        ProcessOptions options;
        options.arguments = {"-c", "echo started; kill -STOP $$"};  // it needs no input and no child to stay
        options.arguments.insert(options.arguments.end(), arguments.begin(), arguments.end());
        return options;
    }
    BackgroundProcess process_;
};

}  // namespace

TEST(ProcessTable, HasThisProcessWithItsParentAndOwner)
{
    const Process own = Find(ReadProcesses(), getpid());

    EXPECT_EQ(own.parent, getppid());
    EXPECT_EQ(own.owner, OwnName());
    EXPECT_THAT(own.command, testing::HasSubstr("process_table_test"));
}

TEST(ProcessTable, HasArgumentsWithABlankBetweenAndForALineEnd)
{
    BackgroundProcess process("/bin/sh", [] {
        ProcessOptions options;
        options.arguments = {"-c", "echo started; sleep 1000 & wait", "a b", "", "c\nd", "\xff\xfe", "", ""};
        return options;
    }());
    ASSERT_TRUE(process.WaitForLine("started"));

    for (const auto &processes : {ReadProcesses(), ReadProcessTree("/proc")}) {
        EXPECT_EQ(Find(processes, process.Pid()).command,
                  "/bin/sh -c echo started; sleep 1000 & wait a b  c d \xff\xfe")
            << "empty arguments at the end are left out";
    }
}

TEST(ProcessTable, HasZombiesWithoutACommandLine)
{
    const pid_t pid = fork();
    if (pid == 0) {
        _exit(0);
    }
    siginfo_t info{};
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT), 0);

    const Process library = Find(ReadProcesses(), pid);
    const Process own = Find(ReadProcessTree("/proc"), pid);
    waitpid(pid, nullptr, 0);

    EXPECT_EQ(library.pid, pid);
    EXPECT_EQ(library.command, "");
    EXPECT_EQ(own.pid, pid);
    EXPECT_EQ(own.command, "");
}

TEST(ProcessTable, HasKernelThreadsWithoutACommandLine)
{
    for (const Process &process : ReadProcesses().value_or(std::vector<Process>())) {
        // In a container none are to be seen.
        if (IsKernelThread(process.pid)) {
            EXPECT_EQ(process.command, "") << process.pid;
        }
    }
}

TEST(ProcessTable, HasNoThreads)
{
    PipeEvent started;
    PipeEvent stop;
    std::thread thread([&] {
        started.Set();
        stop.Await();
    });
    started.Await();
    const auto processes = ReadProcesses();
    stop.Set();
    thread.join();

    const std::string own = Find(processes, getpid()).command;
    EXPECT_EQ(
        std::count_if(processes->begin(), processes->end(),
                      [&own](const Process &process) { return process.pid == getpid() || process.command == own; }),
        1);
}

TEST(ProcessTable, IsInTheOrderOfTheNumbers)
{
    const auto processes = ReadProcesses();
    ASSERT_TRUE(processes.has_value());
    EXPECT_TRUE(std::is_sorted(processes->begin(), processes->end(),
                               [](const Process &a, const Process &b) { return a.pid < b.pid; }));
}

TEST(ProcessTable, IsTheSameToBothReaders)
{
    const Sleeper first({"x"});
    const Sleeper second({"y", "z"});
    const auto library = ReadProcesses();
    const auto own = ReadProcessTree("/proc");

    for (const pid_t pid : {getpid(), getppid(), first.pid(), second.pid(), pid_t{1}}) {
        const Process a = Find(library, pid);
        const Process b = Find(own, pid);
        EXPECT_EQ(a.pid, b.pid);
        EXPECT_EQ(a.parent, b.parent) << pid;
        EXPECT_EQ(a.owner, b.owner) << pid;
        EXPECT_EQ(a.command, b.command) << pid;
    }
}

TEST_F(ProcessTree, IsReadInTheOrderOfTheNumbers)
{
    const std::string uid = std::to_string(geteuid());
    Make("200", std::string("/usr/sbin/sshd\0-D\0", 18), "Name:\tsshd\nState:\tS (sleeping)\nPPid:\t1\n");
    Make("31", std::string("bash\0", 5), "PPid:\t200\nUid:\t" + uid + "\t" + uid + "\t0\t0\n");
    std::filesystem::create_directory(tree.path / "sys");
    std::filesystem::create_directory(tree.path / "12x");

    const std::vector<Process> processes = Read();

    ASSERT_EQ(processes.size(), 2u);
    EXPECT_EQ(processes[0].pid, 31);
    EXPECT_EQ(processes[0].parent, 200);
    EXPECT_EQ(processes[0].owner, OwnName());
    EXPECT_EQ(processes[0].command, "bash");
    EXPECT_EQ(processes[1].pid, 200);
    EXPECT_EQ(processes[1].parent, 1);
    EXPECT_EQ(processes[1].command, "/usr/sbin/sshd -D");
}

TEST_F(ProcessTree, ShowsTheEffectiveUser)
{
    Make("5", "x", "Uid:\t1\t4294967294\t0\t0\n");
    EXPECT_EQ(Read().at(0).owner, "4294967294") << "a number without a name is itself";
}

TEST_F(ProcessTree, WithoutAStatusHasTheOwnerOfTheDirectory)
{
    Make("5", std::string("a\0b\0", 4), "");
    const Process process = Read().at(0);
    EXPECT_EQ(process.owner, OwnName());
    EXPECT_EQ(process.parent, 0);
    EXPECT_EQ(process.command, "a b");
}

TEST_F(ProcessTree, ShowsNoCommandLineOfADeadProcess)
{
    Make("5", "x", "State:\tZ (zombie)\n");
    Make("6", "x", "State:\tX (dead)\n");
    Make("7", "", "State:\tI (idle)\n");
    std::filesystem::create_directory(tree.path / "8");
    for (const Process &process : Read()) { EXPECT_EQ(process.command, "") << process.pid; }
    EXPECT_EQ(Read().size(), 4u);
}

TEST_F(ProcessTree, DropsTheBlanksThatATitleLeaves)
{
    Make("5", "sshd: user   ", "");
    Make("6", std::string("sshd: user\0\0\0\0\0", 15), "");
    for (const Process &process : Read()) { EXPECT_EQ(process.command, "sshd: user"); }
}

TEST_F(ProcessTree, ThatIsNotThereSaysSo)
{
    LogCapture log;
    EXPECT_EQ(ReadProcessTree("/nonexistent/proc"), std::nullopt);
    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_ERR,
                                            "Could not read the process table in '/nonexistent/proc'. (opendir: No "
                                            "such file or directory)")));
}
