#include "libvtenterprise/untracked_index.h"

#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <veltrane/alloc.h>
#include <veltrane/owned.h>

#include "libvtenterprise/diff_common.h"
#include "tests/support/log_capture.h"
#include "tests/support/work_dir.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;
using veltrane::StringMapPtr;
using Entries = std::vector<std::pair<std::string, std::string>>;

// What the golden file holds, one of each kind: a plain row, one without a key, quotes, a line end inside a field, and
// the record end of a row for an old peer.
const Entries kGoldenEntries = {
    {"cfg", "1700000000,1,cfg,secret"},
    {"", "1700000000,2,gone,"},
    {"quo\"ted", "1700000000,3,\"quo\"\"ted\",secret"},
    {"multi", "1700000000,1,multi,\"a\nb\""},
    {"old", "1700000000,1,old,secret\r\n"},
};
const std::string kGoldenFile = VT_TEST_SOURCE_DIR "/golden/untracked/classes.idx";

StringMapPtr NewIndex(const Entries &entries)
{
    StringMapPtr index(StringMapNew());
    for (const auto &[key, row] : entries) { StringMapInsert(index.get(), xstrdup(key.c_str()), xstrdup(row.c_str())); }
    return index;
}

Entries EntriesOf(const StringMap *index)
{
    Entries entries;
    MapIterator i = MapIteratorInit(index);
    for (const MapKeyValue *entry = MapIteratorNext(&i); entry != nullptr; entry = MapIteratorNext(&i)) {
        entries.emplace_back(static_cast<const char *>(entry->key), static_cast<const char *>(entry->value));
    }
    return entries;
}

class UntrackedIndex : public ::testing::Test {
  protected:
    bool Push(const Entries &entries) const { return UntrackedIndexPush(path_.c_str(), NewIndex(entries).get()); }
    Entries Get() const { return EntriesOf(StringMapPtr(UntrackedIndexGet(path_.c_str())).get()); }

    WorkDirectory work_;
    const std::string path_ = work_.State("untracked/classes.idx").string();
};

TEST_F(UntrackedIndex, IsWrittenAsTheGoldenFile)
{
    ASSERT_TRUE(Push(kGoldenEntries));

    EXPECT_EQ(ReadFile(path_), ReadFile(kGoldenFile));
    EXPECT_NE(ReadFile(kGoldenFile), "");
}

TEST_F(UntrackedIndex, IsReadFromTheGoldenFile)
{
    LogCapture log;

    EXPECT_EQ(EntriesOf(StringMapPtr(UntrackedIndexGet(kGoldenFile.c_str())).get()), kGoldenEntries);

    EXPECT_THAT(log.lines, IsEmpty());
}

TEST_F(UntrackedIndex, ARowForAnOldPeerReadsBackAsARow)
{
    const StringMapPtr index(UntrackedIndexGet(kGoldenFile.c_str()));

    DiffRow *row = DiffRowFromCSV(StringMapGet(index.get(), "old"), report_type_classes);

    ASSERT_NE(row, nullptr);
    const veltrane::TextPtr text(DiffRowToCSV(row, report_type_classes, false));
    EXPECT_STREQ(text.get(), "1700000000,1,old,secret");
    DiffRowDelete(row);
}

TEST_F(UntrackedIndex, ThatIsNotThereIsEmpty)
{
    LogCapture log;

    EXPECT_THAT(Get(), IsEmpty());

    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_VERBOSE, "Could not read file: '" + path_ + "'")));
}

TEST_F(UntrackedIndex, ThatBecameEmptyLeavesAnEmptyFile)
{
    ASSERT_TRUE(Push(kGoldenEntries));
    ASSERT_TRUE(Push({}));

    EXPECT_TRUE(std::filesystem::exists(path_));
    EXPECT_EQ(ReadFile(path_), "");
    EXPECT_THAT(Get(), IsEmpty());
}

TEST_F(UntrackedIndex, IsPrivateAndLeavesNothingBesideItself)
{
    WriteFile(path_, "old,old\r\n");
    ASSERT_EQ(chmod(path_.c_str(), 0644), 0);

    ASSERT_TRUE(Push({{"new", "row"}}));

    struct stat sb;
    ASSERT_EQ(stat(path_.c_str(), &sb), 0);
    EXPECT_EQ(sb.st_mode & 07777, 0600U);
    std::vector<std::string> names;
    for (const auto &entry : std::filesystem::directory_iterator(work_.State("untracked"))) {
        names.push_back(entry.path().filename());
    }
    EXPECT_THAT(names, ElementsAre("classes.idx"));
}

TEST_F(UntrackedIndex, IsReplacedSoThatAnOpenReaderKeepsTheOldOne)
{
    ASSERT_TRUE(Push({{"a", "first"}}));
    std::ifstream reader(path_);

    ASSERT_TRUE(Push({{"a", "second"}}));

    std::string line;
    ASSERT_TRUE(std::getline(reader, line));
    EXPECT_EQ(line, "a,first\r");
    EXPECT_EQ(ReadFile(path_), "a,second\r\n");
}

TEST_F(UntrackedIndex, TheLaterOfTwoRecordsWithOneKeyCounts)
{
    WriteFile(path_, "a,first\r\nb,other\r\na,second\r\n");

    EXPECT_EQ(Get(), (Entries{{"a", "second"}, {"b", "other"}}));
}

TEST_F(UntrackedIndex, EveryBackslashNIsReadAsALineEnd)
{
    ASSERT_TRUE(Push({{"path", "C:\\new"}}));
    EXPECT_EQ(ReadFile(path_), "path,C:\\new\r\n");

    EXPECT_EQ(Get(), (Entries{{"path", "C:\new"}}));  // the row's own pair is not told apart from a line end
}

TEST_F(UntrackedIndex, ARecordThatIsNotTwoFieldsIsSkipped)
{
    LogCapture log;
    WriteFile(path_, "one\r\na,b,c\r\nkey,row\r\n\r\n");

    EXPECT_EQ(Get(), (Entries{{"key", "row"}}));

    EXPECT_THAT(
        log.lines,
        ElementsAre(
            Pair(LOG_LEVEL_VERBOSE, "Invalid attribute count in untracked index: 'one' (index: '" + path_ + "')"),
            Pair(LOG_LEVEL_VERBOSE, "Invalid attribute count in untracked index: 'a,b,c' (index: '" + path_ + "')"),
            Pair(LOG_LEVEL_VERBOSE, "Invalid attribute count in untracked index: '' (index: '" + path_ + "')")));
}

TEST_F(UntrackedIndex, ARecordThatDoesNotSplitIsSkippedAndShownAsItWasRead)
{
    LogCapture log;
    WriteFile(path_, "a\"b\\n\",c\r\nkey,row\r\n");

    EXPECT_EQ(Get(), (Entries{{"key", "row"}}));

    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_VERBOSE,
                                            "Failed to parse CSV entry in untracked index: 'a\"b\\n\",c' (index: '" +
                                                path_ + "')")));
}

TEST_F(UntrackedIndex, AFileCutOffInsideAQuoteKeepsWhatCameBefore)
{
    LogCapture log;
    WriteFile(path_, "key,row\r\nnext,\"torn of");

    EXPECT_EQ(Get(), (Entries{{"key", "row"}}));

    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_VERBOSE,
                                            "Failed to parse CSV entry in untracked index: 'next,\"torn of' (index: '" +
                                                path_ + "')")));
}

TEST_F(UntrackedIndex, IsNotWrittenWhereItsDirectoryIsMissing)
{
    LogCapture log;
    const std::string path = work_.State("missing/classes.idx").string();

    EXPECT_FALSE(UntrackedIndexPush(path.c_str(), NewIndex({{"a", "b"}}).get()));

    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_VERBOSE, "Could not write file: '" + path + "'")));
}

TEST_F(UntrackedIndex, IsNotWrittenOverADirectory)
{
    LogCapture log;
    std::filesystem::create_directory(path_);

    EXPECT_FALSE(Push({{"a", "b"}}));

    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_VERBOSE, "Could not write file: '" + path_ + "'")));
    EXPECT_TRUE(std::filesystem::is_directory(path_));
}

// Files may grow to this many bytes and no further, as on a disk that fills up.
class FileSizeLimit {
  public:
    explicit FileSizeLimit(rlim_t bytes)
    {
        previous_handler_ = signal(SIGXFSZ, SIG_IGN);
        getrlimit(RLIMIT_FSIZE, &previous_);
        rlimit limit = previous_;
        limit.rlim_cur = bytes;
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~FileSizeLimit()
    {
        setrlimit(RLIMIT_FSIZE, &previous_);
        signal(SIGXFSZ, previous_handler_);
    }

  private:
    rlimit previous_;
    void (*previous_handler_)(int);
};

TEST_F(UntrackedIndex, ADiskThatFillsUpKeepsTheOldOneWhereverItHappens)
{
    const std::string old_bytes = ReadFile(kGoldenFile);
    WriteFile(path_, old_bytes);
    Entries entries;
    for (int i = 0; i < 3000; ++i) { entries.emplace_back("key" + std::to_string(i), std::string(60, 'x')); }
    const StringMapPtr index = NewIndex(entries);

    for (const rlim_t limit : {0, 1, 4095, 65536, 100000, 200000}) {
        LogCapture log;
        bool written;
        {
            const FileSizeLimit full(limit);
            written = UntrackedIndexPush(path_.c_str(), index.get());
        }
        EXPECT_FALSE(written) << limit;
        EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_VERBOSE, "Could not write file: '" + path_ + "'")));
        EXPECT_EQ(ReadFile(path_), old_bytes);
    }

    EXPECT_TRUE(UntrackedIndexPush(path_.c_str(), index.get()));
    EXPECT_EQ(Get(), entries);
}

TEST_F(UntrackedIndex, ThreadsThatReadAndWriteItSeeWholeOnes)
{
    Entries entries;
    for (int i = 0; i < 100; ++i) { entries.emplace_back("key" + std::to_string(i), "row"); }
    ASSERT_TRUE(Push(entries));

    std::vector<std::thread> threads;
    for (int t = 0; t < 2; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 20; ++i) { EXPECT_TRUE(Push(entries)); }
        });
        threads.emplace_back([&] {
            for (int i = 0; i < 20; ++i) { EXPECT_EQ(Get(), entries); }
        });
    }
    for (std::thread &thread : threads) { thread.join(); }
}

}  // namespace
