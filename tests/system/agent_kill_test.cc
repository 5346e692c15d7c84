// Kills agents with SIGKILL at moments spread over the time that a run with all six reports takes, and looks at every
// file afterwards: each report's cache and rows are those of before or those of after the run, each log holds whole
// records, and the next run ends where an undisturbed one does. No row is reported twice, none is invented, and none is
// lost but by a run that died between a report's cache and its rows.
//
// VT_KILLS says how many are killed; without it 200 are.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <regex>
#include <sstream>

#include <veltrane/csv.h>
#include <veltrane/dbm_api.h>
#include <veltrane/json.h>
#include <veltrane/known_dirs.h>
#include <veltrane/owned.h>
#include <veltrane/records.h>

#include "support/kill_moments.h"
#include "support/state_site.h"

using testing::AnyOf;
using testing::Each;
using testing::EndsWith;

namespace fs = std::filesystem;

namespace {

constexpr int kKilled = 128 + SIGKILL;
constexpr time_t kPast = 1700000000;

// A report, and the number of fields of its records.
struct Report {
    const char *name;
    size_t fields;
};
constexpr Report kReports[] = {{"classes", 2},  {"variables", 6}, {"lastseen", 5},
                               {"software", 3}, {"patch", 4},     {"execution_log", 15}};

// What is there before the run: a first policy, peers, packages and a patch that were reported once.
constexpr char kFirstPolicy[] =
    "      - classes: kept_class\n        expression: any\n        meta: [report, one]\n"
    "      - classes: lost_class\n        expression: any\n        meta: [report]\n"
    "      - vars: kept_variable\n        string: one\n        meta: [report]\n"
    "      - vars: lost_variable\n        string: one\n        meta: [report]\n"
    "      - commands: /bin/true\n        handle: first\n";
constexpr char kSecondPolicy[] =
    "      - classes: kept_class\n        expression: any\n        meta: [report, two]\n"
    "      - classes: new_class\n        expression: any\n        meta: [report]\n"
    "      - vars: kept_variable\n        string: \"two, \\\"quoted\\\"\"\n        meta: [report]\n"
    "      - vars: new_variable\n        slist: [a, b]\n        meta: [report]\n"
    "      - commands: /bin/true\n        handle: second\n"
    "      - commands: /bin/false\n        handle: third\n"
    "      - methods: other\n        handle: fourth\n"
    "  - agent: other\n    promises:\n      - reports: here\n";

// Bytes of a file whose times of now read as "now".
std::string Timeless(const std::string &bytes)
{
    std::string timeless;
    for (size_t i = 0; i < bytes.size();) {
        size_t end = i;
        while (end < bytes.size() && isdigit(static_cast<unsigned char>(bytes[end])) != 0) { end++; }
        const std::string digits = bytes.substr(i, end - i);
        timeless += digits.size() == 10 && std::stoll(digits) > kPast + 1000 ? "now" : digits;
        if (end < bytes.size()) {
            timeless += bytes[end];
        }
        i = end + 1;
    }
    return timeless;
}

// What one report has on the disk; "(none)" for a file that is not there.
struct ReportFiles {
    std::string cache;
    std::string rows;

    bool operator==(const ReportFiles &) const = default;
};
using AllReports = std::map<std::string, ReportFiles>;

std::string BytesOf(const fs::path &path) { return fs::exists(path) ? ReadFile(path) : "(none)"; }

class AgentKill : public testing::Test {
  protected:
    AgentKill()
    {
        site.SetPolicy(kFirstPolicy);
        WriteFile(State("software_inventory.csv"), "kept,1,x,apt\r\nlost,1,x,apt\r\n");
        EXPECT_EQ(site.RunAgent().status, 0);
        WritePeers("lost");
        EXPECT_EQ(site.RunAgent().status, 0);
        for (const Report &report : kReports) {  // reported long ago
            const fs::path rows = State(std::string("diff/") + report.name + ".diff");
            if (fs::exists(rows)) {
                WriteFile(rows, std::regex_replace(ReadFile(rows), std::regex("(^|\n)[0-9]{10},"),
                                                   "$01" + std::to_string(kPast) + ","));
            }
        }
        WriteFile(State("previous_state/patch.cache"), "openssl,3.0.19,x,0\r\n");  // which no manager offers any more

        site.SetPolicy(kSecondPolicy);
        WriteFile(State("software_inventory.csv"), "kept,1,x,apt\r\nnew,1,x,apt\r\n");
        WritePeers("new");
        Remember();
        before = Read();
        EXPECT_EQ(site.RunAgent().status, 0);
        after = Read();
        outcomes = Records("promise_log.jsonl") - records_before["promise_log.jsonl"];
    }

    fs::path State(const std::string &name) const { return site.Host() / "state" / name; }

    // The peers that the host has met, each in one direction.
    void WritePeers(const std::string &name)
    {
        SetWorkDir(site.Host().c_str());
        DBHandle *opened = nullptr;
        ASSERT_TRUE(OpenDB(&opened, dbid_lastseen));
        const veltrane::DBHandlePtr db(opened);
        DeleteDB(db.get(), "qiSHA=lost");
        for (const std::string &key : {std::string("qoSHA=kept"), "qiSHA=" + name}) {
            KeyHostSeen seen{};
            seen.lastseen = time(nullptr);
            ASSERT_TRUE(WriteDB(db.get(), key.c_str(), &seen, sizeof(seen)));
        }
    }

    // The files as they stand before the run, and put back before each.
    void Remember()
    {
        for (const char *directory : {"state", "state/previous_state", "state/diff", "state/untracked", "log"}) {
            for (const auto &entry : fs::directory_iterator(site.Host() / directory)) {
                if (entry.is_regular_file()) {
                    remembered[entry.path()] = ReadFile(entry.path());
                }
            }
        }
        for (const char *log : {"promise_log.jsonl", "../log/promise_summary.log"}) {
            records_before[log] = Records(log);
        }
    }

    void PutBack()
    {
        for (const char *directory : {"state", "state/previous_state", "state/diff", "state/untracked", "log"}) {
            for (const auto &entry : fs::directory_iterator(site.Host() / directory)) {
                if (entry.is_regular_file() && remembered.count(entry.path()) == 0) {
                    fs::remove(entry.path());
                }
            }
        }
        for (const auto &[path, bytes] : remembered) { WriteFile(path, bytes); }
    }

    AllReports Read() const
    {
        AllReports reports;
        for (const Report &report : kReports) {
            std::string rows = BytesOf(State(std::string("diff/") + report.name + ".diff"));
            if (rows.empty()) {  // the run that made the file was killed before it wrote
                rows = "(none)";
            }
            reports[report.name] = {Timeless(BytesOf(State(std::string("previous_state/") + report.name + ".cache"))),
                                    Timeless(rows)};
        }
        return reports;
    }

    // Whole lines of a log.
    long Records(const std::string &log) const
    {
        const std::string bytes = fs::exists(State(log)) ? ReadFile(State(log)) : "";
        return std::count(bytes.begin(), bytes.end(), '\n');
    }

    // Old, new, or a new cache whose rows are lost: the name of what was found; "" for anything else.
    std::string StateOf(const std::string &report, const ReportFiles &found) const
    {
        const ReportFiles &old_files = before.at(report);
        const ReportFiles &new_files = after.at(report);
        return found == old_files                                      ? "old"
               : found == new_files                                    ? "new"
               : found == ReportFiles{new_files.cache, old_files.rows} ? "rows lost"
                                                                       : "";
    }

    void ExpectThatEveryFileParses() const
    {
        for (const Report &report : kReports) {
            StateSite::ExpectRecords(State(std::string("previous_state/") + report.name + ".cache"), report.fields);
            StateSite::ExpectRecords(State(std::string("diff/") + report.name + ".diff"), report.fields + 2);
        }
        StateSite::ExpectRecords(State("promise_execution.log"), 15);
        for (const char *name : {"software_patch_status.csv", "software_patches_avail.csv"}) {
            StateSite::ExpectRecords(State(name), 4);
        }
        ExpectJsonLines(State("promise_log.jsonl"));
        ExpectJsonLines(State("classes.jsonl"));
        const std::string summary = BytesOf(State("../log/promise_summary.log"));
        EXPECT_THAT(summary, testing::MatchesRegex("([0-9]+,[0-9]+: Outcome of version [^\n]*events\\)\\.\n)+"));
    }

    static void ExpectJsonLines(const fs::path &path)
    {
        const std::string bytes = ReadFile(path);
        EXPECT_TRUE(bytes.empty() || bytes.ends_with("\r\n")) << path;
        std::istringstream lines(bytes);
        for (std::string line; std::getline(lines, line);) {
            JsonElement *parsed = nullptr;
            EXPECT_EQ(JsonParse(line.c_str(), &parsed), JSON_PARSE_OK) << path << ": " << line;
            const veltrane::JsonPtr owner(parsed);
        }
    }

    // Files beside their places that a killed run may leave, content that was never put in place.
    std::vector<std::string> Debris() const
    {
        std::vector<std::string> names;
        for (const char *directory : {"previous_state", "diff", "untracked"}) {
            for (const auto &entry : fs::directory_iterator(State(directory))) {
                const std::string name = entry.path().filename();
                if (entry.path().extension() != ".cache" && entry.path().extension() != ".diff") {
                    names.push_back(name);
                }
            }
        }
        return names;
    }

    InMemory in_memory_;
    Site site;
    AllReports before;
    AllReports after;
    long outcomes = 0;  // records that a run adds to the promise log
    std::map<fs::path, std::string> remembered;
    std::map<std::string, long> records_before;
};

TEST_F(AgentKill, ARunThatIsKilledLeavesEachReportOldOrNewAndTheNextRunGoesOnFromThere)
{
    for (const Report &report : kReports) {
        ASSERT_NE(before.at(report.name).rows, after.at(report.name).rows) << report.name << " has nothing to report";
    }
    ASSERT_EQ(outcomes, 2);
    KillMoments moments([&] {
        PutBack();
        ASSERT_EQ(site.RunAgent({"--log-classes"}).status, 0);
    });
    std::map<std::string, int> seen;
    int hits = 0;
    ProcessOptions options;
    options.arguments = {"--workdir", site.Host().string(), "--log-classes"};

    for (int kill = KillsOr(200); kill > 0; kill--) {
        SCOPED_TRACE("kill " + std::to_string(kill));
        PutBack();
        {
            BackgroundProcess agent(std::string(VT_TEST_BIN_DIR) + "/vt-agent", options);
            moments.Wait();
            agent.Kill();
            hits += agent.Wait().status == kKilled ? 1 : 0;
        }
        const AllReports found = Read();
        for (const auto &[report, files] : found) {
            const std::string state = StateOf(report, files);
            ASSERT_NE(state, "") << report << ": cache\n" << files.cache << "\nrows\n" << files.rows;
            seen[report + ", " + state]++;
        }
        ExpectThatEveryFileParses();
        EXPECT_THAT(Debris(), Each(EndsWith(".new")));
        const long logged = Records("promise_log.jsonl");
        const long summaries = Records("../log/promise_summary.log");

        const ProcessResult next = site.RunAgent({"--log-classes"});

        ASSERT_EQ(next.status, 0) << next.err;
        const AllReports then = Read();
        for (const auto &[report, files] : then) {
            const bool lost = StateOf(report, found.at(report)) == "rows lost";
            ASSERT_EQ(files.cache, after.at(report).cache) << report;
            ASSERT_EQ(files.rows, lost ? before.at(report).rows : after.at(report).rows) << report;
        }
        EXPECT_EQ(Records("promise_log.jsonl"), logged + outcomes);
        EXPECT_EQ(Records("../log/promise_summary.log"), summaries + 1);
        EXPECT_FALSE(fs::exists(State("promise_execution.log")));
        ExpectThatEveryFileParses();
        ASSERT_FALSE(HasFailure());
    }
    for (const auto &[state, times] : seen) { printf("%s: %d\n", state.c_str(), times); }
    EXPECT_GT(hits, 0) << "every agent was through before it could be killed";
}

}  // namespace
