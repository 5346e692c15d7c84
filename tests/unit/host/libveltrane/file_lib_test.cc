// Files: whose links are followed, what is made when missing, and how bytes are read.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <veltrane/file_lib.h>
#include <veltrane/owned.h>

#include "support/work_dir.h"

namespace fs = std::filesystem;
using veltrane::FilePtr;
using veltrane::TextPtr;
using veltrane::WriterPtr;

namespace {

constexpr uid_t kStranger = 12345;

class FileLib : public testing::Test {
  protected:
    FileLib() : umask_(umask(0)) {}
    ~FileLib() override { umask(umask_); }

    fs::path At(const std::string &name) const { return directory_.path / name; }

    // Make a link that somebody else owns. Only root can give a link away; another user's look at links is the same
    // code, with links of root's and of his own.
    static bool MakeForeignLink(const fs::path &target, const fs::path &link)
    {
        fs::create_symlink(target, link);
        return lchown(link.c_str(), kStranger, kStranger) == 0;
    }

    static unsigned int ModeOf(const fs::path &path)
    {
        struct stat st = {};
        EXPECT_EQ(lstat(path.c_str(), &st), 0) << path;
        return st.st_mode & 07777;
    }

    // The content behind a path as safe_open lets us see it, or the errno in brackets.
    static std::string Read(const fs::path &path, int flags = 0)
    {
        const int fd = safe_open(path.c_str(), O_RDONLY | flags);
        if (fd < 0) {
            return "[" + std::to_string(errno) + "]";
        }
        char bytes[64];
        const ssize_t got = read(fd, bytes, sizeof(bytes));
        close(fd);
        return std::string(bytes, got > 0 ? static_cast<size_t>(got) : 0);
    }

    static std::string Errno(int error) { return "[" + std::to_string(error) + "]"; }

    TemporaryDirectory directory_;
    const mode_t umask_;
};

std::string ContentOf(const Writer *writer) { return {StringWriterData(writer), StringWriterLength(writer)}; }

FilePtr TextFile(const std::string &text)
{
    FilePtr file(tmpfile());
    fwrite(text.data(), 1, text.size(), file.get());
    rewind(file.get());
    return file;
}

}  // namespace

TEST_F(FileLib, ANewFileIsPrivateAndTheDescriptorDoesNotSurviveExec)
{
    const int fd = safe_open(At("new").c_str(), O_WRONLY | O_CREAT);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(ModeOf(At("new")), 0600u);
    EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
    close(fd);
}

TEST_F(FileLib, ANewFileCanHaveAnotherMode)
{
    close(safe_open_create_perms(At("new").c_str(), O_WRONLY | O_CREAT, 0644));
    EXPECT_EQ(ModeOf(At("new")), 0644u);
}

TEST_F(FileLib, AnExistingFileKeepsItsMode)
{
    WriteFile(At("old"), "x");
    fs::permissions(At("old"), fs::perms(0640));
    close(safe_open(At("old").c_str(), O_WRONLY | O_CREAT));
    EXPECT_EQ(ModeOf(At("old")), 0640u);
}

TEST_F(FileLib, WhatIsMissingIsTheErrno)
{
    WriteFile(At("file"), "x");
    EXPECT_EQ(Read(At("missing")), Errno(ENOENT));
    EXPECT_EQ(Read(At("missing/file")), Errno(ENOENT));
    EXPECT_EQ(Read(At("file/below")), Errno(ENOTDIR));
    EXPECT_EQ(Read(""), Errno(ENOENT));
}

TEST_F(FileLib, LinksOfOurOwnAreFollowedAnywhereInThePath)
{
    fs::create_directories(At("real/deep"));
    WriteFile(At("real/deep/file"), "content");
    fs::create_symlink("real", At("directory"));
    fs::create_symlink("deep/file", At("real/file"));
    fs::create_symlink(At("real/deep/file"), At("absolute"));
    fs::create_symlink("../real/../directory/file", At("real/back"));

    EXPECT_EQ(Read(At("directory/deep/file")), "content");
    EXPECT_EQ(Read(At("directory/file")), "content");
    EXPECT_EQ(Read(At("absolute")), "content");
    EXPECT_EQ(Read(At("directory/back")), "content");
    EXPECT_EQ(Read(At("directory/../real//deep/./file")), "content");
}

TEST_F(FileLib, APathRelativeToTheWorkingDirectoryIsFollowedToo)
{
    fs::create_directory(At("real"));
    WriteFile(At("real/file"), "content");
    fs::create_symlink("real", At("link"));
    const fs::path before = fs::current_path();
    fs::current_path(directory_.path);

    EXPECT_EQ(Read("real/file"), "content");
    EXPECT_EQ(Read("link/file"), "content");

    fs::current_path(before);
}

TEST_F(FileLib, LinksOfRootAreFollowed)
{
    ASSERT_TRUE(fs::is_symlink("/proc/mounts"));  // root's, to self/mounts; self is a link of root's as well
    EXPECT_THAT(Read("/proc/mounts"), testing::Not(testing::StartsWith("[")));
}

TEST_F(FileLib, AForeignLinkIsRefusedAnywhereInThePath)
{
    fs::create_directory(At("real"));
    WriteFile(At("real/file"), "content");
    if (!MakeForeignLink("file", At("real/link"))) {
        EXPECT_EQ(errno, EPERM);  // nobody but root can give a link away
        return;
    }
    ASSERT_TRUE(MakeForeignLink("real", At("directory")));
    fs::create_symlink("real/link", At("ours"));

    EXPECT_EQ(Read(At("real/link")), Errno(ENOLINK));
    EXPECT_EQ(Read(At("directory/file")), Errno(ENOLINK));
    EXPECT_EQ(Read(At("directory/missing")), Errno(ENOLINK));
    EXPECT_EQ(Read(At("ours")), Errno(ENOLINK));
    EXPECT_EQ(safe_open(At("real/link").c_str(), O_WRONLY | O_TRUNC | O_CREAT), -1);
    EXPECT_EQ(ReadFile(At("real/file")), "content");
}

TEST_F(FileLib, NothingIsMadeBehindAForeignLink)
{
    const bool foreign = MakeForeignLink("made", At("link"));

    const int fd = safe_open(At("link").c_str(), O_WRONLY | O_CREAT);

    EXPECT_EQ(fd < 0, foreign);
    EXPECT_EQ(fs::exists(At("made")), !foreign);
    if (fd >= 0) {
        close(fd);
    }
}

TEST_F(FileLib, AFileIsMadeBehindALinkOfOurOwn)
{
    fs::create_directory(At("real"));
    fs::create_symlink("real/new", At("link"));

    close(safe_open(At("link").c_str(), O_WRONLY | O_CREAT));

    EXPECT_TRUE(fs::is_regular_file(At("real/new")));
    EXPECT_EQ(ModeOf(At("real/new")), 0600u);
}

TEST_F(FileLib, LinksInACircleEnd)
{
    fs::create_symlink("b", At("a"));
    fs::create_symlink("a", At("b"));
    EXPECT_EQ(Read(At("a")), Errno(ELOOP));
    EXPECT_EQ(Read(At("a/file")), Errno(ELOOP));
}

TEST_F(FileLib, ADanglingLinkIsNoFile)
{
    fs::create_symlink("missing", At("link"));
    EXPECT_EQ(Read(At("link")), Errno(ENOENT));
}

TEST_F(FileLib, FlagsAgainstLinksKeepTheirMeaning)
{
    WriteFile(At("file"), "content");
    fs::create_symlink("file", At("link"));

    EXPECT_EQ(Read(At("link"), O_NOFOLLOW), Errno(ELOOP));
    EXPECT_EQ(safe_open(At("link").c_str(), O_WRONLY | O_CREAT | O_EXCL), -1);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(Read(At("link/")), Errno(ENOTDIR));
}

TEST_F(FileLib, EveryModeOfFopenOpensAsFopenDoes)
{
    WriteFile(At("file"), "old");
    FilePtr file(safe_fopen(At("file").c_str(), "rb"));
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(fputs("x", file.get()), EOF);

    file.reset(safe_fopen(At("file").c_str(), "a"));
    ASSERT_NE(file, nullptr);
    fputs("+new", file.get());
    file.reset(safe_fopen(At("file").c_str(), "r+"));
    ASSERT_NE(file, nullptr);
    fputs("OLD", file.get());
    file.reset();
    EXPECT_EQ(ReadFile(At("file")), "OLD+new");

    file.reset(safe_fopen(At("file").c_str(), "a+"));
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(getc(file.get()), 'O');
    file.reset(safe_fopen(At("file").c_str(), "w+b"));
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(getc(file.get()), EOF);
    file.reset(safe_fopen(At("made").c_str(), "w"));
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(ModeOf(At("made")), 0600u);
    EXPECT_EQ(fcntl(fileno(file.get()), F_GETFD), FD_CLOEXEC);
}

TEST_F(FileLib, AnotherModeOfFopenIsRefused)
{
    for (const char *mode : {"", "x", "wx", "rq"}) {
        errno = 0;
        EXPECT_EQ(safe_fopen(At("file").c_str(), mode), nullptr);
        EXPECT_EQ(errno, EINVAL);
    }
    EXPECT_FALSE(fs::exists(At("file")));
}

TEST_F(FileLib, FopenLeavesTheErrnoOfAFailure)
{
    EXPECT_EQ(safe_fopen(At("missing").c_str(), "r"), nullptr);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(safe_fopen(directory_.path.c_str(), "w"), nullptr);
    EXPECT_EQ(errno, EISDIR);
}

TEST_F(FileLib, FileReadGivesAllBytesZerosIncluded)
{
    const std::string bytes("a\0b\n\xff", 5);
    WriteFile(At("file"), bytes);
    bool truncated = true;

    const WriterPtr content(FileRead(At("file").c_str(), 100, &truncated));

    ASSERT_NE(content, nullptr);
    EXPECT_EQ(ContentOf(content.get()), bytes);
    EXPECT_FALSE(truncated);
}

TEST_F(FileLib, FileReadStopsAtItsLimitAndSaysSo)
{
    WriteFile(At("file"), "12345");
    const struct {
        size_t limit;
        const char *content;
        bool truncated;
    } cases[] = {
        {0, "", true}, {4, "1234", true}, {5, "12345", false}, {6, "12345", false}, {SIZE_MAX, "12345", false}};
    for (const auto &expected : cases) {
        bool truncated = !expected.truncated;
        const WriterPtr content(FileRead(At("file").c_str(), expected.limit, &truncated));
        ASSERT_NE(content, nullptr);
        EXPECT_EQ(ContentOf(content.get()), expected.content);
        EXPECT_EQ(truncated, expected.truncated) << expected.limit;
    }
}

TEST_F(FileLib, FileReadTakesLargeFilesAndNeedsNobodyToAskForTruncation)
{
    const std::string bytes(200000, 'x');
    WriteFile(At("file"), bytes);

    EXPECT_EQ(ContentOf(WriterPtr(FileRead(At("file").c_str(), SIZE_MAX, nullptr)).get()), bytes);
    EXPECT_EQ(ContentOf(WriterPtr(FileRead(At("file").c_str(), 100000, nullptr)).get()), bytes.substr(0, 100000));
}

TEST_F(FileLib, FileReadOfAnEmptyFileIsEmptyAndNotTruncated)
{
    WriteFile(At("file"), "");
    bool truncated = true;
    EXPECT_EQ(ContentOf(WriterPtr(FileRead(At("file").c_str(), 0, &truncated)).get()), "");
    EXPECT_FALSE(truncated);
}

TEST_F(FileLib, FileReadFailsWithErrnoAndLeavesTheFlag)
{
    bool truncated = true;
    EXPECT_EQ(FileRead(At("missing").c_str(), 10, &truncated), nullptr);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(FileRead(directory_.path.c_str(), 10, &truncated), nullptr);
    EXPECT_EQ(errno, EISDIR);
    EXPECT_TRUE(truncated);
}

TEST_F(FileLib, VtReadLineGivesLineByLineWithoutLineFeeds)
{
    const FilePtr file = TextFile("first\n\nlast");
    size_t size = 4096;
    char *line = static_cast<char *>(malloc(size));

    EXPECT_EQ(VtReadLine(&line, &size, file.get()), 5);
    EXPECT_STREQ(line, "first");
    EXPECT_EQ(VtReadLine(&line, &size, file.get()), 0);
    EXPECT_STREQ(line, "");
    EXPECT_EQ(VtReadLine(&line, &size, file.get()), 4);
    EXPECT_STREQ(line, "last");
    EXPECT_EQ(VtReadLine(&line, &size, file.get()), -1);
    free(line);
}

TEST_F(FileLib, VtReadLineGrowsItsBufferAndKeepsZeroBytesAndCarriageReturns)
{
    const std::string text = std::string(10000, 'x') + std::string("\0y\r", 3);
    const FilePtr file = TextFile(text + "\n");
    size_t size = 4;
    char *line = static_cast<char *>(malloc(size));

    ASSERT_EQ(VtReadLine(&line, &size, file.get()), static_cast<ssize_t>(text.size()));
    EXPECT_EQ(std::string(line, text.size()), text);
    EXPECT_GT(size, text.size());
    free(line);
}

TEST_F(FileLib, VtReadLineReportsAnErrorLikeTheEnd)
{
    WriteFile(At("file"), "text\n");
    const FilePtr write_only(fopen(At("file").c_str(), "a"));
    size_t size = 16;
    char *line = static_cast<char *>(malloc(size));
    EXPECT_EQ(VtReadLine(&line, &size, write_only.get()), -1);
    free(line);
}

TEST_F(FileLib, MissingDirectoriesAboveAFileAreMadeForTheOwnerAlone)
{
    ASSERT_TRUE(MakeParentDirectory(At("a/b/c/file").c_str(), false));
    EXPECT_EQ(ModeOf(At("a")), 0700u);
    EXPECT_EQ(ModeOf(At("a/b/c")), 0700u);
    EXPECT_FALSE(fs::exists(At("a/b/c/file")));
    EXPECT_TRUE(MakeParentDirectory(At("a/b/c/file").c_str(), false));
}

TEST_F(FileLib, ATrailingSlashNamesTheLastDirectoryToMake)
{
    ASSERT_TRUE(MakeParentDirectory(At("a/b//").c_str(), false));
    EXPECT_TRUE(fs::is_directory(At("a/b")));
}

TEST_F(FileLib, APathWithoutDirectoriesNeedsNone)
{
    EXPECT_TRUE(MakeParentDirectory("file", false));
    EXPECT_TRUE(MakeParentDirectory("/file", false));
}

TEST_F(FileLib, AFileInTheWayOfADirectoryIsAnErrorWithoutForce)
{
    WriteFile(At("a"), "in the way");
    EXPECT_FALSE(MakeParentDirectory(At("a/b/file").c_str(), false));
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_EQ(ReadFile(At("a")), "in the way");
}

TEST_F(FileLib, AFileInTheWayOfADirectoryIsMovedAsideWithForce)
{
    WriteFile(At("a"), "in the way");
    ASSERT_TRUE(MakeParentDirectory(At("a/b/file").c_str(), true));
    EXPECT_TRUE(fs::is_directory(At("a/b")));
    EXPECT_EQ(ReadFile(At("a.moved-aside")), "in the way");
}

TEST_F(FileLib, ALinkToADirectoryCountsAsADirectory)
{
    fs::create_directory(At("real"));
    fs::create_symlink("real", At("link"));
    ASSERT_TRUE(MakeParentDirectory(At("link/b/file").c_str(), true));
    EXPECT_TRUE(fs::is_directory(At("real/b")));
}

TEST_F(FileLib, ADanglingLinkInTheWayIsAnErrorWithoutForceAndMovedAsideWithIt)
{
    fs::create_symlink("missing", At("link"));
    EXPECT_FALSE(MakeParentDirectory(At("link/file").c_str(), false));
    EXPECT_EQ(errno, ENOENT);
    ASSERT_TRUE(MakeParentDirectory(At("link/file").c_str(), true));
    EXPECT_TRUE(fs::is_directory(At("link")) && !fs::is_symlink(At("link")));
    EXPECT_TRUE(fs::is_symlink(At("link.moved-aside")));
}

TEST_F(FileLib, NoDirectoryIsMadeBehindAForeignLink)
{
    fs::create_directory(At("real"));
    const bool foreign = MakeForeignLink("real", At("link"));
    EXPECT_EQ(MakeParentDirectory(At("link/b/file").c_str(), true), !foreign);
    EXPECT_EQ(fs::exists(At("real/b")), !foreign);
}

TEST_F(FileLib, PathAppendPutsOneSeparatorBetween)
{
    char path[32] = "/var";
    EXPECT_TRUE(PathAppend(path, sizeof(path), "state", '/'));
    EXPECT_STREQ(path, "/var/state");

    char slash[32] = "/var/";
    EXPECT_TRUE(PathAppend(slash, sizeof(slash), "state", '/'));
    EXPECT_STREQ(slash, "/var/state");

    char other[32] = "a/";
    EXPECT_TRUE(PathAppend(other, sizeof(other), "b", ':'));
    EXPECT_STREQ(other, "a/:b");

    char empty[32] = "";
    EXPECT_TRUE(PathAppend(empty, sizeof(empty), "", '/'));
    EXPECT_STREQ(empty, "/");
}

TEST_F(FileLib, PathAppendLeavesThePathWhenTheResultDoesNotFit)
{
    char path[8] = "ab";
    EXPECT_FALSE(PathAppend(path, 6, "cde", '/'));
    EXPECT_STREQ(path, "ab");
    EXPECT_TRUE(PathAppend(path, 7, "cde", '/'));
    EXPECT_STREQ(path, "ab/cde");
    EXPECT_FALSE(PathAppend(path, 7, "", '/'));
    EXPECT_STREQ(path, "ab/cde");
}

TEST_F(FileLib, FileCanOpenTellsWithoutLeavingAnythingOpen)
{
    WriteFile(At("file"), "x");
    EXPECT_TRUE(FileCanOpen(At("file").c_str(), "r"));
    EXPECT_FALSE(FileCanOpen(At("missing").c_str(), "r"));
    EXPECT_FALSE(FileCanOpen(directory_.path.c_str(), "w"));
}

TEST_F(FileLib, IsDirFollowsLinks)
{
    WriteFile(At("file"), "x");
    fs::create_symlink(".", At("link"));
    fs::create_symlink("missing", At("dangling"));
    EXPECT_TRUE(IsDir(directory_.path.c_str()));
    EXPECT_TRUE(IsDir(At("link").c_str()));
    EXPECT_FALSE(IsDir(At("file").c_str()));
    EXPECT_FALSE(IsDir(At("dangling").c_str()));
    EXPECT_FALSE(IsDir(At("missing").c_str()));
}

TEST_F(FileLib, MapNameChangesNothingHere)
{
    char path[] = "/var\\lib/x";
    EXPECT_EQ(MapName(path), path);
    EXPECT_STREQ(path, "/var\\lib/x");
}
