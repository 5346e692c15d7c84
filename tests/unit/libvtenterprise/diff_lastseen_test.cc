#include "libvtenterprise/diff_lastseen.h"

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <set>

#include <veltrane/dbm_api.h>
#include <veltrane/globals.h>
#include <veltrane/records.h>

#include "libvtenterprise/diff_engine.h"
#include "support/golden.h"
#include "support/log_capture.h"
#include "tests/unit/libvtenterprise/diff_test_support.h"

namespace {

int cursors_left = INT_MAX;  // walks that still succeed
std::string vanished_key;    // an entry that a cursor has seen and nobody finds any more

}  // namespace

// Both stand before the host's own, so that they can fail where no file makes them fail.
extern "C" bool NewDBCursor(DBHandle *db, DBCursor **ret_cursor)
{
    using Function = bool(DBHandle *, DBCursor **);
    static const auto hosts_own = reinterpret_cast<Function *>(dlsym(RTLD_NEXT, "NewDBCursor"));
    return cursors_left-- > 0 && hosts_own(db, ret_cursor);
}

extern "C" bool ReadDB(DBHandle *db, const char *key, void *buffer, int size)
{
    using Function = bool(DBHandle *, const char *, void *, int);
    static const auto hosts_own = reinterpret_cast<Function *>(dlsym(RTLD_NEXT, "ReadDB"));
    return vanished_key != key && hosts_own(db, key, buffer, size);
}

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using veltrane::DBCursorPtr;
using veltrane::DBHandlePtr;
using veltrane::EvalContextPtr;
using veltrane::SeqPtr;
using veltrane::TextPtr;

constexpr time_t kNow = 1700000000;
constexpr int kExpiry = 1000;

class LastSeenReport : public testing::Test {
  protected:
    ~LastSeenReport() override
    {
        LASTSEENEXPIREAFTER = expiry_before_;
        cursors_left = INT_MAX;
        vanished_key.clear();
    }

    static DBHandlePtr Open()
    {
        DBHandle *db = nullptr;
        EXPECT_TRUE(OpenDB(&db, dbid_lastseen));
        return DBHandlePtr(db);
    }

    static void PutBytes(const std::string &key, const std::string &bytes)
    {
        EXPECT_TRUE(WriteDB(Open().get(), key.c_str(), bytes.data(), static_cast<int>(bytes.size()))) << key;
    }

    // The bytes of a record; more than it has are "+".
    static std::string RecordBytes(time_t lastseen, double expect, size_t size = sizeof(KeyHostSeen))
    {
        char bytes[sizeof(KeyHostSeen)] = {};  // with the record's padding
        const bool acknowledged = true;
        const QPoint q = {7.5, expect, 0.25, -1.5};
        memcpy(bytes + offsetof(KeyHostSeen, acknowledged), &acknowledged, sizeof(acknowledged));
        memcpy(bytes + offsetof(KeyHostSeen, lastseen), &lastseen, sizeof(lastseen));
        memcpy(bytes + offsetof(KeyHostSeen, Q), &q, sizeof(q));
        std::string record(bytes, sizeof(bytes));
        record.resize(size, '+');
        return record;
    }

    static void PutSeen(const std::string &key, time_t lastseen, double expect = 0)
    {
        PutBytes(key, RecordBytes(lastseen, expect));
    }

    static void PutAddress(const std::string &key_hash, const std::string &address)
    {
        PutBytes("k" + key_hash, address + '\0');
    }

    static std::vector<std::string> Items()
    {
        const SeqPtr peers(GetCurrentHubLastSeenList(nullptr));
        return peers != nullptr ? StateTexts(peers.get(), report_type_lastseen)
                                : std::vector<std::string>{"(no state)"};
    }

    static std::set<std::string> Keys()
    {
        const DBHandlePtr db = Open();
        DBCursor *made = nullptr;
        EXPECT_TRUE(NewDBCursor(db.get(), &made));
        const DBCursorPtr cursor(made);
        std::set<std::string> keys;
        char *key;
        void *value;
        int key_size, value_size;
        while (NextDB(cursor.get(), &key, &key_size, &value, &value_size)) { keys.insert(key); }
        return keys;
    }

    // In the way of the database.
    static void BlockDatabase()
    {
        const TextPtr path(DBIdToPath(dbid_lastseen));
        std::filesystem::create_directory(path.get());
    }

    WorkDirectory work;

  private:
    const int expiry_before_ = LASTSEENEXPIREAFTER;
};

// --- GetCurrentHubLastSeenList ---

TEST_F(LastSeenReport, APeerSeenInBothDirectionsIsTwoItemsWithOneKeyHash)
{
    PutSeen("qiSHA=aa", kNow, 1.5);
    PutSeen("qoSHA=aa", kNow + 1, 2);
    PutAddress("SHA=aa", "192.0.2.7");
    EXPECT_THAT(Items(),
                ElementsAre("45,SHA=aa,192.0.2.7,1.500000,1700000000", "43,SHA=aa,192.0.2.7,2.000000,1700000001"));
}

TEST_F(LastSeenReport, AnItemHasNoHostAndThePeerHasNoName)
{
    PutSeen("qiSHA=aa", kNow);
    const SeqPtr peers(GetCurrentHubLastSeenList(nullptr));
    ASSERT_EQ(SeqLength(peers.get()), 1u);
    const auto *item = static_cast<const HubLastSeen *>(SeqAt(peers.get(), 0));
    EXPECT_EQ(item->hh, nullptr);
    EXPECT_EQ(item->rhost->hostname, nullptr);
    EXPECT_STREQ(item->rhost->keyhash, "SHA=aa");
    EXPECT_EQ(item->direction, LAST_SEEN_DIRECTION_INCOMING);
}

TEST_F(LastSeenReport, APeerWithoutAnAddressHasAnEmptyOne)
{
    PutSeen("qiSHA=aa", kNow);
    PutAddress("SHA=bb", "192.0.2.7");
    const SeqPtr peers(GetCurrentHubLastSeenList(nullptr));
    ASSERT_EQ(SeqLength(peers.get()), 1u);
    EXPECT_STREQ(static_cast<const HubLastSeen *>(SeqAt(peers.get(), 0))->rhost->ipaddr, "");
}

TEST_F(LastSeenReport, HoursAgoAreTheExpectedIntervalWhateverTheAge)
{
    PutSeen("qiSHA=aa", 1, 123.25);
    EXPECT_THAT(Items(), ElementsAre("45,SHA=aa,,123.250000,1"));
}

TEST_F(LastSeenReport, AnIntervalThatIsNoNumberIsZero)
{
    PutSeen("qiA", 5, std::numeric_limits<double>::quiet_NaN());
    PutSeen("qiB", 5, -std::numeric_limits<double>::infinity());
    EXPECT_THAT(Items(), ElementsAre("45,A,,0.000000,5", "45,B,,0.000000,5"));
}

TEST_F(LastSeenReport, EveryDirectionButIncomingIsOutgoing)
{
    for (const char *key : {"qoA", "q?B", "qID", "q\xFFG"}) { PutSeen(key, 5); }
    EXPECT_THAT(Items(), ElementsAre("43,B,,0.000000,5", "43,D,,0.000000,5", "43,A,,0.000000,5", "43,G,,0.000000,5"));
}

TEST_F(LastSeenReport, OtherEntriesAreNoItems)
{
    PutAddress("SHA=aa", "192.0.2.7");
    PutBytes("p192.0.2.7", "SHA=aa");
    PutSeen("QiSHA=aa", kNow);
    PutSeen("xqiSHA=aa", kNow);
    EXPECT_THAT(Items(), IsEmpty());
}

TEST_F(LastSeenReport, ARecordOfAnySizeIsAnItemWhatIsMissingIsZero)
{
    const struct {
        size_t size;
        const char *rest;
    } kCases[] = {
        {0, "0.000000,0"},
        {1, "0.000000,0"},
        {8, "0.000000,0"},
        {16, "0.000000,1700000000"},
        {24, "0.000000,1700000000"},
        {32, "1.500000,1700000000"},
        {47, "1.500000,1700000000"},
        {48, "1.500000,1700000000"},
        {49, "1.500000,1700000000"},
        {56, "1.500000,1700000000"},
        {5000, "1.500000,1700000000"},
    };
    for (const auto &c : kCases) {
        PutBytes("qiSHA=aa", RecordBytes(kNow, 1.5, c.size));
        EXPECT_THAT(Items(), ElementsAre("45,SHA=aa,," + std::string(c.rest))) << c.size;
    }
}

TEST_F(LastSeenReport, AnAddressIsCutAt4095BytesAndNeedsNoZero)
{
    PutSeen("qiA", 5);
    PutBytes("kA", std::string(4095, 'a'));
    EXPECT_THAT(Items(), ElementsAre("45,A," + std::string(4095, 'a') + ",0.000000,5"));
    PutBytes("kA", std::string(5000, 'a'));
    EXPECT_THAT(Items(), ElementsAre("45,A," + std::string(4095, 'a') + ",0.000000,5"));
    PutBytes("kA", "");
    EXPECT_THAT(Items(), ElementsAre("45,A,,0.000000,5"));
}

TEST_F(LastSeenReport, TheLongestKeyAndBytesThatAreNoUtf8AreKept)
{
    const std::string longest = std::string(4090, 'f') + "\xFF,\"";
    PutSeen("qi" + longest, 5);
    PutAddress(longest, "\xE9");
    EXPECT_THAT(Items(), ElementsAre("45,\"" + std::string(4090, 'f') + "\xFF,\"\"\",\xE9,0.000000,5"));
}

TEST_F(LastSeenReport, AKeyThatNamesNoPeerIsAnItemWithoutAKeyHashAndStaysTheSameItem)
{
    const EvalContextPtr ctx(EvalContextNew());
    LASTSEENEXPIREAFTER = INT_MAX;
    PutSeen("q", kNow);
    PutSeen("qi", kNow);
    EXPECT_THAT(Items(), ElementsAre("43,,,0.000000,1700000000", "45,,,0.000000,1700000000"));
    EXPECT_TRUE(DiffReportGenerate(report_type_lastseen, 1000, ctx.get()));
    EXPECT_TRUE(DiffReportGenerate(report_type_lastseen, 2000, ctx.get()));
    EXPECT_EQ(ReadFile(DiffPath(work, "lastseen")),
              "1000,1,43,,,0.000000,1700000000\r\n1000,1,45,,,0.000000,1700000000\r\n");
}

TEST_F(LastSeenReport, AnEntryThatIsGoneWhenItIsReadIsLeftOut)
{
    PutSeen("qiA", 5);
    PutSeen("qiB", 6);
    vanished_key = "qiA";
    EXPECT_THAT(Items(), ElementsAre("45,B,,0.000000,6"));
}

TEST_F(LastSeenReport, AnEmptyDatabaseIsAnEmptyState) { EXPECT_THAT(Items(), IsEmpty()); }

TEST_F(LastSeenReport, ADatabaseThatDoesNotOpenIsNoStateAndNoLine)
{
    BlockDatabase();
    LogCapture log;
    EXPECT_EQ(GetCurrentHubLastSeenList(nullptr), nullptr);
    EXPECT_THAT(log.lines, IsEmpty());
}

TEST_F(LastSeenReport, ADatabaseThatIsNoneIsNoState)
{
    const TextPtr path(DBIdToPath(dbid_lastseen));
    WriteFile(path.get(), std::string(10000, 'g'));
    EXPECT_EQ(GetCurrentHubLastSeenList(nullptr), nullptr);
    EXPECT_FALSE(PurgeLastSeenAt(kNow));
}

TEST_F(LastSeenReport, ADatabaseThatCannotBeWalkedIsAnError)
{
    PutSeen("qiA", 5);
    cursors_left = 0;
    LogCapture log;
    EXPECT_EQ(GetCurrentHubLastSeenList(nullptr), nullptr);
    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_ERR, "Unable to scan lastseen db")));
}

// --- PurgeCurrentLastSeen ---

TEST_F(LastSeenReport, AnEntryGoesOneSecondAfterItsTimeNotOnIt)
{
    LASTSEENEXPIREAFTER = kExpiry;
    PutSeen("qiA", kNow - kExpiry);
    PutSeen("qiB", kNow - kExpiry - 1);
    PutSeen("qoC", kNow);
    LogCapture log;

    EXPECT_TRUE(PurgeLastSeenAt(kNow));

    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_DEBUG, "Deleting expired entry for qiB")));
    EXPECT_THAT(Keys(), ElementsAre("qiA", "qoC"));
}

TEST_F(LastSeenReport, OnlyQualityEntriesAreEverDeleted)
{
    LASTSEENEXPIREAFTER = kExpiry;
    PutSeen("qiA", 5);
    PutSeen("iA", 5);
    PutAddress("A", "192.0.2.7");
    PutBytes("p192.0.2.7", "A");
    EXPECT_TRUE(PurgeLastSeenAt(kNow));
    EXPECT_THAT(Keys(), ElementsAre("iA", "kA", "p192.0.2.7"));
}

TEST_F(LastSeenReport, AnEntryLargerThanARecordIsAnErrorAndStays)
{
    LASTSEENEXPIREAFTER = kExpiry;
    for (const size_t size : {49, 56, 5000}) {
        PutBytes("qiA", RecordBytes(5, 0, size));
        LogCapture log;
        EXPECT_TRUE(PurgeLastSeenAt(kNow));
        EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_ERR, "Invalid entry in lastseen database."))) << size;
        EXPECT_THAT(Keys(), ElementsAre("qiA"));
    }
}

TEST_F(LastSeenReport, AShorterEntryIsAsOldAsTheTimeItHolds)
{
    LASTSEENEXPIREAFTER = kExpiry;
    for (const auto &[size, stays] :
         {std::pair<size_t, bool>{0, false}, {1, false}, {8, false}, {16, true}, {47, true}, {48, true}}) {
        PutBytes("qiA", RecordBytes(kNow, 0, size));
        EXPECT_TRUE(PurgeLastSeenAt(kNow));
        EXPECT_EQ(Keys().count("qiA"), stays ? 1u : 0u) << size;
    }
}

TEST_F(LastSeenReport, AnEntryWithoutAValueIsAsOldAsTheEpoch)
{
    LASTSEENEXPIREAFTER = kExpiry;
    PutBytes("qiA", "");
    EXPECT_TRUE(PurgeLastSeenAt(kExpiry));
    EXPECT_THAT(Keys(), ElementsAre("qiA"));
    EXPECT_TRUE(PurgeLastSeenAt(kExpiry + 1));
    EXPECT_THAT(Keys(), IsEmpty());
}

TEST_F(LastSeenReport, TimesAtTheEndsOfTheirRangeAreOldOrYoungAndNothingElse)
{
    LASTSEENEXPIREAFTER = kExpiry;
    PutSeen("qiA", INT64_MAX);
    PutSeen("qiB", INT64_MIN);
    PutSeen("qiC", -1);
    EXPECT_TRUE(PurgeLastSeenAt(kNow));
    EXPECT_THAT(Keys(), ElementsAre("qiA"));
}

TEST_F(LastSeenReport, TheClockDecidesNotTheTimeOfTheState)
{
    PutSeen("qiA", time(nullptr) + 3600);
    PutSeen("qiB", time(nullptr) - LASTSEENEXPIREAFTER - 3600);
    EXPECT_TRUE(PurgeCurrentLastSeen(0));
    EXPECT_THAT(Keys(), ElementsAre("qiA"));
}

TEST_F(LastSeenReport, APurgeWithoutADatabaseFails)
{
    BlockDatabase();
    LogCapture log;
    EXPECT_FALSE(PurgeCurrentLastSeen(0));
    EXPECT_THAT(log.lines, IsEmpty());
}

TEST_F(LastSeenReport, APurgeThatCannotWalkFails)
{
    PutSeen("qiA", 5);
    cursors_left = 0;
    LogCapture log;
    EXPECT_FALSE(PurgeCurrentLastSeen(0));
    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_ERR, "Unable to scan lastseen db")));
}

// --- Through the engine ---

TEST_F(LastSeenReport, AFailedPurgeLosesTheDifferencesOfThePass)
{
    const EvalContextPtr ctx(EvalContextNew());
    PutSeen("qiA", 5);
    cursors_left = 1;
    EXPECT_FALSE(DiffReportGenerate(report_type_lastseen, 1000, ctx.get()));
    EXPECT_TRUE(std::filesystem::exists(CachePath(work, "lastseen")));
    EXPECT_FALSE(std::filesystem::exists(DiffPath(work, "lastseen")));
}

TEST_F(LastSeenReport, AnExpiredPeerIsReportedOnceMoreAndThenRemoved)
{
    const EvalContextPtr ctx(EvalContextNew());
    PutSeen("qiA", 5);
    EXPECT_TRUE(DiffReportGenerate(report_type_lastseen, 1000, ctx.get()));
    EXPECT_TRUE(DiffReportGenerate(report_type_lastseen, 2000, ctx.get()));
    EXPECT_EQ(ReadFile(DiffPath(work, "lastseen")), "1000,1,45,A,,0.000000,5\r\n2000,2,45,A,,0.000000,5\r\n");
}

TEST_F(LastSeenReport, CacheAndDifferenceFileHaveTheirGoldenBytes)
{
    const EvalContextPtr ctx(EvalContextNew());
    LASTSEENEXPIREAFTER = INT_MAX;
    PutSeen("qiSHA=aa", kNow, 1.5);
    PutSeen("qoSHA=aa", kNow + 10, 0.25);
    PutSeen("qoSHA=bb", kNow);
    PutAddress("SHA=aa", "192.0.2.7");
    EXPECT_TRUE(DiffReportGenerate(report_type_lastseen, 1000, ctx.get()));
    PutSeen("qiSHA=aa", kNow + 300, 1.25);
    PutSeen("qiSHA=cc", kNow + 300);
    PutAddress("SHA=cc", "2001:db8::1");
    EXPECT_TRUE(DeleteDB(Open().get(), "qoSHA=bb"));
    EXPECT_TRUE(DiffReportGenerate(report_type_lastseen, 2000, ctx.get()));

    ExpectGolden("state/lastseen.cache", ReadFile(CachePath(work, "lastseen")));
    ExpectGolden("state/lastseen.diff", ReadFile(DiffPath(work, "lastseen")));
}

}  // namespace
