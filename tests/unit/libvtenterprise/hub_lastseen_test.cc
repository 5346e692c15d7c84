// Last-seen peers.
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "libvtenterprise/enterprise_install.h"
#include "support/record_text.h"

namespace {

using LastSeenPtr = std::unique_ptr<HubLastSeen, veltrane::Destroyer<HubLastSeenDelete>>;

LastSeenPtr Seen(const char *keyhash, LastSeenDirection direction, time_t t = 0)
{
    return LastSeenPtr(HubLastSeenNew(nullptr, direction, keyhash, "peer", "10.0.0.1", 0.5, t));
}

LastSeenPtr Read(const std::vector<std::string> &fields)
{
    return LastSeenPtr(static_cast<HubLastSeen *>(HubLastSeenFromAttributeList(Fields(fields).get())));
}

int Order(const LastSeenPtr &a, const LastSeenPtr &b) { return HubLastSeenCompareKeys(a.get(), b.get(), nullptr); }

constexpr LastSeenDirection kOut = LAST_SEEN_DIRECTION_OUTGOING;
constexpr LastSeenDirection kIn = LAST_SEEN_DIRECTION_INCOMING;

}  // namespace

TEST(LastSeenDirection, HasTheNumbersOfPlusAndMinus)
{
    EXPECT_EQ(kOut, 43);
    EXPECT_EQ(kIn, 45);
    EXPECT_STREQ(LastSeenDirectionToString(kOut), "OUTGOING");
    EXPECT_STREQ(LastSeenDirectionToString(kIn), "INCOMING");
    for (const int other : {0, 44, -1, 1000}) {
        EXPECT_STREQ(LastSeenDirectionToString(static_cast<LastSeenDirection>(other)), "UNKNOWN") << other;
    }
}

TEST(HubLastSeen, ANewOneOwnsBothHosts)
{
    HubHost *host = HubHostNew("self", nullptr, nullptr);
    const LastSeenPtr seen(HubLastSeenNew(host, kIn, "SHA=aa", "peer", "10.0.0.1", 1.25, 99));
    EXPECT_EQ(seen->hh, host);
    EXPECT_STREQ(seen->rhost->keyhash, "SHA=aa");
    EXPECT_STREQ(seen->rhost->hostname, "peer");
    EXPECT_STREQ(seen->rhost->ipaddr, "10.0.0.1");
    EXPECT_EQ(seen->hrsago, 1.25);
    EXPECT_EQ(seen->t, 99);
    EXPECT_EQ(seen->direction, kIn);
}

TEST(HubLastSeen, ACopyIsDeep)
{
    LastSeenPtr seen(HubLastSeenNew(HubHostNew("self", nullptr, nullptr), kIn, "SHA=aa", "peer", "10.0.0.1", 1.25, 99));
    const LastSeenPtr copy(static_cast<HubLastSeen *>(HubLastSeenDup(seen.get())));
    EXPECT_NE(copy->hh, seen->hh);
    seen.reset();
    EXPECT_STREQ(copy->hh->keyhash, "self");
    EXPECT_STREQ(copy->rhost->keyhash, "SHA=aa");
    EXPECT_STREQ(copy->rhost->hostname, "peer");
    EXPECT_STREQ(copy->rhost->ipaddr, "10.0.0.1");
    EXPECT_EQ(copy->hrsago, 1.25);
    EXPECT_EQ(copy->t, 99);
    EXPECT_EQ(copy->direction, kIn);
}

TEST(HubLastSeen, NoneIsCopiedToNoneAndDeletedInPeace)
{
    EXPECT_EQ(HubLastSeenDup(nullptr), nullptr);
    HubLastSeenDelete(nullptr);
}

TEST(HubLastSeen, KeysAreOrderedByKeyHashThenDirection)
{
    const LastSeenPtr seen = Seen("m", kOut, 1);
    EXPECT_EQ(Order(seen, Seen("m", kOut, 2)), 0);
    EXPECT_EQ(Order(seen, Seen("n", kOut)), -1);
    EXPECT_EQ(Order(seen, Seen("l", kIn)), 1);
    EXPECT_EQ(Order(seen, Seen("m", kIn)), -1);
    EXPECT_EQ(Order(Seen("m", kIn), seen), 1);
}

TEST(HubLastSeen, TheSamePeerInAndOutIsTwoItems) { EXPECT_NE(Order(Seen("m", kOut), Seen("m", kIn)), 0); }

TEST(HubLastSeen, AnAbsentRecordComesFirstOnEitherSide)
{
    const LastSeenPtr seen = Seen("m", kOut);
    EXPECT_EQ(Order(nullptr, seen), -1);
    EXPECT_EQ(Order(seen, nullptr), -1);
    EXPECT_EQ(Order(nullptr, nullptr), -1);
}

TEST(HubLastSeen, TheTimeIsItsValue)
{
    const LastSeenPtr seen = Seen("m", kOut, 5);
    EXPECT_TRUE(HubLastSeenCompareValues(seen.get(), Seen("other", kIn, 5).get()));
    EXPECT_FALSE(HubLastSeenCompareValues(seen.get(), Seen("m", kOut, 6).get()));
    EXPECT_FALSE(HubLastSeenCompareValues(seen.get(), nullptr));
    EXPECT_FALSE(HubLastSeenCompareValues(nullptr, seen.get()));
    EXPECT_FALSE(HubLastSeenCompareValues(nullptr, nullptr));
}

TEST(HubLastSeen, ItsColumnsLeaveThePeersNameOut)
{
    EXPECT_EQ(CsvOf<void>(HubLastSeenToCSV, Seen("SHA=aa", kOut, 1513275477).get()),
              "43,SHA=aa,10.0.0.1,0.500000,1513275477\r\n");
    const LastSeenPtr bare(HubLastSeenNew(nullptr, kIn, nullptr, nullptr, nullptr, 0, 0));
    EXPECT_EQ(CsvOf<void>(HubLastSeenToCSV, bare.get()), "45,,,0.000000,0\r\n");
}

TEST(HubLastSeen, ReadsBackWithoutThePeersName)
{
    const LastSeenPtr seen = Read({"45", "SHA=aa", "10.0.0.1", "0.500000", "1513275477"});
    EXPECT_EQ(seen->hh, nullptr);
    EXPECT_EQ(seen->direction, kIn);
    EXPECT_STREQ(seen->rhost->keyhash, "SHA=aa");
    EXPECT_STREQ(seen->rhost->ipaddr, "10.0.0.1");
    EXPECT_EQ(seen->rhost->hostname, nullptr);
    EXPECT_EQ(seen->hrsago, 0.5);
    EXPECT_EQ(seen->t, 1513275477);
}

TEST(HubLastSeen, NumbersAreReadUnchecked)
{
    const LastSeenPtr seen = Read({"x", "", "", "much", "12abc"});
    EXPECT_EQ(seen->direction, 0);
    EXPECT_EQ(seen->rhost->keyhash, nullptr);
    EXPECT_EQ(seen->rhost->ipaddr, nullptr);
    EXPECT_EQ(seen->hrsago, 0);
    EXPECT_EQ(seen->t, 12);
    EXPECT_EQ(Read({"-7", "", "", "", ""})->direction, -7);
    EXPECT_STREQ(LastSeenDirectionToString(Read({"1000", "", "", "", ""})->direction), "UNKNOWN");
}

TEST(HubLastSeen, AnotherNumberOfColumnsIsNoRecord)
{
    EXPECT_EQ(Read({}), nullptr);
    EXPECT_EQ(Read({"45", "SHA=aa", "10.0.0.1", "0.5"}), nullptr);
    EXPECT_EQ(Read({"45", "SHA=aa", "10.0.0.1", "0.5", "1", "x"}), nullptr);
    EXPECT_EQ(HubLastSeenFromAttributeList(nullptr), nullptr);
}

TEST(HubLastSeen, ListsAreSortedLatestFirstWithOneForBeforeAndZeroElse)
{
    const LastSeenPtr old = Seen("a", kOut, 1);
    const LastSeenPtr recent = Seen("b", kOut, 2);
    EXPECT_EQ(SortLastSeen(recent.get(), old.get()), 1);
    EXPECT_EQ(SortLastSeen(old.get(), recent.get()), 0);
    EXPECT_EQ(SortLastSeen(old.get(), old.get()), 0);
}
