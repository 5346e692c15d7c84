// The main program of the system tests: where the machine allows it, the tests run among processes of their own.
//
// An agent that sees another one at work anywhere on the machine leaves its reports out. So that tests that run at the
// same time, and whatever else the machine does, stay out of each other's sight, each test program gets a PID namespace
// with a /proc of its own. That takes root; without it the tests run as they are, and CTest starts one at a time of
// those that start agents.
#include <gmock/gmock.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>

namespace {

constexpr int kNoNamespace = 125;  // of the process that tried

int RunTests(int argc, char **argv)
{
    testing::InitGoogleMock(&argc, argv);
    return RUN_ALL_TESTS();
}

// Reap every child until this one ends: its exit status, or 128 and its signal.
int ReapUntilEndOf(pid_t wanted)
{
    int status = 0;
    for (;;) {
        const pid_t ended = waitpid(-1, &status, 0);
        if (ended == wanted) {
            return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        }
        if (ended < 0 && errno != EINTR) {
            return 1;
        }
    }
}

// The first process of the namespace, with which all others in it end. It dies with whoever started it.
[[noreturn]] void RunAsFirst(int argc, char **argv)
{
    if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) != 0) {
        _exit(kNoNamespace);
    }
    const pid_t tests = fork();
    if (tests == 0) {
        exit(RunTests(argc, argv));
    }
    _exit(tests < 0 ? kNoNamespace : ReapUntilEndOf(tests));
}

// The status of the tests in a namespace of their own; kNoNamespace, and none was run, where there can be none.
int RunApart(int argc, char **argv)
{
    const pid_t outside = fork();
    if (outside != 0) {
        return outside < 0 ? kNoNamespace : ReapUntilEndOf(outside);
    }
    if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || unshare(CLONE_NEWPID | CLONE_NEWNS) != 0) {
        _exit(kNoNamespace);
    }
    const pid_t first = fork();
    if (first == 0) {
        RunAsFirst(argc, argv);
    }
    _exit(first < 0 ? kNoNamespace : ReapUntilEndOf(first));
}

}  // namespace

int main(int argc, char **argv)
{
    const int status = RunApart(argc, argv);
    return status != kNoNamespace ? status : RunTests(argc, argv);
}
