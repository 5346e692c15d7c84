// Keeps the append-only files of a work directory whole and within bounds.
//
// A file that only ever grows is looked after by the agent, at the start of a run and before anything is appended: a
// record that a crash left unfinished is cut off, so that the next one is not joined to it; of a file over its limit
// the oldest whole records are dropped; the promise log is rotated. What stays is always whole records, in their order.
//
//   state/promise_execution.log   CSV records
//   state/promise_log.jsonl       lines ended by CR LF; rotated
//   state/classes.jsonl           lines ended by CR LF
//   state/file_changes.log        lines
//   state/vesk_diff.log           entries of several lines, the last of them "END"
//   log/promise_summary.log       lines
//   state/diff/<report>.diff      CSV records; their writer repairs their ends itself, so only their limit is held here
//
// A file is shortened by writing what stays beside it, as <file>.new, and renaming that over it: a reader, and a crash,
// see the old file or the new one.
#ifndef HOST_LIBVELTRANE_LOG_LIMITS_H
#define HOST_LIBVELTRANE_LOG_LIMITS_H

#include <sys/types.h>

#include <string>

namespace veltrane {

inline constexpr off_t kLogLimit = off_t{10} * 1024 * 1024;              // unless policy says otherwise
inline constexpr off_t kPromiseLogRotatedOver = off_t{1} * 1024 * 1024;  // bytes
inline constexpr int kPromiseLogGenerations = 9;  // with two digits, byte order would no longer be the order of age

// What ends a record.
enum class RecordForm {
    kLine,      // LF
    kCrLfLine,  // CR LF; a lone LF is data
    kCsv,       // LF outside of double quotes
    kEntry,     // a line "END"
};

// Each of these leaves a file alone that is not there, and gives false, with errno, when it could not do its work; the
// file is then as it was.

// Cut off what follows the last whole record, with a warning that names the file.
[[nodiscard]] bool RepairLogTail(const std::string &path, RecordForm form);

// Drop the oldest whole records of a file of more than limit bytes until it holds at most that many, with a line at
// info level. A file whose newest record is over the limit by itself is removed. Bytes after the last whole record
// stay, and count.
[[nodiscard]] bool LimitLog(const std::string &path, RecordForm form, off_t limit);

// Make path.1 of a file of more than `over` bytes, path.2 of path.1 and so on, highest first; the last generation is
// dropped. A gap that a crash has left between generations is filled, and nothing is dropped then.
[[nodiscard]] bool RotateLog(const std::string &path, off_t over, int generations);

// All files of the work directory, named above. What fails is logged as a warning and does not keep the others from it.
void RepairLogTails();
void LimitLogs(off_t limit);  // and rotates the promise log, which is within its limit by then

}  // namespace veltrane

#endif
