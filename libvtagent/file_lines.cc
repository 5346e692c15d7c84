// Lists of lines, and splitting two texts side by side.
#include "libvtagent/file_lines.h"

#include <charconv>
#include <cstdlib>
#include <cstring>

#include <veltrane/alloc.h>
#include <veltrane/logging.h>
#include <veltrane/string_lib.h>

namespace {

// The two lists while they are filled.
class Hunks {
  public:
    bool Empty() const { return added_ == nullptr && removed_ == nullptr; }

    // False: there is no room for more. The line itself is stored even then.
    bool Add(const char *line, uint32_t counter) { return Store(&added_, line, counter); }
    bool Remove(const char *line, uint32_t counter) { return Store(&removed_, line, counter); }

    FileLine *Added() const { return added_; }
    FileLine *Removed() const { return removed_; }

  private:
    bool Store(FileLine **list, const char *line, uint32_t counter)
    {
        PrependFileLine(list, line, counter);
        lines_++;
        text_ += strlen(line);
        if (text_ > kMaxStoredText) {
            Log(LOG_LEVEL_INFO, "One of the files exceeded maximum size %d during change reporting.",
                kMaxComparedFileSize);
            return false;
        }
        if (lines_ > kMaxStoredLines) {
            Log(LOG_LEVEL_INFO, "List exceeded maximum size of %d during diff generation", kMaxComparedFileSize);
            return false;
        }
        return true;
    }

    FileLine *added_ = nullptr;
    FileLine *removed_ = nullptr;
    size_t text_ = 0;
    size_t lines_ = 0;
};

// One counter serves both texts: lines of one number are read together.
void LoadHunks(char *new_text, char *old_text, Hunks *hunks)
{
    for (uint32_t counter = 1;; counter++) {
        const char *const new_line = ReadNextChunkOfBuffer(&new_text);
        const char *const old_line = ReadNextChunkOfBuffer(&old_text);
        if (new_line == nullptr && old_line == nullptr) {
            return;
        }
        if (hunks->Empty() && StringEqual(new_line, old_line)) {
            continue;
        }
        if ((new_line != nullptr && !hunks->Add(new_line, counter)) ||
            (old_line != nullptr && !hunks->Remove(old_line, counter))) {
            return;
        }
    }
}

}  // namespace

char *ReadNextChunkOfBuffer(char **position) noexcept
{
    char *const line = *position;
    if (*line == '\0') {
        return nullptr;
    }
    char *const end = strchrnul(line, '\n');
    *position = *end == '\n' ? end + 1 : end;
    *end = '\0';
    return line;
}

void PrependFileLine(FileLine **list, const char *text, uint32_t counter) noexcept
{
    auto *line = static_cast<FileLine *>(xmalloc(sizeof(FileLine)));
    *line = {text, counter, *list, nullptr};
    if (*list != nullptr) {
        (*list)->prev = line;
    }
    *list = line;
}

FileLine *ReverseFileList(FileLine *list) noexcept
{
    FileLine *reversed = nullptr;
    while (list != nullptr) {
        FileLine *const line = list;
        list = line->next;
        line->next = reversed;
        line->prev = nullptr;
        if (reversed != nullptr) {
            reversed->prev = line;
        }
        reversed = line;
    }
    return reversed;
}

void DeleteFileLine(FileLine **list, FileLine *line) noexcept
{
    if (line->prev != nullptr) {
        line->prev->next = line->next;
    } else {
        *list = line->next;
    }
    if (line->next != nullptr) {
        line->next->prev = line->prev;
    }
    free(line);
}

void DeleteAllFileLines(FileLine *list) noexcept
{
    while (list != nullptr) {
        FileLine *const line = list;
        list = line->next;
        free(line);
    }
}

void Vesk_LoadFileHunks(char *new_text, char *old_text, FileLine **ret_added, FileLine **ret_removed) noexcept
{
    Hunks hunks;
    LoadHunks(new_text, old_text, &hunks);
    *ret_added = hunks.Added();
    *ret_removed = hunks.Removed();
}

void Vesk_ReportFileChange(Writer *log, const FileLine *list, char kind) noexcept
{
    for (const FileLine *line = list; line != nullptr; line = line->next) {
        char head[16] = {kind, ','};
        char *const end = std::to_chars(head + 2, head + sizeof(head) - 1, line->counter).ptr;
        *end = ',';
        WriterWriteLen(log, head, static_cast<size_t>(end + 1 - head));
        WriterWrite(log, EmptyString(line->text) ? "(blanks/space)" : line->text);
        WriterWriteChar(log, '\n');
    }
}
