// What a sweep of faults has seen: how many points it came by, and which states were found after them.
//
// Each test is a process of its own and has a section of the common file; whoever comes last leaves it whole.
#ifndef TESTS_FAULTS_SWEEP_TABLE_H
#define TESTS_FAULTS_SWEEP_TABLE_H

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <map>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "support/work_dir.h"

class SweepTable {
  public:
    explicit SweepTable(std::string operation) : operation_(std::move(operation)) {}
    ~SweepTable() { Publish(); }
    SweepTable(const SweepTable &) = delete;
    SweepTable &operator=(const SweepTable &) = delete;

    // A row, in the order of their first mention; one without a point is shown as well.
    void Begin(const std::string &row) { RowOf(row); }

    // One point of a row, and the state that was found after it.
    void Add(const std::string &row, const std::string &state)
    {
        auto &states = RowOf(row);
        const auto found = std::find_if(states.begin(), states.end(), [&](const auto &s) { return s.first == state; });
        if (found != states.end()) {
            found->second++;
        } else {
            states.emplace_back(state, 1);
        }
    }

    std::string Text() const
    {
        std::string text = operation_ + "\n";
        for (const auto &[row, states] : rows_) {
            int points = 0;
            std::string seen;
            for (const auto &[state, times] : states) {
                points += times;
                seen += (seen.empty() ? "" : ", ") + state + " " + std::to_string(times);
            }
            char line[256];
            snprintf(line, sizeof(line), "  %-28s %4d points: %s\n", row.c_str(), points,
                     seen.empty() ? "-" : seen.c_str());
            text += line;
        }
        return text;
    }

  private:
    using States = std::vector<std::pair<std::string, int>>;

    States &RowOf(const std::string &row)
    {
        const auto found = std::find_if(rows_.begin(), rows_.end(), [&](const auto &r) { return r.first == row; });
        return found != rows_.end() ? found->second : rows_.emplace_back(row, States()).second;
    }

    // Printed in any case; recorded where the user of the test may write.
    void Publish() const
    {
        printf("%s", Text().c_str());
        fflush(stdout);
        const std::filesystem::path build = VT_TEST_BUILD_DIR;
        const std::filesystem::path sections = build / "fault-sweep";
        std::error_code failed;
        std::filesystem::create_directories(sections, failed);
        const int lock = open((sections / "lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        if (lock < 0 || flock(lock, LOCK_EX) != 0) {
            return;
        }
        WriteFile(sections / (operation_ + ".txt"), Text());
        std::map<std::string, std::string> texts;
        for (std::filesystem::directory_iterator i(sections, failed), end; !failed && i != end; i.increment(failed)) {
            if (i->path().extension() == ".txt") {
                texts[i->path().filename()] = ReadFile(i->path());
            }
        }
        std::string all;
        for (const auto &[name, text] : texts) { all += text + "\n"; }
        WriteFile(build / "fault-sweep.txt", all);
        close(lock);
    }

    std::string operation_;
    std::vector<std::pair<std::string, States>> rows_;
};

#endif
