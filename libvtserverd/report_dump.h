// A copy of a report answer in a file, for somebody who wants to see what a hub was sent.
//
// One file an answer, <workdir>/diagnostics/report_dumps/<now>_<to>_<from>_<query word>:
//
//   # <query word> from <from> to <the peer's time> at <now>
//   <every line of the answer, each on a line of its own>
//   # send QUERY complete successful
//
// or, last, what went wrong instead. A dump never gets in the way of the answer: what cannot be written is left out.
#ifndef LIBVTSERVERD_REPORT_DUMP_H
#define LIBVTSERVERD_REPORT_DUMP_H

#include <time.h>

#include <string>

#include <veltrane/owned.h>

// What the name and the first line of a dump tell.
struct ReportDumpSubject {
    std::string query_word;
    time_t now;
    time_t from;
    time_t to;
    time_t peer_time;
};

class ReportDump {
  public:
    // No dump: all functions do nothing.
    ReportDump() = default;

    // Make the directories and the file and write its first line. Failure is an error line, and the dump is none. A
    // query word with a slash in it would lead out of the directory, so it gets no dump either.
    explicit ReportDump(const ReportDumpSubject &subject);

    bool IsOpen() const { return file_ != nullptr; }

    // The whole answer; empty slots are left out.
    void WriteLines(const Seq *lines);

    // The line that could not be sent, counted from 0.
    void WriteFailedLine(size_t index, const char *line);

    void WriteComplete();

    // errno tells why.
    void WriteCompleteFailure();

  private:
    veltrane::FilePtr file_;
};

#endif
