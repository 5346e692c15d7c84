#include "libvtenterprise/state_files.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <random>
#include <thread>
#include <vector>

#include <veltrane/file_lib.h>

#include "support/file_size_limit.h"
#include "support/log_capture.h"
#include "support/work_dir.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using veltrane::FilePtr;
using veltrane::TextPtr;

namespace {

bool Replace(const std::filesystem::path &path, const std::string &bytes)
{
    ReplacementFile file(path.c_str());
    if (file.writer() == nullptr) {
        return false;
    }
    (void)WriterWriteLen(file.writer(), bytes.data(), bytes.size());
    return file.Commit();
}

std::vector<std::string> Records(const std::filesystem::path &path)
{
    std::vector<std::string> records;
    const FilePtr file(safe_fopen(path.c_str(), "r"));
    while (file != nullptr) {
        const TextPtr record(GetCsvLineNext(file.get()));
        if (record == nullptr) {
            break;
        }
        records.emplace_back(record.get());
    }
    return records;
}

TEST(ReplacementFile, TheNewContentTakesTheOldOnesPlaceWhole)
{
    const TemporaryDirectory directory;
    const auto path = directory.path / "file";
    WriteFile(path, "a much longer old content");

    EXPECT_TRUE(Replace(path, "new"));

    EXPECT_EQ(ReadFile(path), "new");
    EXPECT_FALSE(std::filesystem::exists(path.string() + ".new"));
}

TEST(ReplacementFile, TheFileIsForItsOwnerAlone)
{
    const TemporaryDirectory directory;
    const auto path = directory.path / "file";
    WriteFile(path.string() + ".new", "left by a crash, and readable for all");
    ASSERT_EQ(chmod((path.string() + ".new").c_str(), 0644), 0);

    EXPECT_TRUE(Replace(path, "new"));

    struct stat st = {};
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600u);
    EXPECT_EQ(ReadFile(path), "new");
}

TEST(ReplacementFile, WithoutCommitTheOldFileStaysAlone)
{
    const TemporaryDirectory directory;
    const auto path = directory.path / "file";
    WriteFile(path, "old");
    {
        const ReplacementFile file(path.c_str());
        ASSERT_NE(file.writer(), nullptr);
        (void)WriterWrite(file.writer(), "new");
    }

    EXPECT_EQ(ReadFile(path), "old");
    EXPECT_FALSE(std::filesystem::exists(path.string() + ".new"));
}

TEST(ReplacementFile, AFullDiskKeepsTheOldFile)
{
    const TemporaryDirectory directory;
    const auto path = directory.path / "file";
    WriteFile(path, "old");

    bool replaced;
    {
        const FileSizeLimit limit(2);
        replaced = Replace(path, "new");
    }

    EXPECT_FALSE(replaced);
    EXPECT_EQ(ReadFile(path), "old");
    EXPECT_FALSE(std::filesystem::exists(path.string() + ".new"));
}

TEST(ReplacementFile, WhatCannotBeMadeHasNoWriter)
{
    const TemporaryDirectory directory;
    EXPECT_EQ(ReplacementFile((directory.path / "missing" / "file").c_str()).writer(), nullptr);

    std::filesystem::create_directory(directory.path / "file.new");
    EXPECT_EQ(ReplacementFile((directory.path / "file").c_str()).writer(), nullptr);
    EXPECT_TRUE(std::filesystem::is_directory(directory.path / "file.new"));
}

TEST(ReplacementFile, ADirectoryInTheWayIsNotReplaced)
{
    const TemporaryDirectory directory;
    std::filesystem::create_directory(directory.path / "file");

    EXPECT_FALSE(Replace(directory.path / "file", "new"));

    EXPECT_TRUE(std::filesystem::is_directory(directory.path / "file"));
    EXPECT_FALSE(std::filesystem::exists(directory.path / "file.new"));
}

TEST(ReplacementFile, WritersAtOnceNeverMix)
{
    const TemporaryDirectory directory;
    const auto path = directory.path / "file";
    std::vector<std::thread> writers;
    std::vector<int> failures(4);
    for (size_t writer = 0; writer < failures.size(); writer++) {
        writers.emplace_back([&path, &failures, writer] {
            for (int i = 0; i < 25; i++) {
                failures[writer] += !Replace(path, std::string(100'000 + writer, static_cast<char>('a' + writer)));
                const std::string seen = ReadFile(path);
                failures[writer] += seen != std::string(100'000 + (seen[0] - 'a'), seen[0]);
            }
        });
    }
    for (std::thread &writer : writers) { writer.join(); }

    EXPECT_THAT(failures, ElementsAre(0, 0, 0, 0));
    EXPECT_FALSE(std::filesystem::exists(path.string() + ".new"));
}

TEST(AppendRecords, AMissingFileIsMadeForItsOwnerAlone)
{
    const TemporaryDirectory directory;
    const auto path = directory.path / "file";
    LogCapture log;

    EXPECT_TRUE(AppendRecords(path.c_str(), "1,a\r\n"));
    EXPECT_TRUE(AppendRecords(path.c_str(), "2,b\r\n"));

    struct stat st = {};
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600u);
    EXPECT_EQ(ReadFile(path), "1,a\r\n2,b\r\n");
    EXPECT_THAT(log.lines, IsEmpty());
}

TEST(AppendRecords, WhatACrashLeftUnfinishedIsCutOff)
{
    const std::vector<std::pair<std::string, std::string>> torn_and_kept = {
        {"1", ""},
        {"1,a\r", ""},
        {"1,a\r\n2", "1,a\r\n"},
        {"1,a\r\n2,b\r", "1,a\r\n"},
        {"1,a\r\n2,\"b", "1,a\r\n"},
        {"1,a\r\n2,\"b\r\n", "1,a\r\n"},
        {"1,a\r\n2,\"b\r\nc\r\n", "1,a\r\n"},
        {"1,\"a\r\nb\"\r\n2,\"\"\"", "1,\"a\r\nb\"\r\n"},
        {"1,\"a\r\nb\"\r\n2,\"x\"", "1,\"a\r\nb\"\r\n"},
        {std::string("1,a\r\n\0\0\0", 8), "1,a\r\n"},
    };
    for (const auto &[torn, kept] : torn_and_kept) {
        const TemporaryDirectory directory;
        const auto path = directory.path / "file";
        WriteFile(path, torn);
        LogCapture log;

        EXPECT_TRUE(AppendRecords(path.c_str(), "3,c\r\n"));

        EXPECT_EQ(ReadFile(path), kept + "3,c\r\n");
        EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_WARNING,
                                                "Cut off an unfinished record at the end of '" + path.string() + "'")));
    }
}

TEST(AppendRecords, FinishedRecordsStayWhateverTheyHold)
{
    const std::string big(70'000, 'x');  // more than is read at once
    for (const std::string &whole :
         {std::string("1,a\n"), std::string("1,\"a\r\n\"\"b\"\"\r\n\"\r\n"), std::string("\r\n"),
          "1,\"" + big + "\r\n" + big + "\"\r\n2,b\r\n", std::string("1,a\"b\"\r\n"), "1,\"\"\r\n" + big + "\r\n"}) {
        const TemporaryDirectory directory;
        const auto path = directory.path / "file";
        WriteFile(path, whole);
        LogCapture log;

        EXPECT_TRUE(AppendRecords(path.c_str(), "3,c\r\n"));

        EXPECT_EQ(ReadFile(path), whole + "3,c\r\n");
        EXPECT_THAT(log.lines, IsEmpty());
    }
}

// Whatever stood in the file, the reader finds each new record by itself at the end.
TEST(AppendRecords, ANewRecordIsNeverJoinedToWhatWasThere)
{
    std::mt19937 random(20250101);
    const std::string alphabet = "a,\"\"\r\n\n";
    const TemporaryDirectory directory;
    const auto path = directory.path / "file";
    const LogCapture silence;
    for (int round = 0; round < 2000; round++) {
        std::string bytes;
        for (size_t length = random() % 24; bytes.size() < length;) { bytes += alphabet[random() % alphabet.size()]; }
        WriteFile(path, bytes);

        ASSERT_TRUE(AppendRecords(path.c_str(), "new,\"re\r\ncord\"\r\nlast,one\r\n"));

        const std::vector<std::string> records = Records(path);
        ASSERT_GE(records.size(), 2u);
        ASSERT_EQ(records.back(), "last,one") << testing::PrintToString(bytes);
        ASSERT_EQ(records[records.size() - 2], "new,\"re\r\ncord\"") << testing::PrintToString(bytes);
    }
}

// The disk is full after 0, 1, 2 ... bytes until all fits: each time the old or the new records are there.
TEST(AppendRecords, AFullDiskTakesTheWholeBatchBack)
{
    const TemporaryDirectory directory;
    const auto path = directory.path / "file";
    const std::string old_records = "1,a\r\n";
    const std::string new_records = "2,b\r\n3,\"c\r\nd\"\r\n";
    const size_t enough = old_records.size() + new_records.size();
    for (size_t bytes = 0; bytes <= enough; bytes++) {
        WriteFile(path, old_records);
        bool appended;
        {
            const FileSizeLimit limit(bytes);
            appended = AppendRecords(path.c_str(), new_records);
        }
        EXPECT_EQ(appended, bytes == enough);
        EXPECT_EQ(ReadFile(path), appended ? old_records + new_records : old_records) << bytes;
    }
}

TEST(AppendRecords, WhatCannotBeOpenedIsAFailure)
{
    const TemporaryDirectory directory;
    std::filesystem::create_directory(directory.path / "file");
    EXPECT_FALSE(AppendRecords((directory.path / "file").c_str(), "1,a\r\n"));
    EXPECT_FALSE(AppendRecords((directory.path / "missing" / "file").c_str(), "1,a\r\n"));
}

}  // namespace
