// Opening extension libraries: which are loaded, and which are refused with what reason.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <veltrane/extension.h>

#include "support/child.h"
#include "support/log_capture.h"
#include "support/work_dir.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::StartsWith;

namespace fs = std::filesystem;

namespace {

constexpr char kEnterprise[] = "veltrane-enterprise.so";
constexpr uid_t kStranger = 12345;

class Extension : public testing::Test {
  protected:
    fs::path Library(const std::string &name) const { return work_.path / "lib" / name; }

    // Put one of the fake plug-ins into the lib directory, as nobody else could write it.
    fs::path Install(const std::string &fake, const std::string &name = kEnterprise) const
    {
        fs::copy_file(fs::path(VT_TEST_BUILD_DIR) / "tests" / "plugins" / (fake + ".so"), Library(name));
        fs::permissions(Library(name), fs::perms(0755));
        return Library(name);
    }

    void ExpectRefused(const std::string &reason, const std::string &name = kEnterprise)
    {
        EXPECT_EQ(extension_library_open(name.c_str()), nullptr);
        EXPECT_THAT(log_.lines, ElementsAre(Pair(LOG_LEVEL_ERR, "Extension library '" + Library(name).string() +
                                                                    "' is refused: " + reason)));
        log_.lines.clear();
    }

    WorkDirectory work_;
    LogCapture log_;
};

}  // namespace

TEST_F(Extension, AGoodLibraryIsOpenedAndSaysNothing)
{
    Install("fake_good");
    void *const library = extension_library_open(kEnterprise);
    ASSERT_NE(library, nullptr);
    EXPECT_NE(shlib_load(library, "GetExtensionLibraryVersion"), nullptr);
    EXPECT_EQ(shlib_load(library, "no_such_symbol"), nullptr);
    EXPECT_THAT(log_.lines, IsEmpty());
    extension_library_close(library);
}

TEST_F(Extension, AnAbsentLibraryIsNoErrorAndSaidAtVerboseLevel)
{
    EXPECT_EQ(extension_library_open(kEnterprise), nullptr);
    EXPECT_THAT(log_.lines, ElementsAre(Pair(LOG_LEVEL_VERBOSE, "Extension library '" + Library(kEnterprise).string() +
                                                                    "' is not installed")));
}

TEST_F(Extension, WithoutALibDirectoryNoLibraryIsInstalled)
{
    fs::remove_all(work_.path / "lib");
    EXPECT_EQ(extension_library_open(kEnterprise), nullptr);
    EXPECT_THAT(log_.lines, ElementsAre(Pair(LOG_LEVEL_VERBOSE, testing::EndsWith("is not installed"))));
}

TEST_F(Extension, OpenedTwiceItIsCountedTwice)
{
    Install("fake_good");
    void *const first = extension_library_open(kEnterprise);
    void *const second = extension_library_open(kEnterprise);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first, second);
    const auto version = reinterpret_cast<const char *(*)()>(shlib_load(first, "GetExtensionLibraryVersion"));
    extension_library_close(first);
    EXPECT_STREQ(version(), "3.27.0");  // still loaded
    extension_library_close(second);
    extension_library_close(nullptr);
}

TEST_F(Extension, ItsSymbolsStayItsOwn)
{
    Install("fake_good");
    void *const library = extension_library_open(kEnterprise);
    ASSERT_NE(library, nullptr);
    EXPECT_EQ(shlib_load(nullptr, "fake_calls"), nullptr);  // what the program itself can see
    extension_library_close(library);
}

TEST_F(Extension, ThePlugInOfAnotherVersionIsRefused)
{
    Install("fake_other_version");
    ExpectRefused("its version is '3.26.1', this is '3.27.0'");
}

TEST_F(Extension, ThePlugInMustTellItsVersion)
{
    Install("fake_without_version");
    ExpectRefused("it does not tell its version");
}

TEST_F(Extension, AnotherLibraryNeedNotTellItsVersion)
{
    Install("fake_without_version", "veltrane-report-collect.so");
    void *const library = extension_library_open("veltrane-report-collect.so");
    EXPECT_NE(library, nullptr);
    extension_library_close(library);
    EXPECT_THAT(log_.lines, IsEmpty());
}

TEST_F(Extension, AnotherLibraryThatTellsAnotherVersionIsRefused)
{
    Install("fake_other_version", "veltrane-report-collect.so");
    ExpectRefused("its version is '3.26.1', this is '3.27.0'", "veltrane-report-collect.so");
}

TEST_F(Extension, AFileThatDoesNotLoadIsRefusedWithTheLoadersReason)
{
    WriteFile(Library(kEnterprise), "no library");
    fs::permissions(Library(kEnterprise), fs::perms(0755));
    EXPECT_EQ(extension_library_open(kEnterprise), nullptr);
    EXPECT_THAT(log_.lines,
                ElementsAre(Pair(LOG_LEVEL_ERR, StartsWith("Extension library '" + Library(kEnterprise).string() +
                                                           "' is refused: it does not load. (dlopen: "))));
}

TEST_F(Extension, WhatIsNoFileIsRefused)
{
    fs::create_directory(Library(kEnterprise));
    ExpectRefused("'" + Library(kEnterprise).string() + "' is not a regular file");
    fs::remove(Library(kEnterprise));
    ASSERT_EQ(mkfifo(Library(kEnterprise).c_str(), 0600), 0);  // opening it would wait for a writer
    ExpectRefused("'" + Library(kEnterprise).string() + "' is not a regular file");
}

TEST_F(Extension, AFileThatOthersCanWriteIsRefused)
{
    const fs::path library = Install("fake_good");
    for (const unsigned int mode : {0775u, 0757u, 01777u}) {
        ASSERT_EQ(chmod(library.c_str(), mode), 0);
        ExpectRefused("'" + library.string() + "' can be written by its group or by everybody");
    }
}

TEST_F(Extension, ADirectoryAboveThatOthersCanWriteIsRefused)
{
    Install("fake_good");
    const fs::path lib = work_.path / "lib";
    for (const fs::path &directory : {lib, work_.path}) {
        for (const unsigned int mode : {0720u, 0702u}) {
            ASSERT_EQ(chmod(directory.c_str(), mode), 0);
            ExpectRefused("'" + directory.string() + "' can be written by its group or by everybody");
        }
        ASSERT_EQ(chmod(directory.c_str(), 0700), 0);
    }
    void *const library = extension_library_open(kEnterprise);
    EXPECT_NE(library, nullptr);
    extension_library_close(library);
}

TEST_F(Extension, AStickyDirectoryOfRootsOrOursIsSafe)
{
    Install("fake_good");
    const fs::path lib = work_.path / "lib";
    ASSERT_EQ(chmod(lib.c_str(), 01777), 0);

    void *const library = extension_library_open(kEnterprise);

    EXPECT_NE(library, nullptr);
    EXPECT_THAT(log_.lines, IsEmpty());
    extension_library_close(library);
}

TEST_F(Extension, AFileOrDirectoryOfAnotherUserIsRefused)
{
    const fs::path library = Install("fake_good");
    const fs::path lib = work_.path / "lib";
    if (chown(library.c_str(), kStranger, kStranger) != 0) {
        EXPECT_EQ(errno, EPERM);  // nobody but root can give a file away
        return;
    }
    ExpectRefused("'" + library.string() + "' is owned by user 12345, not by root or by this user");
    ASSERT_EQ(chown(library.c_str(), 0, 0), 0);
    ASSERT_EQ(chown(lib.c_str(), kStranger, kStranger), 0);
    ExpectRefused("'" + lib.string() + "' is owned by user 12345, not by root or by this user");
    ASSERT_EQ(chmod(lib.c_str(), 01777), 0);
    ExpectRefused("'" + lib.string() + "' is owned by user 12345, not by root or by this user");
}

TEST_F(Extension, OurOwnFilesAndRootsAreSafeForAnotherUserToo)
{
    const fs::path library = Install("fake_good");
    InChild([&] {
        if (geteuid() == 0) {
            ASSERT_EQ(chmod(work_.path.c_str(), 0755), 0);
            ASSERT_EQ(chown((work_.path / "lib").c_str(), kStranger, kStranger), 0);
            ASSERT_EQ(setresuid(kStranger, kStranger, kStranger), 0);
        }
        void *const opened = extension_library_open(kEnterprise);
        EXPECT_NE(opened, nullptr);
        EXPECT_THAT(log_.lines, IsEmpty());
    });
}

TEST_F(Extension, ALinkIsJudgedByWhereItLeads)
{
    TemporaryDirectory elsewhere;
    const fs::path target = elsewhere.path / "plugin.so";
    fs::copy_file(Install("fake_good", "copy.so"), target);
    fs::create_symlink(target, Library(kEnterprise));

    void *const library = extension_library_open(kEnterprise);
    EXPECT_NE(library, nullptr);
    extension_library_close(library);

    ASSERT_EQ(chmod(elsewhere.path.c_str(), 0777), 0);
    ExpectRefused("'" + elsewhere.path.string() + "' can be written by its group or by everybody");
}

TEST_F(Extension, ALinkToNowhereCountsAsAbsentAndACircleIsRefused)
{
    fs::create_symlink("missing.so", Library(kEnterprise));
    EXPECT_EQ(extension_library_open(kEnterprise), nullptr);
    EXPECT_THAT(log_.lines, ElementsAre(Pair(LOG_LEVEL_VERBOSE, testing::EndsWith("is not installed"))));
    log_.lines.clear();

    fs::remove(Library(kEnterprise));
    fs::create_symlink(kEnterprise, Library(kEnterprise));
    ExpectRefused("its path cannot be resolved. (realpath: Too many levels of symbolic links)");
}

TEST_F(Extension, TheEnterpriseLibraryIsOpenedOnceForAll)
{
    Install("fake_good");
    InChild([&] {
        void *const library = enterprise_library();
        ASSERT_NE(library, nullptr);
        fs::remove(Library(kEnterprise));
        EXPECT_EQ(enterprise_library(), library);
        EXPECT_THAT(log_.lines, IsEmpty());
    });
}

TEST_F(Extension, AnEnterpriseLibraryThatWasRefusedStaysAbsentAndIsToldOnce)
{
    Install("fake_other_version");
    InChild([&] {
        EXPECT_EQ(enterprise_library(), nullptr);
        fs::remove(Library(kEnterprise));
        Install("fake_good");
        EXPECT_EQ(enterprise_library(), nullptr);
        EXPECT_EQ(log_.lines.size(), 1u);
    });
}
