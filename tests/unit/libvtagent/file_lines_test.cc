// Lists of lines, splitting two texts side by side, and the entries of the change log.
#include "libvtagent/file_lines.h"

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <veltrane/owned.h>

#include "support/log_capture.h"
#include "support/texts.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

namespace {

using Lines = std::vector<std::pair<uint32_t, std::string>>;
using FileLinePtr = std::unique_ptr<FileLine, veltrane::Destroyer<DeleteAllFileLines>>;

// The lines of a list as it stands; both ways through it must agree.
Lines LinesOf(const FileLine *list)
{
    Lines lines;
    const FileLine *before = nullptr;
    for (const FileLine *line = list; line != nullptr; line = line->next) {
        EXPECT_EQ(line->prev, before);
        lines.emplace_back(line->counter, line->text);
        before = line;
    }
    return lines;
}

Texts Chunks(std::string text)
{
    Texts chunks;
    char *position = text.data();
    while (const char *chunk = ReadNextChunkOfBuffer(&position)) { chunks.emplace_back(chunk); }
    EXPECT_EQ(ReadNextChunkOfBuffer(&position), nullptr) << "and the end stays the end";
    return chunks;
}

// What two texts load, last line first.
class Loaded {
  public:
    Loaded(std::string new_text, std::string old_text) : new_(std::move(new_text)), old_(std::move(old_text))
    {
        FileLine *added_list = nullptr;
        FileLine *removed_list = nullptr;
        Vesk_LoadFileHunks(new_.data(), old_.data(), &added_list, &removed_list);
        added.reset(added_list);
        removed.reset(removed_list);
    }

  private:
    std::string new_;
    std::string old_;

  public:
    FileLinePtr added;
    FileLinePtr removed;
};

std::string Reported(const std::vector<const char *> &texts, char kind)
{
    FileLine *list = nullptr;
    uint32_t counter = static_cast<uint32_t>(texts.size());
    for (auto text = texts.rbegin(); text != texts.rend(); ++text) { PrependFileLine(&list, *text, counter--); }
    const FileLinePtr owned(list);
    const veltrane::WriterPtr log(StringWriter());
    Vesk_ReportFileChange(log.get(), list, kind);
    return StringWriterData(log.get());
}

}  // namespace

TEST(FileLines, ATextIsCutAtItsLineFeeds)
{
    EXPECT_THAT(Chunks(""), IsEmpty());
    EXPECT_THAT(Chunks("a"), ElementsAre("a"));
    EXPECT_THAT(Chunks("a\n"), ElementsAre("a"));
    EXPECT_THAT(Chunks("a\nbc"), ElementsAre("a", "bc"));
    EXPECT_THAT(Chunks("\n"), ElementsAre(""));
    EXPECT_THAT(Chunks("\n\na\n\n"), ElementsAre("", "", "a", ""));
}

TEST(FileLines, ACarriageReturnStaysInItsLine) { EXPECT_THAT(Chunks("a\r\nb\r"), ElementsAre("a\r", "b\r")); }

TEST(FileLines, ALinePrependedIsTheFirst)
{
    FileLine *list = nullptr;
    PrependFileLine(&list, "b", 2);
    PrependFileLine(&list, "a", 1);
    const FileLinePtr owned(list);
    EXPECT_THAT(LinesOf(list), ElementsAre(Pair(1, "a"), Pair(2, "b")));
}

TEST(FileLines, AListIsTurnedRound)
{
    FileLine *list = nullptr;
    for (uint32_t i = 1; i <= 3; i++) { PrependFileLine(&list, "x", i); }
    list = ReverseFileList(list);
    EXPECT_THAT(LinesOf(list), ElementsAre(Pair(1, "x"), Pair(2, "x"), Pair(3, "x")));
    list = ReverseFileList(list);
    const FileLinePtr owned(list);
    EXPECT_THAT(LinesOf(list), ElementsAre(Pair(3, "x"), Pair(2, "x"), Pair(1, "x")));
    EXPECT_EQ(ReverseFileList(nullptr), nullptr);
}

TEST(FileLines, ALineIsTakenOutOfAnyPlace)
{
    FileLine *list = nullptr;
    for (uint32_t i = 4; i > 0; i--) { PrependFileLine(&list, "x", i); }
    DeleteFileLine(&list, list->next);
    EXPECT_THAT(LinesOf(list), ElementsAre(Pair(1, "x"), Pair(3, "x"), Pair(4, "x")));
    DeleteFileLine(&list, list);
    EXPECT_THAT(LinesOf(list), ElementsAre(Pair(3, "x"), Pair(4, "x")));
    DeleteFileLine(&list, list->next);
    EXPECT_THAT(LinesOf(list), ElementsAre(Pair(3, "x")));
    DeleteFileLine(&list, list);
    EXPECT_EQ(list, nullptr);
    DeleteAllFileLines(list);
}

TEST(LoadFileHunks, TheCommonHeadIsDropped)
{
    const Loaded hunks("a\nb\nX\nd\n", "a\nb\nc\nd\n");
    EXPECT_THAT(LinesOf(hunks.added.get()), ElementsAre(Pair(4, "d"), Pair(3, "X")));
    EXPECT_THAT(LinesOf(hunks.removed.get()), ElementsAre(Pair(4, "d"), Pair(3, "c")));
}

TEST(LoadFileHunks, EqualLinesAfterTheFirstDifferenceAreKept)
{
    const Loaded hunks("X\nb\nc\n", "a\nb\nc\n");
    EXPECT_THAT(LinesOf(hunks.added.get()), ElementsAre(Pair(3, "c"), Pair(2, "b"), Pair(1, "X")));
    EXPECT_THAT(LinesOf(hunks.removed.get()), ElementsAre(Pair(3, "c"), Pair(2, "b"), Pair(1, "a")));
}

TEST(LoadFileHunks, TheLongerFileGoesOnAlone)
{
    const Loaded longer("a\nb\nc", "a\n");
    EXPECT_THAT(LinesOf(longer.added.get()), ElementsAre(Pair(3, "c"), Pair(2, "b")));
    EXPECT_THAT(LinesOf(longer.removed.get()), IsEmpty());

    const Loaded shorter("", "a\nb\n");
    EXPECT_THAT(LinesOf(shorter.added.get()), IsEmpty());
    EXPECT_THAT(LinesOf(shorter.removed.get()), ElementsAre(Pair(2, "b"), Pair(1, "a")));
}

TEST(LoadFileHunks, EqualTextsLoadNothing)
{
    for (const char *text : {"", "a\nb\n", "a\nb"}) {
        const Loaded hunks(text, text);
        EXPECT_EQ(hunks.added, nullptr);
        EXPECT_EQ(hunks.removed, nullptr);
    }
    const Loaded line_end("a\nb\n", "a\nb");
    EXPECT_EQ(line_end.added, nullptr) << "a missing last line feed is no other line";
}

TEST(LoadFileHunks, AsMuchTextAsFitsIsStored)
{
    LogCapture log;
    const Loaded at_limit(std::string(kMaxStoredText, 'a'), "");
    EXPECT_THAT(log.lines, IsEmpty());
    EXPECT_NE(at_limit.added, nullptr);
}

TEST(LoadFileHunks, MoreTextThanFitsStopsTheReadingAndWhatWasStoredStays)
{
    LogCapture log;
    const Loaded hunks(std::string(kMaxStoredText + 1, 'a') + "\nb\n", "x\ny\n");
    EXPECT_THAT(
        log.lines,
        ElementsAre(Pair(LOG_LEVEL_INFO, "One of the files exceeded maximum size 83886080 during change reporting.")));
    ASSERT_NE(hunks.added, nullptr);
    EXPECT_EQ(hunks.added->next, nullptr);
    EXPECT_EQ(hunks.removed, nullptr);
}

TEST(LoadFileHunks, MoreLinesThanFitStopTheReadingAndWhatWasStoredStays)
{
    std::string text;
    for (size_t i = 0; i < kMaxStoredLines + 2; i++) { text += "\n"; }
    LogCapture log;
    const Loaded hunks(text, "x");
    EXPECT_THAT(log.lines,
                ElementsAre(Pair(LOG_LEVEL_INFO, "List exceeded maximum size of 83886080 during diff generation")));
    ASSERT_NE(hunks.added, nullptr);
    EXPECT_EQ(hunks.added->counter, kMaxStoredLines) << "with the removed one it is the first too many";
    EXPECT_THAT(LinesOf(hunks.removed.get()), ElementsAre(Pair(1, "x")));
}

TEST(ReportFileChange, ALineIsItsKindNumberAndText)
{
    EXPECT_EQ(Reported({"one, two", "\"three\""}, '-'), "-,1,one, two\n-,2,\"three\"\n");
    EXPECT_EQ(Reported({"a\r"}, '+'), "+,1,a\r\n");
    EXPECT_EQ(Reported({}, '+'), "");
}

TEST(ReportFileChange, ALineThatShowsNothingIsSaidToBeBlank)
{
    EXPECT_EQ(Reported({"", "  ", "\t", "\r"}, '+'),
              "+,1,(blanks/space)\n+,2,(blanks/space)\n+,3,(blanks/space)\n+,4,(blanks/space)\n");
}

TEST(ReportFileChange, ALongLineIsWrittenWhole)
{
    const std::string text(100'000, 'x');
    EXPECT_EQ(Reported({text.c_str()}, '+'), "+,1," + text + "\n");
}
