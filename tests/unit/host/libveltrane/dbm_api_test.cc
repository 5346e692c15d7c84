// Key-value stores: what one handle promises. Several processes, damage and full disks are in dbm_faults_test.cc.
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <map>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <libveltrane/dbm_environment.h>
#include <veltrane/owned.h>

#include "support/log_capture.h"
#include "support/work_dir.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::KilledBySignal;
using testing::Pair;
using veltrane::DBCursorPtr;
using veltrane::DBHandlePtr;
using veltrane::TextPtr;

namespace fs = std::filesystem;

namespace {

using Entries = std::vector<std::pair<std::string, std::string>>;  // keys without their zeros

class Dbm : public testing::Test {
  protected:
    ~Dbm() override { EXPECT_THAT(log_.lines, IsEmpty()) << "databases log nothing"; }

    static DBHandlePtr Open(dbid id = dbid_cache)
    {
        DBHandle *db = nullptr;
        EXPECT_TRUE(OpenDB(&db, id)) << strerror(errno);
        return DBHandlePtr(db);
    }

    static bool Write(const DBHandlePtr &db, const std::string &key, const std::string &value)
    {
        return WriteDB(db.get(), key.c_str(), value.data(), static_cast<int>(value.size()));
    }

    // The value of a key; "(absent)" without one.
    static std::string Read(const DBHandlePtr &db, const std::string &key)
    {
        const int size = ValueSizeDB(db.get(), key.c_str(), static_cast<int>(key.size()) + 1);
        if (size < 0) {
            return "(absent)";
        }
        std::string value(static_cast<size_t>(size), '?');
        EXPECT_TRUE(ReadDB(db.get(), key.c_str(), value.data(), size));
        return value;
    }

    static DBCursorPtr Cursor(const DBHandlePtr &db)
    {
        DBCursor *cursor = nullptr;
        EXPECT_TRUE(NewDBCursor(db.get(), &cursor)) << strerror(errno);
        return DBCursorPtr(cursor);
    }

    static bool Next(const DBCursorPtr &cursor, std::pair<std::string, std::string> *ret_entry)
    {
        char *key = nullptr;
        void *value = nullptr;
        int key_size = 0, value_size = 0;
        if (!NextDB(cursor.get(), &key, &key_size, &value, &value_size)) {
            return false;
        }
        EXPECT_EQ(key[key_size - 1], '\0');
        EXPECT_EQ(value == nullptr, value_size == 0);
        *ret_entry = {std::string(key, static_cast<size_t>(key_size) - 1),
                      value_size == 0 ? "" : std::string(static_cast<char *>(value), static_cast<size_t>(value_size))};
        return true;
    }

    static Entries All(const DBCursorPtr &cursor)
    {
        Entries entries;
        for (std::pair<std::string, std::string> entry; Next(cursor, &entry);) { entries.push_back(entry); }
        return entries;
    }
    static Entries All(const DBHandlePtr &db) { return All(Cursor(db)); }

    WorkDirectory work_;
    LogCapture log_;
};

using DbmCursor = Dbm;
using DbmLongKeys = Dbm;
using DbmGrowth = Dbm;

// Makes new environments start with a small map while it lives.
class SmallMaps {
  public:
    SmallMaps() { veltrane::DbmEnvironment::SetInitialMapSize(64 << 10); }
    ~SmallMaps() { veltrane::DbmEnvironment::SetInitialMapSize(256 << 20); }
};

}  // namespace

TEST_F(Dbm, EachDatabaseIsOneFileInTheStateDirectory)
{
    const std::map<dbid, std::string> names = {{dbid_performance, "performance"},
                                               {dbid_lastseen, "lastseen"},
                                               {dbid_scalars, "scalars"},
                                               {dbid_cache, "cache"},
                                               {dbid_agent_execution, "vesk_agent_execution"},
                                               {dbid_packages_installed, "packages_installed"},
                                               {dbid_packages_updates, "packages_updates"},
                                               {dbid_cookies, "cookies"}};
    for (const auto &[id, name] : names) {
        const TextPtr path(DBIdToPath(id));
        EXPECT_EQ(path.get(), work_.State(name + ".lmdb").string());
        EXPECT_FALSE(fs::exists(path.get()));
        Open(id);
        EXPECT_TRUE(fs::is_regular_file(path.get()));
    }
}

TEST_F(Dbm, TheNumbersNeverChange)
{
    EXPECT_EQ(dbid_performance, 2);
    EXPECT_EQ(dbid_lastseen, 8);
    EXPECT_EQ(dbid_scalars, 14);
    EXPECT_EQ(dbid_cache, 16);
    EXPECT_EQ(dbid_agent_execution, 19);
    EXPECT_EQ(dbid_packages_installed, 21);
    EXPECT_EQ(dbid_packages_updates, 22);
    EXPECT_EQ(dbid_cookies, 23);
    EXPECT_EQ(dbid_max, 24);
}

TEST_F(Dbm, AFileIsPrivateWhateverTheUmask)
{
    const mode_t before = umask(0);
    Open();
    umask(before);
    for (const char *name : {"cache.lmdb", "cache.lmdb-lock"}) {
        struct stat st = {};
        ASSERT_EQ(stat(work_.State(name).c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 07777, 0600u) << name;
    }
}

TEST_F(Dbm, WhatIsWrittenIsReadAgainAlsoAfterClosing)
{
    EXPECT_TRUE(Write(Open(), "key", std::string("va\0lue", 6)));
    EXPECT_EQ(Read(Open(), "key"), std::string("va\0lue", 6));
}

TEST_F(Dbm, WritingAgainReplaces)
{
    const DBHandlePtr db = Open();
    EXPECT_TRUE(Write(db, "key", "a long value"));
    EXPECT_TRUE(Write(db, "key", "short"));
    EXPECT_THAT(All(db), ElementsAre(Pair("key", "short")));
}

TEST_F(Dbm, AnAbsentKeyIsToldFromAnEmptyValue)
{
    const DBHandlePtr db = Open();
    EXPECT_TRUE(WriteDB(db.get(), "empty", nullptr, 0));
    char untouched = 'u';

    EXPECT_EQ(ValueSizeDB(db.get(), "empty", 6), 0);
    EXPECT_TRUE(ReadDB(db.get(), "empty", &untouched, 1));
    EXPECT_EQ(ValueSizeDB(db.get(), "absent", 7), -1);
    EXPECT_FALSE(ReadDB(db.get(), "absent", &untouched, 1));
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(untouched, 'u');
}

TEST_F(Dbm, TheEmptyTextIsAKey)
{
    const DBHandlePtr db = Open();
    EXPECT_TRUE(Write(db, "", "value"));
    EXPECT_EQ(Read(db, ""), "value");
    EXPECT_THAT(All(db), ElementsAre(Pair("", "value")));
}

TEST_F(Dbm, ReadingCopiesTheFirstBytesOfALongerValue)
{
    const DBHandlePtr db = Open();
    Write(db, "key", "123456");
    char buffer[] = "abcdef";
    EXPECT_TRUE(ReadDB(db.get(), "key", buffer, 3));
    EXPECT_STREQ(buffer, "123def");
}

TEST_F(Dbm, ReadingAShorterValueLeavesTheRestOfTheBuffer)
{
    const DBHandlePtr db = Open();
    Write(db, "key", "12");
    char buffer[] = "abcdef";
    EXPECT_TRUE(ReadDB(db.get(), "key", buffer, 6));
    EXPECT_STREQ(buffer, "12cdef");
    EXPECT_TRUE(ReadDB(db.get(), "key", nullptr, 0));
}

TEST_F(Dbm, TheSizeOfAKeyCountsItsZero)
{
    const DBHandlePtr db = Open();
    Write(db, "key", "value");
    EXPECT_EQ(ValueSizeDB(db.get(), "key", 4), 5);
    EXPECT_EQ(ValueSizeDB(db.get(), "key", 3), -1);
    EXPECT_EQ(ValueSizeDB(db.get(), "key", 0), -1);
}

TEST_F(Dbm, ANegativeSizeIsRefused)
{
    const DBHandlePtr db = Open();
    EXPECT_FALSE(WriteDB(db.get(), "key", "value", -1));
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(Read(db, "key"), "(absent)");
}

TEST_F(Dbm, DeletingRemovesTheEntryOnce)
{
    const DBHandlePtr db = Open();
    Write(db, "key", "value");
    Write(db, "other", "stays");
    EXPECT_TRUE(DeleteDB(db.get(), "key"));
    EXPECT_FALSE(DeleteDB(db.get(), "key"));
    EXPECT_EQ(errno, ENOENT);
    EXPECT_THAT(All(db), ElementsAre(Pair("other", "stays")));
}

TEST_F(Dbm, HandlesOfOneDatabaseSeeEachOther)
{
    const DBHandlePtr first = Open();
    DBHandlePtr second = Open();
    Write(first, "key", "value");
    EXPECT_EQ(Read(second, "key"), "value");

    second.reset();
    EXPECT_TRUE(Write(first, "key", "still open"));
    EXPECT_EQ(Read(first, "key"), "still open");
}

TEST_F(Dbm, ManyThreadsWithHandlesOfTheirOwnLoseNothing)
{
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++) {
        threads.emplace_back([t] {
            for (int i = 0; i < 50; i++) {
                const DBHandlePtr db = Open(dbid_lastseen);
                const std::string key = std::to_string(t) + "." + std::to_string(i);
                EXPECT_TRUE(Write(db, key, key));
                EXPECT_EQ(Read(db, key), key);
            }
        });
    }
    for (std::thread &thread : threads) { thread.join(); }
    EXPECT_EQ(All(Open(dbid_lastseen)).size(), 200u);
}

TEST_F(Dbm, ASubDatabaseThatNobodyHasMadeIsNotThere)
{
    DBHandle *db = nullptr;
    EXPECT_FALSE(OpenSubDB(&db, dbid_packages_installed, "apt_get"));
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(db, nullptr);
    EXPECT_FALSE(fs::exists(work_.State("packages_installed_apt_get.lmdb")));
}

TEST_F(Dbm, ASubDatabaseIsThereOnceItIsMadeAndTellsEmptyFromNeverFilled)
{
    DBHandle *made = nullptr, *db = nullptr;
    ASSERT_TRUE(CreateSubDB(&made, dbid_packages_installed, "apt_get"));
    CloseDB(made);
    ASSERT_TRUE(OpenSubDB(&db, dbid_packages_installed, "apt_get"));
    const DBHandlePtr owned(db);
    EXPECT_EQ(ValueSizeDB(db, "<inventory>", 12), -1);
    EXPECT_THAT(All(owned), IsEmpty());
}

TEST_F(Dbm, AFileWithoutABytesIsAboutToBeMadeAndCountsAsNotThere)
{
    WriteFile(work_.State("packages_updates_yum.lmdb"), "");
    DBHandle *db = nullptr;
    EXPECT_FALSE(OpenSubDB(&db, dbid_packages_updates, "yum"));
    EXPECT_EQ(errno, ENOENT);
    EXPECT_TRUE(CreateSubDB(&db, dbid_packages_updates, "yum"));
    CloseDB(db);
}

TEST_F(Dbm, SubDatabasesAreFilesOfTheirOwnWithCanonifiedNames)
{
    const TextPtr path(DBIdToSubPath(dbid_packages_installed, "../apt get"));
    EXPECT_EQ(path.get(), work_.State("packages_installed____apt_get.lmdb").string());
    DBHandle *a = nullptr, *b = nullptr;
    ASSERT_TRUE(CreateSubDB(&a, dbid_packages_installed, "../apt get"));
    ASSERT_TRUE(CreateSubDB(&b, dbid_packages_updates, "../apt get"));
    const DBHandlePtr first(a), second(b), main = Open(dbid_packages_installed);
    EXPECT_TRUE(fs::exists(path.get()));
    Write(first, "key", "installed");
    EXPECT_EQ(Read(second, "key"), "(absent)");
    EXPECT_EQ(Read(main, "key"), "(absent)");
}

TEST_F(Dbm, WithoutAStateDirectoryNothingOpens)
{
    fs::remove_all(work_.path / "state");
    DBHandle *db = nullptr;
    EXPECT_FALSE(OpenDB(&db, dbid_cache));
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(db, nullptr);
}

TEST_F(Dbm, WhatIsNoRegularFileIsRefused)
{
    fs::create_directory(work_.State("cache.lmdb"));
    DBHandle *db = nullptr;
    EXPECT_FALSE(OpenDB(&db, dbid_cache));
    EXPECT_EQ(errno, EISDIR);
    ASSERT_EQ(mkfifo(work_.State("scalars.lmdb").c_str(), 0600), 0);
    EXPECT_FALSE(OpenDB(&db, dbid_scalars));
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(Dbm, EndingNothingIsFine)
{
    CloseDB(nullptr);
    EXPECT_TRUE(DeleteDBCursor(nullptr));
}

TEST_F(Dbm, ClosingKeepsErrno)
{
    DBHandlePtr db = Open(dbid_lastseen);
    Write(db, "key", "value");
    errno = EPIPE;
    db.reset();
    EXPECT_EQ(errno, EPIPE);
}

TEST(DbmDeathTest, ANumberThatIsNoDatabaseIsAProgrammingError)
{
    DBHandle *db = nullptr;
    EXPECT_EXIT(OpenDB(&db, static_cast<dbid>(3)), KilledBySignal(SIGABRT),
                "programming error: There is no database with the number 3");
    EXPECT_EXIT(DBIdToPath(dbid_max), KilledBySignal(SIGABRT),
                "programming error: There is no database with the number 24");
}

TEST_F(DbmCursor, GivesAllEntriesInTheByteOrderOfTheirKeys)
{
    const DBHandlePtr db = Open();
    for (const char *key : {"b", "a\xff", "a", "B", "ab", ""}) { Write(db, key, std::string("=") + key); }
    EXPECT_THAT(All(db), ElementsAre(Pair("", "="), Pair("B", "=B"), Pair("a", "=a"), Pair("ab", "=ab"),
                                     Pair("a\xff", "=a\xff"), Pair("b", "=b")));
}

TEST_F(DbmCursor, AnEmptyDatabaseEndsAtOnceAndStaysAtItsEnd)
{
    const DBCursorPtr cursor = Cursor(Open());
    std::pair<std::string, std::string> entry;
    EXPECT_FALSE(Next(cursor, &entry));
    EXPECT_FALSE(Next(cursor, &entry));
}

TEST_F(DbmCursor, IsAFrozenViewThatHoldsUpNobody)
{
    const DBHandlePtr db = Open();
    Write(db, "a", "1");
    Write(db, "b", "1");
    const DBCursorPtr cursor = Cursor(db);
    std::pair<std::string, std::string> entry;
    ASSERT_TRUE(Next(cursor, &entry));

    EXPECT_TRUE(Write(db, "b", "2"));
    EXPECT_TRUE(Write(db, "c", "2"));
    EXPECT_TRUE(DeleteDB(db.get(), "a"));
    EXPECT_EQ(Read(db, "b"), "2");
    EXPECT_THAT(All(db), ElementsAre(Pair("b", "2"), Pair("c", "2")));

    EXPECT_THAT(All(cursor), ElementsAre(Pair("b", "1")));
}

TEST_F(DbmCursor, WhatItLendsIsAlignedForARecord)
{
    const DBHandlePtr db = Open(dbid_performance);
    for (int i = 0; i < 20; i++) { Write(db, std::string(static_cast<size_t>(i), 'k'), std::string(40, 'v')); }
    const DBCursorPtr cursor = Cursor(db);
    char *key;
    void *value;
    int key_size, value_size, seen = 0;
    while (NextDB(cursor.get(), &key, &key_size, &value, &value_size)) {
        EXPECT_EQ(reinterpret_cast<uintptr_t>(value) % alignof(double), 0u);
        seen++;
    }
    EXPECT_EQ(seen, 20);
}

TEST_F(DbmCursor, NotedEntriesAreDeletedAtItsEnd)
{
    const DBHandlePtr db = Open();
    for (char c = 'a'; c <= 'f'; c++) { Write(db, std::string(1, c), "v"); }
    DBCursorPtr cursor = Cursor(db);
    for (std::pair<std::string, std::string> entry; Next(cursor, &entry);) {
        if (entry.first == "b" || entry.first == "f") {
            EXPECT_TRUE(DBCursorDeleteEntry(cursor.get()));
            EXPECT_TRUE(DBCursorDeleteEntry(cursor.get()));
        }
    }
    EXPECT_EQ(All(db).size(), 6u);

    EXPECT_TRUE(DeleteDBCursor(cursor.release()));

    EXPECT_THAT(All(db), ElementsAre(Pair("a", "v"), Pair("c", "v"), Pair("d", "v"), Pair("e", "v")));
}

TEST_F(DbmCursor, AnEntryThatWasRewrittenSinceStays)
{
    const DBHandlePtr db = Open();
    Write(db, "a", "old");
    Write(db, "b", "old");
    DBCursorPtr cursor = Cursor(db);
    for (std::pair<std::string, std::string> entry; Next(cursor, &entry);) { DBCursorDeleteEntry(cursor.get()); }

    Write(db, "a", "new");
    EXPECT_TRUE(DeleteDBCursor(cursor.release()));

    EXPECT_THAT(All(db), ElementsAre(Pair("a", "new")));
}

TEST_F(DbmCursor, ANotedEntryThatIsGoneAlreadyIsNoFailure)
{
    const DBHandlePtr db = Open();
    Write(db, "a", "v");
    DBCursorPtr cursor = Cursor(db);
    std::pair<std::string, std::string> entry;
    ASSERT_TRUE(Next(cursor, &entry));
    DBCursorDeleteEntry(cursor.get());
    DeleteDB(db.get(), "a");

    EXPECT_TRUE(DeleteDBCursor(cursor.release()));
}

TEST_F(DbmCursor, WithoutAnEntryJustReturnedThereIsNothingToNote)
{
    const DBHandlePtr db = Open();
    Write(db, "a", "v");
    DBCursorPtr cursor = Cursor(db);
    EXPECT_FALSE(DBCursorDeleteEntry(cursor.get()));
    std::pair<std::string, std::string> entry;
    while (Next(cursor, &entry)) {}
    EXPECT_FALSE(DBCursorDeleteEntry(cursor.get()));
    EXPECT_TRUE(DeleteDBCursor(cursor.release()));
    EXPECT_EQ(Read(db, "a"), "v");
}

TEST_F(DbmCursor, MayOutliveItsHandle)
{
    DBHandlePtr db = Open();
    Write(db, "a", "v");
    DBCursorPtr cursor = Cursor(db);
    db.reset();
    std::pair<std::string, std::string> entry;
    ASSERT_TRUE(Next(cursor, &entry));
    DBCursorDeleteEntry(cursor.get());
    EXPECT_TRUE(DeleteDBCursor(cursor.release()));
    EXPECT_THAT(All(Open()), IsEmpty());
}

TEST_F(DbmLongKeys, KeysUpToTheLimitWorkLikeShortOnes)
{
    const DBHandlePtr db = Open();
    for (const size_t size : {510, 511, 512, 513, 1000, 4095, 4096}) {  // with the zero
        const std::string key = std::string(size - 2, 'k') + static_cast<char>('a' + size % 20);
        EXPECT_EQ(Read(db, key), "(absent)") << size;
        EXPECT_TRUE(Write(db, key, "value " + std::to_string(size))) << size;
        EXPECT_EQ(Read(db, key), "value " + std::to_string(size));
        EXPECT_EQ(ValueSizeDB(db.get(), key.c_str(), static_cast<int>(size)),
                  static_cast<int>(6 + std::to_string(size).size()));
        EXPECT_THAT(All(db), ElementsAre(Pair(key, "value " + std::to_string(size))));
        EXPECT_TRUE(WriteDB(db.get(), key.c_str(), nullptr, 0));
        EXPECT_EQ(Read(db, key), "");
        EXPECT_TRUE(DeleteDB(db.get(), key.c_str())) << size;
        EXPECT_FALSE(DeleteDB(db.get(), key.c_str())) << size;
        EXPECT_THAT(All(db), IsEmpty());
    }
}

TEST_F(DbmLongKeys, AKeyBeyondTheLimitIsRefusedAndNeverFound)
{
    const DBHandlePtr db = Open();
    const std::string key(4096, 'k');
    EXPECT_FALSE(Write(db, key, "value"));
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(Read(db, key), "(absent)");
    EXPECT_FALSE(DeleteDB(db.get(), key.c_str()));
    EXPECT_EQ(errno, ENOENT);
    EXPECT_THAT(All(db), IsEmpty());
}

TEST_F(DbmLongKeys, KeysThatDifferOnlyAtTheirEndAreDifferentKeys)
{
    const DBHandlePtr db = Open();
    const std::string start(1000, 'k');
    EXPECT_TRUE(Write(db, start + "1", "one"));
    EXPECT_TRUE(Write(db, start + "2", "two"));
    EXPECT_EQ(Read(db, start + "1"), "one");
    EXPECT_EQ(Read(db, start + "2"), "two");
    EXPECT_EQ(Read(db, start), "(absent)");
    EXPECT_TRUE(DeleteDB(db.get(), (start + "1").c_str()));
    EXPECT_EQ(Read(db, start + "2"), "two");
}

TEST_F(DbmLongKeys, TheOrderIsThatOfTheWholeKeys)
{
    const DBHandlePtr db = Open();
    const std::string start(600, 'k');
    Entries expected = {{"a", "v"}, {std::string(440, 'k'), "v"}, {std::string(450, 'k'), "v"}};
    for (int i = 10; i < 40; i++) { expected.emplace_back(start + std::to_string(i), "v"); }
    expected.emplace_back("l", "v");
    for (size_t i = 0; i < expected.size(); i++) { Write(db, expected[(i * 7) % expected.size()].first, "v"); }

    EXPECT_EQ(All(db), expected);
}

TEST_F(DbmLongKeys, ACursorDeletesThemUnlessTheyWereRewritten)
{
    const DBHandlePtr db = Open();
    const std::string start(2000, 'k');
    Write(db, start + "1", "old");
    Write(db, start + "2", "old");
    DBCursorPtr cursor = Cursor(db);
    for (std::pair<std::string, std::string> entry; Next(cursor, &entry);) { DBCursorDeleteEntry(cursor.get()); }
    Write(db, start + "2", "new");
    EXPECT_TRUE(DeleteDBCursor(cursor.release()));
    EXPECT_THAT(All(db), ElementsAre(Pair(start + "2", "new")));
}

TEST_F(DbmLongKeys, ALargeValueBehindALongKeyIsWhole)
{
    const DBHandlePtr db = Open();
    const std::string key(3000, 'k'), value(100000, 'v');
    EXPECT_TRUE(Write(db, key, value));
    EXPECT_EQ(Read(db, key), value);
    std::string start(10, '?');
    EXPECT_TRUE(ReadDB(db.get(), key.c_str(), start.data(), 10));
    EXPECT_EQ(start, "vvvvvvvvvv");
}

TEST_F(DbmGrowth, AFullMapGrowsUnderWrites)
{
    const SmallMaps small;
    const DBHandlePtr db = Open(dbid_lastseen);
    for (int i = 0; i < 200; i++) {
        ASSERT_TRUE(Write(db, std::to_string(i), std::string(10000, static_cast<char>('a' + i % 26)))) << i;
    }
    for (int i = 0; i < 200; i++) {
        ASSERT_EQ(Read(db, std::to_string(i)), std::string(10000, static_cast<char>('a' + i % 26)));
    }
}

TEST_F(DbmGrowth, AFullMapGrowsUnderDeletionsToo)
{
    const SmallMaps small;
    const DBHandlePtr db = Open(dbid_lastseen);
    for (int i = 0; i < 2000; i++) { ASSERT_TRUE(Write(db, std::to_string(i), std::string(100, 'v'))); }
    DBCursorPtr cursor = Cursor(db);
    int seen = 0;
    for (std::pair<std::string, std::string> entry; Next(cursor, &entry);) {
        if (seen++ % 3 == 0) {
            DBCursorDeleteEntry(cursor.get());
        }
    }
    EXPECT_EQ(seen, 2000);
    EXPECT_TRUE(DeleteDBCursor(cursor.release())) << strerror(errno);
    EXPECT_EQ(All(db).size(), 1333u);
}

TEST_F(DbmGrowth, AnOpenCursorDoesNotHinderGrowth)
{
    const SmallMaps small;
    const DBHandlePtr db = Open(dbid_lastseen);
    Write(db, "a", "1");
    Write(db, "b", "2");
    const DBCursorPtr cursor = Cursor(db);
    char *key;
    void *value;
    int key_size, value_size;
    ASSERT_TRUE(NextDB(cursor.get(), &key, &key_size, &value, &value_size));

    for (int i = 0; i < 50; i++) { ASSERT_TRUE(Write(db, std::to_string(i), std::string(10000, 'v'))); }

    EXPECT_STREQ(key, "a");  // lent until the next call
    EXPECT_EQ(std::string(static_cast<char *>(value), 1), "1");
    EXPECT_THAT(All(cursor), ElementsAre(Pair("b", "2")));
}

TEST_F(DbmGrowth, ThreadsReadWhileTheMapMoves)
{
    const SmallMaps small;
    const DBHandlePtr db = Open(dbid_lastseen);
    Write(db, "steady", "value");
    std::atomic<bool> stop{false};
    std::thread reader([&] {
        const DBHandlePtr own = Open(dbid_lastseen);
        while (!stop) { EXPECT_EQ(Read(own, "steady"), "value"); }
    });
    for (int i = 0; i < 100; i++) { EXPECT_TRUE(Write(db, std::to_string(i), std::string(20000, 'v'))); }
    stop = true;
    reader.join();
}
