// Hosts: identity, hash and order.
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "libvtenterprise/enterprise_install.h"
#include "support/record_text.h"

namespace {

using HostPtr = std::unique_ptr<HubHost, veltrane::Destroyer<HubHostDelete>>;

// A list of hosts is nodes that borrow their records.
struct HostList {
    explicit HostList(const std::vector<HubHost *> &hosts)
    {
        nodes.resize(hosts.size());
        for (size_t i = 0; i < hosts.size(); i++) {
            nodes[i].val.item = hosts[i];
            nodes[i].next = i + 1 < hosts.size() ? &nodes[i + 1] : nullptr;
        }
    }

    std::vector<Rlist> nodes;
};

HostPtr ReportedAt(time_t t)
{
    HostPtr host(HubHostNew("k", nullptr, nullptr));
    host->last_report = t;
    return host;
}

int OldestFirst(time_t a, time_t b)
{
    return HubHostCompareTimestamps(ReportedAt(a).get(), ReportedAt(b).get(), nullptr);
}

}  // namespace

TEST(HubHost, ANewHostHasCopiesOfItsTextsAndNothingElse)
{
    std::string keyhash = "SHA=aa";
    const HostPtr host(HubHostNew(keyhash.c_str(), "10.0.0.1", "web"));
    keyhash = "gone";
    EXPECT_STREQ(host->keyhash, "SHA=aa");
    EXPECT_STREQ(host->ipaddr, "10.0.0.1");
    EXPECT_STREQ(host->hostname, "web");
    EXPECT_EQ(host->last_report, 0);
    EXPECT_FALSE(host->in_batch);
    EXPECT_FALSE(host->inv_refresh);
    EXPECT_FALSE(host->is_call_collected);
    EXPECT_EQ(host->deleted, 0);
}

TEST(HubHost, AbsentTextsStayAbsent)
{
    const HostPtr host(HubHostNew(nullptr, nullptr, nullptr));
    EXPECT_EQ(host->keyhash, nullptr);
    EXPECT_EQ(host->ipaddr, nullptr);
    EXPECT_EQ(host->hostname, nullptr);
}

TEST(HubHost, AnEmptyHostIsAllZeroAndAbsent)
{
    const HostPtr host(CreateEmptyHubHost());
    EXPECT_EQ(host->keyhash, nullptr);
    EXPECT_EQ(host->ipaddr, nullptr);
    EXPECT_EQ(host->hostname, nullptr);
    EXPECT_EQ(host->last_report, 0);
    EXPECT_FALSE(host->in_batch || host->inv_refresh || host->is_call_collected);
    EXPECT_EQ(host->deleted, 0);
}

TEST(HubHost, UpdatingReplacesTheTextsAndKeepsTheRest)
{
    const HostPtr host(HubHostNew("old", nullptr, "name"));
    host->last_report = 5;
    EXPECT_EQ(UpdateHubHost(host.get(), "new", "10.0.0.2", host->hostname), host.get());
    EXPECT_STREQ(host->keyhash, "new");
    EXPECT_STREQ(host->ipaddr, "10.0.0.2");
    EXPECT_STREQ(host->hostname, "name");
    EXPECT_EQ(host->last_report, 5);
}

TEST(HubHost, ACopyIsDeepAndHasEveryField)
{
    HostPtr host(HubHostNew("k", "ip", "n"));
    host->last_report = 1;
    host->in_batch = true;
    host->inv_refresh = true;
    host->is_call_collected = true;
    host->deleted = 2;
    const HostPtr copy(HubHostDup(host.get()));
    host.reset();
    EXPECT_STREQ(copy->keyhash, "k");
    EXPECT_STREQ(copy->ipaddr, "ip");
    EXPECT_STREQ(copy->hostname, "n");
    EXPECT_EQ(copy->last_report, 1);
    EXPECT_TRUE(copy->in_batch);
    EXPECT_TRUE(copy->inv_refresh);
    EXPECT_TRUE(copy->is_call_collected);
    EXPECT_EQ(copy->deleted, 2);
}

TEST(HubHost, NoHostIsCopiedToNoneAndDeletedInPeace)
{
    EXPECT_EQ(HubHostDup(nullptr), nullptr);
    HubHostDelete(nullptr);
}

TEST(HubHost, AListIsSearchedForTheFirstOfExactlyThisKeyHash)
{
    const HostPtr absent(CreateEmptyHubHost());
    const HostPtr lower(HubHostNew("sha=aa", nullptr, nullptr));
    const HostPtr first(HubHostNew("SHA=aa", nullptr, "first"));
    const HostPtr second(HubHostNew("SHA=aa", nullptr, "second"));
    const HostList list({absent.get(), lower.get(), first.get(), second.get()});
    EXPECT_EQ(GetHubHostIn(list.nodes.data(), "SHA=aa"), first.get());
    EXPECT_EQ(GetHubHostIn(list.nodes.data(), "sha=aa"), lower.get());
    EXPECT_EQ(GetHubHostIn(list.nodes.data(), "SHA=a"), nullptr);
    EXPECT_EQ(GetHubHostIn(nullptr, "SHA=aa"), nullptr);
}

TEST(HubHost, HostsAreEqualByKeyHashAlone)
{
    const HostPtr a(HubHostNew("SHA=aa", "1", "a"));
    const HostPtr same(HubHostNew("SHA=aa", "2", "b"));
    const HostPtr other(HubHostNew("SHA=ab", "1", "a"));
    const HostPtr none(HubHostNew(nullptr, "1", "a"));
    const HostPtr none_either(HubHostNew(nullptr, "2", "b"));
    EXPECT_TRUE(HubHostEqual(a.get(), same.get()));
    EXPECT_FALSE(HubHostEqual(a.get(), other.get()));
    EXPECT_FALSE(HubHostEqual(a.get(), none.get()));
    EXPECT_TRUE(HubHostEqual(none.get(), none_either.get()));
}

TEST(HubHost, KeyHashesOfEqualLengthHashAlike)
{
    const HostPtr a(HubHostNew("SHA=aa", nullptr, nullptr));
    const HostPtr b(HubHostNew("MD5=bb", nullptr, nullptr));
    const HostPtr none(CreateEmptyHubHost());
    EXPECT_EQ(HubHostHash(a.get(), 0), 6u);
    EXPECT_EQ(HubHostHash(b.get(), 0), HubHostHash(a.get(), 0));
    EXPECT_EQ(HubHostHash(a.get(), 12345), 6u);
    EXPECT_EQ(HubHostHash(none.get(), 0), 0u);
}

TEST(HubHost, TimestampsAreOrderedOldestFirstUnlessAskedOtherwise)
{
    const HostPtr older = ReportedAt(100);
    const HostPtr newer = ReportedAt(103);
    bool newest_first = false;
    EXPECT_EQ(HubHostCompareTimestamps(older.get(), newer.get(), nullptr), -3);
    EXPECT_EQ(HubHostCompareTimestamps(older.get(), newer.get(), &newest_first), -3);
    newest_first = true;
    EXPECT_EQ(HubHostCompareTimestamps(older.get(), newer.get(), &newest_first), 3);
    EXPECT_EQ(HubHostCompareTimestamps(newer.get(), older.get(), &newest_first), -3);
    EXPECT_EQ(HubHostCompareTimestamps(newer.get(), newer.get(), nullptr), 0);
}

TEST(HubHost, TheDifferenceOfTimestampsWrapsAt32Bits)
{
    EXPECT_EQ(OldestFirst(4294967296, 0), 0);
    EXPECT_EQ(OldestFirst(2147483648, 0), -2147483647 - 1);
    EXPECT_EQ(OldestFirst(0, 2147483649), 2147483647);
    EXPECT_EQ(OldestFirst(2147483647, -1), -2147483647 - 1);
}
