#include "libveltrane/connection_threads.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <future>
#include <mutex>
#include <string>
#include <utility>

#include "support/sockets.h"

namespace {

using veltrane::ConnectionThreads;

constexpr std::chrono::seconds kLong{20};

// Serves by reading until the peer, or the pool, ends the connection.
void ReadUntilEnd(int fd)
{
    char bytes[64];
    while (recv(fd, bytes, sizeof(bytes), 0) > 0) {}
}

bool IsOpen(int fd) { return fcntl(fd, F_GETFD) >= 0; }

// The times that a pool said that a thread was through.
class Ends {
  public:
    void Add()
    {
        const std::lock_guard lock(mutex_);
        ++count_;
        changed_.notify_all();
    }
    bool Wait(int count)
    {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, kLong, [&] { return count_ >= count; });
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    int count_ = 0;
};

}  // namespace

TEST(ConnectionThreads, ServeEachSocketAndCloseItAfterwards)
{
    Ends ends;
    std::atomic<int> closed{0};
    SocketPair pair;
    const int fd = pair.ours.Release();
    ConnectionThreads pool([](int socket) { EXPECT_TRUE(SendBytes(socket, "served")); }, [&] { ends.Add(); });

    ASSERT_TRUE(pool.Start(fd, "", [&] {
        EXPECT_FALSE(IsOpen(fd));
        closed++;
    }));

    EXPECT_EQ(ReadToEnd(pair.theirs.Get()), "served");
    ASSERT_TRUE(ends.Wait(1));
    EXPECT_EQ(closed, 1);
    pool.Join();
    EXPECT_EQ(pool.Count(), 0U);
}

TEST(ConnectionThreads, ConnectionsAreCountedUntilTheyAreJoinedAndByNetwork)
{
    Ends ends;
    std::array<SocketPair, 3> pairs;
    ConnectionThreads pool(ReadUntilEnd, [&] { ends.Add(); });
    ASSERT_TRUE(pool.Start(pairs[0].ours.Release(), "a"));
    ASSERT_TRUE(pool.Start(pairs[1].ours.Release(), "a"));
    ASSERT_TRUE(pool.Start(pairs[2].ours.Release(), "b"));
    EXPECT_EQ(pool.Count(), 3U);
    EXPECT_EQ(pool.CountOf("a"), 2U);
    EXPECT_EQ(pool.CountOf("b"), 1U);
    EXPECT_EQ(pool.CountOf("c"), 0U);

    pairs[0].theirs.Close();
    ASSERT_TRUE(ends.Wait(1));
    EXPECT_EQ(pool.Count(), 3U) << "not joined yet";
    pool.Join();

    EXPECT_EQ(pool.Count(), 2U);
    EXPECT_EQ(pool.CountOf("a"), 1U);
}

TEST(ConnectionThreads, StoppingReadsNoFurtherRequestButLetsAnAnswerEnd)
{
    Ends ends;
    SocketPair pair;
    std::promise<void> reading;
    ConnectionThreads pool(
        [&](int fd) {
            reading.set_value();
            ReadUntilEnd(fd);
            EXPECT_TRUE(SendBytes(fd, "the end of the answer"));
        },
        [&] { ends.Add(); });
    ASSERT_TRUE(pool.Start(pair.ours.Release(), ""));
    reading.get_future().wait();

    pool.Stop(kLong);

    EXPECT_EQ(ReadToEnd(pair.theirs.Get()), "the end of the answer");
    EXPECT_EQ(pool.Count(), 0U);
}

TEST(ConnectionThreads, StoppingCutsOffWhatTakesLonger)
{
    SocketPair pair;
    std::promise<void> stuck;
    ConnectionThreads pool(
        [&](int fd) {
            const std::string piece(65536, 'x');
            bool first = true;
            while (SendBytes(fd, piece)) {  // nobody reads: the last one waits
                if (std::exchange(first, false)) {
                    stuck.set_value();
                }
            }
        },
        [] {});
    ASSERT_TRUE(pool.Start(pair.ours.Release(), ""));
    stuck.get_future().wait();

    pool.Stop(std::chrono::milliseconds(1));

    EXPECT_EQ(pool.Count(), 0U);
}

TEST(ConnectionThreads, ASharedSocketIsClosedButNotShutDown)
{
    SocketPair shared;
    SocketPair other;
    const Descriptor copy(dup(shared.ours.Get()));  // as another process has it
    const int shared_fd = shared.ours.Get();
    std::promise<void> ready;
    std::promise<void> other_is_cut_off;
    ConnectionThreads *self = nullptr;
    ConnectionThreads pool(
        [&](int fd) {
            if (fd == shared_fd) {
                EXPECT_TRUE(self->Share(fd));
                ready.set_value();
                other_is_cut_off.get_future().wait();
                return;
            }
            ReadUntilEnd(fd);
            const std::string piece(65536, 'x');
            while (SendBytes(fd, piece)) {}
            other_is_cut_off.set_value();  // it is the later one, so the shared one has had its turn
        },
        [] {});
    self = &pool;
    ASSERT_TRUE(pool.Start(shared.ours.Release(), ""));
    ready.get_future().wait();
    ASSERT_TRUE(pool.Start(other.ours.Release(), ""));

    pool.Stop(std::chrono::milliseconds(1));

    EXPECT_FALSE(IsOpen(shared_fd));
    EXPECT_TRUE(SendBytes(copy.Get(), "x"));
    char byte = 0;
    EXPECT_EQ(recv(shared.theirs.Get(), &byte, 1, 0), 1);
}

TEST(ConnectionThreads, NothingIsSharedAnyMoreOnceStoppingHasBegun)
{
    SocketPair pair;
    std::promise<bool> answer;
    ConnectionThreads *self = nullptr;
    ConnectionThreads pool(
        [&](int fd) {
            ReadUntilEnd(fd);  // until Stop
            answer.set_value(self->Share(fd));
        },
        [] {});
    self = &pool;
    ASSERT_TRUE(pool.Start(pair.ours.Release(), ""));

    pool.Stop(kLong);

    EXPECT_FALSE(answer.get_future().get());
}
