// The agent's copy routine: what is copied when, what becomes of the old file, and what its caller is told.
#include "libveltrane/copy_file.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <memory>

#include <veltrane/net.h>

#include "libveltrane/eval_context_internal.h"
#include "support/file_size_limit.h"
#include "support/log_capture.h"
#include "support/places.h"
#include "support/promise_site.h"
#include "support/work_dir.h"

namespace {

namespace fs = std::filesystem;

using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Pair;
using veltrane::CopyOrder;

class CopyFile : public testing::Test {
  protected:
    CopyFile()
    {
        WriteFile(At("from"), "new");
        EXPECT_EQ(chmod(At("from").c_str(), 0640), 0);
    }

    std::string At(const std::string &name) const { return directory.path / name; }

    // What was done, or the trouble in parentheses last.
    std::vector<std::string> Copy(const std::string &from, const std::string &to, const CopyOrder &order = {})
    {
        const veltrane::Place source = PlaceOf(At(from));
        const veltrane::Place target = PlaceOf(At(to));
        CompressedArray *memory = cache.release();
        std::vector<std::string> done;
        const veltrane::Trouble trouble =
            veltrane::CopyFile(source, *HandleOf(source), target, HandleOf(target), order, &memory, &done);
        cache.reset(memory);
        if (trouble.has_value()) {
            done.push_back("(" + *trouble + ")");
        }
        return done;
    }

    TemporaryDirectory directory;
    std::unique_ptr<CompressedArray, veltrane::Destroyer<DeleteCompressedArray>> cache;
};

constexpr CopyOrder kNoBackup{BACKUP_OPTION_NONE};

int growing = -1;

TEST_F(CopyFile, ANewCopyHasTheBytesAndPermissionBitsOfItsSource)
{
    ASSERT_EQ(chmod(At("from").c_str(), 04751), 0);
    EXPECT_THAT(Copy("from", "to"), ElementsAre("copied from '" + At("from") + "'"));
    EXPECT_EQ(ReadFile(At("to")), "new");
    EXPECT_EQ(ModeOf(At("to")), 0751u) << "and no set-user bit";
    EXPECT_THAT(NamesIn(directory.path), ElementsAre("from", "to"));
}

TEST_F(CopyFile, WhatIsEqualIsNotWrittenAgain)
{
    ASSERT_THAT(Copy("from", "to"), testing::SizeIs(1));
    const ino_t inode = InodeOf(At("to"));
    EXPECT_THAT(Copy("from", "to"), IsEmpty());
    EXPECT_EQ(InodeOf(At("to")), inode);
    EXPECT_THAT(NamesIn(directory.path), ElementsAre("from", "to")) << "and nothing was saved";
}

TEST_F(CopyFile, AReplacedFileKeepsItsPermissionBitsAndIsSaved)
{
    WriteFile(At("to"), "old");
    ASSERT_EQ(chmod(At("to").c_str(), 0604), 0);
    EXPECT_THAT(Copy("from", "to"),
                ElementsAre("saved as '" + At("to.before") + "'", "copied from '" + At("from") + "'"));
    EXPECT_EQ(ReadFile(At("to")), "new");
    EXPECT_EQ(ModeOf(At("to")), 0604u);
    EXPECT_EQ(ReadFile(At("to.before")), "old");
    EXPECT_EQ(ModeOf(At("to.before")), 0604u);
}

TEST_F(CopyFile, ALaterBackupTakesThePlaceOfTheOneBefore)
{
    WriteFile(At("to"), "oldest");
    Copy("from", "to");
    WriteFile(At("from"), "newest");
    Copy("from", "to");
    EXPECT_EQ(ReadFile(At("to")), "newest");
    EXPECT_EQ(ReadFile(At("to.before")), "new");
    EXPECT_THAT(NamesIn(directory.path), ElementsAre("from", "to", "to.before"));
}

TEST_F(CopyFile, ABackupWithATimeHasItInItsName)
{
    WriteFile(At("to"), "old");
    Copy("from", "to", {BACKUP_OPTION_TIMESTAMP});
    EXPECT_THAT(NamesIn(directory.path), ElementsAre("from", "to", MatchesRegex("to\\.before-[0-9]{10,}")));
    EXPECT_EQ(ReadFile(At(NamesIn(directory.path)[2])), "old");
}

TEST_F(CopyFile, NoBackupIsMadeWhereNoneIsWanted)
{
    WriteFile(At("to"), "old");
    EXPECT_THAT(Copy("from", "to", kNoBackup), ElementsAre("copied from '" + At("from") + "'"));
    EXPECT_THAT(NamesIn(directory.path), ElementsAre("from", "to"));
}

TEST_F(CopyFile, WithoutItsBackupAFileIsNotReplaced)
{
    WriteFile(At("to"), "old");
    fs::create_directories(At("to.before/full"));
    EXPECT_THAT(Copy("from", "to"),
                ElementsAre("(could not replace '" + At("to.before") + "' (rename: Is a directory))"));
    EXPECT_EQ(ReadFile(At("to")), "old");
    EXPECT_THAT(NamesIn(directory.path), ElementsAre("from", "to", "to.before"));
}

TEST_F(CopyFile, ABackupNeverOverwritesTheSource)
{
    WriteFile(At("to"), "old");
    WriteFile(At("to.before"), "older");
    EXPECT_THAT(Copy("to.before", "to"),
                ElementsAre("(saving '" + At("to") + "' would overwrite the source '" + At("to.before") + "')"));
    EXPECT_EQ(ReadFile(At("to")), "old");
    EXPECT_EQ(ReadFile(At("to.before")), "older");
}

TEST_F(CopyFile, GivesItsCopyThePermissionsThatAreWanted)
{
    WriteFile(At("to"), "old");
    ASSERT_EQ(chmod(At("to").c_str(), 0644), 0);
    CopyOrder order = kNoBackup;
    order.perms.mode = 0600;
    EXPECT_THAT(Copy("from", "to", order), ElementsAre("copied from '" + At("from") + "'", "mode 0644 set to 0600"));
    order.perms.mode = 0400;
    EXPECT_THAT(Copy("from", "to", order), ElementsAre("mode 0600 set to 0400")) << "equal bytes or not";
}

TEST_F(CopyFile, FurtherNamesOfASourceBecomeFurtherNamesOfItsCopy)
{
    fs::create_hard_link(At("from"), At("other"));
    Copy("from", "to");
    EXPECT_THAT(Copy("other", "to2"), ElementsAre("made another name of '" + At("to") + "'"));
    EXPECT_EQ(InodeOf(At("to")), InodeOf(At("to2")));
    EXPECT_THAT(Copy("from", "to"), IsEmpty());
    EXPECT_THAT(Copy("other", "to2"), IsEmpty());
    EXPECT_NE(InodeOf(At("from")), InodeOf(At("to")));
}

TEST_F(CopyFile, AFurtherNameReplacesAnotherFileAndSavesIt)
{
    fs::create_hard_link(At("from"), At("other"));
    WriteFile(At("to2"), "old");
    Copy("from", "to");
    EXPECT_THAT(Copy("other", "to2"),
                ElementsAre("saved as '" + At("to2.before") + "'", "made another name of '" + At("to") + "'"));
    EXPECT_EQ(ReadFile(At("to2.before")), "old");
}

TEST_F(CopyFile, AFurtherNameOfACopyThatIsGoneIsCopied)
{
    fs::create_hard_link(At("from"), At("other"));
    Copy("from", "to");
    fs::remove(At("to"));
    EXPECT_THAT(Copy("other", "to2"), ElementsAre("copied from '" + At("other") + "'"));
}

TEST_F(CopyFile, OnlyAFileIsCopied)
{
    ASSERT_EQ(mkfifo(At("pipe").c_str(), 0600), 0);
    fs::create_symlink("from", At("link"));
    EXPECT_THAT(Copy("pipe", "to"), ElementsAre("('" + At("pipe") + "' is a named pipe, not a file)"));
    EXPECT_THAT(Copy("link", "to"), ElementsAre("('" + At("link") + "' is a symbolic link of user " +
                                                std::to_string(geteuid()) + ", not a file)"));
}

TEST_F(CopyFile, AFullDiskLeavesTheOldFileAndNoLitter)
{
    WriteFile(At("from"), std::string(5000, 'n'));
    WriteFile(At("to"), "old");
    std::vector<std::string> done;
    {
        const FileSizeLimit limit(1000);
        done = Copy("from", "to");
    }
    EXPECT_THAT(done, ElementsAre("(could not write '" + At("to") + "' (write: File too large))"));
    EXPECT_EQ(ReadFile(At("to")), "old");
    EXPECT_THAT(NamesIn(directory.path), ElementsAre("from", "to"));
}

TEST_F(CopyFile, FilesThatTheKernelMakesUpAreCopiedWhole)
{
    const veltrane::Place source = PlaceOf("/proc/version");
    const veltrane::Place target = PlaceOf(At("to"));
    std::vector<std::string> done;
    ASSERT_EQ(veltrane::CopyFile(source, *HandleOf(source), target, std::nullopt, {}, nullptr, &done), std::nullopt);
    EXPECT_EQ(ReadFile(At("to")), ReadFile("/proc/version"));
    EXPECT_NE(ReadFile(At("to")), "");
}

TEST_F(CopyFile, AVerifiedCopyIsReadAgain)
{
    WriteFile(At("from"), std::string(300'000, 'x') + "y");
    CopyOrder order;
    order.verify = true;
    EXPECT_THAT(Copy("from", "to", order), ElementsAre("copied from '" + At("from") + "'"));
    EXPECT_EQ(ReadFile(At("to")), ReadFile(At("from")));
}

TEST_F(CopyFile, ACopyThatReadsOtherwiseThanItsSourceDoesNotTakeItsPlace)
{
    const std::string path = "/proc/sys/kernel/random/uuid";  // another one each time it is read
    const veltrane::Place source = PlaceOf(path);
    const veltrane::Place target = PlaceOf(At("to"));
    CopyOrder order;
    order.verify = true;
    std::vector<std::string> done;
    EXPECT_EQ(veltrane::CopyFile(source, *HandleOf(source), target, std::nullopt, order, nullptr, &done),
              "the copy of '" + path + "' reads otherwise than what was written");
    EXPECT_THAT(NamesIn(directory.path), ElementsAre("from"));
}

TEST_F(CopyFile, ASourceThatIsWrittenToMeanwhileIsNotCopied)
{
    // A byte is added whenever the process has worked for some milliseconds, as copying so much makes it.
    growing = open(At("from").c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
    ASSERT_EQ(ftruncate(growing, 64 << 20), 0);
    struct sigaction grow {};
    grow.sa_handler = [](int) { (void)!write(growing, "x", 1); };
    grow.sa_flags = SA_RESTART;
    struct sigaction before {};
    ASSERT_EQ(sigaction(SIGPROF, &grow, &before), 0);
    const itimerval often{{0, 1000}, {0, 1000}};
    ASSERT_EQ(setitimer(ITIMER_PROF, &often, nullptr), 0);
    const std::vector<std::string> done = Copy("from", "to");
    const itimerval never{};
    setitimer(ITIMER_PROF, &never, nullptr);
    sigaction(SIGPROF, &before, nullptr);
    close(growing);

    EXPECT_THAT(done, ElementsAre("('" + At("from") + "' changed while it was copied)"));
    EXPECT_THAT(NamesIn(directory.path), ElementsAre("from"));
}

TEST_F(CopyFile, AStealthyCopyLeavesTheAccessTimeOfItsSource)
{
    const struct timespec old[2] = {{1000, 0}, {2000, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, At("from").c_str(), old, 0), 0);
    CopyOrder order;
    order.stealth = true;
    ASSERT_THAT(Copy("from", "to", order), testing::SizeIs(1));
    struct stat st {};
    ASSERT_EQ(stat(At("from").c_str(), &st), 0);
    EXPECT_EQ(st.st_atim.tv_sec, 1000);
}

TEST_F(CopyFile, KeepsNothingOpen)
{
    fs::create_hard_link(At("from"), At("other"));
    WriteFile(At("to"), "old");
    Copy("from", "to");  // what is opened once and stays open, as a cache of names, is open by now
    const size_t before = NamesIn("/proc/self/fd").size();
    WriteFile(At("from"), "newer");
    Copy("from", "to");
    Copy("other", "to2");
    EXPECT_EQ(NamesIn("/proc/self/fd").size(), before);
}

// The same as the contract has it.
class CopyRegular : public testing::Test {
  protected:
    CopyRegular() { WriteFile(At("from"), "new"); }

    std::string At(const std::string &name) const { return directory.path / name; }

    bool Copy(const std::string &from, const std::string &to, AgentConnection *conn = nullptr)
    {
        struct stat st {};
        EXPECT_EQ(stat(At(from).c_str(), &st), 0);
        return routine(site.ctx(), At(from).c_str(), At(to).c_str(), &st, &attr, site.promise(), &cache, conn, &result);
    }
    ~CopyRegular() override { release(cache); }

    PromiseResult Noted() const { return veltrane::EvalContextIterationResult(site.ctx()); }

    TemporaryDirectory directory;
    PromiseSite site;
    LogCapture log;
    Attributes attr{};
    CompressedArray *cache = nullptr;
    PromiseResult result = PROMISE_RESULT_NOOP;
    CopyRegularFileFunction routine = CopyRegularFile;
    DeleteCompressedArrayFunction release = DeleteCompressedArray;
};

TEST_F(CopyRegular, ReportsWhatItCopied)
{
    EXPECT_TRUE(Copy("from", "to"));
    EXPECT_EQ(result, PROMISE_RESULT_CHANGE);
    EXPECT_EQ(Noted(), PROMISE_RESULT_CHANGE);
    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_INFO, "Copied '" + At("from") + "' to '" + At("to") + "'")));
    EXPECT_EQ(ReadFile(At("to")), "new");
}

TEST_F(CopyRegular, ReportsWhatIsACopyAlready)
{
    WriteFile(At("to"), "new");
    EXPECT_TRUE(Copy("from", "to"));
    EXPECT_EQ(result, PROMISE_RESULT_NOOP);
    EXPECT_THAT(log.lines,
                ElementsAre(Pair(LOG_LEVEL_VERBOSE, "'" + At("to") + "' is a copy of '" + At("from") + "'")));
}

TEST_F(CopyRegular, ReportsWhyItDidNotCopy)
{
    EXPECT_FALSE(Copy("from", "none/to"));
    EXPECT_EQ(result, PROMISE_RESULT_FAIL);
    EXPECT_EQ(Noted(), PROMISE_RESULT_FAIL);
    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_ERR, "Could not copy '" + At("from") + "' to '" + At("none/to") +
                                                               "': '" + At("none/to") + "' has no directory")));
}

TEST_F(CopyRegular, TheResultOnlyGetsWorse)
{
    result = PROMISE_RESULT_FAIL;
    EXPECT_TRUE(Copy("from", "to"));
    EXPECT_EQ(result, PROMISE_RESULT_FAIL);
    EXPECT_TRUE(Copy("from", "to"));
    EXPECT_EQ(result, PROMISE_RESULT_FAIL);
}

TEST_F(CopyRegular, FetchesNothingFromOtherHosts)
{
    const veltrane::RlistPtr servers = RlistOf({"hub"});
    attr.copy.servers = servers.get();
    EXPECT_FALSE(Copy("from", "to"));
    attr.copy.servers = nullptr;
    AgentConnection conn{};
    EXPECT_FALSE(Copy("from", "to", &conn));
    const std::string line =
        "Could not copy '" + At("from") + "' to '" + At("to") + "': files of other hosts are not fetched";
    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_ERR, line), Pair(LOG_LEVEL_ERR, line)));
    EXPECT_FALSE(fs::exists(At("to")));
}

TEST_F(CopyRegular, FollowsOurLinksOnBothSides)
{
    fs::create_directory(At("dir"));
    fs::create_symlink("from", At("link"));
    fs::create_symlink("dir/to", At("link_to"));
    EXPECT_TRUE(Copy("link", "link_to"));
    EXPECT_EQ(ReadFile(At("dir/to")), "new");
    EXPECT_TRUE(fs::is_symlink(At("link_to")));
}

TEST_F(CopyRegular, DoesNotFollowForeignLinks)
{
    WriteFile(At("secret"), "kept");
    fs::create_symlink("secret", At("planted"));
    if (!GiveAway(At("planted"))) {
        EXPECT_EQ(errno, EPERM);  // nobody but root can give a link away
        return;
    }
    EXPECT_FALSE(Copy("from", "planted"));
    EXPECT_FALSE(Copy("planted", "to"));
    EXPECT_EQ(ReadFile(At("secret")), "kept");
    EXPECT_THAT(log.lines,
                ElementsAre(Pair(LOG_LEVEL_ERR, "Could not copy '" + At("from") + "' to '" + At("planted") + "': '" +
                                                    At("planted") + "' is a symbolic link of user 12345, not a file"),
                            Pair(LOG_LEVEL_ERR, "Could not copy '" + At("planted") + "' to '" + At("to") + "': '" +
                                                    At("planted") + "' is a symbolic link of user 12345, not a file")));
}

TEST_F(CopyRegular, MovesWhatStandsInTheWayAsideWhenItMay)
{
    fs::create_directory(At("to"));
    WriteFile(At("to/file"), "kept");
    EXPECT_FALSE(Copy("from", "to"));
    EXPECT_EQ(log.lines.back().second, "Could not copy '" + At("from") + "' to '" + At("to") + "': '" + At("to") +
                                           "' is a directory, not a file");

    attr.move_obstructions = true;
    EXPECT_TRUE(Copy("from", "to"));
    EXPECT_EQ(ReadFile(At("to")), "new");
    EXPECT_EQ(ReadFile(At("to.moved-aside/file")), "kept");
}

TEST_F(CopyRegular, RemembersSourcesWithSeveralNamesUntilItIsReleased)
{
    fs::create_hard_link(At("from"), At("other"));
    EXPECT_TRUE(Copy("from", "to"));
    ASSERT_NE(cache, nullptr);
    EXPECT_TRUE(Copy("other", "to2"));
    EXPECT_EQ(InodeOf(At("to")), InodeOf(At("to2")));
}

TEST_F(CopyRegular, NothingIsFineToRelease) { DeleteCompressedArray(nullptr); }

TEST_F(CopyRegular, ASourceThatIsGoneIsSaid)
{
    struct stat st {};
    ASSERT_EQ(stat(At("from").c_str(), &st), 0);
    fs::remove(At("from"));
    EXPECT_FALSE(CopyRegularFile(site.ctx(), At("from").c_str(), At("to").c_str(), &st, &attr, site.promise(), &cache,
                                 nullptr, &result));
    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_ERR, "Could not copy '" + At("from") + "' to '" + At("to") +
                                                               "': '" + At("from") + "' is not there")));
}

}  // namespace
