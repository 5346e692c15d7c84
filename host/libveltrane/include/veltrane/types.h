// What every header of the library stands on: standard types, the linkage of C, and all structs declared ahead.
//
// Conventions of all headers of this directory.
// - Ownership. "new": the result is the caller's, who ends it with the named function (a text with free). "borrowed" or
//   "lent": it stays the lender's and lives as long as the lender or, where said, until the next call. "takes over",
//   "taken": the argument belongs to the callee from the call on, failed or not. Any other argument is only read during
//   the call and copied if kept.
// - NULL. An argument may be NULL only where "NULL" stands beside it. Functions that end an object accept NULL.
// - Failure. false, NULL, 0 or -1 as listed; what a parameter hands back (ret_...) is then untouched. A failure that
//   the result shows is not logged here: the caller decides. The few functions that log say so. "errno" means that
//   errno tells why. Out of memory ends the process. Nothing throws.
// - Threads. An object belongs to one thread at a time; functions without an object may run in any thread. "Thread
//   storage" is one buffer a thread, overwritten by the next call of that function there.
// - Texts are zero-terminated bytes; no encoding is checked or changed, and order is plain byte order.
// - Names. Host and extensions share one symbol space: the library never defines a name that an extension exports.
#ifndef VELTRANE_TYPES_H
#define VELTRANE_TYPES_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#define VT_BEGIN_DECLS extern "C" {
#define VT_END_DECLS }
#else
#define VT_BEGIN_DECLS
#define VT_END_DECLS
#endif

// A printf-like function: argument n is the format, the arguments from m on are formatted.
#define VT_PRINTF(n, m) __attribute__((format(printf, n, m)))

VT_BEGIN_DECLS

typedef struct AgentConnection_ AgentConnection;
typedef struct Attributes_ Attributes;
typedef struct Buffer_ Buffer;
typedef struct Bundle_ Bundle;
typedef struct BundleSection_ BundleSection;
typedef struct Class_ Class;
typedef struct ClassTableIterator_ ClassTableIterator;
typedef struct CompressedArray_ CompressedArray;
typedef struct ConnectionFlags_ ConnectionFlags;
typedef struct ConnectionInfo_ ConnectionInfo;
typedef struct Constraint_ Constraint;
typedef struct CsvWriter_ CsvWriter;
typedef struct DBCursor_ DBCursor;
typedef struct DBHandle_ DBHandle;
typedef struct Dir_ Dir;
typedef struct EvalContext_ EvalContext;
typedef struct Event_ Event;
typedef struct FileCopy_ FileCopy;
typedef struct GenericAgentConfig_ GenericAgentConfig;
typedef struct GenericAgentSpecific_ GenericAgentSpecific;
typedef struct Item_ Item;
typedef struct JsonElement_ JsonElement;
typedef struct KeyHostSeen_ KeyHostSeen;
typedef struct LoggingPrivContext LoggingPrivContext;
typedef struct Map_ Map;
typedef struct MapIterator_ MapIterator;
typedef struct MapKeyValue_ MapKeyValue;
typedef struct MonitorSample_ MonitorSample;
typedef struct PackageItem_ PackageItem;
typedef struct PackageManager_ PackageManager;
typedef struct PersistentScalar_ PersistentScalar;
typedef struct Policy_ Policy;
typedef struct ProcessSelect_ ProcessSelect;
typedef struct Promise_ Promise;
typedef struct QPoint_ QPoint;
typedef struct RingBuffer_ RingBuffer;
typedef struct RingBufferIterator_ RingBufferIterator;
typedef struct Rlist_ Rlist;
typedef struct Rval_ Rval;
typedef struct Seq_ Seq;
typedef struct ServerConnectionState_ ServerConnectionState;
typedef struct SourceOffset_ SourceOffset;
typedef struct StringSet_ StringSet;
typedef struct VarRef_ VarRef;
typedef struct Variable_ Variable;
typedef struct VariableTableIterator_ VariableTableIterator;
typedef struct Writer_ Writer;

VT_END_DECLS

#endif
