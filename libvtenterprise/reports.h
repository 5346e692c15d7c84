// The words of reporting: the kinds of state report and of request, the chapter codes of the report stream, and small
// conversions that plug-in and hub share.
//
// Every table is constant and nothing keeps state, so all of it may be used from any thread. Texts returned as
// `const char *` are static. The numbers of all enumerations travel in files and streams: never renumber. Each has a
// fixed underlying type, so that a number read from outside and not checked is harmless.
#ifndef LIBVTENTERPRISE_REPORTS_H
#define LIBVTENTERPRISE_REPORTS_H

#include "libvtenterprise/export.h"

// The state reports that the diff engine keeps.
enum ReportType : int {
    report_type_classes = 0,
    report_type_variables = 1,
    report_type_lastseen = 2,
    report_type_software = 3,
    report_type_software_patch = 4,
    report_type_execution_log = 5,
    report_type_max = 6  // the count; in a row read from a file: no type
};

// What a hub asks for.
enum ReportRequestType : int {
    REPORT_REQUEST_TYPE_DELTA = 0,         // the changes since a time
    REPORT_REQUEST_TYPE_FULL = 1,          // no longer served
    REPORT_REQUEST_TYPE_COLLECT_CALL = 2,  // a delta over a connection that the host opened
    REPORT_REQUEST_TYPE_ERROR = 3,         // what an unreadable request word becomes
    REPORT_REQUEST_TYPE_REBASE = 4,        // the whole present state as a new base
    REPORT_REQUEST_TYPE_MAX = 5
};

// The chapters of the report stream. Many are produced by nothing any more: they keep their places, so that the
// numbering stays and an old reply still parses.
enum CodeBookIndex : int {
    vtr_code_perf = 0,                  // performance (old)
    vtr_code_class = 1,                 // classes (old)
    vtr_code_setuid = 2,                // set-uid programs (old)
    vtr_code_fchange_old = 3,           // file changes (old)
    vtr_code_fchange = 4,               // file changes
    vtr_code_fdiff_old = 5,             // file differences (old)
    vtr_code_monitor_mag = 6,           // monitoring, magnified (old)
    vtr_code_monitor_week = 7,          // monitoring, week (old)
    vtr_code_monitor_year = 8,          // monitoring, year (old)
    vtr_code_monitor_hist = 9,          // monitoring histograms (old)
    vtr_code_monitor_mg = 10,           // monitoring, magnified recent samples
    vtr_code_monitor_yr = 11,           // monitoring, yearly averages
    vtr_code_monitor_hg = 12,           // monitoring histograms
    vtr_code_pcompliance = 13,          // promise compliance (old)
    vtr_code_tcompliance = 14,          // total compliance (old)
    vtr_code_software = 15,             // installed software (old)
    vtr_code_availpatch = 16,           // available patches (old)
    vtr_code_patchstatus = 17,          // patch status (old)
    vtr_code_code_promiseout = 18,      // promise outcomes (old)
    vtr_code_value = 19,                // business value (old)
    vtr_code_vard = 20,                 // variables (old)
    vtr_code_vars = 21,                 // variables (old)
    vtr_code_lastseen = 22,             // last seen (old)
    vtr_code_repairlog = 23,            // repair log (old)
    vtr_code_notkeptlog = 24,           // not-kept log (old)
    vtr_code_bundles = 25,              // bundles (old)
    vtr_code_swdates = 26,              // software dates (old)
    vtr_code_execution_status = 27,     // execution status of the agent
    vtr_code_class_diff = 28,           // class state changes
    vtr_code_variable_diff = 29,        // variable state changes
    vtr_code_last_seen_diff = 30,       // last-seen state changes
    vtr_code_software_diff = 31,        // software state changes
    vtr_code_software_patch_diff = 32,  // patch state changes
    vtr_code_performance = 33,          // performance of promises
    vtr_code_execution_log_diff = 34,   // promise execution state changes
    vtr_code_fdiff = 35,                // file content differences
    vtr_code_promise_log = 36,          // promise log
    vtr_code_max = 37                   // the count; also: no chapter at all
};

// The three-letter code of each chapter, by CodeBookIndex.
VT_EXPORT const char *const VT_CODEBOOK[vtr_code_max];

// The word of each request type, by ReportRequestType.
VT_EXPORT const char *const REPORT_REQUEST_STR[REPORT_REQUEST_TYPE_MAX];

// "classes", "variables", "lastseen", "software", "patch", "execution_log"; anything else "unknown". The text names
// directories and files of the state store.
VT_EXPORT const char *ReportTypeToString(ReportType type);

// The chapter whose code equals `chapter` exactly, else default_index.
VT_EXPORT CodeBookIndex Reports_CodeBookIndexFromString(const char *chapter, CodeBookIndex default_index);

// Whether rows of a state report travel in this chapter.
VT_EXPORT bool Reports_IsDiff(CodeBookIndex chapter);

// The request whose word equals s exactly, else REPORT_REQUEST_TYPE_ERROR.
VT_EXPORT ReportRequestType Reports_RequestTypeFromString(const char *s);

// The decimal number before the first comma of line, or the whole line without one; 0 when it is empty, longer than 11
// characters or no number.
VT_EXPORT long Reports_TimestampFromString(const char *line);

// The one-character code of a package architecture; any text without a code comes back itself. arch is not NULL.
VT_EXPORT const char *Vesk_ShortArch(const char *arch);

// The architecture of a one-character code. NULL, "" and "\n" (a line that held no code) give "unknown"; any other text
// comes back itself.
VT_EXPORT const char *Vesk_LongArch(const char *arch);

// Bytes that each output of BundleQualifiedNameSplit must hold.
inline constexpr int kBundleNameSize = 1024;

// Split "ns:bundle" at its colons; what follows a second colon is ignored, and a name without a colon has the namespace
// "".
//
// namespace_out, bundle_name_out  kBundleNameSize bytes each, padded with zeros. A piece of that many bytes or more is
//                                 cut and has NO terminator.
// Result  false for an empty or absent name: both outputs are then untouched.
VT_EXPORT bool BundleQualifiedNameSplit(const char *qualified_bundle_name, char *namespace_out, char *bundle_name_out);

// New text: query with every occurrence of key replaced by value in decimal.
VT_EXPORT char *SqlVariableExpandNumeric(const char *query, const char *key, long value);

// New text: query with every "TIMESTAMP_UNIX()" replaced by the present time in seconds since the epoch and every
// "TIMESTAMP_UNIX_DAYS()" by the whole days of that same moment.
VT_EXPORT char *SqlVariableExpand(const char *query);

#endif
