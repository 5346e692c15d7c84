// Reads what all threads log, for tests of threads that they do not make themselves.
#ifndef TESTS_SUPPORT_OUTPUT_LOG_H
#define TESTS_SUPPORT_OUTPUT_LOG_H

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <veltrane/logging.h>

// Takes the place of the log's output while it lives, at level verbose. Threads that log must end before it does, or
// log nothing more.
class OutputLog {
  public:
    using Line = std::pair<LogLevel, std::string>;

    OutputLog() : level_before_(LogGetGlobalLevel())
    {
        cookie_io_functions_t functions{};
        functions.write = [](void *log, const char *bytes, size_t size) {
            static_cast<OutputLog *>(log)->Add(bytes, size);
            return static_cast<ssize_t>(size);
        };
        stream_ = fopencookie(this, "w", functions);
        if (stream_ == nullptr) {
            throw std::runtime_error("no stream for the log");
        }
        LogSetOutput(stream_, false);
        LogSetGlobalLevel(LOG_LEVEL_VERBOSE);
    }
    ~OutputLog()
    {
        LogSetGlobalLevel(level_before_);
        LogSetOutput(stderr, false);
        fclose(stream_);
    }
    OutputLog(const OutputLog &) = delete;
    OutputLog &operator=(const OutputLog &) = delete;

    std::vector<Line> Lines() const
    {
        const std::lock_guard lock(mutex_);
        return lines_;
    }

    size_t Count(const Line &line) const
    {
        const std::lock_guard lock(mutex_);
        return static_cast<size_t>(std::count(lines_.begin(), lines_.end(), line));
    }

    // Wait until this was logged so many times; false when that takes too long.
    bool WaitFor(const Line &line, size_t times = 1)
    {
        std::unique_lock lock(mutex_);
        return added_.wait_for(lock, std::chrono::seconds(30), [&] {
            return static_cast<size_t>(std::count(lines_.begin(), lines_.end(), line)) >= times;
        });
    }
    bool WaitForVerbose(const std::string &message, size_t times = 1)
    {
        return WaitFor({LOG_LEVEL_VERBOSE, message}, times);
    }

    void Forget()
    {
        const std::lock_guard lock(mutex_);
        lines_.clear();
    }

  private:
    void Add(const char *bytes, size_t size)
    {
        const std::lock_guard lock(mutex_);
        unfinished_.append(bytes, size);
        for (size_t end = 0; (end = unfinished_.find('\n')) != std::string::npos;) {
            AddLine(unfinished_.substr(0, end));
            unfinished_.erase(0, end + 1);
        }
        added_.notify_all();
    }

    // "<level, padded>: <message>"
    void AddLine(const std::string &line)
    {
        const size_t begin = std::min(line.find_first_not_of(' '), line.size());
        const size_t colon = std::min(line.find(": ", begin), line.size() - begin);
        const std::string name = line.substr(begin, colon - begin);
        for (int level = LOG_LEVEL_CRIT; level <= LOG_LEVEL_DEBUG; level++) {
            if (name == LogLevelToString(static_cast<LogLevel>(level))) {
                lines_.emplace_back(static_cast<LogLevel>(level), line.substr(colon + 2));
            }
        }
    }

    mutable std::mutex mutex_;  // guards the three below
    std::condition_variable added_;
    std::vector<Line> lines_;
    std::string unfinished_;
    FILE *stream_ = nullptr;
    LogLevel level_before_;
};

#endif
