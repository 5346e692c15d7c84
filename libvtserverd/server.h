// The report query service: a hub asks "<query word> <from> <its clock>", and gets the packed report line by line.
//
// ReturnQueryData (entry_points_real.h) reads the query, works out the period, takes a copy of the filter that policy
// set for the query word, has the reply packed, sends it and, after a delta, ages the difference files. It runs on
// several connection threads at once: packing and ageing are done one at a time, under a mutex that is never held while
// anything is sent.
//
// The rest of this header are its steps, apart from the clock and the packer, so that each can be looked at alone.
#ifndef LIBVTSERVERD_SERVER_H
#define LIBVTSERVERD_SERVER_H

#include <time.h>

#include <string>

#include <veltrane/net.h>
#include <veltrane/seq.h>

#include "libvtserverd/report_dump.h"

// A query as it came. What is missing or cannot be read is "" or 0; a number out of range is the nearest one in it.
struct ReportQuery {
    std::string word;  // at most 255 characters
    time_t from = 0;
    time_t peer_time = 0;
};

// What a query asks for at one moment.
struct ReportWindow {
    time_t from;
    time_t to;           // one second ago, but never before from
    time_t clock_error;  // our time minus the peer's
};

ReportQuery ParseReportQuery(const char *menu);
ReportWindow ReportWindowAt(const ReportQuery &query, time_t now);

// Whether the peer's clock is so far behind ours that it is worth a line. One ahead of ours is not.
bool IsPoorlySynchronized(time_t clock_error);

// Difference rows older than this are dropped after a delta from this time: the hub has them, and an hour to spare.
time_t AgeingThreshold(time_t from);

// Cut off trailing line ends. A text without a terminator among its first size bytes stays as it is, with an error
// line.
void ChopTimestamp(char *text, size_t size);

// Send a packed reply and its completion line; dump gets a copy and what became of it.
//
// lines     NULL: packing failed
// encrypt   every message with the session's cipher and key
// Result    false, with an error line, when lines is NULL or a send fails; nothing is sent after that. Empty slots are
//           skipped.
bool SendReply(const ServerConnectionState *conn, const Seq *lines, bool encrypt, ReportDump *dump);

#endif
