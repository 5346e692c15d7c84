// The entry points of what only a hub does, with its library and without.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <veltrane/owned.h>

#include "libvtenterprise/entry_points_real.h"
#include "support/hub_library.h"

using testing::ElementsAre;
using testing::Pair;
using veltrane::EvalContextPtr;
using veltrane::RlistPtr;

namespace {

using EnterpriseHa = HubLibraryTest;

}  // namespace

TEST_F(EnterpriseHa, WithoutTheLibraryTheStateIsSkippedWithOneVerboseLine)
{
    InChild([&] {
        CheckAndSetHAState__real("/workdir", nullptr);
        EXPECT_THAT(log.lines, ElementsAre(NotInstalled(), kHaNeedsAHub));
    });
}

TEST_F(EnterpriseHa, WithoutTheLibraryReloadingDoesNothingAndThereAreNoProcesses)
{
    InChild([&] {
        ReloadHAConfig__real();
        EXPECT_EQ(EnterpriseGetMaxVtHubProcesses__real(), 0u);
        EXPECT_THAT(log.lines, ElementsAre(NotInstalled()));
    });
}

TEST_F(EnterpriseHa, WithoutTheLibraryNoHostsAreListed)
{
    InChild([&] {
        char value[] = "value";
        char format[] = "format";
        Rlist *hosts = nullptr;
        EXPECT_FALSE(ListHostsWithField__real(nullptr, &hosts, value, format, 0));
        EXPECT_EQ(hosts, nullptr);
        EXPECT_THAT(log.lines, ElementsAre(NotInstalled(), kListingNeedsAHub));
    });
}

TEST_F(EnterpriseHa, WithTheLibraryEverythingIsHandedOnUnchanged)
{
    Install("fake_hub");
    InChild([&] {
        const EvalContextPtr ctx(EvalContextNew());
        char value[] = "value";
        char format[] = "format";
        Rlist *hosts = nullptr;
        CheckAndSetHAState__real("/workdir", ctx.get());
        ReloadHAConfig__real();
        EXPECT_EQ(EnterpriseGetMaxVtHubProcesses__real(), SIZE_MAX);
        EXPECT_TRUE(ListHostsWithField__real(ctx.get(), &hosts, value, format, -5));
        const RlistPtr owned(hosts);
        EXPECT_STREQ(RlistScalarValue(hosts), "SHA=host");
        EXPECT_THAT(log.lines,
                    ElementsAre(Pair(LOG_LEVEL_INFO, "HAState(/workdir, context)"), Pair(LOG_LEVEL_INFO, "ReloadHA()"),
                                Pair(LOG_LEVEL_INFO, "Hosts(context, value, format, -5)")));
    });
}
