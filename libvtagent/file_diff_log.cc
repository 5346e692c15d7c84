// The entry point for watched files: when to compare, where the reference copy lies, and the entry of the change log.
#include "libvtagent/file_diff_log.h"

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <memory>
#include <optional>
#include <utility>

#include <veltrane/alloc.h>
#include <veltrane/errors.h>
#include <veltrane/file_lib.h>
#include <veltrane/known_dirs.h>
#include <veltrane/logging.h>
#include <veltrane/net.h>
#include <veltrane/policy.h>
#include <veltrane/string_lib.h>

#include "libvtagent/file_lines.h"
#include "libvtagent/line_difference.h"
#include "libvtenterprise/datapack_file_diffs.h"
#include "libvtenterprise/entry_points_real.h"
#include "libvtenterprise/safe_write_log.h"

namespace {

using veltrane::FilePtr;
using veltrane::TextPtr;
using veltrane::WriterPtr;

constexpr char kReferenceSuffix[] = "_vtchanges";

// Whether each byte is in no text: a table, for a file has many bytes.
constexpr std::array<bool, 256> kIsBinaryByte = [] {
    std::array<bool, 256> table{};
    for (size_t byte = 0; byte < 0x20; byte++) { table[byte] = byte != '\t' && byte != '\n' && byte != '\r'; }
    table[0x7F] = true;
    return table;
}();

// The content of a file; NULL with errno. What is no regular file has none: a FIFO that somebody put in a watched place
// would hold us.
WriterPtr ReadRegularFile(const char *name, size_t max_size)
{
    struct stat status {};
    if (stat(name, &status) != 0) {
        return nullptr;
    }
    if (!S_ISREG(status.st_mode)) {
        errno = S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
        return nullptr;
    }
    return WriterPtr(FileRead(name, max_size, nullptr));
}

// Fill in the text of a file. False, with *ret_message and *ret_unable_to_open as CheckDiffFile has them.
bool ReadText(ComparedFile *file, bool *ret_unable_to_open, TextPtr *ret_message)
{
    char *message = nullptr;
    file->text.reset(
        CheckDiffFile(file->path.c_str(), kMaxComparedFileSize, &file->length, ret_unable_to_open, &message));
    ret_message->reset(message);
    return file->text != nullptr;
}

// The lines that only one of the texts has; both texts are changed.
void WriteLines(Writer *entry, const ComparedFile &file, const ComparedFile &reference)
{
    FileLine *added = nullptr;
    FileLine *removed = nullptr;
    Vesk_LoadFileHunks(file.text.get(), reference.text.get(), &added, &removed);
    while (added != nullptr && removed != nullptr && StringEqual(added->text, removed->text)) {  // the common tail
        DeleteFileLine(&added, added);
        DeleteFileLine(&removed, removed);
    }
    added = ReverseFileList(added);
    removed = ReverseFileList(removed);
    if (added != nullptr && removed != nullptr) {
        (void)RemoveLongestCommonSubSequence(&added, &removed);  // it has said why; then no lines are left
    }
    Vesk_ReportFileChange(entry, removed, '-');
    Vesk_ReportFileChange(entry, added, '+');
    DeleteAllFileLines(added);
    DeleteAllFileLines(removed);
}

void WriteSizes(Writer *entry, time_t now, const ComparedFile &file, const ComparedFile &reference, size_t position)
{
    WriterWriteF(entry, "%ld;File changed size from %jd to %jd, first difference at byte position %jd/%jd of old\n",
                 static_cast<long>(now), static_cast<intmax_t>(reference.size), static_cast<intmax_t>(file.size),
                 static_cast<intmax_t>(position), static_cast<intmax_t>(reference.size));
}

// What stands between the head of an entry and its end. False: the difference could not be told.
bool WriteDifference(Writer *entry, time_t now, const ComparedFile &file, ComparedFile *reference)
{
    bool unable_to_open = false;
    TextPtr message;
    if (!ReadText(reference, &unable_to_open, &message)) {
        if (!unable_to_open) {
            WriteSizes(entry, now, file, *reference, 1);  // the reader of the log takes the time from here
            WriterWrite(entry, "+,0,(binary file)\n");
        }
        Log(LOG_LEVEL_ERR, "%s", message.get());
        return false;
    }
    const size_t position =
        Vesk_GetFirstChangePosition(file.text.get(), file.length, reference->text.get(), reference->length);
    WriteSizes(entry, now, file, *reference, position);
    if (file.length == 0 && reference->length == 0) {
        Log(LOG_LEVEL_INFO, "Unable to find reference files for doing diff");
    } else {
        WriteLines(entry, file, *reference);
    }
    return true;
}

// Append an entry to the log and close it; false with errno.
bool AppendEntry(FilePtr log, Writer *entry)
{
    const bool appended = AppendRecord(fileno(log.get()), {StringWriterData(entry), StringWriterLength(entry)});
    const int error = errno;
    const bool closed = fclose(log.release()) == 0;
    if (!appended) {
        errno = error;
    }
    return appended && closed;
}

// Where the reference copy of a file lies; nothing when its name is too long, which is then reported.
std::optional<std::string> ReferencePath(EvalContext *ctx, const Promise *pp, const Attributes *attr, const char *file,
                                         const char *destination)
{
    if (destination == nullptr || *destination == '\0') {
        return std::string(file) + kReferenceSuffix;
    }
    char path[VT_BUFSIZE];
    (void)StringCopy(destination, path, sizeof(path));  // cut, it has no room for the name
    const char *const name = CanonifyName(file);
    if (!PathAppend(path, sizeof(path), name, '/')) {
        RecordFailure(ctx, pp, attr, "Internal limit reached in LogFileChange(), path too long: '%s' + '%s'", path,
                      name);
        return std::nullopt;
    }
    (void)MakeParentDirectory(path, attr->move_obstructions);  // without it the copy fails, which is reported
    return path;
}

// Make the reference copy equal to the file; the outcome, at least as bad as result.
PromiseResult RefreshReference(EvalContext *ctx, const Promise *pp, const Attributes *attr, const char *file,
                               const struct stat &status, const char *reference, PromiseResult result,
                               CopyRegularFileFunction copy, DeleteCompressedArrayFunction delete_array)
{
    Attributes copy_attr = *attr;
    copy_attr.copy.servers = nullptr;
    copy_attr.copy.backup = BACKUP_OPTION_BACKUP;
    copy_attr.copy.stealth = false;
    copy_attr.copy.verify = false;
    CompressedArray *inode_cache = nullptr;
    (void)copy(ctx, file, reference, &status, &copy_attr, pp, &inode_cache, nullptr, &result);  // result tells
    Log(LOG_LEVEL_VERBOSE, "Cached change-file %s to repository location %s", file, reference);
    delete_array(inode_cache);
    return result;
}

}  // namespace

bool IsFileBinary(const char *bytes, size_t length) noexcept
{
    return std::any_of(bytes, bytes + length, [](char c) { return kIsBinaryByte[static_cast<unsigned char>(c)]; });
}

char *CheckDiffFile(const char *name, size_t max_size, size_t *ret_length, bool *ret_unable_to_open,
                    char **ret_message) noexcept
{
    WriterPtr content = ReadRegularFile(name, max_size);
    if (content == nullptr) {
        *ret_unable_to_open = true;
        *ret_message = StringFormat("File '%s' not possible to open (%s) -- skipping", name, GetErrorStr());
        return nullptr;
    }
    const size_t length = StringWriterLength(content.get());
    if (IsFileBinary(StringWriterData(content.get()), length)) {
        *ret_message = StringFormat("File '%s' contains binary data -- skipping", name);
        return nullptr;
    }
    *ret_length = length;
    return StringWriterClose(content.release());
}

size_t Vesk_GetFirstChangePosition(const char *new_text, size_t new_length, const char *old_text,
                                   size_t old_length) noexcept
{
    if (new_length == 0 || old_length == 0) {
        return 1;
    }
    const char *const end = std::mismatch(new_text, new_text + new_length, old_text, old_text + old_length).first;
    return static_cast<size_t>(end - new_text) + 1;
}

PromiseResult Vesk_DoFileDiff(EvalContext *ctx, const Promise *pp, const Attributes *attr, ComparedFile *file,
                              ComparedFile *reference) noexcept
{
    const time_t now = time(nullptr);
    const char *const name = file->path.c_str();
    Log(LOG_LEVEL_VERBOSE, "Vesk Analysis of changes on file %s", name);
    std::string path = std::string(GetStateDir()) + "/" + kFileDiffLogName;
    FilePtr log(safe_fopen(MapName(path.data()), "a"));
    if (log == nullptr) {
        Log(LOG_LEVEL_ERR, "Unable to open change log '%s'. (fopen: %s)", path.c_str(), GetErrorStr());
        RecordFailure(ctx, pp, attr, "Failed to report on file changes to '%s'", name);
        return PROMISE_RESULT_NOOP;
    }
    const WriterPtr entry(StringWriter());
    WriterWriteF(entry.get(), "CHANGE %s\n", name);
    if (PromiseGetHandle(pp) != nullptr) {
        WriterWriteF(entry.get(), "promise handle: %s\n", PromiseID(pp));
    }
    const bool told = WriteDifference(entry.get(), now, *file, reference);
    WriterWrite(entry.get(), "END\n");
    const bool written = AppendEntry(std::move(log), entry.get());
    if (!written) {
        Log(LOG_LEVEL_ERR, "Unable to write change log '%s'. (write: %s)", path.c_str(), GetErrorStr());
    }
    if (told && written) {
        RecordChange(ctx, pp, attr, "Reported on file changes to '%s'", name);
    } else {
        RecordFailure(ctx, pp, attr, "Failed to report on file changes to '%s'", name);
    }
    return PROMISE_RESULT_NOOP;
}

PromiseResult LogFileChange__real(EvalContext *ctx, const char *file, int change, const Attributes *attr,
                                  const Promise *pp, CopyRegularFileFunction CopyRegularFilePtr,
                                  const char *destination,
                                  DeleteCompressedArrayFunction DeleteCompressedArrayPtr) noexcept
{
    Log(LOG_LEVEL_VERBOSE, "Updating the difference engine with '%s'", file);
    struct stat status {};
    if (stat(file, &status) != 0) {
        RecordNoChange(ctx, pp, attr, "Cannot stat file '%s' - skipping", file);
        return PROMISE_RESULT_NOOP;
    }
    if (status.st_size > kMaxComparedFileSize) {
        RecordFailure(ctx, pp, attr, "File '%s' is too large for report_diffs -- skipping", file);
        return PROMISE_RESULT_FAIL;
    }
    ComparedFile present{file, status.st_size, nullptr};
    bool unable_to_open = false;
    TextPtr message;
    if (!ReadText(&present, &unable_to_open, &message)) {
        RecordFailure(ctx, pp, attr, "%s", message.get());
        return PROMISE_RESULT_FAIL;
    }
    if (attr->havedepthsearch) {
        RecordFailure(ctx, pp, attr, "Change detail logging cannot be used on depth searches");
        PromiseRef(LOG_LEVEL_ERR, pp);
        return PROMISE_RESULT_NOOP;  // a failure that was reported, and no result, as hosts know it
    }
    const std::optional<std::string> path = ReferencePath(ctx, pp, attr, file, destination);
    if (!path.has_value()) {
        return PROMISE_RESULT_FAIL;
    }
    struct stat reference_status {};
    const bool has_reference = stat(path->c_str(), &reference_status) == 0;
    PromiseResult result = PROMISE_RESULT_NOOP;
    if (has_reference && change == 0) {
        return result;
    }
    if (has_reference && reference_status.st_size > kMaxComparedFileSize) {
        RecordWarning(ctx, pp, attr, "File '%s' is too large for report_diffs -- skipping", path->c_str());
    } else if (has_reference) {
        ComparedFile reference{*path, reference_status.st_size, nullptr};
        result = Vesk_DoFileDiff(ctx, pp, attr, &present, &reference);
    }
    present.text.reset();
    return RefreshReference(ctx, pp, attr, file, status, path->c_str(), result, CopyRegularFilePtr,
                            DeleteCompressedArrayPtr);
}
