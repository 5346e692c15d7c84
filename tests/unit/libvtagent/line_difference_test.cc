// The common lines of two lists, held against the plain table whose result they must be.
#include "libvtagent/line_difference.h"

#include <algorithm>
#include <filesystem>
#include <random>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/log_capture.h"
#include "support/texts.h"
#include "support/work_dir.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

namespace {

// The numbers of the lines that are left of each list.
struct Left {
    std::vector<uint32_t> added;
    std::vector<uint32_t> removed;

    bool operator==(const Left &) const = default;
};

std::ostream &operator<<(std::ostream &out, const Left &left)
{
    return out << "added " << testing::PrintToString(left.added) << " removed " << testing::PrintToString(left.removed);
}

// The table, cell by cell, and the way back through it.
Left ByTable(const Texts &added, const Texts &removed)
{
    const size_t columns = removed.size() + 1;
    std::vector<uint32_t> cells((added.size() + 1) * columns);
    const auto cell = [&](size_t r, size_t c) -> uint32_t & { return cells[r * columns + c]; };
    for (size_t r = 1; r <= added.size(); r++) {
        for (size_t c = 1; c <= removed.size(); c++) {
            cell(r, c) =
                added[r - 1] == removed[c - 1] ? cell(r - 1, c - 1) + 1 : std::max(cell(r - 1, c), cell(r, c - 1));
        }
    }
    std::vector<bool> added_common(added.size());
    std::vector<bool> removed_common(removed.size());
    size_t r = added.size();
    size_t c = removed.size();
    while (r > 0 && c > 0) {
        if (added[r - 1] == removed[c - 1]) {
            added_common[--r] = true;
            removed_common[--c] = true;
        } else if (cell(r - 1, c) == cell(r, c)) {
            r--;
        } else {
            c--;
        }
    }
    Left left;
    for (size_t i = 0; i < added.size(); i++) {
        if (!added_common[i]) {
            left.added.push_back(static_cast<uint32_t>(i + 1));
        }
    }
    for (size_t i = 0; i < removed.size(); i++) {
        if (!removed_common[i]) {
            left.removed.push_back(static_cast<uint32_t>(i + 1));
        }
    }
    return left;
}

// A list that points into texts.
FileLine *ListOf(const Texts &texts)
{
    FileLine *list = nullptr;
    for (size_t i = texts.size(); i > 0; i--) {
        PrependFileLine(&list, texts[i - 1].c_str(), static_cast<uint32_t>(i));
    }
    return list;
}

// The numbers of a list, which is deleted.
std::vector<uint32_t> TakeNumbers(FileLine *list)
{
    std::vector<uint32_t> numbers;
    const FileLine *before = nullptr;
    for (const FileLine *line = list; line != nullptr; line = line->next) {
        EXPECT_EQ(line->prev, before);
        numbers.push_back(line->counter);
        before = line;
    }
    DeleteAllFileLines(list);
    return numbers;
}

Left Remaining(const Texts &added, const Texts &removed)
{
    FileLine *added_list = ListOf(added);
    FileLine *removed_list = ListOf(removed);
    EXPECT_TRUE(RemoveLongestCommonSubSequence(&added_list, &removed_list));
    return {TakeNumbers(added_list), TakeNumbers(removed_list)};
}

using Random = std::mt19937;

size_t Below(Random *random, size_t limit) { return std::uniform_int_distribution<size_t>(0, limit - 1)(*random); }

Texts RandomLines(Random *random, size_t length, size_t alphabet)
{
    Texts texts;
    for (size_t i = 0; i < length; i++) { texts.emplace_back(1, static_cast<char>('!' + Below(random, alphabet))); }
    return texts;
}

// A list with some lines left out, some put in, and sometimes a block moved.
Texts Edited(Random *random, const Texts &lines, size_t alphabet)
{
    Texts edited;
    for (const std::string &line : lines) {
        const size_t what = Below(random, 8);
        if (what == 0) {
            edited.push_back(RandomLines(random, 1, alphabet)[0]);
        }
        if (what != 1) {
            edited.push_back(line);
        }
    }
    if (edited.size() > 2 && Below(random, 3) == 0) {
        const auto middle = edited.begin() + static_cast<long>(Below(random, edited.size()));
        std::rotate(edited.begin(), middle, edited.end());
    }
    return edited.empty() ? Texts{"!"} : edited;
}

// The lines of this project's own files that a pattern names: code and prose as people write them.
Texts LinesOfSources(const std::vector<std::string> &directories)
{
    std::vector<std::filesystem::path> paths;
    for (const std::string &directory : directories) {
        const std::filesystem::path root = std::filesystem::path(VT_TEST_SOURCE_DIR).parent_path() / directory;
        for (const auto &entry : std::filesystem::directory_iterator(root)) {
            if (entry.is_regular_file()) {
                paths.push_back(entry.path());
            }
        }
    }
    std::sort(paths.begin(), paths.end());
    Texts lines;
    for (const std::filesystem::path &path : paths) {
        std::istringstream text(ReadFile(path));
        for (std::string line; std::getline(text, line);) { lines.push_back(line); }
    }
    return lines;
}

}  // namespace

TEST(LineDifference, AmongEqualChoicesTheEarlierCommonLinesAreTakenAsTheTableSays)
{
    EXPECT_EQ(Remaining({"a", "b"}, {"b", "a"}), (Left{{2}, {1}}));
    EXPECT_EQ(Remaining({"b", "a"}, {"a", "b"}), (Left{{2}, {1}}));
    EXPECT_EQ(Remaining({"a"}, {"a", "a"}), (Left{{}, {1}})) << "the last of equal lines is the common one";
    EXPECT_EQ(Remaining({"a", "a", "a"}, {"a"}), (Left{{1, 2}, {}}));
}

TEST(LineDifference, EqualListsLeaveNothing) { EXPECT_EQ(Remaining({"a", "b", "c"}, {"a", "b", "c"}), (Left{{}, {}})); }

TEST(LineDifference, ListsWithoutACommonLineStayWhole)
{
    EXPECT_EQ(Remaining({"a", "b"}, {"x", "y", "z"}), (Left{{1, 2}, {1, 2, 3}}));
}

TEST(LineDifference, LinesThatOnlyTheLongerListHasAreNotTakenForEachOther)
{
    EXPECT_EQ(Remaining({"x", "y", "a", "z"}, {"a"}), (Left{{1, 2, 4}, {}}));
    EXPECT_EQ(Remaining({"a"}, {"x", "y", "a", "z"}), (Left{{}, {1, 2, 4}}));
}

TEST(LineDifference, IsThatOfTheTableForAHundredThousandSmallLists)
{
    Random random(20);
    for (int i = 0; i < 120'000; i++) {
        const size_t alphabet = 1 + Below(&random, 6);
        const Texts added = RandomLines(&random, 1 + Below(&random, 12), alphabet);
        const Texts removed =
            i % 2 == 0 ? RandomLines(&random, 1 + Below(&random, 12), alphabet) : Edited(&random, added, alphabet);
        const Left expected = ByTable(added, removed);
        ASSERT_EQ(Remaining(added, removed), expected)
            << testing::PrintToString(added) << " against " << testing::PrintToString(removed);
    }
}

TEST(LineDifference, IsThatOfTheTableAroundTheLengthsOfWords)
{
    Random random(21);
    for (const size_t length : {1, 62, 63, 64, 65, 66, 127, 128, 129, 190, 193, 321}) {
        for (int i = 0; i < 150; i++) {
            const size_t alphabet = i % 3 == 0 ? 2 : i % 3 == 1 ? 10 : 90;
            const Texts lines = RandomLines(&random, length, alphabet);
            const Texts others =
                i % 2 == 0 ? RandomLines(&random, 1 + Below(&random, 200), alphabet) : Edited(&random, lines, alphabet);
            ASSERT_EQ(Remaining(lines, others), ByTable(lines, others)) << length << " lines added, case " << i;
            ASSERT_EQ(Remaining(others, lines), ByTable(others, lines)) << length << " lines removed, case " << i;
        }
    }
}

TEST(LineDifference, IsThatOfTheTableForLargeRealTexts)
{
    const Texts lines = LinesOfSources({"libvtenterprise", "docs/formats", "host/vt-agent"});
    ASSERT_GT(lines.size(), 4500u);
    const Texts old_lines(lines.begin(), lines.begin() + 4500);

    Texts rewritten;  // a file that was worked on: pieces moved, lines gone and new
    for (size_t i = 0; i < old_lines.size(); i++) {
        const std::string &line = old_lines[(i + 1000) % old_lines.size()];
        if (i % 7 != 0) {
            rewritten.push_back(i % 11 == 0 ? line + " // changed" : line);
        }
    }
    EXPECT_EQ(Remaining(rewritten, old_lines), ByTable(rewritten, old_lines));
    EXPECT_EQ(Remaining(old_lines, rewritten), ByTable(old_lines, rewritten));

    Texts shuffled = old_lines;
    std::shuffle(shuffled.begin(), shuffled.end(), Random(22));
    EXPECT_EQ(Remaining(shuffled, old_lines), ByTable(shuffled, old_lines));
}

TEST(LineDifference, ATableAtItsLimitIsUsed)
{
    // 4580 x 4578 cells of 4 bytes are the last that fit beside each other.
    static_assert(uint64_t{4580} * 4578 * kTableCellBytes <= kMaxTableBytes);
    static_assert(uint64_t{4580} * 4580 * kTableCellBytes > kMaxTableBytes);
    LogCapture log;
    const Texts added_texts(4579, "x");
    const Texts removed_texts(4577, "x");
    FileLine *added = ListOf(added_texts);
    FileLine *removed = ListOf(removed_texts);
    EXPECT_TRUE(RemoveLongestCommonSubSequence(&added, &removed));
    EXPECT_THAT(TakeNumbers(added), ElementsAre(1, 2));
    EXPECT_THAT(TakeNumbers(removed), IsEmpty());
    EXPECT_THAT(log.lines, IsEmpty());
}

TEST(LineDifference, ATableThatWouldBeTooLargeEmptiesBothLists)
{
    LogCapture log;
    const Texts texts(4579, "x");
    FileLine *added = ListOf(texts);
    FileLine *removed = ListOf(texts);
    EXPECT_FALSE(RemoveLongestCommonSubSequence(&added, &removed));
    EXPECT_EQ(added, nullptr);
    EXPECT_EQ(removed, nullptr);
    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_INFO,
                                            "Memory table exceeded maximum size 83886080 during diff generation")));
}

TEST(LineDifference, AFewLinesAreComparedWithMillions)
{
    const Texts few = {"x", "needle", "y"};
    Texts many(4'000'000, "hay");
    many[3'999'000] = "needle";
    FileLine *added = ListOf(many);
    FileLine *removed = ListOf(few);
    EXPECT_TRUE(RemoveLongestCommonSubSequence(&added, &removed));
    EXPECT_EQ(TakeNumbers(added).size(), many.size() - 1);
    EXPECT_THAT(TakeNumbers(removed), ElementsAre(1, 3));
}
