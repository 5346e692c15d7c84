// Commands of the policy: fork, exec, and one loop that reads what they print until they end or their time is over.
#include "libveltrane/child_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <system_error>

#include <veltrane/owned.h>
#include <veltrane/types.h>

namespace veltrane {

namespace {

using Clock = std::chrono::steady_clock;

struct Pipe {
    Descriptor read_end;
    Descriptor write_end;

    bool Open()
    {
        std::array<int, 2> fds{};
        if (pipe2(fds.data(), O_CLOEXEC) != 0) {
            return false;
        }
        read_end = Descriptor(fds[0]);
        write_end = Descriptor(fds[1]);
        return true;
    }
};

std::vector<std::string> MergedEnvironment(const std::map<std::string, std::string> &added)
{
    std::vector<std::string> all;
    for (char **variable = environ; *variable != nullptr; ++variable) {
        const std::string_view text = *variable;
        if (added.count(std::string(text.substr(0, text.find('=')))) == 0) {
            all.emplace_back(text);
        }
    }
    for (const auto &[name, value] : added) { all.push_back(name + "=" + value); }
    return all;
}

std::vector<char *> Pointers(std::vector<std::string> &texts)
{
    std::vector<char *> pointers;
    for (std::string &text : texts) { pointers.push_back(text.data()); }
    pointers.push_back(nullptr);
    return pointers;
}

// What a new process needs, made before the fork: between fork and exec nothing may allocate.
struct Prepared {
    std::vector<std::string> words;
    std::vector<std::string> environment;
    std::vector<char *> argv;
    std::vector<char *> envp;
    const char *directory;
    int null;

    explicit Prepared(const Command &command, int null_fd)
        : words(command.words),
          environment(MergedEnvironment(command.environment)),
          argv(Pointers(words)),
          envp(Pointers(environment)),
          directory(command.directory.empty() ? nullptr : command.directory.c_str()),
          null(null_fd)
    {
    }
};

// In the child: become the command. Only what goes wrong comes back, as errno through the pipe that exec closes.
[[noreturn]] void Become(const Prepared &prepared, int out, int err, int failure)
{
    setpgid(0, 0);
    dup2(prepared.null, STDIN_FILENO);
    dup2(out, STDOUT_FILENO);
    dup2(err, STDERR_FILENO);
    // Whoever opened the rest, and however: none of it is the command's business.
    close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC);
    signal(SIGPIPE, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    pthread_sigmask(SIG_SETMASK, &none, nullptr);
    if (prepared.directory == nullptr || chdir(prepared.directory) == 0) {
        execvpe(prepared.argv[0], prepared.argv.data(), prepared.envp.data());
    }
    const int reason = errno;
    (void)!write(failure, &reason, sizeof(reason));  // when nobody reads it, the status says that it failed
    _exit(127);
}

// Keep what a stream holds now; false at its end.
bool ReadInto(int fd, std::string *text, size_t limit, bool *cut)
{
    std::array<char, 65536> bytes;
    const ssize_t n = read(fd, bytes.data(), bytes.size());
    if (n < 0) {
        return errno == EINTR || errno == EAGAIN;
    }
    const size_t room = limit > text->size() ? limit - text->size() : 0;
    text->append(bytes.data(), std::min(static_cast<size_t>(n), room));
    *cut = *cut || static_cast<size_t>(n) > room;
    return n > 0;
}

class Running {
  public:
    Running(pid_t pid, const Command &command, Descriptor *out, Descriptor *err)
        : pid_(pid), command_(command), out_(out), err_(err)
    {
    }

    void Finish(CommandResult *result)
    {
        const auto end = Clock::now() + std::chrono::seconds(command_.timeout_seconds);
        int status = 0;
        while (!Reaped(&status)) {
            if (command_.timeout_seconds > 0 && Clock::now() >= end) {
                kill(-pid_, SIGKILL);
                while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {}
                ReadReady(0, result);
                result->end = CommandResult::End::kTimedOut;
                return;
            }
            ReadReady(kSliceMilliseconds, result);
        }
        // What the pipes still hold, and no more: a process left behind may go on printing for ever.
        for (int rounds = 0; rounds < 4 && ReadReady(0, result); ++rounds) {}
        result->end = WIFEXITED(status) ? CommandResult::End::kExited : CommandResult::End::kSignalled;
        result->code = WIFEXITED(status) ? WEXITSTATUS(status) : WTERMSIG(status);
    }

  private:
    // How long an end without a last byte, or with a background process that holds the streams, may go unnoticed.
    static constexpr int kSliceMilliseconds = 10;

    bool Reaped(int *status) const { return waitpid(pid_, status, WNOHANG) == pid_; }

    // Wait for output, at most so long; false when there was none.
    bool ReadReady(int milliseconds, CommandResult *result)
    {
        std::array<pollfd, 2> fds{pollfd{out_->Get(), POLLIN, 0}, pollfd{err_->Get(), POLLIN, 0}};
        if (poll(fds.data(), fds.size(), milliseconds) <= 0) {
            return false;
        }
        if (fds[0].revents != 0 && !ReadInto(out_->Get(), &result->output, command_.output_limit, &result->cut)) {
            out_->Close();
        }
        if (fds[1].revents != 0 && !ReadInto(err_->Get(), &result->errors, command_.output_limit, &result->cut)) {
            err_->Close();
        }
        return true;
    }

    pid_t pid_;
    const Command &command_;
    Descriptor *out_;
    Descriptor *err_;
};

CommandResult NotStarted(int reason)
{
    CommandResult result;
    result.code = reason;
    return result;
}

}  // namespace

std::string CommandResult::Describe() const
{
    switch (end) {
        case End::kExited:
            return "exit status " + std::to_string(code);
        case End::kSignalled:
            return "signal " + std::to_string(code);
        case End::kTimedOut:
            return "timed out";
        case End::kNotStarted:
            break;
    }
    return "could not be started: " + std::generic_category().message(code);
}

CommandResult RunCommand(const Command &command)
{
    if (command.words.empty()) {
        return NotStarted(EINVAL);
    }
    Pipe out;
    Pipe err;
    Pipe failure;
    const Descriptor null(open("/dev/null", O_RDONLY | O_CLOEXEC));
    if (!out.Open() || !err.Open() || !failure.Open() || null.Get() < 0) {
        return NotStarted(errno);
    }
    const Prepared prepared(command, null.Get());
    const pid_t pid = fork();
    if (pid < 0) {
        return NotStarted(errno);
    }
    if (pid == 0) {
        Become(prepared, out.write_end.Get(), err.write_end.Get(), failure.write_end.Get());
    }
    setpgid(pid, pid);  // in both, so that the group is there whoever runs first; late is no harm
    for (Pipe *pipe : {&out, &err, &failure}) { pipe->write_end.Close(); }

    int reason = 0;
    ssize_t n = 0;
    while ((n = read(failure.read_end.Get(), &reason, sizeof(reason))) < 0 && errno == EINTR) {}
    if (n == static_cast<ssize_t>(sizeof(reason))) {
        while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {}
        return NotStarted(reason);
    }
    CommandResult result;
    Running(pid, command, &out.read_end, &err.read_end).Finish(&result);
    return result;
}

std::optional<std::vector<std::string>> SplitWords(std::string_view line)
{
    std::vector<std::string> words;
    std::string word;
    bool in_word = false;
    char quote = '\0';
    for (size_t i = 0; i < line.size(); ++i) {
        const char c = line[i];
        if (c == '\\' && quote != '\'' && i + 1 < line.size()) {
            word += line[++i];
            in_word = true;
        } else if (quote != '\0') {
            if (c == quote) {
                quote = '\0';
            } else {
                word += c;
            }
        } else if (c == '\'' || c == '"') {
            quote = c;
            in_word = true;
        } else if (c == ' ' || c == '\t' || c == '\n') {
            if (in_word) {
                words.push_back(std::move(word));
                word.clear();
            }
            in_word = false;
        } else {
            word += c;
            in_word = true;
        }
    }
    if (quote != '\0') {
        return std::nullopt;
    }
    if (in_word) {
        words.push_back(std::move(word));
    }
    return words;
}

}  // namespace veltrane
