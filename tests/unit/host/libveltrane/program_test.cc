// Tests of the common start of programs.
#include "libveltrane/program.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <veltrane/globals.h>
#include <veltrane/known_dirs.h>

#include "support/log_capture.h"
#include "support/work_dir.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using veltrane::ProgramOptions;
using veltrane::StartProgram;

namespace {

class Program : public testing::Test {
  protected:
    Program() { options.workdir = (directory.path / "work").string(); }
    ~Program() override
    {
        LogSetGlobalLevel(LOG_LEVEL_NOTICE);
        FIPS_MODE = false;
        signal(SIGPIPE, SIG_DFL);
    }

    TemporaryDirectory directory;
    ProgramOptions options;
    LogCapture log;
};

}  // namespace

TEST_F(Program, MakesItsWorkDirectoryWithModeZeroSevenHundred)
{
    ASSERT_TRUE(StartProgram(options));

    EXPECT_EQ(std::string(GetWorkDir()), options.workdir);
    for (const char *name : {"", "state", "state/locks", "inputs", "keys", "lib", "log", "diagnostics"}) {
        struct stat status {};
        ASSERT_EQ(stat((directory.path / "work" / name).c_str(), &status), 0) << name;
        EXPECT_EQ(status.st_mode & 07777, 0700u) << name;
    }
    EXPECT_THAT(log.UpTo(LOG_LEVEL_NOTICE), IsEmpty());
}

TEST_F(Program, MakesDirectoriesAboveItsWorkDirectoryAsWell)
{
    options.workdir = (directory.path / "a/b/host").string();

    EXPECT_TRUE(StartProgram(options));
    EXPECT_TRUE(std::filesystem::is_directory(directory.path / "a/b/host/state"));
}

TEST_F(Program, TakesAWorkDirectoryThatIsThere)
{
    ASSERT_TRUE(StartProgram(options));
    EXPECT_TRUE(StartProgram(options));
}

TEST_F(Program, MakesARelativeWorkDirectoryAbsolute)
{
    const std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::current_path(directory.path);
    options.workdir = "below";

    const bool started = StartProgram(options);
    const std::string here = std::filesystem::current_path();
    std::filesystem::current_path(before);

    EXPECT_TRUE(started);
    EXPECT_EQ(std::string(GetWorkDir()), here + "/below");
}

TEST_F(Program, SetsWhatItsOptionsSay)
{
    options.port = "06128";
    options.level = LOG_LEVEL_VERBOSE;
    options.fips = true;

    ASSERT_TRUE(StartProgram(options));

    EXPECT_STREQ(VELTRANE_PORT_STR, "6128");
    EXPECT_EQ(LogGetGlobalLevel(), LOG_LEVEL_VERBOSE);
    EXPECT_TRUE(FIPS_MODE);
}

TEST_F(Program, IgnoresSigpipe)
{
    ASSERT_TRUE(StartProgram(options));

    EXPECT_EQ(signal(SIGPIPE, SIG_DFL), SIG_IGN);
}

TEST_F(Program, SeedsItsRandomNumbersAnewEachTime)
{
    std::vector<int> first;
    for (int start = 0; start < 8; ++start) {
        ASSERT_TRUE(StartProgram(options));
        first.push_back(rand());
    }
    EXPECT_THAT(first, testing::Not(testing::Each(first[0])));
}

TEST_F(Program, RefusesAPortThatIsNone)
{
    for (const char *port : {"0", "65536", "-1", "http", "80 ", "99999999999999999999"}) {
        log.lines.clear();
        options.port = port;

        EXPECT_FALSE(StartProgram(options)) << port;
        EXPECT_THAT(log.UpTo(LOG_LEVEL_NOTICE),
                    ElementsAre(Pair(LOG_LEVEL_ERR,
                                     "'" + std::string(port) + "' is no port: a number from 1 to 65535 is expected")));
    }
}

TEST_F(Program, RefusesAWorkDirectoryThatOthersMayWrite)
{
    ASSERT_EQ(mkdir(options.workdir.c_str(), 0700), 0);
    ASSERT_EQ(chmod(options.workdir.c_str(), 0770), 0);

    EXPECT_FALSE(StartProgram(options));

    const std::string real = std::filesystem::canonical(options.workdir);
    EXPECT_THAT(log.UpTo(LOG_LEVEL_NOTICE),
                ElementsAre(Pair(LOG_LEVEL_ERR, "The work directory '" + options.workdir + "' is refused: '" + real +
                                                    "' is writable by other users")));
    EXPECT_FALSE(std::filesystem::exists(directory.path / "work/state"));
}

TEST_F(Program, MakesNothingBelowADirectoryThatOthersMayWrite)
{
    const std::filesystem::path open = directory.path / "open";
    ASSERT_EQ(mkdir(open.c_str(), 0700), 0);
    ASSERT_EQ(chmod(open.c_str(), 0777), 0);
    options.workdir = (open / "work").string();

    EXPECT_FALSE(StartProgram(options));
    EXPECT_FALSE(std::filesystem::exists(open / "work"));
}

TEST_F(Program, SaysWhatStandsInTheWayOfItsWorkDirectory)
{
    WriteFile(directory.path / "file", "");
    options.workdir = (directory.path / "file/work").string();

    EXPECT_FALSE(StartProgram(options));

    EXPECT_THAT(log.UpTo(LOG_LEVEL_NOTICE),
                ElementsAre(Pair(LOG_LEVEL_ERR, "Could not make the work directory '" + options.workdir +
                                                    "'. (mkdir: Not a directory)")));
}

TEST_F(Program, PresetsHowLongADirectoryIsWaitedFor)
{
    unsetenv("LDAPTIMEOUT");
    unsetenv("LDAPNETWORK_TIMEOUT");
    ASSERT_TRUE(StartProgram(options));
    EXPECT_STREQ(getenv("LDAPTIMEOUT"), "30");
    EXPECT_STREQ(getenv("LDAPNETWORK_TIMEOUT"), "10");
}

TEST_F(Program, LeavesTimeOutsThatAreSetAsTheyAre)
{
    setenv("LDAPTIMEOUT", "7", 1);
    setenv("LDAPNETWORK_TIMEOUT", "", 1);
    ASSERT_TRUE(StartProgram(options));
    EXPECT_STREQ(getenv("LDAPTIMEOUT"), "7");
    EXPECT_STREQ(getenv("LDAPNETWORK_TIMEOUT"), "");
}
