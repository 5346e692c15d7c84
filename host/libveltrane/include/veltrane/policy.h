// The parsed policy: bundles, sections, promises, attributes.
//
// A policy is read-only once it is parsed or put together; several threads may read it. All texts are borrowed from
// it.
#ifndef VELTRANE_POLICY_H
#define VELTRANE_POLICY_H

#include <openssl/evp.h>

#include <veltrane/crypto.h>
#include <veltrane/logging.h>
#include <veltrane/rval.h>
#include <veltrane/types.h>

VT_BEGIN_DECLS

struct Policy_ {
    char *release_id;                  // NULL when the policy carries none
    Seq *bundles;                      // Bundle *
    struct PolicyInternal_ *internal;  // the host's own
};

struct Bundle_ {
    Policy *parent_policy;
    char *type;         // "agent", "server", "common"
    char *name;         // without namespace
    char *ns;           // "default" when none was said
    char *source_path;  // file that holds the bundle; NULL for a bundle made in memory
    Seq *sections;      // BundleSection *
};

struct BundleSection_ {
    Bundle *parent_bundle;
    char *promise_type;  // "files", "vars", "access" and so on
    Seq *promises;       // Promise *
};

// Both count from 1; 0 = not known.
struct SourceOffset_ {
    size_t line;
    size_t column;
};

struct Promise_ {
    BundleSection *parent_section;
    char *promiser;                     // of an evaluated promise: with its variables expanded
    Rval promisee;                      // scalar, list or none
    Seq *conlist;                       // Constraint *
    SourceOffset offset;                // offset.line is the promise's source line
    struct PromiseInternal_ *internal;  // the host's own
};

struct Constraint_ {
    char *lval;
    Rval rval;
    SourceOffset offset;
};

// never NULL
const Bundle *PromiseGetBundle(const Promise *pp);

// the bundle's ns
const char *PromiseGetNamespace(const Promise *pp);

// text of a scalar "handle"; NULL when absent or no scalar
const char *PromiseGetHandle(const Promise *pp);

// the handle, else "<source file>:<line>"; kept in the promise
const char *PromiseID(const Promise *pp);

// logs where the promise stands: bundle, type, promiser, file:line
void PromiseRef(LogLevel level, const Promise *pp);

// the attribute in force; NULL when absent
Constraint *PromiseGetConstraint(const Promise *pp, const char *lval);

// the same, attributes of bodies that the promise uses included ("report_data_select" and its six lists)
Constraint *PromiseGetImmediateConstraint(const Promise *pp, const char *lval);

// NULL when absent, empty or no list
Rlist *PromiseGetConstraintAsList(const Promise *pp, const char *lval);

// 64 lower-case hex digits: SHA-256 of the file's bytes as they were parsed; NULL for an unknown or NULL path
const char *PolicyGetPolicyFileHash(const Policy *policy, const char *policy_file_path);

// Digest of what a promise says, so that moving it within its file keeps the hash: salt, ns, bundle, promise type,
// promiser, the promisee as RvalWriteRaw writes it, then name and raw value of each attribute in policy order, each
// followed by a zero byte and all as evaluated. File, line, comments and class guards stay out. salt may be ""; only
// the digest's own length is written.
void PromiseRuntimeHash(const Promise *pp, const char *salt, unsigned char digest[EVP_MAX_MD_SIZE], HashMethod type);

// For hosts and tests that put a policy together.

// new
Policy *PolicyNew(void);

// with all its parts
void PolicyDestroy(Policy *policy);

// new; NULL and a new text "file:line:column: what is wrong"
Policy *PolicyParseFile(const char *path, char **ret_error);
Bundle *PolicyAppendBundle(Policy *policy, const char *ns, const char *name, const char *type, const char *source_path);
BundleSection *BundleAppendSection(Bundle *bundle, const char *promise_type);

// takes over promisee
Promise *BundleSectionAppendPromise(BundleSection *section, const char *promiser, Rval promisee, SourceOffset offset);

// takes over rval
Constraint *PromiseAppendConstraint(Promise *pp, const char *lval, Rval rval);
void PolicySetFileHash(Policy *policy, const char *path, const char *hash);

VT_END_DECLS

#endif
