// The host's directories. What is in force is remembered by the process, so each test has one of its own.
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>

#include <sys/stat.h>

#include <gtest/gtest.h>

#include <veltrane/known_dirs.h>

#include "support/child.h"
#include "support/work_dir.h"

namespace fs = std::filesystem;

namespace {

unsigned int ModeOf(const fs::path &path)
{
    struct stat st = {};
    EXPECT_EQ(stat(path.c_str(), &st), 0) << path;
    return st.st_mode & 07777;
}

}  // namespace

TEST(KnownDirs, TheDefaultHoldsWithoutASetting)
{
    InChild([] {
        unsetenv("VELTRANE_WORKDIR");
        EXPECT_STREQ(GetWorkDir(), "/var/veltrane");
        EXPECT_STREQ(GetStateDir(), "/var/veltrane/state");
        EXPECT_STREQ(GetLogDir(), "/var/veltrane/log");
        EXPECT_STREQ(GetInputDir(), "/var/veltrane/inputs");
    });
}

TEST(KnownDirs, TheEnvironmentIsReadAtTheFirstCall)
{
    InChild([] {
        setenv("VELTRANE_WORKDIR", "/srv/one/", 1);
        EXPECT_STREQ(GetStateDir(), "/srv/one/state");
        setenv("VELTRANE_WORKDIR", "/srv/two", 1);
        EXPECT_STREQ(GetWorkDir(), "/srv/one");
    });
}

TEST(KnownDirs, AnEmptyEnvironmentCountsAsNone)
{
    InChild([] {
        setenv("VELTRANE_WORKDIR", "", 1);
        EXPECT_STREQ(GetWorkDir(), "/var/veltrane");
    });
}

TEST(KnownDirs, ASettingGoesBeforeTheEnvironment)
{
    InChild([] {
        setenv("VELTRANE_WORKDIR", "/srv/one", 1);
        SetWorkDir("/srv/two");
        EXPECT_STREQ(GetWorkDir(), "/srv/two");
        EXPECT_STREQ(GetLogDir(), "/srv/two/log");
    });
}

TEST(KnownDirs, NoTrailingSlashIsKept)
{
    InChild([] {
        SetWorkDir("/srv/two///");
        EXPECT_STREQ(GetWorkDir(), "/srv/two");
        SetWorkDir("/");
        EXPECT_STREQ(GetWorkDir(), "/");
        EXPECT_STREQ(GetStateDir(), "/state");
    });
}

TEST(KnownDirs, TextsThatWereLentOutliveALaterSetting)
{
    InChild([] {
        SetWorkDir("/srv/one");
        const char *const lent = GetStateDir();
        SetWorkDir("/srv/two");
        EXPECT_STREQ(lent, "/srv/one/state");
        EXPECT_STREQ(GetStateDir(), "/srv/two/state");
    });
}

TEST(KnownDirs, ThreadsMayAskAtOnceForTheFirstTime)
{
    InChild([] {
        setenv("VELTRANE_WORKDIR", "/srv/one", 1);
        std::thread other([] { EXPECT_STREQ(GetLogDir(), "/srv/one/log"); });
        EXPECT_STREQ(GetStateDir(), "/srv/one/state");
        other.join();
    });
}

TEST(MakeWorkDirs, MakesAllOfThemForTheOwnerAlone)
{
    TemporaryDirectory top;
    InChild([&] {
        umask(0);
        const fs::path work = top.path / "missing" / "work";
        SetWorkDir(work.c_str());
        ASSERT_TRUE(MakeWorkDirs());
        for (const char *name : {"", "state", "state/previous_state", "state/diff", "state/untracked", "state/locks",
                                 "log", "inputs", "keys", "lib", "diagnostics"}) {
            EXPECT_EQ(ModeOf(work / name), 0700u) << name;
        }
    });
}

TEST(MakeWorkDirs, LeavesWhatIsThereAsItIs)
{
    TemporaryDirectory top;
    InChild([&] {
        SetWorkDir(top.path.c_str());
        fs::create_directory(top.path / "inputs");
        fs::permissions(top.path / "inputs", fs::perms(0750));
        WriteFile(top.path / "inputs" / "promises.vt", "policy");
        ASSERT_TRUE(MakeWorkDirs());
        ASSERT_TRUE(MakeWorkDirs());
        EXPECT_EQ(ModeOf(top.path / "inputs"), 0750u);
        EXPECT_EQ(ReadFile(top.path / "inputs" / "promises.vt"), "policy");
    });
}

TEST(MakeWorkDirs, FailsWhereAFileStandsInTheWay)
{
    TemporaryDirectory top;
    InChild([&] {
        SetWorkDir(top.path.c_str());
        WriteFile(top.path / "keys", "not a directory");
        errno = 0;
        EXPECT_FALSE(MakeWorkDirs());
        EXPECT_EQ(errno, ENOTDIR);
    });
}
