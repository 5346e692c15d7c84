// Golden files: the exact bytes of a format, checked in under tests/golden.
#ifndef TESTS_SUPPORT_GOLDEN_H
#define TESTS_SUPPORT_GOLDEN_H

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "support/work_dir.h"

// The checked-in bytes of tests/golden/<name>.
inline std::string GoldenBytes(const std::string &name)
{
    return ReadFile(std::filesystem::path(VT_TEST_SOURCE_DIR) / "golden" / name);
}

// Expects exactly the bytes of tests/golden/<name>. What differs is kept in the build directory, where scripts/golden
// shows the difference and, asked to, accepts it.
inline void ExpectGolden(const std::string &name, const std::string &bytes)
{
    const std::filesystem::path kept = std::filesystem::path(VT_TEST_BUILD_DIR) / "golden" / name;
    if (bytes == GoldenBytes(name)) {
        std::filesystem::remove(kept);
        return;
    }
    std::filesystem::create_directories(kept.parent_path());
    WriteFile(kept, bytes);
    ADD_FAILURE() << "not the bytes of tests/golden/" << name << "; scripts/golden shows the difference";
}

#endif
