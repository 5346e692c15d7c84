// Parts of a test that need a process of their own: to be killed, to have other privileges, or to be somebody else.
#ifndef TESTS_SUPPORT_CHILD_H
#define TESTS_SUPPORT_CHILD_H

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <functional>
#include <stdexcept>

#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

// A forked process that runs body. Its expectations count: it ends with 1 when one of them failed.
class Child {
  public:
    explicit Child(const std::function<void()> &body)
    {
        fflush(nullptr);
        pid_ = fork();
        if (pid_ < 0) {
            throw std::runtime_error("no child process");
        }
        if (pid_ == 0) {
            body();
            fflush(nullptr);
            _exit(testing::Test::HasFailure() ? 1 : 0);
        }
    }
    ~Child()
    {
        if (pid_ > 0) {
            Kill();
        }
    }
    Child(const Child &) = delete;
    Child &operator=(const Child &) = delete;

    // Wait for its end: its exit status, or minus the signal that ended it.
    int Wait()
    {
        int status = 0;
        while (waitpid(pid_, &status, 0) < 0) {
            if (errno != EINTR) {
                throw std::runtime_error("the child process is lost");
            }
        }
        pid_ = 0;
        return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
    }

    // End it at once, wherever it is.
    int Kill()
    {
        kill(pid_, SIGKILL);
        return Wait();
    }

    pid_t pid() const { return pid_; }

  private:
    pid_t pid_ = 0;
};

// Run body in a process of its own; expect it to end well.
inline void InChild(const std::function<void()> &body)
{
    EXPECT_EQ(Child(body).Wait(), 0) << "the child process says above what failed";
}

// Something that one process tells another, or a child its parent. Made before the fork.
class PipeEvent {
  public:
    PipeEvent()
    {
        if (pipe(ends_) != 0) {
            throw std::runtime_error("no pipe");
        }
    }
    ~PipeEvent()
    {
        close(ends_[0]);
        close(ends_[1]);
    }
    PipeEvent(const PipeEvent &) = delete;
    PipeEvent &operator=(const PipeEvent &) = delete;

    void Set() { EXPECT_EQ(write(ends_[1], "!", 1), 1); }
    void Await()
    {
        char byte;
        EXPECT_EQ(read(ends_[0], &byte, 1), 1);
    }

  private:
    int ends_[2];
};

#endif
