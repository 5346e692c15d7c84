// Walks over the CSV records of a file without allocating anything for each: a cache holds a million.
//
// The dialect is the host's: what comes out is what GetCsvLineNext and SeqParseCsvString would give. Taken apart here
// are only the records that are plain to see: each field is free of quotes, or wrapped in one pair that holds none. Any
// other record is found by the host's rule (each quote toggles quoting, a line end outside ends the record) and handed
// to SeqParseCsvString.
#ifndef LIBVTENTERPRISE_CSV_RECORDS_H
#define LIBVTENTERPRISE_CSV_RECORDS_H

#include <cstddef>
#include <cstdio>
#include <string_view>
#include <vector>

#include <veltrane/owned.h>
#include <veltrane/seq.h>

class CsvRecords {
  public:
    // file  lent; it is read further than the record last taken
    // room  bytes to read at once; a record may be longer
    explicit CsvRecords(FILE *file, size_t room = 1 << 16);

    // Go to the next record; false at the end of the file, and when it cannot be read to its end (ferror).
    bool Next();

    // Step over the next record if it is this one to the byte. Then text and fields are gone.
    //
    // record  as a CSV writer makes it, its line end included
    bool StepOver(std::string_view record);

    // The record without its line end; lent until Next.
    const char *text() const { return &buffer_[text_]; }

    // Its fields; NULL when it does not split. Lent, texts and all, until Next.
    Seq *fields() const { return fields_; }

  private:
    size_t LineEnd(size_t from);
    bool ReadMore();
    bool SplitPlainly(std::string_view record);
    void SplitByHost(size_t line_end);
    void LendPlain();

    FILE *file_;
    std::vector<char> buffer_;  // always one byte longer than what is in it
    size_t text_ = 0;           // where the record last taken starts; the bytes before it are gone
    size_t next_ = 0;           // where the next one starts
    size_t filled_ = 0;
    bool all_read_ = false;
    bool holds_zero_ = false;  // among all that was read: a zero ends a record's text early

    Seq *fields_ = nullptr;
    std::vector<char> copy_;      // of a plain record, cut apart
    std::vector<char *> pieces_;  // of copy_
    veltrane::SeqViewPtr plain_;  // the pieces
    size_t plain_length_ = 0;
    veltrane::SeqPtr host_fields_;
};

#endif
