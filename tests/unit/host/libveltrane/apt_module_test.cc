// The package module "apt": what it makes of what its programs print, do and refuse; and the machine's own dpkg.
#include "libveltrane/apt_module.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>

#include "support/fake_apt.h"

using testing::Contains;
using testing::ElementsAre;
using testing::EndsWith;
using testing::Field;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using testing::StartsWith;
using veltrane::AptModule;
using veltrane::AptSettings;
using veltrane::Package;
using veltrane::PackageListing;

namespace {

class Apt : public testing::Test {
  protected:
    AptModule Module() const { return AptModule(apt.Settings()); }

    PackageListing InstalledFrom(const std::string &output)
    {
        apt.Write("installed", output);
        return Module().Installed();
    }

    PackageListing UpdatesFrom(const std::string &output)
    {
        apt.Write("updates", output);
        return Module().Updates();
    }

    std::string DpkgQuery() const { return "'" + apt.Path("dpkg-query") + "'"; }
    std::string AptGet() const { return "'" + apt.Path("apt-get") + "'"; }

    FakeApt apt;
};

using AptInstalled = Apt;
using AptUpdates = Apt;
using AptInstall = Apt;
using AptRemove = Apt;
using AptPrograms = Apt;

}  // namespace

TEST_F(AptInstalled, ListsWhatIsInstalledAndConfigured)
{
    const PackageListing listing = InstalledFrom(
        "installed\tbash\t5.2\tamd64\n"
        "config-files\tgone\t1\tamd64\n"
        "not-installed\tnever\t\t\n"
        "half-installed\ta\t1\tall\n"
        "unpacked\tb\t1\tall\n"
        "half-configured\tc\t1\tall\n"
        "triggers-pending\tman-db\t2\tamd64\n"
        "triggers-awaited\tlibc-bin\t3\tamd64\n"
        "installed\tlibc6\t2.36\ti386\n");

    EXPECT_EQ(listing.trouble, "");
    EXPECT_THAT(listing.packages, ElementsAre(Package{"bash", "5.2", "amd64"}, Package{"man-db", "2", "amd64"},
                                              Package{"libc-bin", "3", "amd64"}, Package{"libc6", "2.36", "i386"}));
}

TEST_F(AptInstalled, TakesTextsAsTheyAre)
{
    EXPECT_THAT(InstalledFrom("installed\ta,\"b\"\t1 2\t\xc3\xa4\n").packages,
                ElementsAre(Package{"a,\"b\"", "1 2", "\xc3\xa4"}));
}

TEST_F(AptInstalled, IsRefusedWholeWhenALineIsNoPackage)
{
    const std::string good = "installed\tbash\t5.2\tamd64\n";
    for (const std::string &line :
         {std::string("garbage"), std::string(""), std::string("installed\tbash\t5.2"),
          std::string("installed\tbash\t5.2\tamd64\tmore"), std::string("INSTALLED\tbash\t5.2\tamd64"),
          std::string("installed\t\t5.2\tamd64"), std::string("installed\tbash\t\tamd64"),
          std::string("installed\tbash\t5.2\t"), "installed\t" + std::string(1025, 'x') + "\t1\tall",
          std::string("installed\tba\001sh\t5.2\tamd64"), std::string("installed\tba\0sh\t5.2\tamd64", 26)}) {
        const PackageListing listing = InstalledFrom(good + line + "\n" + good);
        EXPECT_THAT(listing.trouble, StartsWith(DpkgQuery() + " printed what is no package: '")) << line;
        EXPECT_THAT(listing.packages, IsEmpty()) << line;
    }
    EXPECT_EQ(InstalledFrom(good + "what\001is this\n").trouble,
              DpkgQuery() + " printed what is no package: 'what is this'");
}

TEST_F(AptInstalled, IsRefusedWhenItsLastLineIsCutOff)
{
    EXPECT_EQ(InstalledFrom("installed\tbash\t5.2\tamd64\ninstalled\tdpkg\t1.21\tamd").trouble,
              DpkgQuery() + " stopped in the middle of a line");
}

TEST_F(AptInstalled, OfNoPackageAtAllIsNoListing)
{
    EXPECT_EQ(InstalledFrom("").trouble, DpkgQuery() + " lists no package at all");
    EXPECT_EQ(InstalledFrom("config-files\tgone\t1\tall\n").trouble, DpkgQuery() + " lists no package at all");
}

TEST_F(AptInstalled, IsRefusedWhenTheProgramFailsAfterAll)
{
    apt.Script("dpkg-query", "cat installed\necho 'first' >&2\necho 'error: database is locked' >&2\nexit 2\n");
    const PackageListing listing = Module().Installed();
    EXPECT_EQ(listing.trouble, DpkgQuery() + " failed: exit status 2: error: database is locked");
    EXPECT_THAT(listing.packages, IsEmpty());

    apt.Script("dpkg-query", "cat installed\nkill -9 $$\n");
    EXPECT_EQ(Module().Installed().trouble, DpkgQuery() + " failed: signal 9: installed tzdata 2024a-0+deb12u1 all")
        << "and without words of its own, with the last it said";
}

TEST_F(AptInstalled, IsRefusedWhenItIsTooLong)
{
    apt.Script("dpkg-query", "head -c 70000000 /dev/zero\n");
    EXPECT_EQ(Module().Installed().trouble, DpkgQuery() + " printed more than can be listed");
}

TEST_F(AptPrograms, ThatHangAreKilledWhenTheirTimeIsOver)
{
    AptSettings settings = apt.Settings();
    settings.list_seconds = 1;
    settings.change_seconds = 1;
    apt.Script("dpkg-query", "cat installed\nexec sleep 1000\n");
    apt.Script("apt-get", "case \"$1\" in -s) echo 'Inst x (1 A [all])' ;; *) exec sleep 1000 ;; esac\n");
    const AptModule module(settings);

    EXPECT_THAT(module.Installed().trouble, StartsWith(DpkgQuery() + " failed: timed out"));
    EXPECT_EQ(module.Install({"x", "", ""}), AptGet() + " failed: timed out");
}

TEST_F(AptPrograms, ThatAreNotThereAreNotInstalled)
{
    AptSettings settings = apt.Settings();
    settings.dpkg_query = "/nonexistent/dpkg-query";
    settings.apt_get = "no-such-program-anywhere";
    const AptModule module(settings);

    EXPECT_EQ(module.Installed().trouble, "'/nonexistent/dpkg-query' is not installed");
    EXPECT_EQ(module.Updates().trouble, "'no-such-program-anywhere' is not installed");
    EXPECT_EQ(module.Install({"x", "", ""}), "'no-such-program-anywhere' is not installed");
    EXPECT_EQ(module.Remove({"x", "", ""}), "'no-such-program-anywhere' is not installed");
    EXPECT_EQ(module.ManagerProgram(), "no-such-program-anywhere");
}

TEST_F(AptPrograms, ThatAreNoProgramsAreNotInstalled)
{
    AptSettings settings = apt.Settings();
    settings.dpkg_query = apt.Path("lists");  // a directory
    settings.apt_get = apt.Path("updates");   // a file that cannot be executed
    const AptModule module(settings);

    EXPECT_THAT(module.Installed().trouble, EndsWith("' is not installed"));
    EXPECT_THAT(module.Updates().trouble, EndsWith("' is not installed"));
}

TEST_F(AptPrograms, ThatOthersMayWriteAreNotRun)
{
    using std::filesystem::perms;
    std::filesystem::permissions(apt.Path("dpkg-query"), perms::owner_all | perms::others_write);
    const std::string path = std::filesystem::canonical(apt.Path("dpkg-query"));

    EXPECT_EQ(Module().Installed().trouble, DpkgQuery() + " is not run: '" + path + "' is writable by other users");
}

TEST_F(AptPrograms, RunInTheCLocaleAndWithAFullPath)
{
    apt.Script("apt-get", "env >environment\n");
    setenv("LC_ALL", "de_DE.UTF-8", 1);
    const std::string path = getenv("PATH");
    setenv("PATH", "/usr/bin:/bin", 1);
    const PackageListing listing = Module().Updates();
    unsetenv("LC_ALL");
    setenv("PATH", path.c_str(), 1);

    EXPECT_TRUE(listing.Good());
    const std::string environment = "\n" + apt.Read("environment");
    EXPECT_THAT(environment, HasSubstr("\nLC_ALL=C\n"));
    EXPECT_THAT(environment, HasSubstr("\nDEBIAN_FRONTEND=noninteractive\n"));
    EXPECT_THAT(environment, HasSubstr("\nPATH=/usr/bin:/bin:/usr/local/sbin:/usr/local/bin:/usr/sbin:/sbin\n"));
}

TEST_F(AptPrograms, AreFoundInAbsoluteDirectoriesOfThePath)
{
    AptSettings settings = apt.Settings();
    settings.dpkg_query = "dpkg-query";
    const std::string path = getenv("PATH");
    const std::filesystem::path here = std::filesystem::current_path();
    std::filesystem::current_path(apt.directory.path);
    apt.Script("only-here", "cat installed\n");

    setenv("PATH", (apt.directory.path.string() + ":" + path).c_str(), 1);
    EXPECT_THAT(AptModule(settings).Installed().packages, SizeIs(3));
    settings.dpkg_query = "only-here";
    setenv("PATH", ".::/usr/bin", 1);
    EXPECT_EQ(AptModule(settings).Installed().trouble, "'only-here' is not installed");

    setenv("PATH", path.c_str(), 1);
    std::filesystem::current_path(here);
}

TEST_F(AptUpdates, AreTheInstalledPackagesOfASimulatedUpgrade)
{
    const PackageListing listing = UpdatesFrom(
        "Reading package lists...\n"
        "The following packages will be upgraded:\n"
        "  base-files libgcrypt20\n"
        "Inst base-files [12.4+deb12u11] (12.4+deb12u15 Debian:12.15/oldstable [amd64])\n"
        "Inst libgcrypt20-dev [1.10.1-3] (1.10.1-3+deb12u1 Debian:12.15/oldstable, "
        "Debian-Security:12/oldstable-security "
        "[amd64]) []\n"
        "Inst libc6:i386 [2.36] (2.37 Some (odd) Label:1/x [i386]) [libc6:amd64 ]\n"
        "Inst new-dependency (1.0 Debian:12/stable [all])\n"
        "Remv old [1.0]\n"
        "Conf base-files (12.4+deb12u15 Debian:12.15/oldstable [amd64])\n");

    EXPECT_EQ(listing.trouble, "");
    EXPECT_THAT(listing.packages,
                ElementsAre(Package{"base-files", "12.4+deb12u15", "amd64"},
                            Package{"libgcrypt20-dev", "1.10.1-3+deb12u1", "amd64"}, Package{"libc6", "2.37", "i386"}));
    EXPECT_EQ(apt.Read("calls"), "-s -o Debug::NoLocking=1 dist-upgrade\n") << "no lock, no network, no change";
}

TEST_F(AptUpdates, AreNoneWhenThereIsNothingToUpgrade)
{
    const PackageListing listing = UpdatesFrom("Reading package lists...\n0 upgraded, 0 newly installed\n");
    EXPECT_TRUE(listing.Good());
    EXPECT_THAT(listing.packages, IsEmpty());
}

TEST_F(AptUpdates, AreRefusedWholeWhenALineIsNoPackage)
{
    const std::string good = "Inst base-files [12] (13 Debian:12/stable [amd64])\n";
    for (const char *line :
         {"Inst ", "Inst a", "Inst a [1", "Inst a [1]", "Inst a [1] (", "Inst a [1] (2", "Inst a [1] (2 Debian",
          "Inst a [1] (2 Debian)", "Inst a [1] (2 Debian [])", "Inst a [1] ( Debian [amd64])",
          "Inst  [1] (2 Debian [amd64])", "Inst a [1] (2 Debian [amd\001]) ", "Inst a (1 Debian)"}) {
        const PackageListing listing = UpdatesFrom(good + line + "\n");
        EXPECT_THAT(listing.trouble, StartsWith(AptGet() + " printed what is no package: 'Inst")) << line;
        EXPECT_THAT(listing.packages, IsEmpty()) << line;
    }
}

TEST_F(AptUpdates, AreRefusedWhenTheProgramFails)
{
    apt.Script("apt-get", "echo 'E: The package cache file is corrupted' >&2\nexit 100\n");
    EXPECT_EQ(Module().Updates().trouble,
              AptGet() + " failed: exit status 100: E: The package cache file is corrupted");
}

TEST_F(AptUpdates, ComeFromPackageLists)
{
    EXPECT_TRUE(Module().HasPackageLists());
    std::filesystem::rename(apt.Path("lists/archive_main_binary-amd64_Packages"), apt.Path("lists/x_InRelease"));
    EXPECT_FALSE(Module().HasPackageLists());
    apt.Write("lists/x_main_binary-amd64_Packages.lz4", "");
    EXPECT_TRUE(Module().HasPackageLists());
    std::filesystem::remove_all(apt.Path("lists"));
    EXPECT_FALSE(Module().HasPackageLists());
}

TEST_F(AptUpdates, DependOnWhatTheirStateTells)
{
    const std::string first = Module().UpdatesState();
    EXPECT_EQ(Module().UpdatesState(), first);

    apt.Write("lists/more_Packages", "");
    const std::string more_lists = Module().UpdatesState();
    EXPECT_NE(more_lists, first);
    apt.Write("lists/more_Packages", "Package: x\n");
    const std::string other_list = Module().UpdatesState();
    EXPECT_NE(other_list, more_lists);
    apt.Write("status", "Package: x\n");
    const std::string other_status = Module().UpdatesState();
    EXPECT_NE(other_status, other_list);
    apt.Script("apt-get", "true, another program\n");
    EXPECT_NE(Module().UpdatesState(), other_status);
}

TEST_F(AptInstall, LooksAtWhatWouldHappenAndThenDoesItWithoutAQuestion)
{
    apt.Write("simulated", "Inst libx (1 D [amd64])\nInst x (2 D [amd64])\nConf x (2 D [amd64])\n");

    EXPECT_EQ(Module().Install({"x", "", ""}), "");
    EXPECT_EQ(apt.Read("calls"),
              "-s -o Debug::NoLocking=1 install --no-remove -- x\n"
              "-y -q -o Dpkg::Options::=--force-confdef -o Dpkg::Options::=--force-confold -o DPkg::Lock::Timeout=60 "
              "install --no-remove -- x\n");
}

TEST_F(AptInstall, AsksForTheVersionAndArchitectureThatAreWanted)
{
    apt.Write("simulated", "Inst x:i386 (2 D [i386])\n");
    EXPECT_EQ(Module().Install({"x", "1:2~rc", "i386"}), "");
    EXPECT_THAT(apt.Read("calls"), EndsWith("install --no-remove -- x:i386=1:2~rc\n"));

    EXPECT_EQ(Module().Install({"x", "", "all"}), "");
    EXPECT_THAT(apt.Read("calls"), EndsWith("install --no-remove -- x\n"));
}

TEST_F(AptInstall, DoesNotDoWhatAptGetTakesForSomethingElse)
{
    // As it answers for "x-", which removes x, and for a name with a dot, which is a pattern when there is no such
    // name.
    for (const char *output : {"Remv x [1]\n", "Inst xy (1 D [all])\n", "Inst libx (1 D [all])\n", "Inst x", ""}) {
        apt.Write("simulated", output);
        EXPECT_EQ(Module().Install({"x", "", ""}), AptGet() + " would not install 'x'") << output;
    }
    EXPECT_THAT(apt.Read("calls"), Not(HasSubstr("-y")));
}

TEST_F(AptInstall, MayOnlyConfigureWhatIsUnpacked)
{
    apt.Write("simulated", "Conf x (2 D [amd64])\n");
    EXPECT_EQ(Module().Install({"x", "", ""}), "");
}

TEST_F(AptInstall, FailsWithTheLastLineOfTheProgram)
{
    apt.Script("apt-get", "echo out\necho 'E: Unable to locate package x' >&2\nexit 100\n");
    EXPECT_EQ(Module().Install({"x", "", ""}), AptGet() + " failed: exit status 100: E: Unable to locate package x");

    apt.Script("apt-get", "case \"$1\" in -s) echo 'Inst x (1 D [all])' ;; *) echo 'E: No space'; exit 100 ;; esac\n");
    EXPECT_EQ(Module().Install({"x", "", ""}), AptGet() + " failed: exit status 100: E: No space");

    apt.Script("apt-get", "printf '%400s' x >&2\nexit 1\n");
    EXPECT_THAT(Module().Install({"x", "", ""}), SizeIs((AptGet() + " failed: exit status 1: ").size() + 300))
        << "a message has its bounds";
}

TEST_F(AptRemove, RemovesThePackageAndItsArchitectureAndKeepsItsConfiguration)
{
    EXPECT_EQ(Module().Remove({"x", "1", "i386"}), "");
    EXPECT_THAT(apt.Read("calls"), EndsWith("DPkg::Lock::Timeout=60 remove -- x:i386\n"));
    EXPECT_EQ(Module().Remove({"x", "1", "all"}), "");
    EXPECT_THAT(apt.Read("calls"), EndsWith("remove -- x\n"));
}

TEST_F(AptRemove, FailsWithTheLastLineOfTheProgram)
{
    apt.Write("change", "echo 'E: Essential packages were removed' >&2\nexit 100\n");
    EXPECT_EQ(Module().Remove({"x", "1", "all"}),
              AptGet() + " failed: exit status 100: E: Essential packages were removed");
}

TEST(AptNames, AreNoOptionsAndNoPatterns)
{
    for (const char *good : {"bash", "g++", "libstdc++6", "0ad", "python3.11", "x"}) {
        EXPECT_TRUE(AptModule::IsPackageName(good)) << good;
    }
    for (const std::string &bad :
         {std::string(), std::string("-x"), std::string("--purge"), std::string("+x"), std::string(".x"),
          std::string("x*"), std::string("^x"), std::string("x$"), std::string("x/stable"), std::string("x=1"),
          std::string("x:i386"), std::string("X"), std::string("a b"), std::string("a\nb"), std::string(256, 'a')}) {
        EXPECT_FALSE(AptModule::IsPackageName(bad)) << bad;
    }
    EXPECT_TRUE(AptModule::IsVersion("1:2.3~rc1+dfsg-4"));
    EXPECT_TRUE(AptModule::IsArchitecture("kfreebsd-amd64"));
    for (const char *bad : {"", "-1", "1 2", "1,2", "1/2", "1=2"}) {
        EXPECT_FALSE(AptModule::IsVersion(bad)) << bad;
        EXPECT_FALSE(AptModule::IsArchitecture(bad)) << bad;
    }
}

TEST(AptOnThisMachine, ListsAsManyPackagesAsThePackageDatabaseHas)
{
    const auto in_database = [] {
        std::ifstream status("/var/lib/dpkg/status");
        size_t count = 0;
        for (std::string line; std::getline(status, line);) {
            count += line.starts_with("Status: ") && line.ends_with(" installed") ? 1 : 0;
        }
        return count;
    };
    PackageListing listing;
    size_t count = 0;
    do {  // somebody may be installing something right now
        count = in_database();
        listing = AptModule().Installed();
    } while (in_database() != count);

    EXPECT_EQ(listing.trouble, "");
    EXPECT_THAT(listing.packages, Contains(Field(&Package::name, "dpkg")));
    EXPECT_GE(listing.packages.size(), count) << "what waits for triggers is installed as well";
    EXPECT_EQ(AptModule().ManagerProgram(), "/usr/bin/apt-get");
}
