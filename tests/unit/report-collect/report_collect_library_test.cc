// The built library: what it shows, and that it stays once it was loaded.
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <memory>
#include <set>
#include <sstream>
#include <string>

#include <veltrane/globals.h>

#include "libvtenterprise/call_frame.h"
#include "support/work_dir.h"

namespace {

const std::string kLibrary = VT_TEST_LIB_DIR "/veltrane-report-collect.so";

// The dynamic symbols that it defines, without the shadows that a sanitizer adds.
std::set<std::string> ExportedNames()
{
    struct Closer {
        void operator()(FILE *p) const { pclose(p); }
    };
    const std::unique_ptr<FILE, Closer> nm(
        popen(("nm -D --defined-only --format=posix '" + kLibrary + "'").c_str(), "r"));
    std::set<std::string> names;
    char line[4096];
    while (nm != nullptr && fgets(line, sizeof(line), nm.get()) != nullptr) {
        std::string name;
        std::istringstream(line) >> name;
        if (name.rfind("__odr_asan", 0) != 0) {
            names.insert(name);
        }
    }
    return names;
}

struct LibraryCloser {
    void operator()(void *library) const { dlclose(library); }
};
using LibraryPtr = std::unique_ptr<void, LibraryCloser>;

LibraryPtr Open() { return LibraryPtr(dlopen(kLibrary.c_str(), RTLD_NOW | RTLD_LOCAL)); }

TEST(ReportCollectLibrary, ItShowsItsVersionAndTheWrappersOfTheTableAndNothingElse)
{
    std::set<std::string> expected{"GetExtensionLibraryVersion"};
#define VT_ENTRY(R, returns, Name, parameters, arguments) expected.insert(#Name "__wrapper");
#include "report-collect/hub_functions.def"
    EXPECT_EQ(expected.size(), 7u);
    EXPECT_EQ(ExportedNames(), expected);
}

TEST(ReportCollectLibrary, ItsVersionIsTheHosts)
{
    const LibraryPtr library = Open();
    ASSERT_NE(library, nullptr) << dlerror();
    const auto version = reinterpret_cast<const char *(*)()>(dlsym(library.get(), "GetExtensionLibraryVersion"));
    ASSERT_NE(version, nullptr);
    EXPECT_STREQ(version(), Version());
}

TEST(ReportCollectLibrary, TheConfigurationIsReadWhenItIsFirstAskedForAndTheLibraryOutlivesItsClosing)
{
    const WorkDirectory work;
    WriteFile(work.path / "hub_config.json", "{\"max_hub_processes\": 11}");
    LibraryPtr library = Open();
    ASSERT_NE(library, nullptr) << dlerror();
    const auto maximum = reinterpret_cast<size_t (*)(int32_t, int *, int32_t)>(
        dlsym(library.get(), "VeskGetMaxVtHubProcesses__wrapper"));
    ASSERT_NE(maximum, nullptr);
    int successful = 0;
    EXPECT_EQ(maximum(kFrameCanary, &successful, kFrameCanary), 11u);
    EXPECT_EQ(successful, 1);

    library.reset();
    successful = 0;
    EXPECT_EQ(maximum(kFrameCanary, &successful, kFrameCanary), 11u);
    EXPECT_EQ(successful, 1);
}

}  // namespace
