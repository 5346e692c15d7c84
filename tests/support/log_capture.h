// Reads what this thread logs, so that a test can assert messages by level and exact text.
#ifndef TESTS_SUPPORT_LOG_CAPTURE_H
#define TESTS_SUPPORT_LOG_CAPTURE_H

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include <veltrane/logging.h>

// Binds this thread's log hook while it lives and collects every message, whatever the level in force.
class LogCapture {
  public:
    using Line = std::pair<LogLevel, std::string>;

    LogCapture() : previous_(LoggingPrivGetContext())
    {
        context_.log_hook = [](LoggingPrivContext *context, LogLevel level, const char *message) {
            static_cast<LogCapture *>(context->param)->lines.emplace_back(level, message);
        };
        context_.param = this;
        context_.force_hook_level = LOG_LEVEL_DEBUG;
        LoggingPrivSetContext(&context_);
    }
    ~LogCapture() { LoggingPrivSetContext(previous_); }
    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;

    // Whether exactly this message was logged at this level, anywhere among the lines.
    bool Has(LogLevel level, const std::string &message) const
    {
        return std::find(lines.begin(), lines.end(), Line(level, message)) != lines.end();
    }

    // The lines at this level or a graver one.
    std::vector<Line> UpTo(LogLevel level) const
    {
        std::vector<Line> grave;
        for (const Line &line : lines) {
            if (line.first <= level) {
                grave.push_back(line);
            }
        }
        return grave;
    }

    std::vector<Line> lines;

  private:
    LoggingPrivContext context_{};
    LoggingPrivContext *previous_;
};

#endif
