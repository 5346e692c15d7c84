// Promises about packages as an operator meets them: a real agent, beside package programs of the test's own that come
// first in its PATH; and once beside the machine's own.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>

#include "libveltrane/package_inventory.h"
#include "support/agent_host.h"
#include "support/fake_apt.h"

using testing::Contains;
using testing::ElementsAre;
using testing::Field;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::Optional;
using veltrane::Package;
using veltrane::ReadInventory;

namespace {

constexpr char kInventory[] = "control: {common: {package_inventory: [apt]}}\n";
constexpr char kUpdate[] = "Inst bash [5.2.15-2+b8] (5.2.16 Debian:12/stable [amd64])\n";

class PackagesPromise : public testing::Test {
  protected:
    PackagesPromise() { host.environment["PATH"] = apt.directory.path.string() + ":" + getenv("PATH"); }

    ProcessResult Run(const std::string &promises, const std::string &control = "",
                      std::vector<std::string> arguments = {"-I"})
    {
        host.WritePolicy(promises, control);
        return host.Run(std::move(arguments));
    }

    std::optional<std::vector<Package>> Inventory(dbid db)
    {
        SetWorkDir(host.work.c_str());
        return ReadInventory(db, "apt");
    }

    std::string State(const std::string &name) { return ReadFile(host.work / "state" / name); }

    FakeApt apt;
    AgentHost host;
};

}  // namespace

TEST_F(PackagesPromise, IsKeptSilentlyByAMachineThatIsAsPromised)
{
    const ProcessResult result =
        Run("      - packages: bash\n        policy: present\n        classes: {kept: as_promised}\n"
            "      - packages: telnetd\n        policy: absent\n        module: apt\n"
            "      - reports: kept\n        if: as_promised\n");

    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "R: kept\n");
    EXPECT_THAT(result.err, IsEmpty());
    EXPECT_EQ(apt.Read("calls"), "") << "nothing is asked of the manager";
}

TEST_F(PackagesPromise, InstallsAndRemoves)
{
    apt.Write("simulated", "Inst zsh (5.9 D [amd64])\n");
    apt.Write("change",
              "case \"$*\" in\n"
              "*' install '*) printf 'installed\\tzsh\\t5.9\\tamd64\\n' >>installed ;;\n"
              "*' remove '*) grep -v tzdata installed >rest; mv rest installed ;;\n"
              "esac\n");
    const std::string promises =
        "      - packages: zsh\n        classes: {repaired: installed_it}\n"
        "      - packages: tzdata\n        policy: absent\n        classes: {repaired: removed_it}\n"
        "      - reports: both\n        if: installed_it.removed_it\n";

    const ProcessResult first = Run(promises);
    EXPECT_EQ(first.out, "R: both\n");
    EXPECT_EQ(first.err, "    info: Package 'zsh' was installed\n    info: Package 'tzdata' was removed\n");

    const ProcessResult second = Run(promises);
    EXPECT_EQ(second.out, "");
    EXPECT_THAT(second.err, IsEmpty()) << "and once is enough";
}

TEST_F(PackagesPromise, IsNotKeptWithTheManagersLastLine)
{
    apt.Script("apt-get", "echo 'Reading package lists...'\necho 'E: Unable to locate package zsh' >&2\nexit 100\n");

    const ProcessResult result =
        Run("      - packages: zsh\n        classes: {failed: no_zsh}\n      - reports: no\n        if: no_zsh\n");

    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "R: no\n");
    EXPECT_EQ(
        result.err,
        "   error: Package 'zsh' is not installed: 'apt-get' failed: exit status 100: E: Unable to locate package "
        "zsh\n");
}

TEST_F(PackagesPromise, AsksForVersionAndArchitecture)
{
    apt.Write("simulated", "Inst bash (5.3 D [amd64])\n");
    apt.AfterChange({"bash 5.3 amd64"});

    const ProcessResult result = Run("      - packages: bash\n        version: \"5.3\"\n        architecture: amd64\n");

    EXPECT_EQ(result.err, "    info: Package 'bash' 5.3 (amd64) was updated\n");
    EXPECT_THAT(apt.Read("calls"), HasSubstr(" install --no-remove -- bash:amd64=5.3\n"));
}

TEST_F(PackagesPromise, BelongsToTheFirstModuleOfTheInventory)
{
    const ProcessResult result =
        Run("      - packages: bash\n", "control: {common: {package_inventory: [snap, apt]}}\n");

    EXPECT_THAT(result.err,
                HasSubstr("   error: Package 'bash' is not installed: there is no package module 'snap'\n"));
    EXPECT_THAT(result.err, HasSubstr("   error: There is no package module 'snap': it has no inventory\n"));
    EXPECT_NE(Inventory(dbid_packages_installed), std::nullopt);
}

TEST_F(PackagesPromise, LeavesInventoriesAloneUnlessThePolicyNamesThem)
{
    EXPECT_EQ(Run("      - packages: bash\n").status, 0);
    EXPECT_EQ(Inventory(dbid_packages_installed), std::nullopt);
    EXPECT_EQ(Inventory(dbid_packages_updates), std::nullopt);
}

TEST_F(PackagesPromise, TheInventoriesTellOfTheMachineAfterTheRun)
{
    apt.Write("updates", kUpdate);
    apt.Write("simulated", "Inst zsh (5.9 D [amd64])\n");
    apt.AfterChange({"bash 5.2.15-2+b8 amd64", "zsh 5.9 amd64"});

    EXPECT_EQ(Run("      - packages: zsh\n", kInventory).status, 0);

    EXPECT_THAT(Inventory(dbid_packages_installed),
                Optional(ElementsAre(Package{"bash", "5.2.15-2+b8", "amd64"}, Package{"zsh", "5.9", "amd64"})));
    EXPECT_THAT(Inventory(dbid_packages_updates), Optional(ElementsAre(Package{"bash", "5.2.16", "amd64"})));
}

TEST_F(PackagesPromise, AModuleThatFailsLeavesItsInventoriesAndTheRunGoesOn)
{
    apt.Write("updates", kUpdate);
    ASSERT_EQ(Run("      - reports: x\n", kInventory).status, 0);
    const auto installed = Inventory(dbid_packages_installed);
    apt.Script("dpkg-query", "echo garbage\n");
    apt.Script("apt-get", "kill -9 $$\n");

    const ProcessResult result = Run("      - reports: x\n", kInventory);

    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "R: x\n");
    EXPECT_EQ(result.err,
              "   error: Package module 'apt' could not list what is installed: 'dpkg-query' printed what is no "
              "package: 'garbage'; its inventory stays as it was\n"
              "   error: Package module 'apt' could not list the updates: 'apt-get' failed: signal 9; its inventory "
              "stays as it was\n");
    EXPECT_EQ(Inventory(dbid_packages_installed), installed);
    EXPECT_THAT(Inventory(dbid_packages_updates), Optional(ElementsAre(Package{"bash", "5.2.16", "amd64"})));
}

TEST_F(PackagesPromise, AProgramThatOthersMayWriteIsNotRun)
{
    apt.Script("dpkg-query", "exit 0\n");
    using std::filesystem::perms;
    host.environment["PATH"] = apt.directory.path.string() + ":/usr/bin:/bin";
    std::filesystem::permissions(apt.Path("dpkg-query"), perms::owner_all | perms::others_write);
    const std::string path = std::filesystem::canonical(apt.Path("dpkg-query"));

    const ProcessResult result = Run("      - packages: bash\n");

    EXPECT_EQ(result.err, "   error: Package 'bash': what is installed cannot be listed: 'dpkg-query' is not run: '" +
                              path + "' is writable by other users\n");
}

TEST_F(PackagesPromise, WithThePlugInThePatchFilesTellOfOffersAndOfWhatWasUpdated)
{
    host.InstallPlugIn();
    apt.Write("updates", "Inst tzdata [2024a-0+deb12u1] (2025a Debian:12/stable [all])\n");
    apt.Write("simulated", "Inst bash (5.3 D [amd64])\n");
    apt.AfterChange({"bash 5.3 amd64", "tzdata 2024a-0+deb12u1 all"});

    EXPECT_EQ(Run("      - packages: bash\n        version: \"5.3\"\n", kInventory).status, 0);
    EXPECT_EQ(State("software_patches_avail.csv"), "tzdata,2025a,all,apt-get\r\n");
    EXPECT_EQ(State("software_patch_status.csv"), "bash,5.3,amd64,apt-get\r\n");

    EXPECT_EQ(Run("      - packages: bash\n", kInventory).status, 0);
    EXPECT_EQ(State("software_patches_avail.csv"), "tzdata,2025a,all,apt-get\r\n");
    EXPECT_EQ(State("software_patch_status.csv"), "") << "this run updated nothing";
}

TEST_F(PackagesPromise, WithThePlugInBothReportsAreMadeOfTheInventories)
{
    host.InstallPlugIn();
    apt.Write("updates", kUpdate);
    EXPECT_EQ(Run("      - reports: x\n", kInventory).status, 0);
    EXPECT_THAT(State("previous_state/software.cache"), HasSubstr("bash"));
    EXPECT_THAT(State("previous_state/patch.cache"), HasSubstr("5.2.16"));
}

TEST(PackagesPromiseOnThisMachine, IsJudgedByItsOwnPackages)
{
    AgentHost host;
    host.WritePolicy(
        "      - packages: dpkg\n        classes: {kept: has_dpkg}\n"
        "      - packages: no-such-package-anywhere\n        policy: absent\n        classes: {kept: has_not}\n"
        "      - reports: right\n        if: has_dpkg.has_not\n",
        kInventory);

    const ProcessResult result = host.Run();

    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "R: right\n");
    SetWorkDir(host.work.c_str());
    EXPECT_THAT(ReadInventory(dbid_packages_installed, "apt"), Optional(Contains(Field(&Package::name, "dpkg"))));
    EXPECT_THAT(ReadInventory(dbid_packages_updates, "apt"), Not(testing::Eq(std::nullopt))) << result.err;
}
