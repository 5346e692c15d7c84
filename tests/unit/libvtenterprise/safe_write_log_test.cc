#include "libvtenterprise/safe_write_log.h"

#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "support/child.h"
#include "support/file_size_limit.h"
#include "support/log_capture.h"
#include "support/work_dir.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

namespace fs = std::filesystem;

namespace {

class SafeWriteLogTest : public testing::Test {
  protected:
    std::string Path(const char *name) const { return work_.State(name).string(); }

    WorkDirectory work_;
    LogCapture log_;
};

}  // namespace

TEST_F(SafeWriteLogTest, TheFileIsMadeForItsOwnerAloneAndAppendedTo)
{
    SafeWriteLog("some.log", "one\r\n");
    SafeWriteLog("some.log", "two\r\n");

    EXPECT_EQ(ReadFile(Path("some.log")), "one\r\ntwo\r\n");
    EXPECT_EQ(fs::status(Path("some.log")).permissions(), fs::perms(0600));
    EXPECT_THAT(log_.lines, IsEmpty());
}

TEST_F(SafeWriteLogTest, NoTextDoesNothing)
{
    SafeWriteLog("some.log", nullptr);

    EXPECT_FALSE(fs::exists(Path("some.log")));
    EXPECT_THAT(log_.lines, IsEmpty());
}

TEST_F(SafeWriteLogTest, AnEmptyTextMakesTheFile)
{
    SafeWriteLog("some.log", "");

    EXPECT_TRUE(fs::exists(Path("some.log")));
    EXPECT_EQ(fs::file_size(Path("some.log")), 0u);
    EXPECT_THAT(log_.lines, IsEmpty());
}

TEST_F(SafeWriteLogTest, MissingDirectoriesAreMade)
{
    fs::remove_all(work_.path / "state");

    SafeWriteLog("deep/er/some.log", "x");

    EXPECT_EQ(ReadFile(Path("deep/er/some.log")), "x");
    EXPECT_EQ(fs::status(work_.path / "state").permissions(), fs::perms(0700));
    EXPECT_THAT(log_.lines, IsEmpty());
}

TEST_F(SafeWriteLogTest, AFileInADirectorysPlaceIsMovedAside)
{
    WriteFile(Path("deep"), "in the way");

    SafeWriteLog("deep/some.log", "x");

    EXPECT_EQ(ReadFile(Path("deep/some.log")), "x");
    EXPECT_EQ(ReadFile(Path("deep.moved-aside")), "in the way");
}

TEST_F(SafeWriteLogTest, AFileThatCannotBeOpenedLosesTheRecordWithAnErrorLine)
{
    fs::create_directory(Path("some.log"));

    SafeWriteLog("some.log", "x");

    EXPECT_THAT(log_.lines, ElementsAre(Pair(LOG_LEVEL_ERR, "Could not create log file at '" + Path("some.log") +
                                                                "', (open: Is a directory)")));
}

TEST_F(SafeWriteLogTest, ALinkThatSomebodyElsePlantedIsNotFollowed)
{
    if (geteuid() != 0) {
        return;  // only root can plant somebody else's link
    }
    WriteFile(work_.path / "victim", "precious");
    fs::create_symlink(work_.path / "victim", Path("some.log"));
    ASSERT_EQ(lchown(Path("some.log").c_str(), 12345, 12345), 0);

    SafeWriteLog("some.log", "x");

    EXPECT_EQ(ReadFile(work_.path / "victim"), "precious");
    EXPECT_THAT(log_.lines, ElementsAre(Pair(LOG_LEVEL_ERR, "Could not create log file at '" + Path("some.log") +
                                                                "', (open: Link has been severed)")));
}

TEST_F(SafeWriteLogTest, AFullDiskLosesTheRecordWithAnErrorLine)
{
    SafeWriteLog("some.log", "one\r\n");
    {
        const FileSizeLimit full(5);
        SafeWriteLog("some.log", "two\r\n");
    }

    EXPECT_EQ(ReadFile(Path("some.log")), "one\r\n");
    EXPECT_THAT(log_.lines, ElementsAre(Pair(LOG_LEVEL_ERR, "Could not write to log file '" + Path("some.log") +
                                                                "' (write: File too large)")));
}

TEST_F(SafeWriteLogTest, ARecordThatFitsOnlyInPartIsTakenBack)
{
    const std::string record = "two\r\n";
    for (size_t room = 0; room <= record.size(); room++) {
        fs::remove(Path("some.log"));
        log_.lines.clear();
        SafeWriteLog("some.log", "one\r\n");
        {
            const FileSizeLimit full(5 + room);
            SafeWriteLog("some.log", record.c_str());
        }
        SafeWriteLog("some.log", "three\r\n");

        const bool fits = room == record.size();
        EXPECT_EQ(ReadFile(Path("some.log")), fits ? "one\r\ntwo\r\nthree\r\n" : "one\r\nthree\r\n") << room;
        EXPECT_EQ(log_.lines.size(), fits ? 0u : 1u) << room;
    }
}

TEST_F(SafeWriteLogTest, ANameThatIsTooLongIsAnErrorLine)
{
    const std::string name(5000, 'x');

    SafeWriteLog(name.c_str(), "x");

    const std::string cut = Path(name.c_str()).substr(0, 4095);
    EXPECT_THAT(log_.lines, ElementsAre(Pair(LOG_LEVEL_ERR, "Could not create log file at '" + cut +
                                                                "', (open: File name too long)")));
}

TEST_F(SafeWriteLogTest, SeveralProcessesMayAppendToOneLog)
{
    constexpr int kRecords = 200;
    const auto append = [&](char c) {
        const std::string record = std::string(300, c) + "\n";
        for (int i = 0; i < kRecords; i++) { SafeWriteLog("some.log", record.c_str()); }
    };
    {
        Child a([&] { append('a'); });
        Child b([&] { append('b'); });
        EXPECT_EQ(a.Wait(), 0);
        EXPECT_EQ(b.Wait(), 0);
    }

    const std::string bytes = ReadFile(Path("some.log"));
    ASSERT_EQ(bytes.size(), 2 * kRecords * 301u);
    for (size_t i = 0; i < bytes.size(); i += 301) {
        EXPECT_EQ(bytes.find_first_not_of(bytes[i], i), i + 300);
        EXPECT_EQ(bytes[i + 300], '\n');
    }
}
