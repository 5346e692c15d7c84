// Looks at critical sections from outside, and at what a function does at the moment when it logs.
#ifndef TESTS_SUPPORT_SECTION_PROBE_H
#define TESTS_SUPPORT_SECTION_PROBE_H

#include <fcntl.h>
#include <unistd.h>

#include <functional>
#include <string>

#include <veltrane/known_dirs.h>
#include <veltrane/logging.h>

// Whether another process would have to wait for this critical section just now.
inline bool IsSectionHeld(const std::string &name)
{
    const std::string path = std::string(GetStateDir()) + "/locks/" + name + ".lock";
    const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        return false;  // nobody has ever entered it
    }
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    const bool known = fcntl(fd, F_OFD_GETLK, &lock) == 0;
    close(fd);
    return known && lock.l_type != F_UNLCK;
}

// Binds this thread's log hook while it lives and calls `action` with every message, whatever the level in force.
class LogAction {
  public:
    using Action = std::function<void(LogLevel level, const std::string &message)>;

    explicit LogAction(Action action) : action_(std::move(action)), previous_(LoggingPrivGetContext())
    {
        context_.log_hook = [](LoggingPrivContext *context, LogLevel level, const char *message) {
            static_cast<LogAction *>(context->param)->action_(level, message);
        };
        context_.param = this;
        context_.force_hook_level = LOG_LEVEL_DEBUG;
        LoggingPrivSetContext(&context_);
    }
    ~LogAction() { LoggingPrivSetContext(previous_); }
    LogAction(const LogAction &) = delete;
    LogAction &operator=(const LogAction &) = delete;

  private:
    Action action_;
    LoggingPrivContext context_{};
    LoggingPrivContext *previous_;
};

#endif
