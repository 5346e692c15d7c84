// Records and their fields out of blocks of a file; csv_records.h tells which of them are taken apart here.
#include "libvtenterprise/csv_records.h"

#include <cstring>

#include <veltrane/csv.h>

namespace {

bool HoldsOddQuotes(std::string_view bytes)
{
    bool odd = false;
    for (size_t at = bytes.find('"'); at != std::string_view::npos; at = bytes.find('"', at + 1)) { odd = !odd; }
    return odd;
}

// Where the bytes end without the one CR LF or LF that may end them.
size_t LengthWithoutLineEnd(std::string_view bytes)
{
    if (bytes.ends_with('\n')) {
        bytes.remove_suffix(1);
        if (bytes.ends_with('\r')) {
            bytes.remove_suffix(1);
        }
    }
    return bytes.size();
}

char *Find(char c, char *from, char *end)
{
    return static_cast<char *>(memchr(from, c, static_cast<size_t>(end - from)));
}

}  // namespace

CsvRecords::CsvRecords(FILE *file, size_t room) : file_(file), buffer_(room + 1) {}

bool CsvRecords::Next()
{
    text_ = next_;
    const size_t line_end = LineEnd(next_);
    if (next_ == filled_ || ferror_unlocked(file_) != 0) {
        return false;
    }
    const std::string_view line(&buffer_[next_], line_end - next_);
    const std::string_view record = line.substr(0, LengthWithoutLineEnd(line));
    if (!holds_zero_ && SplitPlainly(record)) {
        next_ = line_end;
        buffer_[text_ + record.size()] = '\0';
        LendPlain();
    } else {
        SplitByHost(line_end);
    }
    return true;
}

bool CsvRecords::StepOver(std::string_view record)
{
    text_ = next_;
    while (filled_ - next_ < record.size()) {
        if (!ReadMore()) {
            return false;
        }
    }
    if (memcmp(&buffer_[next_], record.data(), record.size()) != 0) {
        return false;
    }
    next_ += record.size();
    return true;
}

// The place behind the next line end at or after from; the end of the file where there is none. More is read as needed,
// which moves everything: text_, next_ and the result count.
size_t CsvRecords::LineEnd(size_t from)
{
    for (size_t ahead = from - text_;;) {
        const size_t at = text_ + ahead;
        const void *found = memchr(&buffer_[at], '\n', filled_ - at);
        if (found != nullptr) {
            return static_cast<size_t>(static_cast<const char *>(found) - buffer_.data()) + 1;
        }
        ahead = filled_ - text_;
        if (!ReadMore()) {
            return filled_;
        }
    }
}

// Fill the buffer behind what is in use from text_ on. False when there is no more.
bool CsvRecords::ReadMore()
{
    if (all_read_) {
        return false;
    }
    memmove(buffer_.data(), &buffer_[text_], filled_ - text_);
    next_ -= text_;
    filled_ -= text_;
    text_ = 0;
    if (filled_ + 1 == buffer_.size()) {
        buffer_.resize(2 * filled_ + 1);
    }
    const size_t wanted = buffer_.size() - 1 - filled_;
    const size_t got = fread_unlocked(&buffer_[filled_], 1, wanted, file_);
    all_read_ = got < wanted;
    holds_zero_ = holds_zero_ || memchr(&buffer_[filled_], '\0', got) != nullptr;
    filled_ += got;
    return got > 0;
}

// Whether the record is plain; then pieces_ are its fields.
bool CsvRecords::SplitPlainly(std::string_view record)
{
    copy_.resize(record.size() + 1);
    char *at = copy_.data();
    char *const end = at + record.copy(at, record.size());
    *end = '\0';
    for (pieces_.clear();; ++at) {
        const bool quoted = *at == '"';
        char *const start = quoted ? at + 1 : at;
        at = Find(quoted ? '"' : ',', start, end);
        if (quoted) {
            if (at == nullptr || (at + 1 != end && at[1] != ',')) {
                return false;
            }
            *at++ = '\0';
        } else {
            at = at != nullptr ? at : end;
            if (Find('"', start, at) != nullptr) {
                return false;
            }
        }
        pieces_.push_back(start);
        if (at == end) {
            return true;
        }
        *at = '\0';
    }
}

void CsvRecords::LendPlain()
{
    if (plain_ != nullptr && plain_length_ == pieces_.size()) {
        for (size_t i = 0; i < plain_length_; i++) { SeqSet(plain_.get(), i, pieces_[i]); }
    } else {
        plain_length_ = pieces_.size();
        plain_.reset(SeqNew(plain_length_, nullptr));
        for (char *piece : pieces_) { SeqAppend(plain_.get(), piece); }
    }
    fields_ = plain_.get();
}

// line_end  of the record's first line
void CsvRecords::SplitByHost(size_t line_end)
{
    bool quoted = HoldsOddQuotes(std::string_view(&buffer_[text_], line_end - text_));
    while (quoted) {
        const size_t counted = line_end - text_;
        line_end = LineEnd(line_end);
        if (line_end - text_ == counted) {
            break;  // never closed
        }
        quoted = !HoldsOddQuotes(std::string_view(&buffer_[text_ + counted], line_end - text_ - counted));
    }
    next_ = line_end;
    const std::string_view record(&buffer_[text_], line_end - text_);
    // One that was never closed keeps its last line end: it will not split.
    buffer_[text_ + (quoted ? record.size() : LengthWithoutLineEnd(record))] = '\0';
    host_fields_.reset(SeqParseCsvString(text()));
    fields_ = host_fields_.get();
}
