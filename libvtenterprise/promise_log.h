// The promise log: which promises the agent repaired or could not keep, one JSON line a promise iteration.
//
// The agent appends to <state>/promise_log.jsonl (enterprise_compliance_log.h); the host rotates it to
// promise_log.jsonl.1 and so on; the packer sends what the hub has not seen. docs/formats/promise-log.md shows the
// form.
#ifndef LIBVTENTERPRISE_PROMISE_LOG_H
#define LIBVTENTERPRISE_PROMISE_LOG_H

#include <time.h>

#include <memory>

#include <veltrane/json.h>
#include <veltrane/owned.h>
#include <veltrane/seq.h>

#include "libvtenterprise/enterprise_install.h"
#include "libvtenterprise/export.h"

struct PromiseLogEntry {
    time_t timestamp;              // when the entry was made
    HubPromiseExecution *promise;  // owned
};

// Takes over promise.
VT_EXPORT PromiseLogEntry *PromiseLogEntryNew(time_t timestamp, HubPromiseExecution *promise) noexcept;
VT_EXPORT void PromiseLogEntryDelete(PromiseLogEntry *entry) noexcept;

// new: an object of "timestamp", of which the file holds the low 32 bits, and "execution"; NULL when the promise cannot
// be converted, because one of its lists is no JSON array
VT_EXPORT JsonElement *PromiseLogEntryToJson(const PromiseLogEntry *entry) noexcept;

// new: its compact text; NULL as above
VT_EXPORT char *PromiseLogEntryToJsonString(const PromiseLogEntry *entry) noexcept;

// new; NULL unless "timestamp" is a whole number and "execution" an object that is a promise execution
VT_EXPORT PromiseLogEntry *PromiseLogEntryFromJson(const JsonElement *json) noexcept;

// new: one CSV record without its line end: the timestamp, then the columns of the promise
VT_EXPORT char *PromiseLogEntryToCSV(const PromiseLogEntry *entry) noexcept;

// new; NULL for what does not split or has other columns. A timestamp that is no number is logged at error level.
VT_EXPORT PromiseLogEntry *PromiseLogEntryFromCSV(const char *csv_line) noexcept;

// Whether the promise log holds such outcomes: repaired or not kept, of a promise type that changes the machine.
VT_EXPORT bool IsAllowedForPromiseLog(const HubPromiseExecution *promise) noexcept;

// The paths of the promise log files in a directory, in plain byte order, so that promise_log.jsonl.10 comes before
// promise_log.jsonl.2: new Seq of new texts; NULL when the directory cannot be opened. A name is left out when a
// directory of that name lies in the process's own working directory.
VT_EXPORT Seq *GetPromiseLogFileNames(const char *directory) noexcept;

using PromiseLogEntryPtr = std::unique_ptr<PromiseLogEntry, veltrane::Destroyer<PromiseLogEntryDelete>>;

#endif
