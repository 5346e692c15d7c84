// The real command of a package manager, and the names of the legacy inventories.
#include <veltrane/packages.h>

#include <gtest/gtest.h>

#include <veltrane/owned.h>

#include "support/work_dir.h"

namespace {

std::string Real(const char *manager)
{
    const veltrane::TextPtr command(RealPackageManager(manager));
    return command.get();
}

}  // namespace

TEST(RealPackageManager, IsTheCommandWithoutArguments)
{
    EXPECT_EQ(Real("/usr/bin/apt-get --yes -q"), "/usr/bin/apt-get");
    EXPECT_EQ(Real("apt-get"), "apt-get");
    EXPECT_EQ(Real("  /usr/bin/apt-get\tinstall"), "/usr/bin/apt-get");
}

TEST(RealPackageManager, IsWhatStandsBehindSettings)
{
    EXPECT_EQ(Real("LC_ALL=C DEBIAN_FRONTEND=noninteractive /usr/bin/apt-get -y"), "/usr/bin/apt-get");
    EXPECT_EQ(Real("A='x y' apt-get"), "apt-get");
    EXPECT_EQ(Real("/opt/a=b/apt-get -y"), "/opt/a=b/apt-get") << "no name of a setting";
    EXPECT_EQ(Real("=x apt-get"), "=x");
}

TEST(RealPackageManager, IsWhatEnvRuns)
{
    EXPECT_EQ(Real("env apt-get -y"), "apt-get");
    EXPECT_EQ(Real("/usr/bin/env LC_ALL=C /usr/bin/apt-get"), "/usr/bin/apt-get");
    EXPECT_EQ(Real("A=1 env -i B=2 apt-get"), "apt-get");
    EXPECT_EQ(Real("environ -i"), "environ");
}

TEST(RealPackageManager, OfNoCommandIsEmpty)
{
    EXPECT_EQ(Real(""), "");
    EXPECT_EQ(Real("   "), "");
    EXPECT_EQ(Real("A=1 env B=2"), "");
}

TEST(RealPackageManager, KeepsAPathWithABlankTogether)
{
    EXPECT_EQ(Real("'/opt/my tools/pkg' -y"), "/opt/my tools/pkg");
    EXPECT_EQ(Real("'/opt/my tools"), "'/opt/my tools") << "a quote that stays open: as it stands";
}

TEST(SoftwareFilenames, AreInTheStateDirectory)
{
    const WorkDirectory work;
    char buffer[4096];

    EXPECT_EQ(GetSoftwareCacheFilename(buffer, sizeof(buffer)), buffer);
    EXPECT_EQ(std::string(buffer), work.State("software_inventory.csv"));
    EXPECT_EQ(GetSoftwarePatchesFilename(buffer, sizeof(buffer)), buffer);
    EXPECT_EQ(std::string(buffer), work.State("software_patches_avail.csv"));
}

TEST(SoftwareFilenames, AreCutAtTheBuffersEnd)
{
    const WorkDirectory work;
    char buffer[5] = "xxxx";

    GetSoftwareCacheFilename(buffer, 4);

    EXPECT_EQ(std::string(buffer), work.State("").string().substr(0, 3));
    EXPECT_EQ(buffer[4], '\0');
}
