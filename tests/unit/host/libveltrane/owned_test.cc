// Owners: what they own goes with them, once.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include <gtest/gtest.h>

#include <veltrane/owned.h>

using veltrane::Descriptor;

namespace {

int NewDescriptor() { return open("/dev/null", O_RDWR | O_CLOEXEC); }
bool IsOpen(int fd) { return fcntl(fd, F_GETFD) >= 0; }

}  // namespace

TEST(OwnedDescriptor, IsClosedWithItsOwnerAndLeavesErrnoAlone)
{
    const int fd = NewDescriptor();
    {
        const Descriptor owner(fd);
        EXPECT_TRUE(owner.IsOpen());
        EXPECT_EQ(owner.Get(), fd);
        close(fd);  // so that the owner's own close fails
        errno = ENOTDIR;
    }
    EXPECT_EQ(errno, ENOTDIR);

    const int other = NewDescriptor();
    {
        const Descriptor owner(other);
    }
    EXPECT_FALSE(IsOpen(other));
}

TEST(OwnedDescriptor, IsNothingUntilItOwnsOne)
{
    Descriptor owner;
    EXPECT_FALSE(owner.IsOpen());
    EXPECT_EQ(owner.Get(), -1);
    EXPECT_TRUE(owner.Close());
}

TEST(OwnedDescriptor, HandsOverAndClosesWhatItHadBefore)
{
    const int first = NewDescriptor();
    const int second = NewDescriptor();
    Descriptor owner{first};
    Descriptor other{second};

    owner = std::move(other);

    EXPECT_FALSE(IsOpen(first));
    EXPECT_EQ(owner.Get(), second);
    EXPECT_TRUE(IsOpen(second));
    const Descriptor last(std::move(owner));
    EXPECT_EQ(last.Get(), second);
}

TEST(OwnedDescriptor, ReleasedItStaysOpen)
{
    Descriptor owner{NewDescriptor()};
    const int fd = owner.Release();
    EXPECT_FALSE(owner.IsOpen());
    EXPECT_TRUE(IsOpen(fd));
    EXPECT_EQ(close(fd), 0);
}

TEST(OwnedDescriptor, ClosingTellsWhenItFails)
{
    Descriptor owner{NewDescriptor()};
    close(owner.Get());
    EXPECT_FALSE(owner.Close());
    EXPECT_EQ(errno, EBADF);
    EXPECT_FALSE(owner.IsOpen()) << "it is not tried again";
}
