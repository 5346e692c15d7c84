// The library of the hub-only functions, as a test has it: one of the fakes, or none.
#ifndef TESTS_SUPPORT_HUB_LIBRARY_H
#define TESTS_SUPPORT_HUB_LIBRARY_H

#include <cstdlib>
#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "support/child.h"
#include "support/log_capture.h"
#include "support/work_dir.h"

// The library is opened once for a process and its functions are kept, so what calls them runs in a child.
class HubLibraryTest : public testing::Test {
  protected:
    // Put a fake into the work directory, in the place of the one before.
    void Install(const std::string &fake) const
    {
        namespace fs = std::filesystem;
        const fs::path library = work.path / "lib" / "veltrane-report-collect.so";
        fs::remove(library);
        fs::copy_file(fs::path(VT_TEST_BUILD_DIR) / "tests" / "plugins" / (fake + ".so"), library);
        fs::permissions(library, fs::perms(0755));
    }

    void OpenForEachCall() const { setenv("VELTRANE_TEST_OVERRIDE_EXTENSION_LIBRARY_DO_CLOSE", "", 1); }

    LogCapture::Line NotInstalled() const
    {
        return {LOG_LEVEL_VERBOSE,
                "Extension library '" + work.path.string() + "/lib/veltrane-report-collect.so' is not installed"};
    }

    WorkDirectory work;
    LogCapture log;
};

inline const LogCapture::Line kCollectCallsNeedAHub = {LOG_LEVEL_ERR,
                                                       "Call Collect is only supported on Enterprise Hub"};
inline const LogCapture::Line kHaNeedsAHub = {
    LOG_LEVEL_VERBOSE,
    "This is an Enterprise client, but HA is only supported on Enterprise Hub -- skipping HA features"};
inline const LogCapture::Line kListingNeedsAHub = {
    LOG_LEVEL_ERR, "!! Listing hosts with a class is only available locally on Enterprise hubs (no binary support)"};

#endif
