// The records of a host's reported state: hosts, classes, variables, packages and patches, last-seen peers,
// measurements, promise executions and changes of watched files.
//
// Conventions of all records here.
// - Every `char *` is a text that its record owns; an absent text is NULL. New copies its arguments, Dup makes a new
//   record, Delete accepts NULL; memory is the host's, which never runs out.
// - `hh` is the reporting host. It is borrowed unless its record says otherwise, and absent in records read from files.
// - The operations that a table row of diff_common.h names have that table's exact signature, so the table calls them
//   without a cast; their `void *` is the record that the name says.
// - CompareKeys is three-way over the record's identity (user_data is not used); CompareValues is false when either
//   record is absent.
// - ToCSV appends the record's columns (they stand in its body), an absent text as an empty field. FromAttributeList
//   builds a new record from those columns, NULL when their number is wrong; an empty column becomes absent.
// - Nothing logs unless it says so, nothing keeps state, nothing locks.
#ifndef LIBVTENTERPRISE_ENTERPRISE_INSTALL_H
#define LIBVTENTERPRISE_ENTERPRISE_INSTALL_H

#include <stddef.h>
#include <time.h>

#include <veltrane/csv.h>
#include <veltrane/rlist.h>
#include <veltrane/rval.h>
#include <veltrane/seq.h>

#include "libvtenterprise/export.h"

// --- Hosts -----------------------------------------------------------------------------------------------------------

struct HubHost {
    char *keyhash;  // of the host's public key: its identity
    char *ipaddr;
    char *hostname;
    time_t last_report;  // 0 when new
    bool in_batch;
    bool inv_refresh;
    bool is_call_collected;
    time_t deleted;  // 0 when new
};

VT_EXPORT HubHost *HubHostNew(const char *keyhash, const char *ipaddr, const char *hostname);
VT_EXPORT HubHost *CreateEmptyHubHost();

// Replaces the three texts by copies of the arguments, which are not NULL; returns host.
VT_EXPORT HubHost *UpdateHubHost(HubHost *host, const char *keyhash, const char *ipaddr, const char *hostname);
VT_EXPORT HubHost *HubHostDup(const HubHost *host);
VT_EXPORT void HubHostDelete(HubHost *host);

// The first host (val.item of a node) with exactly this key hash, lent by the list; NULL without one.
VT_EXPORT HubHost *GetHubHostIn(const Rlist *host_list, const char *keyhash);

// Whether the key hashes are equal; in the shape of the host's maps, like HubHostHash.
VT_EXPORT bool HubHostEqual(const void *a, const void *b);

// The length of the key hash: hosts whose key hashes are equally long hash alike. seed is not used.
VT_EXPORT unsigned int HubHostHash(const void *host, unsigned int seed);

// Oldest last_report first; newest first when user_data points to a true bool. The result is the difference in 32-bit
// arithmetic as it falls.
VT_EXPORT int HubHostCompareTimestamps(const void *a, const void *b, void *user_data);

// --- Classes ---------------------------------------------------------------------------------------------------------

struct HubClass {
    HubHost *hh;            // borrowed
    char *context;          // the class's name with its namespace
    char *meta_serialized;  // its tags joined with ","
    time_t t;
};

VT_EXPORT HubClass *HubClassNew(HubHost *hh, const char *context, time_t t, const char *meta_serialized);

// The copy has a copy of the host, which its Delete will not free: whoever copies a class with a host owns that copy.
VT_EXPORT void *HubClassDup(const void *hub_class);
VT_EXPORT void HubClassDelete(void *hub_class);
VT_EXPORT int HubClassCompareKeys(const void *a, const void *b, void *user_data);  // neither is NULL
VT_EXPORT bool HubClassCompareValues(const void *a, const void *b);
VT_EXPORT char *HubClassGetMainKey(void *hub_class);  // new; NULL without a context
VT_EXPORT void HubClassToCSV(void *hub_class, CsvWriter *c);
VT_EXPORT void *HubClassFromAttributeList(Seq *attr);

// --- Variables -------------------------------------------------------------------------------------------------------

struct HubVariable {
    HubHost *hh;  // borrowed
    char *ns;
    char *bundle;
    char *lval;   // never absent
    char *dtype;  // never absent
    time_t t;
    Rval rval;  // owned
};

// Takes over rval; lval and type are not NULL.
VT_EXPORT HubVariable *HubVariableNew(HubHost *hh, const char *type, const char *ns, const char *bundle,
                                      const char *lval, Rval rval, time_t t);
VT_EXPORT void HubVariableDelete(HubVariable *variable);

struct HubVariableSerialized {
    char *ns;
    char *scope;
    char *name;
    DataType type;  // below 16
    char *value_serialized;
    char *meta_serialized;
};

VT_EXPORT HubVariableSerialized *HubVariableSerializedNew(const char *ns, const char *scope, const char *name,
                                                          DataType type, const char *value_serialized,
                                                          const char *meta_serialized);
VT_EXPORT void *HubVariableSerializedDup(const void *variable);
VT_EXPORT void HubVariableSerializedDelete(void *variable);
VT_EXPORT int HubVariableSerializedCompareKeys(const void *a, const void *b, void *user_data);  // -1 when one is NULL
VT_EXPORT bool HubVariableSerializedCompareValues(const void *a, const void *b);

// new: "ns.scope.name", or "scope.name" without a namespace; NULL without a scope or a name
VT_EXPORT char *HubVariableSerializedGetMainKey(void *variable);
VT_EXPORT void HubVariableSerializedToCSV(void *variable, CsvWriter *c);

// A type outside 0 to 15 or that is no number is logged at error level, and the result is NULL.
VT_EXPORT void *HubVariableSerializedFromAttributeList(Seq *attr);

// --- Packages and patches --------------------------------------------------------------------------------------------

struct HubSoftware {
    HubHost *hh;  // borrowed
    char *name;
    char *version;
    char *arch;
    time_t t;  // when it was seen
};

VT_EXPORT HubSoftware *HubSoftwareNew(HubHost *hh, const char *name, const char *version, const char *arch,
                                      time_t timeseen);
VT_EXPORT void *HubSoftwareDup(const void *software);  // shares the host
VT_EXPORT void HubSoftwareDelete(void *software);
VT_EXPORT int HubSoftwareCompareKeys(const void *a, const void *b, void *user_data);  // -1 when one is NULL

// new: "name.version.arch", an absent field empty; NULL for NULL
VT_EXPORT char *HubSoftwareGetUniqKey(const HubSoftware *software);
VT_EXPORT void HubSoftwareToCSV(void *software, CsvWriter *c);
VT_EXPORT void *HubSoftwareFromAttributeList(Seq *attr);

// A patch has a fourth column, always "0", that is ignored on reading.
VT_EXPORT void HubSoftwarePatchToCSV(void *patch, CsvWriter *c);
VT_EXPORT void *HubSoftwarePatchFromAttributeList(Seq *attr);

// --- Last-seen peers -------------------------------------------------------------------------------------------------

// Numbers of files and streams, read unchecked.
enum LastSeenDirection : int {
    LAST_SEEN_DIRECTION_OUTGOING = '+',
    LAST_SEEN_DIRECTION_INCOMING = '-',
};

// "OUTGOING", "INCOMING", else "UNKNOWN"
VT_EXPORT const char *LastSeenDirectionToString(LastSeenDirection direction);

struct HubLastSeen {
    HubHost *hh;     // owned, unlike in the other records
    HubHost *rhost;  // owned: the peer, by key hash, address and name
    double hrsago;   // hours since it was seen
    time_t t;        // when it was seen
    LastSeenDirection direction;
};

// Takes over hh; kh, rhost and ip are the peer's key hash, name and address.
VT_EXPORT HubLastSeen *HubLastSeenNew(HubHost *hh, LastSeenDirection direction, const char *kh, const char *rhost,
                                      const char *ip, double ago, time_t t);
VT_EXPORT void *HubLastSeenDup(const void *lastseen);
VT_EXPORT void HubLastSeenDelete(void *lastseen);
VT_EXPORT int HubLastSeenCompareKeys(const void *a, const void *b, void *user_data);  // -1 when one is NULL
VT_EXPORT bool HubLastSeenCompareValues(const void *a, const void *b);
VT_EXPORT void HubLastSeenToCSV(void *lastseen, CsvWriter *c);
VT_EXPORT void *HubLastSeenFromAttributeList(Seq *attr);  // numbers unchecked; the peer's name is absent

// --- Measurements ----------------------------------------------------------------------------------------------------

struct HubPerformance {
    HubHost *hh;  // borrowed
    char *event;  // what was measured
    double last_observed_value;
    double average;
    double standard_deviation;
    time_t t;
};

VT_EXPORT HubPerformance *HubPerformanceNew(HubHost *hh, const char *event, time_t t, double last_observed_value,
                                            double average, double standard_deviation);
VT_EXPORT void HubPerformanceDelete(HubPerformance *performance);

// Columns: event, standard deviation, average, last observed value, time.
VT_EXPORT void HubPerformanceToCSV(const HubPerformance *data, CsvWriter *c);
VT_EXPORT HubPerformance *HubPerformanceFromAttributeList(const Seq *attr);  // numbers unchecked

// --- Promise executions ----------------------------------------------------------------------------------------------

// Numbers of files and streams, read unchecked.
enum PromiseState : int {
    PROMISE_STATE_KEPT = 'c',
    PROMISE_STATE_NOTKEPT = 'n',
    PROMISE_STATE_REPAIRED = 'r',
    PROMISE_STATE_ANY = 'x',
};

// "KEPT", "REPAIRED", "NOTKEPT", else "UNKNOWN"
VT_EXPORT const char *PromiseStateToString(PromiseState state);

// the inverse, exact; PROMISE_STATE_ANY for any other text and for NULL
VT_EXPORT PromiseState PromiseStateFromString(const char *state);

struct HubPromiseExecution {
    char *release_id;
    char *promise_hash;
    char *ns;
    char *bundle;
    char *promise_type;
    char *promiser;
    char *stack_path;
    char *handle;
    char *promisee_list_serialized;
    char *message_list_serialized;
    char *meta_serialized;
    char *policy_file;
    char *policy_file_hash;
    size_t line_number;
    PromiseState promise_outcome;
};

// The order of the arguments is not that of the fields.
VT_EXPORT HubPromiseExecution *HubPromiseExecutionNew(
    const char *release_id, PromiseState promise_outcome, const char *promise_hash, const char *ns, const char *bundle,
    const char *promise_type, const char *promiser, const char *stack_path, const char *handle,
    const char *promisee_list_serialized, const char *messages_list_serialized, const char *meta_serialized,
    const char *policy_file, size_t line_number, const char *policy_file_hash);
VT_EXPORT void *HubPromiseExecutionDup(const void *execution);  // not NULL
VT_EXPORT void HubPromiseExecutionDelete(void *execution);
VT_EXPORT int HubPromiseExecutionCompareKeys(const void *a, const void *b, void *user_data);  // -1 when one is NULL

// Promise type and stack path do not count as value.
VT_EXPORT bool HubPromiseExecutionCompareValues(const void *a, const void *b);
VT_EXPORT char *HubPromiseExecutionGetMainKey(void *execution);  // new; NULL without a promise hash
VT_EXPORT void HubPromiseExecutionToCSV(void *execution, CsvWriter *c);

// At least 12 columns; the line number, the policy file's hash and the tags may be missing at the end.
VT_EXPORT void *HubPromiseExecutionFromAttributeList(Seq *attr);

// --- Changes of watched files ----------------------------------------------------------------------------------------

struct HubFileDiffSerialized {
    time_t t;
    char *filename;
    char *hanlde;  // the promise handle; the name is fixed as it is
    char *diff;
};

VT_EXPORT HubFileDiffSerialized *HubFileDiffSerializedNew(time_t t, const char *filename, const char *handle,
                                                          const char *diff);
VT_EXPORT void HubFileDiffSerializedDelete(void *file_diff);

// new: one terminated CSV record of time, file name, handle, difference; NULL for NULL
VT_EXPORT char *HubFileDiffSerializedToCSV(const HubFileDiffSerialized *file_diff);

// new; NULL for NULL, for what does not split as CSV, and for other than four fields. The time is read unchecked.
VT_EXPORT HubFileDiffSerialized *HubFileDiffSerializedFromCSV(const char *csv_str);

// --- Orders for lists: each is 1 or 0, not three-way; the arguments are records --------------------------------------

VT_EXPORT int SortClasses(const void *p1, const void *p2);      // context strictly before
VT_EXPORT int SortSoftware(const void *p1, const void *p2);     // name strictly before
VT_EXPORT int SortLastSeen(const void *p1, const void *p2);     // strictly later
VT_EXPORT int SortPerformance(const void *p1, const void *p2);  // strictly later

#endif
