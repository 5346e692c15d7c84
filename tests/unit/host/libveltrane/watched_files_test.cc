#include "libveltrane/watched_files.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include <veltrane/dbm_api.h>

#include "support/file_size_limit.h"
#include "support/log_capture.h"
#include "support/places.h"
#include "support/work_dir.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Optional;
using veltrane::FileChange;
using veltrane::Sighting;
using veltrane::WatchedFiles;
using veltrane::WatchedState;

class Watched : public testing::Test {
  protected:
    std::string At(const std::string &name) const { return (files.path / name).string(); }

    Sighting Look(const std::string &name)
    {
        Sighting sighting;
        const std::optional<veltrane::Handle> handle = HandleOf(PlaceOf(At(name)));
        trouble = watched.Look(At(name), handle.has_value() ? &*handle : nullptr, &sighting);
        return sighting;
    }

    // Look, log, remember: "A added" and the like, one text a change.
    std::vector<std::string> Watch(const std::string &name)
    {
        const Sighting sighting = Look(name);
        if (!trouble.has_value()) {
            trouble = WatchedFiles::Log(sighting, 1700000000);
        }
        if (!trouble.has_value()) {
            trouble = watched.Remember(sighting);
        }
        std::vector<std::string> changes;
        for (const auto &found : sighting.changes) {
            changes.push_back(std::string(1, static_cast<char>(found.change)) + " " + found.text);
        }
        return changes;
    }

    // The stored state of a file, to be changed by a test.
    void Store(const std::string &name, const void *value, int size)
    {
        DBHandle *db = nullptr;
        ASSERT_TRUE(OpenDB(&db, dbid_watched_files));
        const veltrane::DBHandlePtr owned(db);
        ASSERT_TRUE(WriteDB(db, At(name).c_str(), value, size));
    }
    WatchedState Stored(const std::string &name)
    {
        WatchedState state;
        DBHandle *db = nullptr;
        EXPECT_TRUE(OpenDB(&db, dbid_watched_files));
        const veltrane::DBHandlePtr owned(db);
        EXPECT_TRUE(ReadDB(db, At(name).c_str(), &state, sizeof(state)));
        return state;
    }

    WorkDirectory work;
    TemporaryDirectory files;
    WatchedFiles watched;
    veltrane::Trouble trouble;
    LogCapture log;
};

}  // namespace

TEST_F(Watched, AFileIsAddedOnceAndThenUnchanged)
{
    WriteFile(At("motd"), "hello");
    EXPECT_THAT(Watch("motd"), ElementsAre("A added"));
    EXPECT_THAT(Watch("motd"), IsEmpty());
    EXPECT_EQ(trouble, std::nullopt);
    EXPECT_EQ(ReadFile(work.State("file_changes.log")), "1700000000," + At("motd") + ",A,added\n");
    EXPECT_THAT(log.UpTo(LOG_LEVEL_INFO), IsEmpty());
}

TEST_F(Watched, AnotherContentOfTheSameSizeAndTimeIsAChange)
{
    WriteFile(At("motd"), "hello");
    struct stat st {};
    ASSERT_EQ(stat(At("motd").c_str(), &st), 0);
    Watch("motd");
    WriteFile(At("motd"), "hallo");
    const struct timespec times[2] = {st.st_atim, st.st_mtim};
    ASSERT_EQ(utimensat(AT_FDCWD, At("motd").c_str(), times, 0), 0);
    EXPECT_THAT(Watch("motd"), ElementsAre("M content changed"));
    EXPECT_THAT(Watch("motd"), IsEmpty());
}

TEST_F(Watched, ANewTimeWithTheSameContentIsNone)
{
    WriteFile(At("motd"), "hello");
    Watch("motd");
    WriteFile(At("new"), "hello");
    ASSERT_EQ(chmod(At("new").c_str(), ModeOf(At("motd"))), 0);
    std::filesystem::rename(At("new"), At("motd"));
    EXPECT_THAT(Watch("motd"), IsEmpty());
}

TEST_F(Watched, PermissionsAreWatched)
{
    WriteFile(At("motd"), "hello");
    ASSERT_EQ(chmod(At("motd").c_str(), 0644), 0);
    Watch("motd");
    ASSERT_EQ(chmod(At("motd").c_str(), 04600), 0);
    EXPECT_THAT(Watch("motd"), ElementsAre("P mode 0644 changed to 4600"));
    EXPECT_THAT(Watch("motd"), IsEmpty());
}

TEST_F(Watched, OwnerAndGroupAreWatched)
{
    WriteFile(At("motd"), "hello");
    ASSERT_EQ(chmod(At("motd").c_str(), 0644), 0);
    Watch("motd");
    WatchedState before = Stored("motd");
    before.owner = 777;
    before.group = 888;
    Store("motd", &before, sizeof(before));
    EXPECT_THAT(Watch("motd"), ElementsAre("P owner 777 changed to " + std::to_string(geteuid()) + ", group 888 to " +
                                           std::to_string(getegid())));
}

TEST_F(Watched, ContentAndPermissionsAreTwoLinesOfTheLog)
{
    WriteFile(At("motd"), "hello");
    ASSERT_EQ(chmod(At("motd").c_str(), 0644), 0);
    Watch("motd");
    WriteFile(At("motd"), "other");
    ASSERT_EQ(chmod(At("motd").c_str(), 0600), 0);
    EXPECT_THAT(Watch("motd"), ElementsAre("M content changed", "P mode 0644 changed to 0600"));
    EXPECT_THAT(ReadFile(work.State("file_changes.log")),
                HasSubstr("1700000000," + At("motd") + ",M,content changed\n1700000000," + At("motd") +
                          ",P,mode 0644 changed to 0600\n"));
}

TEST_F(Watched, ADeletedFileIsToldOnceAndIsNewWhenItComesBack)
{
    WriteFile(At("motd"), "hello");
    Watch("motd");
    std::filesystem::remove(At("motd"));
    EXPECT_THAT(Watch("motd"), ElementsAre("D no longer there"));
    EXPECT_THAT(Watch("motd"), IsEmpty());
    WriteFile(At("motd"), "hello");
    EXPECT_THAT(Watch("motd"), ElementsAre("A added"));
}

TEST_F(Watched, WhatWasNeverThereIsNoChange)
{
    EXPECT_THAT(Watch("motd"), IsEmpty());
    EXPECT_EQ(trouble, std::nullopt);
    EXPECT_FALSE(std::filesystem::exists(work.State("file_changes.log")));
}

TEST_F(Watched, EmptyBinaryAndLargeFilesAreFilesAsAnyOther)
{
    WriteFile(At("empty"), "");
    WriteFile(At("binary"), std::string("\0\xff\n\x7f", 4));
    WriteFile(At("large"), std::string(3'000'000, 'x'));
    for (const char *name : {"empty", "binary", "large"}) {
        EXPECT_THAT(Watch(name), ElementsAre("A added")) << name;
        EXPECT_THAT(Watch(name), IsEmpty()) << name;
    }
    WriteFile(At("large"), std::string(2'999'999, 'x') + "y");
    EXPECT_THAT(Watch("large"), ElementsAre("M content changed"));
    WriteFile(At("binary"), "");
    EXPECT_THAT(Watch("binary"), ElementsAre("M content changed"));
}

TEST_F(Watched, AnotherKindOfThingIsAChangeOfContent)
{
    WriteFile(At("motd"), "hello");
    ASSERT_EQ(chmod(At("motd").c_str(), 0755), 0);
    Watch("motd");
    std::filesystem::remove(At("motd"));
    std::filesystem::create_directory(At("motd"));
    ASSERT_EQ(chmod(At("motd").c_str(), 0755), 0);
    EXPECT_THAT(Watch("motd"), ElementsAre("M it is a directory now"));
    EXPECT_FALSE(Look("motd").IsFile());
    std::filesystem::remove(At("motd"));
    ASSERT_EQ(mkfifo(At("motd").c_str(), 0755), 0);
    ASSERT_EQ(chmod(At("motd").c_str(), 0755), 0);
    EXPECT_THAT(Watch("motd"), ElementsAre("M it is a named pipe now")) << "and nobody waits for a writer";
    std::filesystem::remove(At("motd"));
    WriteFile(At("motd"), "hello");
    ASSERT_EQ(chmod(At("motd").c_str(), 0755), 0);
    EXPECT_THAT(Watch("motd"), ElementsAre("M it is a file now"));
    EXPECT_TRUE(Look("motd").IsFile());
}

TEST_F(Watched, ALinkIsNotWatched)
{
    std::filesystem::create_symlink("motd", At("link"));
    EXPECT_THAT(Watch("link"), IsEmpty());
    EXPECT_EQ(trouble, "'" + At("link") + "' is a symbolic link of user " + std::to_string(geteuid()) +
                           ", which is not watched");
}

TEST_F(Watched, AFileThatVanishedAfterItWasFoundIsReadThroughItsHandle)
{
    WriteFile(At("motd"), "hello");
    Watch("motd");
    const std::optional<veltrane::Handle> handle = HandleOf(PlaceOf(At("motd")));
    std::filesystem::remove(At("motd"));
    Sighting sighting;
    const veltrane::Trouble found = watched.Look(At("motd"), &*handle, &sighting);
    EXPECT_THAT(sighting.changes, IsEmpty());
    if (found.has_value()) {  // the system may refuse to open what has no name any more; it is told then
        EXPECT_THAT(*found, HasSubstr("could not open"));
    }
}

TEST_F(Watched, WhatWasNotRememberedIsSeenAgain)
{
    WriteFile(At("motd"), "hello");
    EXPECT_TRUE(Look("motd").ContentChanged());
    EXPECT_TRUE(Look("motd").ContentChanged());
    Watch("motd");
    EXPECT_FALSE(Look("motd").ContentChanged());
}

TEST_F(Watched, OnlyAdditionAndContentAreChangesOfContent)
{
    Sighting sighting;
    for (const auto &[change, is_content] :
         {std::pair(FileChange::kAdded, true), std::pair(FileChange::kModified, true),
          std::pair(FileChange::kPermissions, false), std::pair(FileChange::kDeleted, false)}) {
        sighting.changes = {{change, ""}};
        EXPECT_EQ(sighting.ContentChanged(), is_content);
    }
}

TEST_F(Watched, AFileKnownByAnotherDigestIsComparedByThatAndThenKnownByTheBest)
{
    WriteFile(At("motd"), "hello");
    Watch("motd");
    WatchedState old = Stored("motd");
    EXPECT_EQ(old.method, HASH_METHOD_SHA256) << "the best without the plug-in";
    old.method = HASH_METHOD_SHA512;
    ASSERT_TRUE(HashBytes("hello", 5, old.digest.data(), HASH_METHOD_SHA512));
    Store("motd", &old, sizeof(old));
    EXPECT_THAT(Watch("motd"), IsEmpty());
    EXPECT_EQ(Stored("motd").method, HASH_METHOD_SHA256);

    Store("motd", &old, sizeof(old));
    WriteFile(At("motd"), "other");
    EXPECT_THAT(Watch("motd"), ElementsAre("M content changed"));
    EXPECT_EQ(Stored("motd").method, HASH_METHOD_SHA256);
    EXPECT_THAT(Watch("motd"), IsEmpty());
}

TEST_F(Watched, ForeignValuesInTheDatabaseAreNoKnowledge)
{
    WriteFile(At("motd"), "hello");
    Watch("motd");
    for (const int size : {0, 1, 79, 81, 1000}) {
        Store("motd", std::string(static_cast<size_t>(size), 'x').data(), size);
        EXPECT_THAT(Watch("motd"), ElementsAre("A added")) << size;
        EXPECT_THAT(Watch("motd"), IsEmpty()) << size;
    }
    WatchedState state = Stored("motd");
    for (const int32_t method : {-1, 8, 9, 10, 1 << 30}) {
        state.method = method;
        state.digest.fill('x');
        Store("motd", &state, sizeof(state));
        EXPECT_THAT(Watch("motd"), ElementsAre("M content changed")) << method;
    }
}

TEST_F(Watched, AFileThatIsNoDatabaseIsTrouble)
{
    WriteFile(work.State("watched_files.lmdb"), std::string(100'000, 'g'));
    WriteFile(At("motd"), "hello");
    EXPECT_THAT(Watch("motd"), IsEmpty());
    EXPECT_THAT(trouble, Optional(HasSubstr("could not open '" + work.State("watched_files.lmdb").string() + "'")));
    EXPECT_FALSE(std::filesystem::exists(work.State("file_changes.log")));
}

TEST_F(Watched, AChangeThatCannotBeLoggedStaysUnknown)
{
    WriteFile(At("motd"), "hello");
    std::filesystem::create_directory(work.State("file_changes.log"));
    Watch("motd");
    EXPECT_THAT(trouble, Optional(HasSubstr("file_changes.log")));
    std::filesystem::remove(work.State("file_changes.log"));
    EXPECT_THAT(Watch("motd"), ElementsAre("A added"));
}

TEST_F(Watched, APathTooLongForTheDatabaseIsTrouble)
{
    WriteFile(At("motd"), "hello");
    Sighting sighting;
    const std::string path = "/" + std::string(5000, 'p');
    const std::optional<veltrane::Handle> handle = HandleOf(PlaceOf(At("motd")));
    ASSERT_EQ(watched.Look(path, &*handle, &sighting), std::nullopt);
    EXPECT_THAT(watched.Remember(sighting), Optional(HasSubstr("could not write")));
}

TEST_F(Watched, APathOfTheLongestKeyIsKnownWhole)
{
    WriteFile(At("motd"), "hello");
    const std::optional<veltrane::Handle> handle = HandleOf(PlaceOf(At("motd")));
    const std::string path = "/" + std::string(4094, 'p');
    Sighting sighting;
    ASSERT_EQ(watched.Look(path, &*handle, &sighting), std::nullopt);
    ASSERT_EQ(watched.Remember(sighting), std::nullopt);
    ASSERT_EQ(watched.Look(path, &*handle, &sighting), std::nullopt);
    EXPECT_THAT(sighting.changes, IsEmpty());
    ASSERT_EQ(watched.Look(path.substr(0, 4000) + "q", &*handle, &sighting), std::nullopt);
    EXPECT_TRUE(sighting.ContentChanged());
}

TEST_F(Watched, KnownPathsAreFoundByTheirBeginningInByteOrder)
{
    for (const char *name : {"b", "a", "ab", "c"}) {
        WriteFile(At(name), name);
        Watch(name);
    }
    std::vector<std::string> known;
    ASSERT_EQ(watched.KnownBelow(files.path.string() + "/", &known), std::nullopt);
    EXPECT_THAT(known, ElementsAre(At("a"), At("ab"), At("b"), At("c")));
    ASSERT_EQ(watched.KnownBelow(At("a"), &known), std::nullopt);
    EXPECT_THAT(known, ElementsAre(At("a"), At("ab")));
    ASSERT_EQ(watched.KnownBelow("/nowhere/", &known), std::nullopt);
    EXPECT_THAT(known, IsEmpty());
}

TEST_F(Watched, AnotherRunKnowsWhatTheOneBeforeSaw)
{
    WriteFile(At("motd"), "hello");
    Watch("motd");
    watched = WatchedFiles();
    EXPECT_THAT(Watch("motd"), IsEmpty());
    EXPECT_EQ(ModeOf(work.State("watched_files.lmdb")), 0600u);
}
