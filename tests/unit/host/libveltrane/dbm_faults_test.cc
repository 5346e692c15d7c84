// Key-value stores under several processes, sudden death, damaged files and full disks.
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <libveltrane/dbm_environment.h>
#include <veltrane/owned.h>

#include "support/child.h"
#include "support/work_dir.h"

using testing::AnyOf;
using veltrane::DBCursorPtr;
using veltrane::DBHandlePtr;

namespace fs = std::filesystem;

namespace {

DBHandlePtr Open(dbid id = dbid_cache)
{
    DBHandle *db = nullptr;
    EXPECT_TRUE(OpenDB(&db, id)) << strerror(errno);
    return DBHandlePtr(db);
}

bool Write(const DBHandlePtr &db, const std::string &key, const std::string &value)
{
    return WriteDB(db.get(), key.c_str(), value.data(), static_cast<int>(value.size()));
}

std::string Read(const DBHandlePtr &db, const std::string &key)
{
    const int size = ValueSizeDB(db.get(), key.c_str(), static_cast<int>(key.size()) + 1);
    std::string value(static_cast<size_t>(size < 0 ? 0 : size), '?');
    return size >= 0 && ReadDB(db.get(), key.c_str(), value.data(), size) ? value : "(absent)";
}

// Open must fail; the errno that it left.
int ErrnoOfOpen(dbid id)
{
    DBHandle *db = nullptr;
    errno = 0;
    EXPECT_FALSE(OpenDB(&db, id));
    EXPECT_EQ(db, nullptr);
    return errno;
}

// Fill a database with about this many bytes and close it.
void Fill(dbid id, size_t bytes)
{
    const DBHandlePtr db = Open(id);
    for (size_t i = 0; i * 1000 < bytes; i++) {
        ASSERT_TRUE(Write(db, "fill" + std::to_string(i), std::string(1000, 'v')));
    }
}

// Make every file that this process writes end at a small size: a file system of its own where that is allowed, else a
// limit of the process. For a child process, before it opens anything.
class SmallDisk {
  public:
    explicit SmallDisk(const fs::path &directory) : directory_(directory)
    {
        mounted_ = unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                   mount("tmpfs", directory_.c_str(), "tmpfs", 0, "size=384k,mode=0700") == 0;
        if (!mounted_) {
            signal(SIGXFSZ, SIG_IGN);
            Limit(300 << 10);
        }
    }

    void MakeRoom()
    {
        if (mounted_) {
            EXPECT_EQ(mount(nullptr, directory_.c_str(), nullptr, MS_REMOUNT, "size=4m,mode=0700"), 0);
        } else {
            Limit(4 << 20);
        }
    }

  private:
    static void Limit(rlim_t bytes)
    {
        struct rlimit limit = {};
        getrlimit(RLIMIT_FSIZE, &limit);
        limit.rlim_cur = bytes;
        EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    }

    const fs::path directory_;
    bool mounted_;
};

}  // namespace

TEST(DbmProcesses, TwoProcessesAtOnceLoseNothing)
{
    WorkDirectory work;
    const auto write_many = [](const std::string &name) {
        const DBHandlePtr db = Open(dbid_lastseen);
        for (int i = 0; i < 300; i++) { EXPECT_TRUE(Write(db, name + std::to_string(i), name)); }
    };
    Child one([&] { write_many("one"); }), two([&] { write_many("two"); });
    EXPECT_EQ(one.Wait(), 0);
    EXPECT_EQ(two.Wait(), 0);

    const DBHandlePtr db = Open(dbid_lastseen);
    for (int i = 0; i < 300; i++) {
        EXPECT_EQ(Read(db, "one" + std::to_string(i)), "one");
        EXPECT_EQ(Read(db, "two" + std::to_string(i)), "two");
    }
}

TEST(DbmProcesses, WhatOneWritesTheOtherSeesWhileBothAreOpen)
{
    WorkDirectory work;
    PipeEvent written, answered;
    Child other([&] {
        const DBHandlePtr db = Open();
        written.Await();
        EXPECT_EQ(Read(db, "question"), "?");
        EXPECT_TRUE(Write(db, "answer", "!"));
        answered.Set();
    });
    const DBHandlePtr db = Open();
    EXPECT_TRUE(Write(db, "question", "?"));
    written.Set();
    answered.Await();
    EXPECT_EQ(Read(db, "answer"), "!");
    EXPECT_EQ(other.Wait(), 0);
}

TEST(DbmProcesses, AMapThatAnotherProcessHasGrownIsFollowed)
{
    WorkDirectory work;
    veltrane::DbmEnvironment::SetInitialMapSize(64 << 10);
    PipeEvent opened, grown;
    Child other([&] {
        const DBHandlePtr db = Open();
        EXPECT_TRUE(Write(db, "small", "value"));
        opened.Set();
        grown.Await();
        EXPECT_EQ(Read(db, "large"), std::string(1 << 20, 'v'));
        EXPECT_TRUE(Write(db, "small", "again"));
    });
    opened.Await();
    const DBHandlePtr db = Open();
    EXPECT_TRUE(Write(db, "large", std::string(1 << 20, 'v')));
    grown.Set();
    EXPECT_EQ(other.Wait(), 0);
    EXPECT_EQ(Read(db, "small"), "again");
}

TEST(DbmProcesses, AChildDoesNotUseWhatItsParentHasOpen)
{
    WorkDirectory work;
    const DBHandlePtr db = Open();
    EXPECT_TRUE(Write(db, "key", "parent"));

    InChild([&] {
        EXPECT_FALSE(Write(db, "key", "child"));
        EXPECT_EQ(errno, EBADF);
        EXPECT_EQ(Read(db, "key"), "(absent)");
        const DBHandlePtr own = Open();  // its own, of the same file
        EXPECT_EQ(Read(own, "key"), "parent");
        EXPECT_TRUE(Write(own, "from child", "value"));
    });

    EXPECT_EQ(Read(db, "from child"), "value");
    EXPECT_TRUE(Write(db, "key", "still works"));
}

TEST(DbmProcesses, WritersThatAreKilledLeaveWholeEntriesAndHoldUpNobody)
{
    WorkDirectory work;
    std::mt19937 random(1);
    for (int round = 0; round < 20; round++) {
        PipeEvent writing;
        Child writer([&] {
            const DBHandlePtr db = Open();
            for (int i = 0;; i++) {
                EXPECT_TRUE(Write(db, std::to_string(i % 50), std::string(5000, static_cast<char>('a' + i % 26))));
                if (i == 2) {
                    writing.Set();
                }
            }
        });
        writing.Await();
        const DBHandlePtr db = Open();
        for (unsigned int writes = random() % 5; writes > 0; writes--) { EXPECT_TRUE(Write(db, "mine", "value")); }
        EXPECT_EQ(writer.Kill(), -SIGKILL);

        EXPECT_TRUE(Write(db, "after", std::to_string(round)));
        EXPECT_EQ(Read(db, "after"), std::to_string(round));
        for (int i = 0; i < 50; i++) {
            const std::string value = Read(db, std::to_string(i));
            EXPECT_TRUE(value == "(absent)" || value == std::string(5000, value[0])) << i;
        }
    }
}

TEST(DbmProcesses, ReadersThatAreKilledDoNotKeepTheFileGrowing)
{
    WorkDirectory work;
    const DBHandlePtr held = Open();  // as long as one process has the file open, its table of readers stays
    for (int i = 0; i < 5; i++) {
        PipeEvent reading;
        Child reader([&] {
            veltrane::DbmEnvironment *const environment =
                veltrane::DbmEnvironment::Acquire(work.State("cache.lmdb"), false, false);
            environment->Read([&](MDB_txn *, MDB_dbi) {
                reading.Set();
                return pause();  // killed within its transaction
            });
        });
        reading.Await();
        reader.Kill();
    }

    const DBHandlePtr db = Open();
    for (int i = 0; i < 100; i++) { EXPECT_TRUE(Write(db, "key", std::string(20000, 'v'))); }

    EXPECT_LT(fs::file_size(work.State("cache.lmdb")), 300000u);
}

TEST(DbmProcesses, DeletionsOfACursorAreOneTransaction)
{
    WorkDirectory work;
    {
        const DBHandlePtr db = Open();
        for (int i = 0; i < 300; i++) { Write(db, std::to_string(i), "v"); }
    }
    PipeEvent deleting;
    Child deleter([&] {
        const DBHandlePtr db = Open();
        DBCursor *cursor = nullptr;
        EXPECT_TRUE(NewDBCursor(db.get(), &cursor));
        char *key;
        void *value;
        int key_size, value_size;
        while (NextDB(cursor, &key, &key_size, &value, &value_size)) { DBCursorDeleteEntry(cursor); }
        deleting.Set();
        DeleteDBCursor(cursor);
    });
    deleting.Await();
    deleter.Kill();  // before, within or after

    const DBHandlePtr db = Open();
    int left = 0;
    for (int i = 0; i < 300; i++) { left += Read(db, std::to_string(i)) == "v" ? 1 : 0; }
    EXPECT_THAT(left, AnyOf(0, 300));
}

TEST(DbmDamage, GarbageIsNoDatabase)
{
    WorkDirectory work;
    WriteFile(work.State("cache.lmdb"), std::string(100000, 'g'));
    WriteFile(work.State("scalars.lmdb"), "short");
    EXPECT_EQ(ErrnoOfOpen(dbid_cache), EUCLEAN);
    EXPECT_EQ(ErrnoOfOpen(dbid_scalars), EUCLEAN);
    EXPECT_EQ(ReadFile(work.State("scalars.lmdb")), "short");
}

TEST(DbmDamage, AFileThatWasCutOffIsRefusedAtEveryLength)
{
    WorkDirectory work;
    Fill(dbid_cache, 60000);
    const fs::path file = work.State("cache.lmdb");
    const std::string whole = ReadFile(file);
    ASSERT_GT(whole.size(), 60000u);
    for (size_t size = 1; size < whole.size(); size += 1021) {
        WriteFile(file, whole.substr(0, size));
        EXPECT_EQ(ErrnoOfOpen(dbid_cache), EUCLEAN) << size;
    }
    WriteFile(file, whole);
    EXPECT_EQ(Read(Open(), "fill0"), std::string(1000, 'v'));
}

TEST(DbmDamage, AFailedOpeningLeavesNothingBehindInTheProcess)
{
    WorkDirectory work;
    WriteFile(work.State("cache.lmdb"), std::string(100000, 'g'));
    EXPECT_EQ(ErrnoOfOpen(dbid_cache), EUCLEAN);
    fs::remove(work.State("cache.lmdb"));
    EXPECT_TRUE(Write(Open(), "key", "value"));
}

TEST(DbmDamage, ALinkThatSomebodyElsePlantedIsNotFollowed)
{
    WorkDirectory work;
    const fs::path target = work.path / "target";
    for (const char *name : {"cache.lmdb", "cache.lmdb-lock"}) {
        fs::create_symlink(target, work.State(name));
        const bool foreign = lchown(work.State(name).c_str(), 12345, 12345) == 0;  // as root only
        DBHandle *db = nullptr;
        EXPECT_EQ(OpenDB(&db, dbid_cache), !foreign);
        EXPECT_EQ(fs::exists(target), !foreign);
        CloseDB(db);
        for (const char *made : {"cache.lmdb", "cache.lmdb-lock"}) { fs::remove(work.State(made)); }
        fs::remove(target);
    }
}

// Deletions give pages back that were taken within the same transaction and never written. After this very sequence the
// last used page of the file is one of them, and without care the file would look cut off.
TEST(DbmDamage, APageThatWasNeverWrittenDoesNotMakeAFileLookCutOff)
{
    WorkDirectory work;
    std::mt19937 random(994);
    size_t kept = 0;
    {
        const DBHandlePtr db = Open();
        for (int i = 0; i < 29; i++) {
            const std::string key = std::string(100, 'k') + std::to_string(random() % 400);
            const size_t size = random() % 10 == 0 ? random() % 20000 : random() % 300;
            ASSERT_TRUE(Write(db, key, std::string(size, 'v')));
        }
        DBCursor *cursor = nullptr;
        ASSERT_TRUE(NewDBCursor(db.get(), &cursor));
        char *key;
        void *value;
        int key_size, value_size;
        while (NextDB(cursor, &key, &key_size, &value, &value_size)) {
            if (random() % 2 != 0) {
                DBCursorDeleteEntry(cursor);
            } else {
                kept++;
            }
        }
        EXPECT_TRUE(DeleteDBCursor(cursor));
    }
    const DBHandlePtr db = Open();
    ASSERT_NE(db, nullptr);
    DBCursor *opened = nullptr;
    ASSERT_TRUE(NewDBCursor(db.get(), &opened));
    const DBCursorPtr cursor(opened);
    char *key;
    void *value;
    int key_size, value_size;
    size_t left = 0;
    while (NextDB(cursor.get(), &key, &key_size, &value, &value_size)) { left++; }
    EXPECT_EQ(left, kept);
}

TEST(DbmDisk, AFullDiskFailsTheWriteAndLosesNothing)
{
    WorkDirectory work;
    InChild([&] {
        SmallDisk disk(work.path / "state");
        const DBHandlePtr db = Open(dbid_scalars);
        int written = 0;
        while (written < 1000 &&
               Write(db, std::to_string(written), std::string(3000, static_cast<char>('a' + written % 26)))) {
            written++;
        }
        EXPECT_THAT(errno, AnyOf(ENOSPC, EFBIG));
        EXPECT_GT(written, 20);
        EXPECT_LT(written, 200);
        EXPECT_FALSE(Write(db, "again", std::string(100000, 'v')));
        for (int i = 0; i < written; i++) {
            EXPECT_EQ(Read(db, std::to_string(i)), std::string(3000, static_cast<char>('a' + i % 26)));
        }

        disk.MakeRoom();
        EXPECT_TRUE(Write(db, "after", "value"));
        EXPECT_EQ(Read(db, "after"), "value");
    });
}

TEST(DbmDisk, OpeningOnAFullDiskFailsInsteadOfEndingTheProcess)
{
    WorkDirectory work;
    InChild([&] {
        SmallDisk disk(work.path / "state");
        {
            const int fd = open((work.path / "state" / "filler").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
            const std::string bytes(4096, 'f');
            while (write(fd, bytes.data(), bytes.size()) > 0) {}
            close(fd);
        }
        DBHandle *db = nullptr;
        const bool opened = OpenDB(&db, dbid_cookies);  // a limit of the process does not fill the disk
        EXPECT_TRUE(opened || errno == ENOSPC) << strerror(errno);
        CloseDB(db);

        disk.MakeRoom();
        EXPECT_TRUE(Write(Open(dbid_cookies), "key", "value"));
    });
}
