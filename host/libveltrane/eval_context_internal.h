// What an evaluation context is made of, for the library's own evaluator: its two tables, its stack, and the accessors
// that extensions have no business with.
//
// Both tables are ordered maps whose key is the record's names joined by zero bytes, a byte that no name holds and that
// sorts before all others: so a walk ascends by namespace, then by name, and a record's texts live in its key. Tag
// sets are shared: a million classes name only a few different ones.
#ifndef VELTRANE_EVAL_CONTEXT_INTERNAL_H
#define VELTRANE_EVAL_CONTEXT_INTERNAL_H

#include <array>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include <veltrane/class.h>
#include <veltrane/eval_context.h>
#include <veltrane/outcome.h>
#include <veltrane/owned.h>
#include <veltrane/ring_buffer.h>
#include <veltrane/variable.h>

struct Variable_ {
    Variable_() = default;
    ~Variable_() { RvalDestroy(rval); }
    Variable_(const Variable_ &) = delete;
    Variable_ &operator=(const Variable_ &) = delete;

    VarRef ref{};                 // texts in the key of the table
    std::vector<char *> indices;  // the room behind ref.indices
    DataType type = VT_DATA_TYPE_NONE;
    Rval rval{};
    const StringSet *tags = nullptr;  // one of the context's shared sets
};

namespace veltrane {

// The class tables of a context: one for the run, one for each bundle on the stack.
class ClassTable {
  public:
    // Names as SplitClassName gives them. A class that is there gets the new tags, and stays hard when it was.
    void Put(std::string_view ns, std::string_view name, bool is_soft, StringSet *tags);
    bool Remove(std::string_view ns, std::string_view name);
    bool Has(std::string_view ns, std::string_view name) const;

    const std::map<std::string, Class> &records() const { return records_; }

  private:
    std::map<std::string, Class> records_;  // key: namespace ("" = default), zero, name
};

class VariableTable {
  public:
    // ns "" = default. Takes over rval.
    void Put(std::string_view ns, std::string_view scope, const VarRef *ref, DataType type, Rval rval,
             const StringSet *tags);
    bool Remove(std::string_view ns, std::string_view scope, const VarRef *ref);
    void RemoveScope(std::string_view ns, std::string_view scope);
    const Variable *Find(std::string_view ns, std::string_view scope, const VarRef *ref) const;

    const std::map<std::string, Variable> &records() const { return records_; }

  private:
    std::map<std::string, Variable> records_;  // key: namespace ("" = default), scope, lval, indices, zeros between
};

struct ClassName {
    std::string ns;    // "" = default
    std::string name;  // canonified; "" = no class has this name
};

// "ns:name" taken apart at the first colon, the name canonified.
ClassName SplitClassName(const char *name);

// "" for NULL and for "default", which both mean the namespace that needs no name.
std::string_view NamespaceKey(const char *ns);

using RingBufferPtr = std::unique_ptr<RingBuffer, Destroyer<RingBufferDestroy>>;

// One level of the stack; what it points to is lent by whoever pushed it.
struct StackFrame {
    enum class Kind { kBundle, kSection, kPromise, kIteration };

    Kind kind = Kind::kBundle;
    const Bundle *bundle = nullptr;                 // kBundle
    const BundleSection *section = nullptr;         // kSection
    const Promise *promise = nullptr;               // kPromise and kIteration
    size_t index = 0;                               // kIteration
    RingBufferPtr messages;                         // kIteration
    PromiseResult result = PROMISE_RESULT_SKIPPED;  // kIteration: the worst that was noted
    ClassTable local_classes;                       // kBundle
};

// The frame of the bundle under evaluation, lent until the stack changes; NULL at rest.
StackFrame *CurrentBundleFrame(EvalContext *ctx);
const StackFrame *CurrentBundleFrame(const EvalContext *ctx);

// That bundle, lent; NULL at rest.
const Bundle *EvalContextStackCurrentBundle(const EvalContext *ctx);

// Note an outcome on the iteration on top of the stack, where the worst one stays; without an iteration on top nothing
// happens.
void EvalContextIterationNote(EvalContext *ctx, PromiseResult result);

// What was noted so far; skipped when nothing was, or when no iteration is on top.
PromiseResult EvalContextIterationResult(const EvalContext *ctx);

// A soft class of the bundle under evaluation: its class expressions see it, other bundles and reports do not, and it
// goes with the bundle. Without a bundle on the stack it is one of the run.
void EvalContextClassPutLocal(EvalContext *ctx, const char *name, const char *tags);

// Whether an expression evaluated now finds this class ("name" or "ns:name", canonified as a put is). A name without
// namespace is looked for among the classes of the bundle under evaluation, in its namespace, then in the default one.
bool EvalContextClassIsDefined(const EvalContext *ctx, const char *name);

// false when there was none.
bool EvalContextVariableRemove(EvalContext *ctx, const VarRef *ref);

// Drops every variable of a scope; ns may be NULL.
void EvalContextVariableClearScope(EvalContext *ctx, const char *ns, const char *scope);

}  // namespace veltrane

struct EvalContext_ {
    veltrane::ClassTable classes;
    veltrane::VariableTable variables;
    std::vector<veltrane::StackFrame> stack;
    std::unordered_map<std::string, veltrane::StringSetPtr> tag_sets;  // by their text
    std::array<std::optional<std::string>, COMMON_CONTROL_MAX> control_common;
    veltrane::RlistPtr default_inventory;

    StringSet *class_history = nullptr;  // owned; NULL = not enabled
    bool class_history_stale = false;    // a class went: the set is made anew when it is next asked for

    EvalContext_() = default;
    ~EvalContext_() { StringSetDestroy(class_history); }
    EvalContext_(const EvalContext_ &) = delete;
    EvalContext_ &operator=(const EvalContext_ &) = delete;
};

#endif
