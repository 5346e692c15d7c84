// A report stream taken apart: chapter code -> the chapter's lines, with the numbers of its header.
//
// The stream is a sequence of texts: one header "VTR: <number> <number> <number>", then chapters. A line of exactly
// three characters that is one of the chapter codes opens a chapter; every other line belongs to the chapter last
// opened. So no chapter can ever carry a data line of three characters. There is no end marker: the transport knows the
// end. The packers only append lines to a Seq; this is the reading side.
//
// Reading: ReportData_Start, ReportData_AddNext once a line in stream order, ReportData_Stop, ReportData_GetChapter as
// often as wanted, ReportData_Destroy. A record belongs to one reader; nothing in it is locked.
#ifndef LIBVTENTERPRISE_REPORT_DATA_H
#define LIBVTENTERPRISE_REPORT_DATA_H

#include <veltrane/map.h>
#include <veltrane/seq.h>

#include "libvtenterprise/export.h"
#include "libvtenterprise/reports.h"

// The order of the fields is fixed: hubs read them.
struct _ReportData {
    Map *map;       // chapter code -> Seq of its lines, both owned
    char *hostkey;  // owned
    ReportRequestType request_type;
    long string_length;           // third number of the header
    long last_exec_timestamp;     // third field of the last "EXS" line; 0 until then
    long requested_timestamp;     // first number of the header, whatever the packer means by it (its clock error)
    long response_timestamp;      // second number of the header
    bool has_diffs;               // a line was added to a diff chapter
    CodeBookIndex state_chapter;  // where the next data line goes; vtr_code_max: nowhere yet
    long state_counter;           // lines accepted so far; 0: the next line must be the header
};
typedef struct _ReportData ReportData;

// New, for building a report with ReportData_AddToChapter: its counter starts at -1, so that ReportData_AddNext takes
// no line for a header. hostkey is copied.
VT_EXPORT ReportData *ReportData_New(const char *hostkey, ReportRequestType request) noexcept;

// New, ready to read a stream.
VT_EXPORT ReportData *ReportData_Start(const char *hostkey, ReportRequestType request) noexcept;

// Read the next line of the stream.
//
// Result    false when the line is refused: no header where one must stand (error level; the next line is tried again),
//           an unknown code or a data line before any chapter (error level), or an "EXS" line not made of a character
//           and two numbers (error level; the line stays in the chapter). Reading may go on after it.
// Note      an unknown three-character line inside a chapter is accepted and dropped. An "EXS" time of 0 or less is
// used
//           with a warning.
VT_EXPORT bool ReportData_AddNext(ReportData *report, const char *line) noexcept;

// End of the stream. A rebase replaces the whole base state of the host, so each diff chapter that it did not bring is
// created empty. False only for NULL.
VT_EXPORT bool ReportData_Stop(ReportData *report) noexcept;

// The chapter's lines, lent; NULL when there is no such chapter.
VT_EXPORT Seq *ReportData_GetChapter(const ReportData *report, CodeBookIndex chapter) noexcept;

// Create the chapter empty; false, and nothing changed, when it is there or is no chapter at all.
VT_EXPORT bool ReportData_AddChapter(ReportData *report, CodeBookIndex chapter) noexcept;

// Append a copy of line to the chapter, which is created when missing. False, at debug level, when it cannot be had.
VT_EXPORT bool ReportData_AddToChapter(ReportData *report, CodeBookIndex chapter, const char *line) noexcept;

// NULL is ignored.
VT_EXPORT void ReportData_Destroy(ReportData *report) noexcept;

#endif
