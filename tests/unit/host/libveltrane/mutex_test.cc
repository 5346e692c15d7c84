// Mutexes whose misuse is a programming error.
#include <cerrno>
#include <csignal>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <veltrane/mutex.h>

using testing::KilledBySignal;

TEST(Mutex, KeepsThreadsApart)
{
    int shared = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++) {
        threads.emplace_back([&] {
            for (int i = 0; i < 2000; i++) {
                ThreadLock(vtt_server_filter);
                shared = shared + 1;
                ThreadUnlock(vtt_server_filter);
            }
        });
    }
    for (std::thread &thread : threads) { thread.join(); }
    EXPECT_EQ(shared, 8000);
}

TEST(Mutex, ACallersOwnWorksAsWell)
{
    pthread_mutex_t own = PTHREAD_MUTEX_INITIALIZER;

    ThreadLock(&own);
    EXPECT_EQ(pthread_mutex_trylock(&own), EBUSY);
    ThreadUnlock(&own);

    EXPECT_EQ(pthread_mutex_trylock(&own), 0);
    pthread_mutex_unlock(&own);
}

TEST(MutexDeathTest, LockingTwiceIsAProgrammingErrorOfTheCaller)
{
    EXPECT_EXIT(
        {
            ThreadLock(vtt_server_filter);
            ThreadLock(vtt_server_filter);
        },
        KilledBySignal(SIGABRT),
        "critical: .*mutex_test\\.cc:[0-9]+: programming error: A mutex could not be locked\\. "
        "\\(pthread_mutex_lock: Resource deadlock avoided\\)");
}

TEST(MutexDeathTest, UnlockingWhatIsNotLockedIsAProgrammingErrorOfTheCaller)
{
    EXPECT_EXIT(ThreadUnlock(vtt_server_filter), KilledBySignal(SIGABRT),
                "critical: .*mutex_test\\.cc:[0-9]+: programming error: A mutex could not be unlocked\\. "
                "\\(pthread_mutex_unlock: Operation not permitted\\)");
}

TEST(MutexDeathTest, UnlockingAnothersIsAProgrammingErrorOfTheCaller)
{
    EXPECT_EXIT(
        {
            std::thread([] { ThreadLock(vtt_server_filter); }).join();
            ThreadUnlock(vtt_server_filter);
        },
        KilledBySignal(SIGABRT), "programming error: A mutex could not be unlocked");
}
