// The longest common subsequence of two lists of lines, 64 cells at a time.
//
// Neighbouring cells of the table differ by 0 or 1, so a row is a row of bits, and the next one comes from it by a few
// operations on whole words: the carry of an addition runs through the places where a match moves on. The way back asks
// only whether a cell is larger than the one above it; these bits are what is kept, one a cell instead of four bytes.
//
// The words lie along the longer of the two lists, whichever that is: so a word is filled, and a list of a few lines
// beside one of millions costs a few rows.
#include "libvtagent/line_difference.h"

#include <cstddef>
#include <numeric>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include <veltrane/logging.h>

namespace {

// Equal lines of both lists have one number. A line that only the longer list has is in no match and has none.
using LineNumber = uint32_t;
constexpr LineNumber kUnmatched = UINT32_MAX;

size_t CountLines(const FileLine *list)
{
    size_t count = 0;
    for (; list != nullptr; list = list->next) { count++; }
    return count;
}

FileLine *LastLine(FileLine *list)
{
    while (list->next != nullptr) { list = list->next; }
    return list;
}

// Both lists as numbers.
struct NumberedLists {
    std::vector<LineNumber> shorter;
    std::vector<LineNumber> longer;
    size_t distinct = 0;  // numbers in use, from 0
};

NumberedLists NumberLines(const FileLine *shorter, size_t shorter_length, const FileLine *longer, size_t longer_length)
{
    NumberedLists lists;
    lists.shorter.reserve(shorter_length);
    lists.longer.reserve(longer_length);
    std::unordered_map<std::string_view, LineNumber> numbers;
    numbers.reserve(shorter_length);
    for (const FileLine *line = shorter; line != nullptr; line = line->next) {
        const auto number = static_cast<LineNumber>(numbers.size());
        lists.shorter.push_back(numbers.try_emplace(line->text, number).first->second);
    }
    for (const FileLine *line = longer; line != nullptr; line = line->next) {
        const auto known = numbers.find(line->text);
        lists.longer.push_back(known != numbers.end() ? known->second : kUnmatched);
    }
    lists.distinct = numbers.size();
    return lists;
}

using Word = uint64_t;
constexpr size_t kWordBits = 64;

constexpr Word BitOf(size_t place) { return Word{1} << (place % kWordBits); }

// How many words hold a bit for each line of the longer list.
size_t WordsOf(const NumberedLists &lists) { return (lists.longer.size() + kWordBits - 1) / kWordBits; }

// Rows of bits, each as long as the longer list.
class BitRows {
  public:
    BitRows(size_t rows, size_t words) : words_(words), bits_(rows * words) {}

    Word *Row(size_t row) { return bits_.data() + row * words_; }
    bool Get(size_t row, size_t place) const { return (bits_[row * words_ + place / kWordBits] & BitOf(place)) != 0; }

  private:
    size_t words_;
    std::vector<Word> bits_;
};

// Where the longer list has a number, as bits: of one number at a time, for most numbers stand in few places.
class Matches {
  public:
    explicit Matches(const NumberedLists &lists) : begins_(lists.distinct + 1), bits_(WordsOf(lists))
    {
        // First where the places of each number end; filled from the back, there they begin.
        for (const LineNumber number : lists.longer) {
            if (number != kUnmatched) {
                begins_[number]++;
            }
        }
        std::partial_sum(begins_.begin(), begins_.end(), begins_.begin());
        places_.resize(begins_.back());
        for (size_t place = lists.longer.size(); place > 0; place--) {
            const LineNumber number = lists.longer[place - 1];
            if (number != kUnmatched) {
                places_[--begins_[number]] = static_cast<uint32_t>(place - 1);
            }
        }
    }

    // Lent until the next call.
    const Word *Of(LineNumber number)
    {
        if (number != shown_) {
            if (shown_ != kUnmatched) {
                Turn(shown_);
            }
            Turn(number);
            shown_ = number;
        }
        return bits_.data();
    }

  private:
    void Turn(LineNumber number)
    {
        for (uint32_t i = begins_[number]; i < begins_[number + 1]; i++) {
            bits_[places_[i] / kWordBits] ^= BitOf(places_[i]);
        }
    }

    std::vector<uint32_t> begins_;  // in places_, by number; and where the last one ends
    std::vector<uint32_t> places_;
    std::vector<Word> bits_;
    LineNumber shown_ = kUnmatched;
};

// Whether each cell is larger than the one of the added line before, a row for each line of the shorter list.
BitRows Growth(const NumberedLists &lists, bool added_is_longer)
{
    const size_t words = WordsOf(lists);
    Matches matches(lists);
    BitRows growth(lists.shorter.size(), words);
    // A bit is 0 where a cell of the row is larger than the one before it; at first none is.
    std::vector<Word> level(words, ~Word{0});
    for (size_t row = 0; row < lists.shorter.size(); row++) {
        const Word *const match = matches.Of(lists.shorter[row]);
        Word *const grown = growth.Row(row);
        Word carry = 0;
        for (size_t i = 0; i < words; i++) {
            if ((match[i] | carry) == 0) {  // nothing moves on here; where lines are rare, this is most of a row
                grown[i] = added_is_longer ? ~level[i] : 0;
                continue;
            }
            const Word before = level[i];
            const Word hit = before & match[i];
            const Word half_sum = before + hit;
            const Word sum = half_sum + carry;
            carry = static_cast<Word>(half_sum < before) | static_cast<Word>(sum < half_sum);
            level[i] = sum | (before & ~match[i]);
            // The added lines are either along the words, or across them: there a carry that leaves a place is growth.
            grown[i] = added_is_longer ? ~level[i] : hit | (before & ~sum);
        }
    }
    return growth;
}

// The way back; see the header.
void DeleteCommonLines(const NumberedLists &lists, const BitRows &growth, bool added_is_longer, FileLine **added,
                       FileLine **removed)
{
    const std::vector<LineNumber> &added_numbers = added_is_longer ? lists.longer : lists.shorter;
    const std::vector<LineNumber> &removed_numbers = added_is_longer ? lists.shorter : lists.longer;
    FileLine *added_line = LastLine(*added);
    FileLine *removed_line = LastLine(*removed);
    size_t r = added_numbers.size();
    size_t c = removed_numbers.size();
    while (r > 0 && c > 0) {
        if (added_numbers[r - 1] == removed_numbers[c - 1]) {
            DeleteFileLine(added, std::exchange(added_line, added_line->prev));
            DeleteFileLine(removed, std::exchange(removed_line, removed_line->prev));
            r--;
            c--;
        } else if (!(added_is_longer ? growth.Get(c - 1, r - 1) : growth.Get(r - 1, c - 1))) {
            added_line = added_line->prev;
            r--;
        } else {
            removed_line = removed_line->prev;
            c--;
        }
    }
}

}  // namespace

bool RemoveLongestCommonSubSequence(FileLine **added, FileLine **removed) noexcept
{
    const size_t added_length = CountLines(*added);
    const size_t removed_length = CountLines(*removed);
    const uint64_t cells = (uint64_t{added_length} + 1) * (uint64_t{removed_length} + 1);
    if (cells > kMaxTableCells || cells * kTableCellBytes > kMaxTableBytes) {
        Log(LOG_LEVEL_INFO, "Memory table exceeded maximum size %d during diff generation", kMaxComparedFileSize);
        DeleteAllFileLines(std::exchange(*added, nullptr));
        DeleteAllFileLines(std::exchange(*removed, nullptr));
        return false;
    }
    const bool added_is_longer = added_length > removed_length;
    const NumberedLists lists = added_is_longer ? NumberLines(*removed, removed_length, *added, added_length)
                                                : NumberLines(*added, added_length, *removed, removed_length);
    DeleteCommonLines(lists, Growth(lists, added_is_longer), added_is_longer, added, removed);
    return true;
}
