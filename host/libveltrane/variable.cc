// The variable table and the walk over it.
//
// A key is "<ns>\0<scope>\0<lval>" and "\0<index>" for each index; the texts of a VarRef point into its key, which
// never moves.
#include <veltrane/variable.h>

#include <cstring>
#include <optional>
#include <string>
#include <utility>

#include <veltrane/string_lib.h>

#include "libveltrane/eval_context_internal.h"

namespace {

std::string ScopeKey(std::string_view ns, std::string_view scope)
{
    std::string key;
    key.append(ns).append(1, '\0').append(scope).append(1, '\0');
    return key;
}

std::string VariableKey(std::string_view ns, std::string_view scope, const VarRef *ref)
{
    std::string key = ScopeKey(ns, scope).append(ref->lval);
    for (size_t i = 0; i < ref->num_indices; i++) { key.append(1, '\0').append(ref->indices[i]); }
    return key;
}

}  // namespace

namespace veltrane {

void VariableTable::Put(std::string_view ns, std::string_view scope, const VarRef *ref, DataType type, Rval rval,
                        const StringSet *tags)
{
    const auto [entry, is_new] = records_.try_emplace(VariableKey(ns, scope, ref));
    Variable &variable = entry->second;
    if (is_new) {
        char *text = const_cast<char *>(entry->first.c_str());  // lent for reading: VarRef has no const
        const auto next = [&text] { return std::exchange(text, text + strlen(text) + 1); };
        char *own_ns = next();
        variable.ref.ns = ns.empty() ? nullptr : own_ns;
        variable.ref.scope = next();
        variable.ref.lval = next();
        for (size_t i = 0; i < ref->num_indices; i++) { variable.indices.push_back(next()); }
        variable.ref.indices = variable.indices.empty() ? nullptr : variable.indices.data();
        variable.ref.num_indices = variable.indices.size();
    }
    RvalDestroy(std::exchange(variable.rval, rval));
    variable.type = type;
    variable.tags = tags;
}

bool VariableTable::Remove(std::string_view ns, std::string_view scope, const VarRef *ref)
{
    return records_.erase(VariableKey(ns, scope, ref)) > 0;
}

void VariableTable::RemoveScope(std::string_view ns, std::string_view scope)
{
    const std::string prefix = ScopeKey(ns, scope);
    const auto first = records_.lower_bound(prefix);
    auto last = first;
    while (last != records_.end() && last->first.starts_with(prefix)) { ++last; }
    records_.erase(first, last);
}

const Variable *VariableTable::Find(std::string_view ns, std::string_view scope, const VarRef *ref) const
{
    const auto entry = records_.find(VariableKey(ns, scope, ref));
    return entry == records_.end() ? nullptr : &entry->second;
}

}  // namespace veltrane

struct VariableTableIterator_ {
    std::map<std::string, Variable>::const_iterator next;
    std::map<std::string, Variable>::const_iterator end;
    std::string prefix;  // of every key that can match
    std::optional<std::string> scope;
    std::optional<std::string> lval;
};

const VarRef *VariableGetRef(const Variable *variable) { return &variable->ref; }

DataType VariableGetType(const Variable *variable) { return variable->type; }

Rval VariableGetRval(const Variable *variable, bool copy) { return copy ? RvalCopy(variable->rval) : variable->rval; }

const StringSet *VariableGetTags(const Variable *variable) { return variable->tags; }

VariableTableIterator *EvalContextVariableTableIteratorNew(const EvalContext *ctx, const char *ns, const char *scope,
                                                           const char *lval)
{
    const std::map<std::string, Variable> &records = ctx->variables.records();
    VariableTableIterator *iterator = new VariableTableIterator{records.begin(), records.end(), {}, {}, {}};
    if (ns != nullptr) {
        iterator->prefix = scope != nullptr ? ScopeKey(veltrane::NamespaceKey(ns), scope)
                                            : std::string(veltrane::NamespaceKey(ns)).append(1, '\0');
        iterator->next = records.lower_bound(iterator->prefix);
    } else if (scope != nullptr) {
        iterator->scope = scope;
    }
    if (lval != nullptr) {
        iterator->lval = lval;
    }
    return iterator;
}

Variable *VariableTableIteratorNext(VariableTableIterator *iterator)
{
    while (iterator->next != iterator->end && iterator->next->first.starts_with(iterator->prefix)) {
        const Variable &variable = iterator->next->second;
        ++iterator->next;
        if ((!iterator->scope.has_value() || *iterator->scope == variable.ref.scope) &&
            (!iterator->lval.has_value() || *iterator->lval == variable.ref.lval)) {
            return const_cast<Variable *>(&variable);
        }
    }
    return nullptr;
}

void VariableTableIteratorDestroy(VariableTableIterator *iterator) { delete iterator; }
