#include "libveltrane/last_seen.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <ctime>
#include <filesystem>
#include <string>

#include <veltrane/dbm_api.h>
#include <veltrane/owned.h>
#include <veltrane/records.h>

#include "support/log_capture.h"
#include "support/work_dir.h"

namespace {

using veltrane::NoteSeenPeer;
using veltrane::SeenDirection;

const std::string kPeer = "SHA=" + std::string(64, '1');
const std::string kOther = "SHA=" + std::string(64, '2');

class LastSeen : public testing::Test {
  protected:
    static veltrane::DBHandlePtr Open()
    {
        DBHandle *db = nullptr;
        EXPECT_TRUE(OpenDB(&db, dbid_lastseen));
        return veltrane::DBHandlePtr(db);
    }

    static std::string Text(const std::string &key)
    {
        char text[256] = "";
        return ReadDB(Open().get(), key.c_str(), text, sizeof(text)) ? text : "(none)";
    }

    static KeyHostSeen Seen(const std::string &key)
    {
        KeyHostSeen seen{};
        EXPECT_TRUE(ReadDB(Open().get(), key.c_str(), &seen, sizeof(seen))) << key;
        return seen;
    }

    WorkDirectory work;
};

TEST_F(LastSeen, TheFirstSightingHasNoInterval)
{
    const time_t before = time(nullptr);
    NoteSeenPeer(kPeer, "10.0.0.1", SeenDirection::incoming);
    const KeyHostSeen seen = Seen("qi" + kPeer);
    EXPECT_TRUE(seen.acknowledged);
    EXPECT_GE(seen.lastseen, before);
    EXPECT_EQ(seen.Q.q, 0.0);
    EXPECT_EQ(seen.Q.expect, 0.0);
    EXPECT_EQ(seen.Q.var, 0.0);
    EXPECT_EQ(seen.Q.dq, 0.0);
    EXPECT_EQ(Text("k" + kPeer), "10.0.0.1");
    EXPECT_EQ(Text("p10.0.0.1"), kPeer);
}

TEST_F(LastSeen, TheNextSightingAveragesTheHoursBetween)
{
    KeyHostSeen before{};
    before.lastseen = time(nullptr) - 2 * 3600;
    before.Q.expect = 1.0;
    ASSERT_TRUE(WriteDB(Open().get(), ("qo" + kPeer).c_str(), &before, sizeof(before)));
    NoteSeenPeer(kPeer, "10.0.0.1", SeenDirection::outgoing);
    const KeyHostSeen seen = Seen("qo" + kPeer);
    EXPECT_NEAR(seen.Q.q, 2.0, 0.1);
    EXPECT_NEAR(seen.Q.expect, 0.7 * 2.0 + 0.3 * 1.0, 0.1);
}

TEST_F(LastSeen, AClockThatWentBackGivesNoNegativeInterval)
{
    KeyHostSeen before{};
    before.lastseen = time(nullptr) + 3600;
    ASSERT_TRUE(WriteDB(Open().get(), ("qi" + kPeer).c_str(), &before, sizeof(before)));
    NoteSeenPeer(kPeer, "10.0.0.1", SeenDirection::incoming);
    EXPECT_EQ(Seen("qi" + kPeer).Q.q, 0.0);
}

TEST_F(LastSeen, APeerThatMovedLeavesItsOldAddress)
{
    NoteSeenPeer(kPeer, "10.0.0.1", SeenDirection::incoming);
    NoteSeenPeer(kPeer, "10.0.0.2", SeenDirection::incoming);
    EXPECT_EQ(Text("k" + kPeer), "10.0.0.2");
    EXPECT_EQ(Text("p10.0.0.1"), "(none)");
    EXPECT_EQ(Text("p10.0.0.2"), kPeer);
}

TEST_F(LastSeen, AnAddressThatAnotherPeerTookOverStaysItsOwn)
{
    NoteSeenPeer(kPeer, "10.0.0.1", SeenDirection::incoming);
    NoteSeenPeer(kOther, "10.0.0.1", SeenDirection::incoming);
    NoteSeenPeer(kPeer, "10.0.0.2", SeenDirection::incoming);
    EXPECT_EQ(Text("p10.0.0.1"), kOther);
    EXPECT_EQ(Text("k" + kOther), "10.0.0.1");
}

TEST_F(LastSeen, BothDirectionsOfAPeerAreNotedApart)
{
    NoteSeenPeer(kPeer, "10.0.0.1", SeenDirection::incoming);
    KeyHostSeen seen{};
    EXPECT_FALSE(ReadDB(Open().get(), ("qo" + kPeer).c_str(), &seen, sizeof(seen)));
    NoteSeenPeer(kPeer, "10.0.0.2", SeenDirection::outgoing);
    EXPECT_GT(Seen("qi" + kPeer).lastseen, 0);
    EXPECT_GT(Seen("qo" + kPeer).lastseen, 0);
    EXPECT_EQ(Text("k" + kPeer), "10.0.0.2") << "one address a peer, the last";
}

TEST_F(LastSeen, ASightingFillsAWholeRecord)
{
    NoteSeenPeer(kPeer, "10.0.0.1", SeenDirection::incoming);
    NoteSeenPeer(kPeer, "10.0.0.1", SeenDirection::outgoing);
    const std::string incoming = "qi" + kPeer;
    const std::string outgoing = "qo" + kPeer;
    EXPECT_EQ(ValueSizeDB(Open().get(), incoming.c_str(), static_cast<int>(incoming.size() + 1)), 48);
    EXPECT_EQ(ValueSizeDB(Open().get(), outgoing.c_str(), static_cast<int>(outgoing.size() + 1)), 48);
}

TEST_F(LastSeen, AShorterRecordOfBeforeIsReadAsFarAsItGoes)
{
    KeyHostSeen before{};
    before.lastseen = time(nullptr) - 3600;
    before.Q.expect = 5.0;
    ASSERT_TRUE(WriteDB(Open().get(), ("qi" + kPeer).c_str(), &before, offsetof(KeyHostSeen, Q)));
    NoteSeenPeer(kPeer, "10.0.0.1", SeenDirection::incoming);
    EXPECT_NEAR(Seen("qi" + kPeer).Q.expect, 0.7 * 1.0, 0.05);
}

TEST_F(LastSeen, APeerWhoseAddressIsNotKnownKeepsTheOneItHad)
{
    NoteSeenPeer(kPeer, "10.0.0.1", SeenDirection::incoming);
    NoteSeenPeer(kPeer, "", SeenDirection::incoming);
    NoteSeenPeer(kOther, "", SeenDirection::incoming);
    EXPECT_EQ(Text("k" + kPeer), "10.0.0.1");
    EXPECT_EQ(Text("p10.0.0.1"), kPeer);
    EXPECT_EQ(Text("k" + kOther), "(none)");
    EXPECT_EQ(Text("p"), "(none)");
    EXPECT_GT(Seen("qi" + kOther).lastseen, 0);
}

TEST_F(LastSeen, ADatabaseThatCannotBeOpenedCostsOneVerboseLine)
{
    std::filesystem::remove_all(work.path / "state");
    LogCapture log;
    NoteSeenPeer(kPeer, "10.0.0.1", SeenDirection::incoming);
    ASSERT_EQ(log.lines.size(), 1u);
    EXPECT_EQ(log.lines[0].first, LOG_LEVEL_VERBOSE);
    EXPECT_EQ(log.lines[0].second, "Could not open the last-seen database: No such file or directory");
}

}  // namespace
