// Sequence of pointers, and a stable merge sort that trusts no comparator.
//
// The sort is a natural merge sort: it takes the runs that are there, lengthens short ones by insertion, and merges
// neighbours in the order of the powersort rule, depth first, so that small merges stay in the cache. Its invariant:
// every position is bounded by an index of its own, never by what a comparison said, so a comparator that contradicts
// itself costs the order and nothing else. (The standard library's sorts are undefined then.)
#include <veltrane/seq.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>

#include <veltrane/alloc.h>
#include <veltrane/errors.h>

struct Seq_ {
    void **items;
    size_t length;
    size_t room;
    void (*destroy)(void *item);
};

namespace {

constexpr size_t kShortRun = 24;  // runs shorter than this are lengthened by insertion

struct FreeMemory {
    void operator()(void **memory) const { free(memory); }
};

class Sorter {
  public:
    Sorter(void **items, size_t length, SeqItemComparator compare, void *user_data)
        : items_(items), length_(length), compare_(compare), user_data_(user_data)
    {
    }

    void Sort()
    {
        for (size_t start = 0; start < length_;) {
            const Run run = {start, NextRun(start), 0};
            if (depth_ > 0) {
                const int power = Power(runs_[depth_ - 1], run);
                while (depth_ > 1 && runs_[depth_ - 2].power > power) { MergeTopTwo(); }
                runs_[depth_ - 1].power = power;
            }
            runs_[depth_++] = run;
            start = run.end;
        }
        while (depth_ > 1) { MergeTopTwo(); }
    }

  private:
    struct Run {
        size_t start;
        size_t end;
        int power;  // how deep in a balanced tree the border to the next run lies
    };

    bool Less(const void *a, const void *b) const { return compare_(a, b, user_data_) < 0; }

    // The end of a sorted run that begins at start: what is in order already, lengthened by insertion where it is
    // short.
    size_t NextRun(size_t start)
    {
        size_t end = start + 1;
        if (end < length_) {
            if (Less(items_[end], items_[end - 1])) {  // strictly falling, else reversing would not be stable
                do {
                    end++;
                } while (end < length_ && Less(items_[end], items_[end - 1]));
                std::reverse(items_ + start, items_ + end);
            } else {
                do {
                    end++;
                } while (end < length_ && !Less(items_[end], items_[end - 1]));
            }
        }
        const size_t wanted = std::min(start + kShortRun, length_);
        for (; end < wanted; end++) { InsertLast(start, end); }
        return end;
    }

    // Moves the item at last to its place in the sorted items before it.
    void InsertLast(size_t start, size_t last)
    {
        void *item = items_[last];
        const size_t place = UpperBound(item, start, last);
        memmove(items_ + place + 1, items_ + place, (last - place) * sizeof(void *));
        items_[place] = item;
    }

    // The first place in [low, high) whose item is greater than item, else high.
    size_t UpperBound(const void *item, size_t low, size_t high) const
    {
        while (low < high) {
            const size_t middle = low + (high - low) / 2;
            if (Less(item, items_[middle])) {
                high = middle;
            } else {
                low = middle + 1;
            }
        }
        return low;
    }

    // The first place in [low, high) whose item is not less than item, else high.
    size_t LowerBound(const void *item, size_t low, size_t high) const
    {
        while (low < high) {
            const size_t middle = low + (high - low) / 2;
            if (Less(items_[middle], item)) {
                low = middle + 1;
            } else {
                high = middle;
            }
        }
        return low;
    }

    // The number of leading binary digits that the middles of both runs, as parts of the whole, have in common.
    int Power(const Run &left, const Run &right) const
    {
        size_t a = left.start + left.end;
        size_t b = right.start + right.end;
        const size_t whole = 2 * length_;
        int power = 0;
        for (;;) {
            power++;
            a *= 2;
            b *= 2;
            if (a >= whole) {
                a -= whole;
                b -= whole;
            } else if (b >= whole) {
                return power;
            }
        }
    }

    void MergeTopTwo()
    {
        Run &left = runs_[depth_ - 2];
        const Run &right = runs_[depth_ - 1];
        Merge(left.start, left.end, right.end);
        left.end = right.end;
        depth_--;
    }

    // Merges the sorted neighbours [start, middle) and [middle, end).
    void Merge(size_t start, size_t middle, size_t end)
    {
        if (!Less(items_[middle], items_[middle - 1])) {
            return;  // in order already
        }
        start = UpperBound(items_[middle], start, middle);
        if (start == middle) {
            return;
        }
        end = LowerBound(items_[middle - 1], middle, end);
        if (buffer_ == nullptr) {
            buffer_.reset(static_cast<void **>(xmalloc((length_ / 2 + 1) * sizeof(void *))));
        }
        if (middle - start <= end - middle) {
            MergeFromFront(start, middle, end);
        } else {
            MergeFromBack(start, middle, end);
        }
    }

    void MergeFromFront(size_t start, size_t middle, size_t end)
    {
        const size_t left_length = middle - start;
        void **left = buffer_.get();
        memcpy(left, items_ + start, left_length * sizeof(void *));
        size_t i = 0;
        size_t j = middle;
        size_t to = start;
        while (i < left_length && j < end) { items_[to++] = Less(items_[j], left[i]) ? items_[j++] : left[i++]; }
        memcpy(items_ + to, left + i, (left_length - i) * sizeof(void *));
    }

    void MergeFromBack(size_t start, size_t middle, size_t end)
    {
        void **right = buffer_.get();
        memcpy(right, items_ + middle, (end - middle) * sizeof(void *));
        size_t i = middle;        // items [start, i) of the left run are left
        size_t j = end - middle;  // items [0, j) of the right run are left
        size_t to = end;
        while (i > start && j > 0) { items_[--to] = Less(right[j - 1], items_[i - 1]) ? items_[--i] : right[--j]; }
        memcpy(items_ + start, right, j * sizeof(void *));  // nothing, or the left run is used up
    }

    void **items_;
    size_t length_;
    SeqItemComparator compare_;
    void *user_data_;
    std::unique_ptr<void *, FreeMemory> buffer_;  // room for half of the items
    // Powers rise strictly along the stack, and none exceeds the number of bits of a length by more than one.
    Run runs_[sizeof(size_t) * CHAR_BIT + 4];
    size_t depth_ = 0;
};

void Reserve(Seq *seq, size_t more)
{
    if (more <= seq->room - seq->length) {
        return;
    }
    const size_t doubled = seq->room < 4 ? 8 : seq->room * 2;
    seq->room = std::max(seq->length + more, doubled);
    seq->items = static_cast<void **>(xrealloc(seq->items, seq->room * sizeof(void *)));
}

Seq *NewView(void *const *items, size_t length)
{
    Seq *view = SeqNew(length, nullptr);
    if (length > 0) {
        memcpy(view->items, items, length * sizeof(void *));
    }
    view->length = length;
    return view;
}

}  // namespace

Seq *SeqNew(size_t capacity, void (*destroy)(void *item))
{
    Seq *seq = static_cast<Seq *>(xcalloc(1, sizeof(Seq)));
    seq->destroy = destroy;
    if (capacity > 0) {
        seq->items = static_cast<void **>(xcalloc(capacity, sizeof(void *)));
        seq->room = capacity;
    }
    return seq;
}

void SeqDestroy(Seq *seq)
{
    if (seq == nullptr) {
        return;
    }
    if (seq->destroy != nullptr) {
        for (size_t i = 0; i < seq->length; i++) {
            if (seq->items[i] != nullptr) {
                seq->destroy(seq->items[i]);
            }
        }
    }
    SeqSoftDestroy(seq);
}

void SeqSoftDestroy(Seq *seq)
{
    if (seq != nullptr) {
        free(seq->items);
        free(seq);
    }
}

size_t SeqLength(const Seq *seq) { return seq->length; }

void *SeqAt(const Seq *seq, size_t i)
{
    if (i >= seq->length) {
        ProgrammingError("Position %zu of a sequence of %zu", i, seq->length);
    }
    return seq->items[i];
}

void SeqSet(Seq *seq, size_t i, void *item)
{
    if (i >= seq->length) {
        ProgrammingError("Position %zu of a sequence of %zu", i, seq->length);
    }
    void *old = seq->items[i];
    seq->items[i] = item;
    if (old != nullptr && old != item && seq->destroy != nullptr) {
        seq->destroy(old);
    }
}

void SeqAppend(Seq *seq, void *item)
{
    Reserve(seq, 1);
    seq->items[seq->length++] = item;
}

void SeqAppendSeq(Seq *seq, const Seq *items)
{
    const size_t more = items->length;  // read once: both may be the same sequence
    if (more == 0) {
        return;
    }
    Reserve(seq, more);
    memcpy(seq->items + seq->length, items->items, more * sizeof(void *));
    seq->length += more;
}

void SeqSort(Seq *seq, SeqItemComparator compare, void *user_data)
{
    if (seq->length > 1) {
        Sorter(seq->items, seq->length, compare, user_data).Sort();
    }
}

Seq *SeqSoftSort(const Seq *seq, SeqItemComparator compare, void *user_data)
{
    Seq *view = NewView(seq->items, seq->length);
    SeqSort(view, compare, user_data);
    return view;
}

void *SeqLookup(const Seq *seq, const void *key, SeqItemComparator compare)
{
    for (size_t i = 0; i < seq->length; i++) {
        if (compare(key, seq->items[i], nullptr) == 0) {
            return seq->items[i];
        }
    }
    return nullptr;
}

void *SeqBinaryLookup(const Seq *seq, const void *key, SeqItemComparator compare)
{
    size_t low = 0;
    size_t high = seq->length;
    while (low < high) {  // the first item that key does not follow, so of equal ones the first
        const size_t middle = low + (high - low) / 2;
        if (compare(key, seq->items[middle], nullptr) > 0) {
            low = middle + 1;
        } else {
            high = middle;
        }
    }
    return low < seq->length && compare(key, seq->items[low], nullptr) == 0 ? seq->items[low] : nullptr;
}

Seq *SeqGetRange(const Seq *seq, size_t first, size_t last)
{
    if (first > last || last >= seq->length) {
        return nullptr;
    }
    return NewView(seq->items + first, last - first + 1);
}

int SeqStringLength(const Seq *texts)
{
    size_t total = 0;
    for (size_t i = 0; i < texts->length; i++) {
        const char *text = static_cast<const char *>(texts->items[i]);
        total += text != nullptr ? strlen(text) : 0;
        if (total >= INT_MAX) {
            return INT_MAX;
        }
    }
    return static_cast<int>(total);
}

Seq *SeqStringFromString(const char *text, char separator)
{
    if (text == nullptr) {
        return nullptr;
    }
    Seq *pieces = SeqNew(0, free);
    while (*text != '\0') {
        const char *end = strchrnul(text, separator);
        SeqAppend(pieces, xstrndup(text, end - text));
        text = *end == '\0' ? end : end + 1;
    }
    return pieces;
}

bool SeqStringWriteFileStream(const Seq *texts, FILE *fp)
{
    for (size_t i = 0; i < texts->length; i++) {
        const char *text = static_cast<const char *>(texts->items[i]);
        if (text != nullptr && (fputs(text, fp) == EOF || putc('\n', fp) == EOF)) {
            return false;
        }
    }
    return true;
}
