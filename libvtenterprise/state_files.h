// Writing the files of the state directory so that no reader and no crash ever meets half a record.
//
// A file that is rewritten is written whole beside the old one and renamed over it: the old or the new one is there,
// never a third. A file that grows gets each batch of records in one write; a record that a crash left unfinished at
// its end is cut off before the next batch, and a batch that does not fit is taken back. Failures are
// not logged here, for the caller knows the words; a record that is cut off or skipped is a warning.
#ifndef LIBVTENTERPRISE_STATE_FILES_H
#define LIBVTENTERPRISE_STATE_FILES_H

#include <memory>
#include <string>
#include <string_view>

#include <veltrane/logging.h>
#include <veltrane/owned.h>

#include "libvtenterprise/csv_records.h"

// The new content of a file, written to "<path>.new" until Commit puts it in place.
//
// Writers of one path wait for each other (the lock is on the open "<path>.new", so it goes with its holder); what a
// crashed one left behind is overwritten. The new file has mode 0600.
class ReplacementFile {
  public:
    explicit ReplacementFile(const char *path);

    // Without Commit the old file stays and "<path>.new" is removed.
    ~ReplacementFile();
    ReplacementFile(const ReplacementFile &) = delete;
    ReplacementFile &operator=(const ReplacementFile &) = delete;

    // Lent until Commit; NULL when "<path>.new" cannot be made (errno).
    Writer *writer() const { return writer_.get(); }

    // Flush, bring it to the disk, rename. False when any of it or an earlier write failed (errno): the old file stays.
    [[nodiscard]] bool Commit();

  private:
    std::string path_;
    std::string new_path_;
    veltrane::Descriptor lock_;
    std::unique_ptr<char[]> buffer_;  // of the writer's stream, so it goes after the writer
    veltrane::WriterPtr writer_;
};

// Append whole CSV records to the file, which is made (0600) when missing, after cutting off what a crash left
// unfinished at its end.
//
// records  ends in a record end.
// Result   false when the file cannot be opened, or when the records do not fit whole: what was there then stays
// (errno) Locks    the caller holds the section that guards the file
[[nodiscard]] bool AppendRecords(const char *path, std::string_view records);

// Hand the fields of each CSV record of an open file to use(record, fields), which borrows both. A record that does not
// split is skipped with a warning that names path.
//
// step_over  called with the CsvRecords before each record; true when it has stepped over one
// Result     false when the file cannot be read to its end.
template <typename Use, typename StepOver>
[[nodiscard]] bool ForEachCsvRecord(FILE *file, const char *path, Use use, StepOver step_over)
{
    CsvRecords records(file);
    for (;;) {
        if (step_over(&records)) {
            continue;
        }
        if (!records.Next()) {
            return ferror(file) == 0;
        }
        if (records.fields() == nullptr) {
            Log(LOG_LEVEL_WARNING, "Failed to parse csv file entry ('%s'): '%s'", path, records.text());
        } else {
            use(records.text(), records.fields());
        }
    }
}

template <typename Use>
[[nodiscard]] bool ForEachCsvRecord(FILE *file, const char *path, Use use)
{
    return ForEachCsvRecord(file, path, use, [](CsvRecords *) { return false; });
}

#endif
