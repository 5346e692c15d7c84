// Critical sections keep threads and processes apart, and no dead process keeps anybody out.
#include <fcntl.h>
#include <sched.h>
#include <spawn.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <veltrane/critical_section.h>

#include "support/child.h"
#include "support/log_capture.h"
#include "support/section_probe.h"
#include "support/work_dir.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::KilledBySignal;
using testing::Pair;

namespace fs = std::filesystem;

namespace {

constexpr char kSection[] = "DIFF_CRITICAL_SECTION";

// Read a number from a file, add one, write it back: loses counts unless it runs alone.
void CountInFile(const fs::path &path)
{
    const std::string before = ReadFile(path);
    WriteFile(path, std::to_string(before.empty() ? 1 : std::stoi(before) + 1));
}

// Wait until the kernel says this of a process.
void AwaitStatus(pid_t pid, const std::string &line)
{
    const fs::path status = fs::path("/proc") / std::to_string(pid) / "status";
    for (std::string said = ReadFile(status); said.find(line) == std::string::npos; said = ReadFile(status)) {
        ASSERT_EQ(said.find("State:\tZ"), std::string::npos) << "it has ended";
        sched_yield();
    }
}

}  // namespace

TEST(CriticalSection, KeepsThreadsApart)
{
    WorkDirectory work;
    int shared = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++) {
        threads.emplace_back([&] {
            for (int i = 0; i < 200; i++) {
                EXPECT_TRUE(WaitForCriticalSection(kSection));
                shared = shared + 1;
                ReleaseCriticalSection(kSection);
            }
        });
    }
    for (std::thread &thread : threads) { thread.join(); }
    EXPECT_EQ(shared, 800);
}

TEST(CriticalSection, KeepsProcessesApart)
{
    WorkDirectory work;
    std::vector<std::unique_ptr<Child>> children;
    for (int p = 0; p < 4; p++) {
        children.push_back(std::make_unique<Child>([&] {
            for (int i = 0; i < 100; i++) {
                EXPECT_TRUE(WaitForCriticalSection(kSection));
                CountInFile(work.path / "count");
                ReleaseCriticalSection(kSection);
            }
        }));
    }
    for (auto &child : children) { EXPECT_EQ(child->Wait(), 0); }
    EXPECT_EQ(ReadFile(work.path / "count"), "400");
}

TEST(CriticalSection, IsHeldUntilItIsReleased)
{
    WorkDirectory work;
    LogCapture log;

    ASSERT_TRUE(WaitForCriticalSection(kSection));
    EXPECT_TRUE(IsSectionHeld(kSection));
    ReleaseCriticalSection(kSection);

    EXPECT_FALSE(IsSectionHeld(kSection));
    EXPECT_THAT(log.lines, IsEmpty());
}

TEST(CriticalSection, OneOfAnotherNameIsAnother)
{
    WorkDirectory work;

    ASSERT_TRUE(WaitForCriticalSection("context_tmp_lock"));
    std::thread([] {
        EXPECT_TRUE(WaitForCriticalSection("variable_tmp_lock"));
        ReleaseCriticalSection("variable_tmp_lock");
    }).join();
    ReleaseCriticalSection("context_tmp_lock");
}

TEST(CriticalSection, TheFileIsPrivateHasTheCanonifiedNameAndStays)
{
    WorkDirectory work;
    fs::remove_all(work.State("locks"));  // made when missing
    const mode_t before = umask(0);

    ASSERT_TRUE(WaitForCriticalSection("a section/of ours"));
    ReleaseCriticalSection("a section/of ours");

    umask(before);
    const fs::path file = work.State("locks") / "a_section_of_ours.lock";
    struct stat st = {};
    ASSERT_EQ(stat(file.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600u);
    ASSERT_EQ(stat(work.State("locks").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0700u);
}

TEST(CriticalSection, AHolderThatIsKilledKeepsNobodyOut)
{
    WorkDirectory work;
    PipeEvent inside;
    Child holder([&] {
        EXPECT_TRUE(WaitForCriticalSection(kSection));
        inside.Set();
        pause();
    });
    inside.Await();
    EXPECT_TRUE(IsSectionHeld(kSection));

    EXPECT_EQ(holder.Kill(), -SIGKILL);

    EXPECT_TRUE(WaitForCriticalSection(kSection));
    ReleaseCriticalSection(kSection);
}

TEST(CriticalSection, AWaitingProcessEntersWhenTheHolderIsKilled)
{
    WorkDirectory work;
    PipeEvent inside;
    Child holder([&] {
        EXPECT_TRUE(WaitForCriticalSection(kSection));
        inside.Set();
        pause();
    });
    inside.Await();
    Child waiter([] {
        EXPECT_TRUE(WaitForCriticalSection(kSection));
        ReleaseCriticalSection(kSection);
    });

    holder.Kill();

    EXPECT_EQ(waiter.Wait(), 0);
}

TEST(CriticalSection, AProgramStartedInsideDoesNotInheritIt)
{
    WorkDirectory work;
    PipeEvent started;
    int input[2];
    ASSERT_EQ(pipe(input), 0);
    Child holder([&] {
        EXPECT_TRUE(WaitForCriticalSection(kSection));
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, input[0], STDIN_FILENO);
        posix_spawn_file_actions_addclose(&actions, input[1]);
        const char *const arguments[] = {"cat", nullptr};
        pid_t program = 0;
        // Returns after the exec; the program then reads until this test closes its input.
        EXPECT_EQ(posix_spawnp(&program, "cat", &actions, nullptr, const_cast<char **>(arguments), environ), 0);
        posix_spawn_file_actions_destroy(&actions);
        started.Set();
        pause();
    });
    started.Await();

    holder.Kill();

    EXPECT_TRUE(WaitForCriticalSection(kSection));  // the program still runs
    ReleaseCriticalSection(kSection);
    close(input[0]);
    close(input[1]);
}

TEST(CriticalSection, AChildOfTheHolderWaitsForItLikeAnybody)
{
    WorkDirectory work;
    ASSERT_TRUE(WaitForCriticalSection(kSection));
    PipeEvent looked;
    Child child([&] {
        EXPECT_TRUE(IsSectionHeld(kSection));
        looked.Set();
        EXPECT_TRUE(WaitForCriticalSection(kSection));
        CountInFile(work.path / "count");
        ReleaseCriticalSection(kSection);
    });

    looked.Await();
    WriteFile(work.path / "count", "41");
    ReleaseCriticalSection(kSection);

    EXPECT_EQ(child.Wait(), 0);
    EXPECT_EQ(ReadFile(work.path / "count"), "42");
}

TEST(CriticalSection, AChildOfTheHolderDoesNotKeepItWhenTheHolderIsKilled)
{
    WorkDirectory work;
    PipeEvent inside, go_on;
    Child holder([&] {
        EXPECT_TRUE(WaitForCriticalSection(kSection));
        const pid_t child = fork();
        if (child == 0) {
            inside.Set();
            go_on.Await();  // outlives its parent
            _exit(0);
        }
        pause();
    });
    inside.Await();

    holder.Kill();

    EXPECT_FALSE(IsSectionHeld(kSection));
    go_on.Set();
}

TEST(CriticalSection, WithoutALockFileOnlyThreadsAreShutOut)
{
    WorkDirectory work;
    LogCapture log;
    const fs::path in_the_way = work.State("locks") / "DIFF_CRITICAL_SECTION.lock";
    fs::create_directory(in_the_way);

    EXPECT_FALSE(WaitForCriticalSection(kSection));
    bool entered = false;
    std::thread other([&] {
        LoggingPrivSetContext(nullptr);
        EXPECT_FALSE(WaitForCriticalSection(kSection));
        entered = true;
        ReleaseCriticalSection(kSection);
    });
    entered = false;
    ReleaseCriticalSection(kSection);
    other.join();

    EXPECT_TRUE(entered);
    EXPECT_THAT(log.lines,
                ElementsAre(Pair(LOG_LEVEL_ERR, "Could not lock '" + in_the_way.string() +
                                                    "': other processes are not kept out of critical section "
                                                    "'DIFF_CRITICAL_SECTION'. (open: Is a directory)")));
}

TEST(CriticalSection, WithoutADirectoryForTheLockFileOnlyThreadsAreShutOut)
{
    WorkDirectory work;
    LogCapture log;
    fs::remove_all(work.State("locks"));
    WriteFile(work.State("locks"), "in the way");

    EXPECT_FALSE(WaitForCriticalSection(kSection));
    ReleaseCriticalSection(kSection);

    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_ERR,
                                            "Could not lock '" + work.State("locks").string() +
                                                "/DIFF_CRITICAL_SECTION.lock': other processes are not kept out of "
                                                "critical section 'DIFF_CRITICAL_SECTION'. (mkdir: Not a directory)")));
}

TEST(CriticalSection, ASignalDoesNotEndTheWaiting)
{
    WorkDirectory work;
    ASSERT_TRUE(WaitForCriticalSection(kSection));
    PipeEvent ready;
    Child waiter([&] {
        struct sigaction action = {};
        action.sa_handler = [](int) {};  // without SA_RESTART: the waiting call is interrupted
        sigaction(SIGUSR1, &action, nullptr);
        ready.Set();
        EXPECT_TRUE(WaitForCriticalSection(kSection));
        ReleaseCriticalSection(kSection);
    });
    ready.Await();

    for (int i = 0; i < 5; i++) {
        AwaitStatus(waiter.pid(), "State:\tS");  // asleep: waiting
        kill(waiter.pid(), SIGUSR1);
        AwaitStatus(waiter.pid(), "ShdPnd:\t0000000000000000");  // the signal has arrived
    }
    ReleaseCriticalSection(kSection);

    EXPECT_EQ(waiter.Wait(), 0);
}

TEST(CriticalSectionDeathTest, EnteringTwiceIsAProgrammingError)
{
    WorkDirectory work;
    EXPECT_EXIT(
        {
            WaitForCriticalSection(kSection);
            WaitForCriticalSection(kSection);
        },
        KilledBySignal(SIGABRT), "programming error: Critical section 'DIFF_CRITICAL_SECTION' could not be entered");
}

TEST(CriticalSectionDeathTest, LeavingWithoutHavingEnteredIsAProgrammingError)
{
    WorkDirectory work;
    EXPECT_EXIT(ReleaseCriticalSection(kSection), KilledBySignal(SIGABRT),
                "programming error: Critical section 'DIFF_CRITICAL_SECTION' could not be left");
}
