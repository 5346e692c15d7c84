// When to kill: moments spread over the time that a piece of work takes, and how many of them.
#ifndef TESTS_SUPPORT_KILL_MOMENTS_H
#define TESTS_SUPPORT_KILL_MOMENTS_H

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <random>
#include <thread>

// How many processes a test kills: VT_KILLS says it, else the test.
inline int KillsOr(int otherwise)
{
    const char *text = std::getenv("VT_KILLS");
    return text != nullptr ? std::atoi(text) : otherwise;
}

// Moments up to a little after the end of the work: always the same shares of the time that it takes here and now.
class KillMoments {
  public:
    // Does the work five times; the middle one of its times counts.
    explicit KillMoments(const std::function<void()> &work)
    {
        std::array<std::chrono::microseconds, 5> times{};
        for (std::chrono::microseconds &one : times) {
            const auto start = std::chrono::steady_clock::now();
            work();
            one = std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - start);
        }
        std::sort(times.begin(), times.end());
        work_ = times[2];
    }

    // From now to the next moment.
    void Wait()
    {
        const double share = share_(random_);
        std::this_thread::sleep_for(
            std::chrono::microseconds(static_cast<long>(share * static_cast<double>(work_.count()))));
    }

  private:
    std::chrono::microseconds work_{};
    std::mt19937 random_{20250101};
    std::uniform_real_distribution<double> share_{0.0, 1.1};
};

#endif
