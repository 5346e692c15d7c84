// Real processes under test: run one to its end, or start one, wait for a line it prints, signal it and reap it.
//
// Nothing here waits for a while: every wait is for an event and ends at a time-out, which fails the test by what it
// returns. A process that is still there when its owner goes is killed and reaped, with its whole process group.
#ifndef TESTS_SUPPORT_PROCESS_H
#define TESTS_SUPPORT_PROCESS_H

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// What a program is started with.
struct ProcessOptions {
    std::vector<std::string> arguments;  // without the program's name
    std::map<std::string, std::string>
        environment;                             // added to the test's own, or in place of a variable of the same name
    std::string working_directory;               // "" = the test's own
    std::string input;                           // what it reads on its standard input, at most 64 KiB
    std::chrono::milliseconds time_out{30'000};  // for RunProcess; a process that takes longer is killed
};

// How a process ended.
struct ProcessResult {
    int status = -1;  // exit status; 128 + n when signal n ended it; -1 when it had to be killed at its time-out
    bool timed_out = false;
    std::string out;  // standard output
    std::string err;  // standard error
};

// A running process, in a process group of its own. Its output is collected while one of the waiting functions runs, so
// a process that prints more than a pipe holds moves on only then.
class BackgroundProcess {
  public:
    // Throws when the process cannot be made; a program that cannot be executed ends with status 127.
    explicit BackgroundProcess(const std::string &program, const ProcessOptions &options = {})
    {
        std::array<int, 2> in{};
        std::array<int, 2> out{};
        std::array<int, 2> err{};
        if (pipe2(in.data(), O_CLOEXEC) != 0 || pipe2(out.data(), O_CLOEXEC) != 0 ||
            pipe2(err.data(), O_CLOEXEC) != 0) {
            throw std::runtime_error("no pipes");
        }
        FeedInput(in[1], options.input);
        std::vector<std::string> environment = Environment(options.environment);
        std::vector<char *> argv = Pointers({program}, options.arguments);
        std::vector<char *> envp = Pointers({}, environment);

        pid_ = fork();
        if (pid_ < 0) {
            throw std::runtime_error("no process");
        }
        if (pid_ == 0) {  // from here on only calls that are safe between fork and exec
            setpgid(0, 0);
            dup2(in[0], STDIN_FILENO);
            dup2(out[1], STDOUT_FILENO);
            dup2(err[1], STDERR_FILENO);
            signal(SIGPIPE, SIG_DFL);
            if (options.working_directory.empty() || chdir(options.working_directory.c_str()) == 0) {
                execve(program.c_str(), argv.data(), envp.data());
            }
            _exit(127);
        }
        setpgid(pid_, pid_);  // in both, so that the group is there whoever runs first
        close(in[0]);
        close(out[1]);
        close(err[1]);
        out_fd_ = out[0];
        err_fd_ = err[0];
    }
    ~BackgroundProcess()
    {
        Kill();
        CloseOutputs();
    }
    BackgroundProcess(const BackgroundProcess &) = delete;
    BackgroundProcess &operator=(const BackgroundProcess &) = delete;

    pid_t Pid() const { return pid_; }
    const std::string &Out() const { return result_.out; }
    const std::string &Err() const { return result_.err; }

    // Wait until a whole line of its standard output or standard error holds text; true when one does, false when the
    // process closed both first or the time is over. *ret_line, unless it is NULL, becomes the first such line.
    bool WaitForLine(std::string_view text, std::chrono::milliseconds time_out = std::chrono::seconds(20),
                     std::string *ret_line = nullptr)
    {
        const auto end = Clock::now() + time_out;
        while (!FindLine(result_.out, text, ret_line) && !FindLine(result_.err, text, ret_line)) {
            if (!ReadSome(end)) {
                return FindLine(result_.out, text, ret_line) || FindLine(result_.err, text, ret_line);
            }
        }
        return true;
    }

    void Signal(int signum) const
    {
        if (!reaped_) {
            kill(pid_, signum);
        }
    }

    // Wait until it ends of itself. One that does not is killed; status is then -1 and timed_out is set.
    const ProcessResult &Wait(std::chrono::milliseconds time_out = std::chrono::seconds(30))
    {
        if (reaped_) {
            return result_;
        }
        const auto end = Clock::now() + time_out;
        while (!Ended()) {
            if (Clock::now() >= end) {
                Kill();
                result_.status = -1;
                result_.timed_out = true;
                return result_;
            }
            // A process that closed its outputs, or whose outputs a child of its own holds open, is asked again soon.
            const auto slice = Clock::now() + std::chrono::milliseconds(20);
            if (!ReadSome(slice < end ? slice : end) && out_fd_ < 0 && err_fd_ < 0) {
                poll(nullptr, 0, 5);
            }
        }
        Reap();
        DrainOutputs();
        return result_;
    }

    // End it and its process group at once, and reap it.
    void Kill()
    {
        if (!reaped_) {
            kill(-pid_, SIGKILL);
            kill(pid_, SIGKILL);
            Reap();
        }
    }

  private:
    using Clock = std::chrono::steady_clock;

    static std::vector<std::string> Environment(const std::map<std::string, std::string> &added)
    {
        std::vector<std::string> all;
        for (char **variable = environ; *variable != nullptr; ++variable) {
            const std::string text = *variable;
            if (added.count(text.substr(0, text.find('='))) == 0) {
                all.push_back(text);
            }
        }
        for (const auto &[name, value] : added) { all.push_back(name + "=" + value); }
        return all;
    }

    std::vector<char *> Pointers(std::vector<std::string> first, const std::vector<std::string> &rest)
    {
        first.insert(first.end(), rest.begin(), rest.end());
        texts_.push_back(std::move(first));
        std::vector<char *> pointers;
        for (std::string &text : texts_.back()) { pointers.push_back(text.data()); }
        pointers.push_back(nullptr);
        return pointers;
    }

    // Before there is a process: the input fits the pipe, so nobody waits, and no reader can be gone already.
    static void FeedInput(int fd, const std::string &input)
    {
        fcntl(fd, F_SETFL, O_NONBLOCK);
        const bool whole = write(fd, input.data(), input.size()) == static_cast<ssize_t>(input.size());
        close(fd);
        if (!whole) {
            throw std::runtime_error("more input than a pipe holds");
        }
    }

    static bool FindLine(const std::string &output, std::string_view text, std::string *ret_line)
    {
        size_t from = 0;
        for (size_t end = output.find('\n'); end != std::string::npos; end = output.find('\n', from)) {
            const std::string line = output.substr(from, end - from);
            if (line.find(text) != std::string::npos) {
                if (ret_line != nullptr) {
                    *ret_line = line;
                }
                return true;
            }
            from = end + 1;
        }
        return false;
    }

    // Read what is there, waiting for it until end; false when nothing came: the time is over or both are closed.
    bool ReadSome(Clock::time_point end)
    {
        if (out_fd_ < 0 && err_fd_ < 0) {
            return false;
        }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
        std::array<pollfd, 2> fds{pollfd{out_fd_, POLLIN, 0}, pollfd{err_fd_, POLLIN, 0}};
        const int ready = poll(fds.data(), fds.size(), left > 0 ? static_cast<int>(left) : 0);
        if (ready <= 0) {
            return ready < 0 && errno == EINTR;
        }
        if (fds[0].revents != 0) {
            ReadOnce(&out_fd_, &result_.out);
        }
        if (fds[1].revents != 0) {
            ReadOnce(&err_fd_, &result_.err);
        }
        return true;
    }

    static void ReadOnce(int *fd, std::string *text)
    {
        std::array<char, 65536> bytes;
        const ssize_t n = read(*fd, bytes.data(), bytes.size());
        if (n > 0) {
            text->append(bytes.data(), static_cast<size_t>(n));
        } else if (n == 0 || errno != EINTR) {
            close(*fd);
            *fd = -1;
        }
    }

    bool Ended() const
    {
        siginfo_t info{};
        return waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid == pid_;
    }

    void Reap()
    {
        int status = 0;
        while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {}
        reaped_ = true;
        result_.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

    // What the ended process left in its pipes; a child of its own may still hold them open.
    void DrainOutputs()
    {
        while (ReadSome(Clock::now())) {}
    }

    void CloseOutputs()
    {
        for (int *fd : {&out_fd_, &err_fd_}) {
            if (*fd >= 0) {
                close(*fd);
                *fd = -1;
            }
        }
    }

    pid_t pid_ = -1;
    bool reaped_ = false;
    int out_fd_ = -1;
    int err_fd_ = -1;
    ProcessResult result_;
    std::vector<std::vector<std::string>> texts_;  // what argv and envp point into
};

// Run a program to its end.
inline ProcessResult RunProcess(const std::string &program, const ProcessOptions &options = {})
{
    BackgroundProcess process(program, options);
    return process.Wait(options.time_out);
}

#endif
