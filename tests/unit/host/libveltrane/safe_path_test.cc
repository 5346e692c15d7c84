// Which paths another user could have written, and in what words that is said.
#include "libveltrane/safe_path.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "support/work_dir.h"

using veltrane::DirectoryOf;
using veltrane::FindUnsafeStep;
using veltrane::PathEnd;
using veltrane::UnsafeStep;
using veltrane::WhyUnsafe;

namespace {

constexpr uid_t kStranger = 12345;

class SafePath : public testing::Test {
  protected:
    SafePath()
    {
        std::filesystem::create_directory(open_);
        WriteFile(file_, "");
        SetMode(file_, 0600);
        SetMode(open_, 0755);
    }

    static void SetMode(const std::filesystem::path &path, mode_t mode) { ASSERT_EQ(chmod(path.c_str(), mode), 0); }

    const TemporaryDirectory directory_;
    const std::filesystem::path real_ = std::filesystem::canonical(directory_.path);
    const std::filesystem::path open_ = real_ / "open";
    const std::filesystem::path file_ = open_ / "file";
};

}  // namespace

TEST_F(SafePath, OursBelowDirectoriesThatNobodyElseWritesIsSafe)
{
    EXPECT_EQ(WhyUnsafe(file_), "");
    EXPECT_EQ(WhyUnsafe("/"), "");
    EXPECT_FALSE(FindUnsafeStep(file_).has_value());
}

TEST_F(SafePath, AnotherUsersIsUnsafe)
{
    if (chown(open_.c_str(), kStranger, 0) != 0) {
        EXPECT_EQ(errno, EPERM);  // nobody but root can give a directory away
        return;
    }
    EXPECT_EQ(WhyUnsafe(file_), "'" + open_.string() + "' belongs to user 12345");
    SetMode(open_, 01777);
    EXPECT_EQ(WhyUnsafe(file_), "'" + open_.string() + "' belongs to user 12345") << "sticky or not, it is his";

    const std::optional<UnsafeStep> step = FindUnsafeStep(file_);
    ASSERT_TRUE(step.has_value());
    EXPECT_EQ(step->why, UnsafeStep::Why::kForeignOwner);
    EXPECT_EQ(step->owner, kStranger);
}

TEST_F(SafePath, WhatGroupOrOthersMayWriteIsUnsafe)
{
    for (const mode_t mode : {0620, 0602, 01602}) {
        SetMode(file_, mode);
        EXPECT_EQ(WhyUnsafe(file_), "'" + file_.string() + "' is writable by other users") << mode;
    }
}

TEST_F(SafePath, BelowADirectoryThatOthersMayWriteItIsUnsafeUnlessThatIsSticky)
{
    for (const mode_t mode : {0777, 0720, 0702}) {
        SetMode(open_, mode);
        EXPECT_EQ(WhyUnsafe(file_), "'" + open_.string() + "' is writable by other users") << mode;
        SetMode(open_, mode | 01000);
        EXPECT_EQ(WhyUnsafe(file_), "") << "in a sticky directory nobody moves what is not theirs";
    }
}

TEST_F(SafePath, AStickyDirectoryIsSafeOnTheWayAndUnsafeAsTheThingItself)
{
    SetMode(open_, 01777);
    EXPECT_EQ(WhyUnsafe(open_, PathEnd::kLeadsThere), "");
    EXPECT_EQ(WhyUnsafe(open_), "'" + open_.string() + "' is writable by other users");
}

TEST_F(SafePath, TheStepNearestTheEndIsNamed)
{
    SetMode(directory_.path, 0777);
    SetMode(open_, 0777);
    EXPECT_EQ(WhyUnsafe(file_), "'" + open_.string() + "' is writable by other users");
    SetMode(open_, 0755);
    EXPECT_EQ(WhyUnsafe(file_), "'" + real_.string() + "' is writable by other users");
}

TEST_F(SafePath, ALinkIsJudgedByWhereItLeads)
{
    SetMode(file_, 0666);
    std::filesystem::create_symlink(file_, directory_.path / "link");
    EXPECT_EQ(WhyUnsafe(directory_.path / "link"), "'" + file_.string() + "' is writable by other users");
}

TEST_F(SafePath, WhatIsNotThereIsSaid)
{
    EXPECT_EQ(WhyUnsafe("/nonexistent/file"), "'/nonexistent/file': No such file or directory");
    const std::optional<UnsafeStep> step = FindUnsafeStep("/nonexistent/file");
    ASSERT_TRUE(step.has_value());
    EXPECT_EQ(step->why, UnsafeStep::Why::kCannotLook);
    EXPECT_EQ(step->error, "No such file or directory");
}

TEST(DirectoryOf, IsWhatStandsBeforeTheLastSlash)
{
    EXPECT_EQ(DirectoryOf("/a/b"), "/a");
    EXPECT_EQ(DirectoryOf("a/b"), "a");
    EXPECT_EQ(DirectoryOf("/a"), "/");
    EXPECT_EQ(DirectoryOf("/"), "/");
    EXPECT_EQ(DirectoryOf("a"), ".");
    EXPECT_EQ(DirectoryOf(""), ".");
}
