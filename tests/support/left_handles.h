// A handle whose bind or StartTLS failed is left as it is, so it is lost, and its descriptor with it.
#ifndef TESTS_SUPPORT_LEFT_HANDLES_H
#define TESTS_SUPPORT_LEFT_HANDLES_H

#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/lsan_interface.h>
#endif

#include <cstddef>
#include <filesystem>
#include <iterator>

// A test that loses handles does so while one of these lives, for otherwise the leak checker would tell.
class LeftHandles {
  public:
#ifdef __SANITIZE_ADDRESS__
    LeftHandles() { __lsan_disable(); }
    ~LeftHandles() { __lsan_enable(); }
#else
    LeftHandles() {}   // not defaulted, so that an
    ~LeftHandles() {}  // object of it is never unused
#endif
    LeftHandles(const LeftHandles &) = delete;
    LeftHandles &operator=(const LeftHandles &) = delete;
};

// How many descriptors this process has open.
inline std::size_t OpenDescriptors()
{
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return static_cast<std::size_t>(std::distance(begin(all), end(all))) - 1;  // without the directory's own
}

#endif
