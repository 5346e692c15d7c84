// A prepared site whose programs run with the fault injection library, and what is known of it after each fault.
#ifndef TESTS_FAULTS_SWEPT_SITE_H
#define TESTS_FAULTS_SWEPT_SITE_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include <veltrane/logging.h>

#include "faults/fault_control.h"
#include "support/state_site.h"

// A line of a program's log.
inline std::string LogLine(LogLevel level, const std::string &message)
{
    const std::string name = LogLevelToString(level);
    return std::string(name.size() < 8 ? 8 - name.size() : 0, ' ') + name + ": " + message + "\n";
}

class SweptSite : public StateSite {
  public:
    SweptSite() : faults(site.Host().parent_path() / "fault-plan", site.Host()) {}

    // An agent run in which calls fail as armed.
    ProcessResult RunAgentWithFaults()
    {
        faults.ForNextProcess();
        ProcessOptions options;
        options.arguments = {"--workdir", site.Host().string(), "--verbose"};
        options.environment = faults.Environment();
        options.environment["LD_PRELOAD"] = FaultControl::Library();
        ProcessResult result = RunProcess(std::string(VT_TEST_BIN_DIR) + "/vt-agent", options);
        faults.Disarm();
        return result;
    }

    // One reply packed by the driver, in which calls fail as armed, while the daemon is idle. hide  whether its filter
    // hides secrets
    ProcessResult PackWithFaults(const std::string &type, bool hide)
    {
        const FaultControl::Owner daemon = faults.ForNextProcess();
        ProcessOptions options;
        options.arguments = {site.Host().string(), type, std::to_string(kSince), hide ? "hide" : "show"};
        options.environment = faults.Environment();
        options.environment["LD_PRELOAD"] = FaultControl::Library();
        ProcessResult result = RunProcess(std::string(VT_TEST_BUILD_DIR) + "/tests/faults/fault_driver", options);
        faults.Disarm();
        (void)faults.For(daemon);
        return result;
    }

    // Start the daemon with the library, nothing armed; false when it does not listen.
    bool StartDaemonWithFaults()
    {
        faults.Disarm();
        faults.ForNextProcess();
        log_ = site.Host().parent_path() / "daemon-log";
        log_read_ = 0;
        ProcessOptions options;
        // Its log goes to a file, for a pipe would have to be emptied all the time. The shell itself runs without the
        // library.
        options.arguments = {"-c",          "export LD_PRELOAD=\"$1\"; log=\"$2\"; shift 2; exec \"$@\" 2>\"$log\"",
                             "sh",          FaultControl::Library(),
                             log_.string(), std::string(VT_TEST_BIN_DIR) + "/vt-serverd",
                             "--workdir",   site.Host().string(),
                             "--bind",      "127.0.0.1",
                             "--port",      "0",
                             "--verbose"};
        options.environment = faults.Environment();
        site.daemon = std::make_unique<BackgroundProcess>("/bin/sh", options);
        std::string line;
        if (!site.daemon->WaitForLine("Listening on ", std::chrono::seconds(20), &line)) {
            return false;
        }
        site.address = line.substr(line.find("on ") + 3);
        idle_ = faults.Open();
        return true;
    }

    // What the daemon has logged since this was last asked.
    std::string NewLogLines()
    {
        const std::string all = ReadFile(log_);
        const std::string lines = all.substr(log_read_);
        log_read_ = all.size();
        return lines;
    }

    // Wait until the daemon is through with everybody who asked, or has ended: true and false. A connection is through
    // when its descriptor is closed, and all that were opened for it; 10 seconds are too long for that: throws.
    bool WaitUntilIdle() const
    {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (std::chrono::steady_clock::now() < end) {
            siginfo_t info{};
            const auto pid = static_cast<id_t>(site.daemon->Pid());
            if (waitid(P_PID, pid, &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid != 0) {
                return false;
            }
            if (faults.Open() == idle_ && !IsEnding()) {
                return true;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        throw std::runtime_error("the daemon has " + std::to_string(faults.Open()) + " descriptors open, and had " +
                                 std::to_string(idle_) + " when it began to listen");
    }

    FaultControl faults;

  private:
    // Whether it has said so; it may take a moment.
    bool IsEnding() const { return ReadFile(log_).find("critical: Out of memory", log_read_) != std::string::npos; }

    std::filesystem::path log_;
    size_t log_read_ = 0;
    int64_t idle_ = 0;  // descriptors that the daemon has open when it begins to listen
};

// The message that the failure of the first call brings; "" when the call's result matters to nobody, or when others
// test what is said.
inline std::string MessageOfFailure(const SweptSite &site, FaultCall call, bool agent)
{
    const std::string path = site.faults.Path();
    const std::string cache = site.Cache();
    const std::string diff = site.Diff();
    const std::string index = site.Index();
    const std::string section = site.State("locks/DIFF_CRITICAL_SECTION.lock");
    if (path == cache + ".new") {
        return LogLine(LOG_LEVEL_VERBOSE, "Could not write cached state: '" + cache + "'");
    }
    if (path == diff + ".new") {
        return LogLine(LOG_LEVEL_ERR, "Could not overwrite diff in the file: '" + diff +
                                          "' during cleanup. Removing file for safety.");
    }
    if (path == index + ".new") {
        return LogLine(LOG_LEVEL_VERBOSE, "Could not write file: '" + index + "'");
    }
    if (path == diff && agent) {
        return LogLine(LOG_LEVEL_ERR, "Could not write diff to the file: '" + diff + "'");
    }
    if (call != fault_open) {
        return "";
    }
    if (path == cache) {
        return LogLine(LOG_LEVEL_VERBOSE, "Could not read cached state: '" + cache + "'");
    }
    if (path == diff) {
        return LogLine(LOG_LEVEL_VERBOSE, "Could not read diff: '" + diff + "'");
    }
    if (path == index) {
        return LogLine(LOG_LEVEL_VERBOSE, "Could not read file: '" + index + "'");
    }
    if (path == section) {
        return LogLine(LOG_LEVEL_ERR, "Could not lock '" + section +
                                          "': other processes are not kept out of critical section "
                                          "'DIFF_CRITICAL_SECTION'. (open: Too many open files)");
    }
    return "";
}

#endif
