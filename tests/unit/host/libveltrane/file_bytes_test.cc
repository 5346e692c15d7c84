// Bytes of regular files: opening what is one and nothing else, reading up to a limit, comparing, copying.
#include "libveltrane/file_bytes.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "support/file_size_limit.h"
#include "support/places.h"
#include "support/work_dir.h"

namespace {

using veltrane::Descriptor;
using veltrane::Handle;
using veltrane::Trouble;

constexpr size_t kBlock = size_t{128} * 1024;

class FileBytes : public testing::Test {
  protected:
    std::string At(const std::string &name) const { return directory.path / name; }

    Descriptor Open(const std::string &name) const
    {
        return Descriptor(open(At(name).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    }

    // Why a path cannot be opened as a file; "" when it can.
    static std::string OpenAsFile(const std::string &path)
    {
        Handle handle;
        Descriptor fd;
        Trouble trouble = veltrane::OpenHandle(path, &handle);
        if (!trouble.has_value()) {
            trouble = veltrane::OpenRegular(handle, path, &fd);
        }
        EXPECT_EQ(fd.IsOpen(), !trouble.has_value());
        return trouble.value_or("");
    }

    bool Same(const std::string &a, const std::string &b)
    {
        WriteFile(At("a"), a);
        WriteFile(At("b"), b);
        const Descriptor fd_a = Open("a");
        const Descriptor fd_b = Open("b");
        bool same = false;
        EXPECT_EQ(veltrane::SameBytes(fd_a.Get(), "a", fd_b.Get(), "b", &same), std::nullopt);
        return same;
    }

    TemporaryDirectory directory;
};

TEST_F(FileBytes, OnlyARegularFileIsOpenedAndNothingIsWaitedFor)
{
    WriteFile(At("file"), "x");
    ASSERT_EQ(mkfifo(At("pipe").c_str(), 0600), 0);
    const Descriptor socket_fd(socket(AF_UNIX, SOCK_STREAM, 0));
    struct sockaddr_un address {};
    address.sun_family = AF_UNIX;
    At("socket").copy(address.sun_path, sizeof(address.sun_path) - 1);
    ASSERT_EQ(bind(socket_fd.Get(), reinterpret_cast<const sockaddr *>(&address), sizeof(address)), 0);

    EXPECT_EQ(OpenAsFile(At("file")), "");
    EXPECT_EQ(OpenAsFile(directory.path), "'" + directory.path.string() + "' is a directory, not a file");
    EXPECT_EQ(OpenAsFile(At("pipe")), "'" + At("pipe") + "' is a named pipe, not a file");
    EXPECT_EQ(OpenAsFile(At("socket")), "'" + At("socket") + "' is a socket, not a file");
    EXPECT_EQ(OpenAsFile("/dev/zero"), "'/dev/zero' is a device, not a file");
    EXPECT_EQ(OpenAsFile(At("none")), "could not open '" + At("none") + "' (open: No such file or directory)");
}

TEST_F(FileBytes, AForeignLinkIsNotFollowed)
{
    WriteFile(At("file"), "x");
    std::filesystem::create_symlink("file", At("link"));
    EXPECT_EQ(OpenAsFile(At("link")), "");
    if (!GiveAway(At("link"))) {
        EXPECT_EQ(errno, EPERM);  // nobody but root can give a link away
        return;
    }
    EXPECT_EQ(OpenAsFile(At("link")),
              "could not open '" + At("link") + "' (open: a symbolic link of another user is not followed)");
}

TEST_F(FileBytes, ReadingCanLeaveTheAccessTimeAsItIs)
{
    WriteFile(At("file"), "bytes");
    const struct timespec old[2] = {{1000, 0}, {2000, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, At("file").c_str(), old, 0), 0);
    Handle handle;
    Descriptor fd;
    ASSERT_EQ(veltrane::OpenHandle(At("file"), &handle), std::nullopt);
    ASSERT_EQ(veltrane::OpenRegular(handle, At("file"), &fd, veltrane::AccessTime::kStays), std::nullopt);

    std::string bytes;
    bool cut = false;
    ASSERT_EQ(veltrane::ReadUpTo(fd.Get(), "file", 100, &bytes, &cut), std::nullopt);

    struct stat st {};
    ASSERT_EQ(stat(At("file").c_str(), &st), 0);
    EXPECT_EQ(bytes, "bytes");
    EXPECT_EQ(st.st_atim.tv_sec, 1000);
}

TEST_F(FileBytes, ReadingStopsAtTheLimitAndKnowsWhetherThereWasMore)
{
    const std::string text(3 * kBlock + 1, 'x');
    WriteFile(At("file"), text);
    for (const size_t limit : {size_t{0}, size_t{1}, kBlock, text.size() - 1, text.size(), text.size() + 1}) {
        const Descriptor fd = Open("file");
        std::string bytes = "before";
        bool cut = false;
        ASSERT_EQ(veltrane::ReadUpTo(fd.Get(), "file", limit, &bytes, &cut), std::nullopt);
        EXPECT_EQ(bytes, text.substr(0, limit));
        EXPECT_EQ(cut, limit < text.size()) << limit;
    }
}

TEST_F(FileBytes, WhatCannotBeReadIsTroubleAndGivesNothing)
{
    const Descriptor fd(open(directory.path.c_str(), O_RDONLY | O_CLOEXEC));
    std::string bytes = "before";
    bool cut = false;
    EXPECT_EQ(veltrane::ReadUpTo(fd.Get(), "here", 10, &bytes, &cut), "could not read 'here' (read: Is a directory)");
    EXPECT_EQ(bytes, "before");

    const Descriptor file = Open("file");
    bool same = true;
    EXPECT_EQ(veltrane::SameBytes(fd.Get(), "here", file.Get(), "file", &same),
              "could not read 'here' (read: Is a directory)");
    EXPECT_EQ(veltrane::SameBytes(file.Get(), "file", fd.Get(), "here", &same),
              "could not read 'here' (read: Is a directory)");
    EXPECT_EQ(veltrane::CopyBytes(fd.Get(), "here", file.Get(), "file", 10),
              "could not read 'here' (read: Is a directory)");
}

TEST_F(FileBytes, TwoFilesAreTheSameByTheirBytes)
{
    const std::string text(2 * kBlock, 'x');
    EXPECT_TRUE(Same("", ""));
    EXPECT_TRUE(Same("a\0b", "a\0b"));
    EXPECT_TRUE(Same(text, text));
    EXPECT_FALSE(Same("a", ""));
    EXPECT_FALSE(Same("", "a"));
    EXPECT_FALSE(Same("ab", "ac"));
    EXPECT_FALSE(Same(text, text + "x"));
    EXPECT_FALSE(Same(text + "x", text + "y"));
}

TEST_F(FileBytes, ComparingLeavesTheDescriptorsWhereTheyStand)
{
    WriteFile(At("a"), "abc");
    const Descriptor fd = Open("a");
    bool same = false;
    ASSERT_EQ(veltrane::SameBytes(fd.Get(), "a", fd.Get(), "a", &same), std::nullopt);
    char first = '\0';
    EXPECT_EQ(read(fd.Get(), &first, 1), 1);
    EXPECT_EQ(first, 'a');
}

TEST_F(FileBytes, ACopyHoldsEveryByteAndASourceWithoutAnEndIsGivenUp)
{
    std::string text(2 * kBlock + 7, 'x');
    text[kBlock] = '\0';
    WriteFile(At("from"), text);
    const Descriptor from = Open("from");
    const Descriptor to = Open("to");
    ASSERT_EQ(veltrane::CopyBytes(from.Get(), "from", to.Get(), "to", text.size()), std::nullopt);
    EXPECT_EQ(ReadFile(At("to")), text);

    const Descriptor endless(open("/dev/zero", O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(veltrane::CopyBytes(endless.Get(), "/dev/zero", to.Get(), "to", 1000), "'/dev/zero' has no end");
}

TEST_F(FileBytes, AFullDiskIsSaid)
{
    const Descriptor to = Open("to");
    Trouble trouble;
    {
        const FileSizeLimit limit(1000);
        trouble = veltrane::WriteAll(to.Get(), std::string(2000, 'x'), "to");
    }
    EXPECT_EQ(trouble, "could not write 'to' (write: File too large)");
    EXPECT_EQ(ReadFile(At("to")).size(), 1000u);
}

TEST_F(FileBytes, ACutGoesBackToTheEndOfACharacter)
{
    const struct {
        std::string text;
        size_t whole;
    } table[] = {
        {"", 0},
        {"abc", 3},
        {"ab\xC3", 2},
        {"ab\xC3\xA4", 4},
        {"\xE2\x82", 0},
        {"a\xE2\x82\xAC", 4},
        {"a\xF0\x9F\x98", 1},
        {"\xF0\x9F\x98\x80", 4},
        {"\x80\x80\x80\x80", 4},  // no UTF-8: left as it is
        {"a\x80", 2},
    };
    for (const auto &row : table) { EXPECT_EQ(veltrane::WholeCharacters(row.text), row.whole) << row.text; }
}

TEST_F(FileBytes, EveryKindHasItsWord)
{
    struct stat st {};
    st.st_uid = 1000;
    for (const auto &[mode, word] :
         {std::pair(S_IFREG, "a file"), std::pair(S_IFDIR, "a directory"),
          std::pair(S_IFLNK, "a symbolic link of user 1000"), std::pair(S_IFIFO, "a named pipe"),
          std::pair(S_IFSOCK, "a socket"), std::pair(S_IFCHR, "a device"), std::pair(S_IFBLK, "a device")}) {
        st.st_mode = static_cast<mode_t>(mode);
        EXPECT_EQ(veltrane::KindOf(st), word);
    }
}

}  // namespace
