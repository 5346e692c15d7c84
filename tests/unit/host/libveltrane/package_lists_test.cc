// Lists of packages and managers: built, and ended without a leak (which the sanitizers see).
#include "libveltrane/package_lists.h"

#include <gtest/gtest.h>

using veltrane::PackageManagersPtr;

TEST(PackageLists, KeepTheOrderOfThePackages)
{
    const PackageManagersPtr managers(veltrane::NewPackageManager("/usr/bin/apt-get -q", nullptr));
    managers->patch_avail = veltrane::NewPackageItems({{"bash", "5.2", "amd64"}, {"tzdata", "2024a", "all"}});

    EXPECT_STREQ(managers->manager, "/usr/bin/apt-get -q");
    EXPECT_EQ(managers->action, PACKAGE_ACTION_NONE);
    EXPECT_EQ(managers->policy, PACKAGE_POLICY_INDIVIDUAL);
    EXPECT_EQ(managers->pack_list, nullptr);
    EXPECT_EQ(managers->patch_list, nullptr);
    EXPECT_EQ(managers->next, nullptr);
    const PackageItem *item = managers->patch_avail;
    ASSERT_NE(item, nullptr);
    EXPECT_STREQ(item->name, "bash");
    EXPECT_STREQ(item->version, "5.2");
    EXPECT_STREQ(item->arch, "amd64");
    EXPECT_EQ(item->pp, nullptr);
    ASSERT_NE(item->next, nullptr);
    EXPECT_STREQ(item->next->name, "tzdata");
    EXPECT_EQ(item->next->next, nullptr);
}

TEST(PackageLists, OfNothingAreNull) { EXPECT_EQ(veltrane::NewPackageItems({}), nullptr); }

TEST(PackageLists, EndWithAllTheyHold)
{
    PackageManager *const second = veltrane::NewPackageManager("second", nullptr);
    second->pack_list = veltrane::NewPackageItems({{"a", "1", "all"}});
    PackageManager *const first = veltrane::NewPackageManager("first", second);
    first->patch_list = veltrane::NewPackageItems({{"b", "", ""}, {"c", "2", "all"}});
    first->patch_avail = veltrane::NewPackageItems({{"d", "3", "all"}});
    EXPECT_EQ(first->next, second);

    veltrane::DestroyPackageManagers(first);
    veltrane::DestroyPackageManagers(nullptr);
}

TEST(PackageLists, MakeALongListWithoutRecursion)
{
    const PackageManagersPtr managers(veltrane::NewPackageManager("m", nullptr));
    managers->patch_avail = veltrane::NewPackageItems(std::vector<veltrane::Package>(1'000'000, {"a", "1", "all"}));
    EXPECT_STREQ(managers->patch_avail->next->name, "a");
}
