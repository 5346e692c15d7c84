// A site whose host stands right before an agent run, or right before a query, with known bytes in the files of its
// classes report; and what may be found in those files after something went wrong in between.
//
// The first policy has been run and reported; the second adds a class, removes one, changes one, and adds one that the
// filter hides. Times of the past are fixed, so that queries need not wait for rows to come of age; the time of
// whatever happens while the test runs reads as "now".
#ifndef TESTS_SUPPORT_STATE_SITE_H
#define TESTS_SUPPORT_STATE_SITE_H

#include <gtest/gtest.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <veltrane/csv.h>
#include <veltrane/file_lib.h>
#include <veltrane/owned.h>
#include <veltrane/seq.h>

#include "support/site.h"

// Nothing here is about what a disk keeps, and waiting for one is most of the time of a run: while one of these stands
// before a test's directories, they are made in memory, where the machine has a directory for that and plug-ins can be
// loaded from it.
struct InMemory {
    InMemory()
    {
        struct statvfs facts {};
        if (getenv("TMPDIR") == nullptr && access("/dev/shm", W_OK) == 0 && statvfs("/dev/shm", &facts) == 0 &&
            (facts.f_flag & ST_NOEXEC) == 0 && facts.f_bavail * facts.f_frsize > (64u << 20)) {
            setenv("TMPDIR", "/dev/shm", 0);
        }
    }
};

// The files of the classes report; absent where there is none.
struct StateFiles {
    std::optional<std::string> cache;
    std::optional<std::string> diff;
    std::optional<std::string> index;

    bool operator==(const StateFiles &) const = default;
};

class StateSite {
  public:
    static constexpr const char *kFirstRun = "1700000000";
    static constexpr const char *kSecondRun = "1700100000";  // more than an hour later, so that a delta drops the first
    static constexpr long kSince = 1700100000;

    // Prepares everything by honest runs; throws when one fails.
    StateSite()
    {
        Expect(site.TrustEachOther(), "trust");
        SetPolicy(kFirstPolicy, true);
        Expect(site.RunAgent().status == 0, "the first run");
        const StateFiles first = Read(kFirstRun);
        Expect(site.StartDaemon() && site.Collect("rebase").status == 0, "the first rebase");
        StopDaemon();
        before_run = {first.cache, first.diff, Read(kFirstRun).index};

        SetPolicy(kSecondPolicy, true);
        Write(before_run);
        Expect(site.RunAgent().status == 0, "the second run");
        after_run = Read();
        before_query = Read(kSecondRun);
        Write(before_run);
    }

    std::filesystem::path Cache() const { return State("previous_state/classes.cache"); }
    std::filesystem::path Diff() const { return State("diff/classes.diff"); }
    std::filesystem::path Index() const { return State("untracked/classes.idx"); }
    std::filesystem::path State(const std::string &name) const { return site.Host() / "state" / name; }

    // Whether the host hides what is tagged as secret.
    void Hide(bool hide) { SetPolicy(kSecondPolicy, hide); }

    // Times other than the fixed ones read as `now`.
    StateFiles Read(const std::string &now = "now") const
    {
        StateFiles files = {BytesOf(Cache()), BytesOf(Diff()), BytesOf(Index())};
        for (auto *file : {&files.diff, &files.index}) {
            if (file->has_value()) {
                **file = Stamped(**file, now);
            }
        }
        return files;
    }

    void Write(const StateFiles &files) const
    {
        Put(Cache(), files.cache);
        Put(Diff(), files.diff);
        Put(Index(), files.index);
        for (const std::string &name : Debris()) { std::filesystem::remove(State(name)); }
    }

    // Files of the three directories that are no report's in their place, below state/.
    std::vector<std::string> Debris() const
    {
        std::vector<std::string> names;
        for (const char *directory : {"previous_state", "diff", "untracked"}) {
            for (const auto &entry : std::filesystem::directory_iterator(State(directory))) {
                const std::filesystem::path &path = entry.path();
                if (path.extension() != ".cache" && path.extension() != ".diff" && path.extension() != ".idx") {
                    names.push_back(std::string(directory) + "/" + path.filename().string());
                }
            }
        }
        std::sort(names.begin(), names.end());
        return names;
    }

    // The difference rows of a run that took the state before it for empty.
    std::string EverythingAdded(const std::string &cache) const
    {
        std::string rows;
        size_t start = 0;
        for (size_t end = cache.find('\n'); end != std::string::npos; end = cache.find('\n', start)) {
            rows += "now,1," + cache.substr(start, end + 1 - start);
            start = end + 1;
        }
        return rows;
    }

    // Whether each of the files that are there is made of whole records with their number of fields.
    void ExpectThatEveryFileParses() const
    {
        ExpectRecords(Cache(), 2);
        ExpectRecords(Diff(), 4);
        ExpectRecords(Index(), 2);
    }

    // Whether a file, unless it is not there, is made of whole CSV records with this number of fields.
    static void ExpectRecords(const std::filesystem::path &path, size_t field_count)
    {
        const veltrane::FilePtr file(safe_fopen(path.c_str(), "r"));
        if (file == nullptr) {
            EXPECT_FALSE(std::filesystem::exists(path)) << path;
            return;
        }
        for (veltrane::TextPtr record(GetCsvLineNext(file.get())); record != nullptr;
             record.reset(GetCsvLineNext(file.get()))) {
            const veltrane::SeqPtr fields(SeqParseCsvString(record.get()));
            ASSERT_NE(fields, nullptr) << path << ": " << record.get();
            EXPECT_EQ(SeqLength(fields.get()), field_count) << path << ": " << record.get();
        }
        const std::string bytes = ReadFile(path);
        EXPECT_TRUE(bytes.empty() || bytes.ends_with("\r\n")) << path;
    }

    // Ask for everything since the second run.
    ProcessResult Collect(const std::string &type) const
    {
        return site.Collect(type, {"--since", std::to_string(kSince)});
    }

    // End the daemon; an answer that is under way comes to its end first.
    void StopDaemon()
    {
        site.daemon->Signal(SIGTERM);
        Expect(site.daemon->Wait().status == 0, "the end of the daemon");
    }

  private:
    InMemory in_memory_;  // before the site, which makes its directory

  public:
    Site site;
    StateFiles before_run;    // the second policy is in place
    StateFiles after_run;     // after an honest agent run on it
    StateFiles before_query;  // the same, with rows that are old enough to be sent

  private:
    static constexpr const char *kFirstPolicy =
        "      - classes: kept_class\n        expression: any\n        meta: [report, one]\n"
        "      - classes: lost_class\n        expression: any\n        meta: [report]\n"
        "      - classes: secret_class\n        expression: any\n        meta: [secret]\n";
    static constexpr const char *kSecondPolicy =
        "      - classes: kept_class\n        expression: any\n        meta: [report, \"two, \\\"quoted\\\"\"]\n"
        "      - classes: new_class\n        expression: any\n        meta: [report]\n"
        "      - classes: secret_class\n        expression: any\n        meta: [secret]\n"
        "      - classes: second_secret\n        expression: any\n        meta: [secret]\n";

    static void Expect(bool good, const char *what)
    {
        if (!good) {
            throw std::runtime_error(std::string("the site cannot be prepared: ") + what);
        }
    }

    void SetPolicy(const char *promises, bool hide)
    {
        site.SetPolicy(promises, hide ? "        report_data_select: {metatags_exclude: [secret]}\n" : "");
    }

    static std::optional<std::string> BytesOf(const std::filesystem::path &path)
    {
        return std::filesystem::exists(path) ? std::optional<std::string>(ReadFile(path)) : std::nullopt;
    }

    static void Put(const std::filesystem::path &path, const std::optional<std::string> &bytes)
    {
        if (!bytes.has_value()) {
            std::filesystem::remove(path);
            return;
        }
        WriteFile(path, *bytes);
        std::filesystem::permissions(path, std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
    }

    // Every number of ten digits that is no fixed time becomes `now`.
    static std::string Stamped(const std::string &bytes, const std::string &now)
    {
        std::string stamped;
        for (size_t i = 0; i < bytes.size();) {
            size_t end = i;
            while (end < bytes.size() && isdigit(static_cast<unsigned char>(bytes[end])) != 0) { end++; }
            const std::string digits = bytes.substr(i, end - i);
            stamped += digits.size() == 10 && digits != kFirstRun && digits != kSecondRun ? now : digits;
            if (end < bytes.size()) {
                stamped += bytes[end];
            }
            i = end + 1;
        }
        return stamped;
    }
};

#endif
