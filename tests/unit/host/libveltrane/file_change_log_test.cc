#include "libveltrane/file_change_log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "support/file_size_limit.h"
#include "support/places.h"
#include "support/work_dir.h"

namespace {

using testing::HasSubstr;
using testing::Optional;
using veltrane::AppendFileChanges;
using veltrane::FileChange;
using veltrane::FileChangeLine;

class FileChangeLog : public testing::Test {
  protected:
    WorkDirectory work;
    std::filesystem::path log = work.State(veltrane::kFileChangeLogName);
};

}  // namespace

TEST(FileChangeLine, HoldsTimePathLetterAndText)
{
    EXPECT_EQ(FileChangeLine(1700000000, "/etc/motd", FileChange::kAdded, "added"), "1700000000,/etc/motd,A,added\n");
    EXPECT_EQ(FileChangeLine(0, "/x", FileChange::kModified, "content changed"), "0,/x,M,content changed\n");
    EXPECT_EQ(FileChangeLine(-1, "/x", FileChange::kPermissions, ""), "-1,/x,P,\n");
    EXPECT_EQ(FileChangeLine(1, "/a,b", FileChange::kDeleted, "no longer there"), "1,/a,b,D,no longer there\n");
}

TEST(FileChangeLine, ALineEndInsideBecomesABlank)
{
    EXPECT_EQ(FileChangeLine(1, "/a\nb\r", FileChange::kAdded, "c\r\nd"), "1,/a b ,A,c  d\n");
}

TEST(FileChangeLine, APathTooLongForALineIsCutAndTheRestStays)
{
    const std::string path = "/" + std::string(4094, 'p');
    const std::string line = FileChangeLine(1700000000, path, FileChange::kModified, "content changed");
    EXPECT_EQ(line.size(), 4000u);
    EXPECT_TRUE(line.ends_with("p,M,content changed\n"));

    const std::string fits = path.substr(0, 4000 - std::string("1700000000,,M,content changed\n").size());
    EXPECT_EQ(FileChangeLine(1700000000, fits, FileChange::kModified, "content changed"),
              "1700000000," + fits + ",M,content changed\n");
}

TEST(FileChangeLine, ACutGoesThroughNoCharacter)
{
    std::string path = "/";
    while (path.size() < 4090) { path += "\xe2\x82\xac"; }
    const std::string line = FileChangeLine(1, path, FileChange::kAdded, std::string(5000, 't'));
    EXPECT_LE(line.size(), 4000u);
    EXPECT_GT(line.size(), 3997u);
    EXPECT_THAT(line, HasSubstr("\xe2\x82\xac,A,ttt"));
}

TEST_F(FileChangeLog, LinesAreAppendedToAFileOfItsOwnerAlone)
{
    ASSERT_EQ(AppendFileChanges("1,/a,A,added\n"), std::nullopt);
    ASSERT_EQ(AppendFileChanges("2,/a,M,content changed\n2,/a,P,mode\n"), std::nullopt);
    EXPECT_EQ(ReadFile(log), "1,/a,A,added\n2,/a,M,content changed\n2,/a,P,mode\n");
    EXPECT_EQ(ModeOf(log), 0600u);
}

TEST_F(FileChangeLog, AFullDiskLeavesNoPartOfALine)
{
    ASSERT_EQ(AppendFileChanges("1,/a,A,added\n"), std::nullopt);
    veltrane::Trouble trouble;
    {
        const FileSizeLimit limit(20);
        trouble = AppendFileChanges("2,/a,M,content changed\n");
    }
    EXPECT_THAT(trouble, Optional(HasSubstr("could not write '" + log.string() + "'")));
    EXPECT_EQ(ReadFile(log), "1,/a,A,added\n");
    ASSERT_EQ(AppendFileChanges("3,/a,D,gone\n"), std::nullopt);
    EXPECT_EQ(ReadFile(log), "1,/a,A,added\n3,/a,D,gone\n");
}

TEST_F(FileChangeLog, WhatIsNoFileIsTroubleAndNobodyIsWaitedFor)
{
    ASSERT_EQ(mkfifo(log.c_str(), 0600), 0);
    EXPECT_THAT(AppendFileChanges("1,/a,A,added\n"), Optional(HasSubstr("could not open '" + log.string() + "'")));
    ASSERT_EQ(remove(log.c_str()), 0);
    std::filesystem::create_directory(log);
    EXPECT_THAT(AppendFileChanges("1,/a,A,added\n"), Optional(HasSubstr("Is a directory")));
}

TEST_F(FileChangeLog, ALinkOfAnotherUserIsNotFollowed)
{
    std::filesystem::create_symlink(work.path / "elsewhere", log);
    if (GiveAway(log)) {
        EXPECT_THAT(AppendFileChanges("1,/a,A,added\n"),
                    Optional(HasSubstr("a symbolic link of another user is not followed")));
        EXPECT_FALSE(std::filesystem::exists(work.path / "elsewhere"));
    } else {  // only root can give a link away: ours is followed
        EXPECT_EQ(AppendFileChanges("1,/a,A,added\n"), std::nullopt);
    }
}
