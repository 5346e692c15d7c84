// What the run of a policy makes of promises about packages, and of the inventories that it reports.
#include "libveltrane/package_keeper.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include <veltrane/owned.h>
#include <veltrane/packages.h>

#include "support/fake_apt.h"
#include "support/log_capture.h"

using testing::ElementsAre;
using testing::Eq;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Optional;
using testing::Pair;
using veltrane::Package;
using veltrane::PackageKeeper;
using veltrane::PackageManagersPtr;
using veltrane::PackageVerdict;
using veltrane::PackageWish;
using veltrane::ReadInventory;

namespace {

constexpr char kUpdate[] = "Inst bash [5.2.15-2+b8] (5.2.16 Debian:12/stable [amd64])\n";

class Keeper : public testing::Test {
  protected:
    Keeper() : ctx(EvalContextNew()) {}

    static PackageWish Present(const std::string &name, const std::string &version = "",
                               const std::string &architecture = "")
    {
        return {name, version, architecture, true, "apt"};
    }

    static PackageWish Absent(const std::string &name, const std::string &version = "",
                              const std::string &architecture = "")
    {
        return {name, version, architecture, false, "apt"};
    }

    void Expect(const PackageWish &wish, PromiseResult result, const std::string &message)
    {
        const PackageVerdict verdict = keeper.Keep(wish);
        EXPECT_EQ(verdict.result, result) << wish.name;
        EXPECT_EQ(verdict.message, message);
    }

    void AskForInventory(const char *modules = "apt")
    {
        EvalContextVariableControlCommonPut(ctx.get(), COMMON_CONTROL_PACKAGE_INVENTORY, modules);
    }

    // As a run of its own would report.
    PackageManagersPtr ReportAnew()
    {
        PackageKeeper next(apt.Settings());
        return next.Report(ctx.get());
    }

    long Calls() const
    {
        const std::string calls = apt.Read("calls");
        return std::count(calls.begin(), calls.end(), '\n');
    }

    std::string AptGet() const { return "'" + apt.Path("apt-get") + "'"; }
    std::string DpkgQuery() const { return "'" + apt.Path("dpkg-query") + "'"; }

    static std::vector<std::string> Names(const PackageItem *item)
    {
        std::vector<std::string> names;
        for (; item != nullptr; item = item->next) {
            names.push_back(std::string(item->name) + " " + item->version + " " + item->arch);
        }
        return names;
    }

    WorkDirectory work;
    FakeApt apt;
    veltrane::EvalContextPtr ctx;
    PackageKeeper keeper{apt.Settings()};
};

using KeeperPromise = Keeper;
using KeeperReport = Keeper;

}  // namespace

TEST_F(KeeperPromise, IsKeptByWhatIsInstalled)
{
    Expect(Present("bash"), PROMISE_RESULT_NOOP, "Package 'bash' is installed");
    Expect(Present("bash", "5.2.15-2+b8"), PROMISE_RESULT_NOOP, "Package 'bash' 5.2.15-2+b8 is installed");
    Expect(Present("bash", "", "amd64"), PROMISE_RESULT_NOOP, "Package 'bash' (amd64) is installed");
    Expect(Present("tzdata", "", "amd64"), PROMISE_RESULT_NOOP, "Package 'tzdata' (amd64) is installed");
    EXPECT_EQ(Calls(), 0);
}

TEST_F(KeeperPromise, IsKeptByWhatIsNotInstalled)
{
    Expect(Absent("telnetd"), PROMISE_RESULT_NOOP, "Package 'telnetd' is not installed");
    Expect(Absent("bash", "4.0"), PROMISE_RESULT_NOOP, "Package 'bash' 4.0 is not installed");
    Expect(Absent("bash", "", "i386"), PROMISE_RESULT_NOOP, "Package 'bash' (i386) is not installed");
    EXPECT_EQ(Calls(), 0);
}

TEST_F(KeeperPromise, InstallsWhatIsMissing)
{
    apt.Write("simulated", "Inst zsh (5.9 D [amd64])\n");
    apt.AfterChange({"bash 5.2.15-2+b8 amd64", "zsh 5.9 amd64"});

    Expect(Present("zsh"), PROMISE_RESULT_CHANGE, "Package 'zsh' was installed");
    Expect(Present("zsh"), PROMISE_RESULT_NOOP, "Package 'zsh' is installed");
    EXPECT_EQ(Calls(), 2) << "a look, and the change";
}

TEST_F(KeeperPromise, UpdatesWhatHasAnotherVersion)
{
    apt.Write("simulated", "Inst bash [5.2.15-2+b8] (5.3 D [amd64])\n");
    apt.AfterChange({"bash 5.3 amd64"});

    Expect(Present("bash", "5.3"), PROMISE_RESULT_CHANGE, "Package 'bash' 5.3 was updated");
    EXPECT_THAT(apt.Read("calls"), HasSubstr(" bash=5.3\n"));
}

TEST_F(KeeperPromise, RemovesWhatIsInstalled)
{
    apt.AfterChange({"dpkg 1.21.22 amd64"});

    Expect(Absent("bash"), PROMISE_RESULT_CHANGE, "Package 'bash' was removed");
    EXPECT_THAT(apt.Read("calls"), HasSubstr(" remove -- bash:amd64\n"));
}

TEST_F(KeeperPromise, RemovesEachArchitecture)
{
    apt.Installed({"libc6 2.36 amd64", "libc6 2.36 i386", "bash 5 amd64"});
    apt.Script("apt-get",
               "printf '%s\\n' \"$*\" >>calls\nfor last; do :; done\n"
               "grep -v \"libc6.*${last#*:}\" installed >rest\nmv rest installed\n");

    Expect(Absent("libc6"), PROMISE_RESULT_CHANGE, "Package 'libc6' was removed");
    EXPECT_THAT(apt.Read("calls"), HasSubstr(" remove -- libc6:amd64\n"));
    EXPECT_THAT(apt.Read("calls"), HasSubstr(" remove -- libc6:i386\n"));
    EXPECT_EQ(apt.Read("installed"), "installed\tbash\t5\tamd64\n");
}

TEST_F(KeeperPromise, IsNotKeptWhenTheManagerFails)
{
    apt.Script("apt-get", "echo 'E: Unable to locate package zsh' >&2\nexit 100\n");
    Expect(Present("zsh"), PROMISE_RESULT_FAIL,
           "Package 'zsh' is not installed: " + AptGet() + " failed: exit status 100: E: Unable to locate package zsh");
    apt.Script("apt-get", "echo 'E: held' >&2\nexit 100\n");
    Expect(Absent("bash"), PROMISE_RESULT_FAIL,
           "Package 'bash' is not removed: " + AptGet() + " failed: exit status 100: E: held");
}

TEST_F(KeeperPromise, IsNotKeptWhenTheManagerChangesNothing)
{
    apt.Write("simulated", "Inst zsh (5.9 D [amd64])\n");
    Expect(Present("zsh"), PROMISE_RESULT_FAIL,
           "Package 'zsh' is not installed: the package manager ended well, and it is still not there");
    Expect(Absent("bash"), PROMISE_RESULT_FAIL,
           "Package 'bash' is not removed: the package manager ended well, and it is still installed");
}

TEST_F(KeeperPromise, IsNotJudgedWhenTheListingFails)
{
    apt.Script("dpkg-query", "exit 2\n");
    const std::string why = DpkgQuery() + " failed: exit status 2";
    Expect(Present("bash"), PROMISE_RESULT_FAIL, "Package 'bash': what is installed cannot be listed: " + why);
    Expect(Absent("bash"), PROMISE_RESULT_FAIL, "Package 'bash': what is installed cannot be listed: " + why);
    EXPECT_EQ(Calls(), 0);

    apt.Script("dpkg-query", "cat installed\n");
    Expect(Present("bash"), PROMISE_RESULT_NOOP, "Package 'bash' is installed");
}

TEST_F(KeeperPromise, IsNotKeptWhenNobodyCanTellWhatTheManagerDid)
{
    apt.Write("simulated", "Inst zsh (5.9 D [amd64])\n");
    apt.Write("change", "echo exit 3 >>dpkg-query; sed -i 's/^cat.*//' dpkg-query\n");
    Expect(Present("zsh"), PROMISE_RESULT_FAIL,
           "Package 'zsh' is not installed: " + DpkgQuery() + " failed: exit status 3");
}

TEST_F(KeeperPromise, IsNeverRepairedOnAnOldView)
{
    Expect(Present("bash"), PROMISE_RESULT_NOOP, "Package 'bash' is installed");
    apt.Installed({"bash 5.2.15-2+b8 amd64", "zsh 5.9 amd64"});  // by somebody else

    Expect(Present("zsh"), PROMISE_RESULT_NOOP, "Package 'zsh' is installed");
    EXPECT_EQ(Calls(), 0);
}

TEST_F(KeeperPromise, ThatCannotBeAskedForIsNotKept)
{
    Expect(Present("--purge"), PROMISE_RESULT_FAIL, "Package '--purge' is not installed: this is no name of a package");
    Expect(Absent("x*"), PROMISE_RESULT_FAIL, "Package 'x*' is not removed: this is no name of a package");
    Expect(Present("zsh", "1 2"), PROMISE_RESULT_FAIL,
           "Package 'zsh' 1 2 is not installed: '1 2' is no version of a package");
    Expect(Present("zsh", "", "AMD"), PROMISE_RESULT_FAIL,
           "Package 'zsh' (AMD) is not installed: 'AMD' is no architecture");
    Expect({"zsh", "", "", true, "snap"}, PROMISE_RESULT_FAIL,
           "Package 'zsh' is not installed: there is no package module 'snap'");
    EXPECT_EQ(Calls(), 0);
}

TEST_F(KeeperReport, MakesBothInventoriesThatThePolicyAsksFor)
{
    AskForInventory();
    apt.Write("updates", kUpdate);
    LogCapture log;

    const PackageManagersPtr managers = keeper.Report(ctx.get());

    EXPECT_THAT(ReadInventory(dbid_packages_installed, "apt"),
                Optional(ElementsAre(Package{"bash", "5.2.15-2+b8", "amd64"}, Package{"dpkg", "1.21.22", "amd64"},
                                     Package{"tzdata", "2024a-0+deb12u1", "all"})));
    EXPECT_THAT(ReadInventory(dbid_packages_updates, "apt"), Optional(ElementsAre(Package{"bash", "5.2.16", "amd64"})));
    ASSERT_NE(managers, nullptr);
    EXPECT_EQ(managers->manager, apt.Path("apt-get"));
    EXPECT_THAT(Names(managers->patch_avail), ElementsAre("bash 5.2.16 amd64"));
    EXPECT_THAT(Names(managers->patch_list), IsEmpty());
    EXPECT_EQ(managers->next, nullptr);
    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_VERBOSE, "Package module 'apt' lists 3 installed packages"),
                                       Pair(LOG_LEVEL_VERBOSE, "Package module 'apt' lists 1 updates")));
}

TEST_F(KeeperReport, MakesNoneWhenThePolicyAsksForNone)
{
    LogCapture log;
    EXPECT_EQ(keeper.Report(ctx.get()), nullptr);
    EXPECT_EQ(ReadInventory(dbid_packages_installed, "apt"), std::nullopt);
    EXPECT_EQ(Calls(), 0);
    EXPECT_THAT(log.lines, IsEmpty());
}

TEST_F(KeeperReport, SaysThatThereAreNoPackageLists)
{
    AskForInventory();
    std::filesystem::remove_all(apt.Path("lists"));
    LogCapture log;

    keeper.Report(ctx.get());

    EXPECT_THAT(ReadInventory(dbid_packages_updates, "apt"), Optional(IsEmpty()));
    EXPECT_TRUE(log.Has(LOG_LEVEL_VERBOSE, "Package module 'apt' has no package lists, so no updates are known"));
    EXPECT_EQ(std::count_if(log.lines.begin(), log.lines.end(),
                            [](const auto &line) { return line.second.find("no package lists") != std::string::npos; }),
              1);
}

TEST_F(KeeperReport, LeavesTheInventoryOfInstalledPackagesWhenListingFails)
{
    AskForInventory();
    ReportAnew();
    const auto before = ReadInventory(dbid_packages_installed, "apt");
    apt.Script("dpkg-query", "head -n 1 installed; printf 'installed\\tdpkg\\t1.21.22\\tamd'\n");
    LogCapture log;

    keeper.Report(ctx.get());

    EXPECT_EQ(ReadInventory(dbid_packages_installed, "apt"), before);
    EXPECT_TRUE(log.Has(LOG_LEVEL_ERR, "Package module 'apt' could not list what is installed: " + DpkgQuery() +
                                           " stopped in the middle of a line; its inventory stays as it was"));
}

TEST_F(KeeperReport, MakesNoInventoryWhenTheFirstListingFails)
{
    AskForInventory();
    apt.Script("dpkg-query", "exit 1\n");
    apt.Script("apt-get", "exit 1\n");

    keeper.Report(ctx.get());

    EXPECT_FALSE(std::filesystem::exists(work.State("packages_installed_apt.lmdb"))) << "never filled is not empty";
    EXPECT_FALSE(std::filesystem::exists(work.State("packages_updates_apt.lmdb")));
}

TEST_F(KeeperReport, LeavesTheInventoryOfUpdatesWhenListingFails)
{
    AskForInventory();
    apt.Write("updates", kUpdate);
    ReportAnew();
    apt.Script("apt-get", "echo 'E: broken' >&2\nexit 100\n");
    LogCapture log;

    const PackageManagersPtr managers = keeper.Report(ctx.get());

    EXPECT_THAT(ReadInventory(dbid_packages_updates, "apt"), Optional(ElementsAre(Package{"bash", "5.2.16", "amd64"})));
    EXPECT_THAT(Names(managers->patch_avail), ElementsAre("bash 5.2.16 amd64"));
    EXPECT_TRUE(log.Has(LOG_LEVEL_ERR, "Package module 'apt' could not list the updates: " + AptGet() +
                                           " failed: exit status 100: E: broken; its inventory stays as it was"));
}

TEST_F(KeeperReport, WorksOutUpdatesAgainOnlyWhenSomethingTheyDependOnHasChanged)
{
    AskForInventory();
    apt.Write("updates", kUpdate);
    ReportAnew();
    EXPECT_EQ(Calls(), 1);

    EXPECT_THAT(Names(ReportAnew()->patch_avail), ElementsAre("bash 5.2.16 amd64"));
    EXPECT_EQ(Calls(), 1);

    apt.Write("updates", "");
    apt.Write("status", "something was installed");
    EXPECT_THAT(Names(ReportAnew()->patch_avail), IsEmpty());
    EXPECT_EQ(Calls(), 2);
    EXPECT_THAT(Names(ReportAnew()->patch_avail), IsEmpty());
    EXPECT_EQ(Calls(), 2) << "that there are none holds as well";
}

TEST_F(KeeperReport, AModuleThatIsNoneIsNamedAndTheOthersAreReported)
{
    AskForInventory("snap,apt,apt");
    LogCapture log;

    keeper.Report(ctx.get());

    EXPECT_TRUE(log.Has(LOG_LEVEL_ERR, "There is no package module 'snap': it has no inventory"));
    EXPECT_NE(ReadInventory(dbid_packages_installed, "apt"), std::nullopt);
    EXPECT_EQ(ReadInventory(dbid_packages_installed, "snap"), std::nullopt);
    EXPECT_EQ(Calls(), 1) << "a module named twice is asked once";
}

TEST_F(KeeperReport, TellsWhatThisRunUpdatedAndNotWhatItInstalled)
{
    apt.Write("simulated", "Inst zsh (5.9 D [amd64])\n");
    apt.AfterChange({"bash 5.3 amd64", "dpkg 1.21.22 amd64", "tzdata 2024a-0+deb12u1 all", "zsh 5.9 amd64"});
    ASSERT_EQ(keeper.Keep(Present("zsh")).result, PROMISE_RESULT_CHANGE);

    const PackageManagersPtr managers = keeper.Report(ctx.get());

    ASSERT_NE(managers, nullptr) << "also without an inventory";
    EXPECT_THAT(Names(managers->patch_list), ElementsAre("bash 5.3 amd64")) << "it came along";
    EXPECT_THAT(Names(managers->patch_avail), IsEmpty());
}

TEST_F(KeeperReport, HasWhatOthersInstalledSinceAPromiseAsked)
{
    AskForInventory();
    ASSERT_EQ(keeper.Keep(Present("bash")).result, PROMISE_RESULT_NOOP);
    apt.Installed({"bash 5.4 amd64"});

    keeper.Report(ctx.get());

    EXPECT_THAT(ReadInventory(dbid_packages_installed, "apt"), Optional(ElementsAre(Package{"bash", "5.4", "amd64"})));
}

TEST_F(KeeperReport, SaysThatAnInventoryCannotBeStored)
{
    AskForInventory();
    const std::string path = work.State("packages_installed_apt.lmdb");
    std::filesystem::create_directory(path);
    LogCapture log;

    keeper.Report(ctx.get());

    const auto errors = log.UpTo(LOG_LEVEL_ERR);
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_THAT(errors[0].second, testing::StartsWith("Could not store the inventory of package module 'apt' in '" +
                                                      path + "'. (write: "));
}
