// The class table and the walk over the classes of a run.
//
// A key is "<ns>\0<name>"; the texts of a Class point into its key, which never moves.
#include <veltrane/class.h>

#include <optional>
#include <string>

#include <veltrane/string_lib.h>

#include "libveltrane/eval_context_internal.h"

namespace {

std::string ClassKey(std::string_view ns, std::string_view name)
{
    std::string key;
    key.reserve(ns.size() + 1 + name.size());
    key.append(ns).append(1, '\0').append(name);
    return key;
}

}  // namespace

namespace veltrane {

std::string_view NamespaceKey(const char *ns) { return ns == nullptr || StringEqual(ns, "default") ? "" : ns; }

ClassName SplitClassName(const char *name)
{
    const std::string_view whole = name;
    const size_t colon = whole.find(':');
    ClassName split;
    if (colon == std::string_view::npos) {
        split.name = whole;
    } else {
        split.ns = NamespaceKey(std::string(whole.substr(0, colon)).c_str());
        split.name = whole.substr(colon + 1);
    }
    CanonifyNameInPlace(split.name.data());
    return split;
}

void ClassTable::Put(std::string_view ns, std::string_view name, bool is_soft, StringSet *tags)
{
    const auto [entry, is_new] = records_.try_emplace(ClassKey(ns, name));
    Class &record = entry->second;
    if (is_new) {
        char *key = const_cast<char *>(entry->first.c_str());  // lent for reading: Class has no const
        record.ns = ns.empty() ? nullptr : key;
        record.name = key + ns.size() + 1;
        record.is_soft = is_soft;
    }
    record.is_soft = record.is_soft && is_soft;
    record.tags = tags;
}

bool ClassTable::Remove(std::string_view ns, std::string_view name) { return records_.erase(ClassKey(ns, name)) > 0; }

bool ClassTable::Has(std::string_view ns, std::string_view name) const
{
    return records_.find(ClassKey(ns, name)) != records_.end();
}

}  // namespace veltrane

struct ClassTableIterator_ {
    std::map<std::string, Class>::const_iterator next;
    std::map<std::string, Class>::const_iterator end;
    std::optional<std::string> ns;
    bool is_hard;
    bool is_soft;
};

char *ClassRefToString(const char *ns, const char *name)
{
    return veltrane::NamespaceKey(ns).empty() ? SafeStringDuplicate(name) : StringFormat("%s:%s", ns, name);
}

ClassTableIterator *EvalContextClassTableIteratorNewGlobal(const EvalContext *ctx, const char *ns, bool is_hard,
                                                           bool is_soft)
{
    const std::map<std::string, Class> &records = ctx->classes.records();
    ClassTableIterator *iterator = new ClassTableIterator{records.begin(), records.end(), {}, is_hard, is_soft};
    if (ns != nullptr) {
        iterator->ns = veltrane::NamespaceKey(ns);
        iterator->next = records.lower_bound(ClassKey(*iterator->ns, ""));
    }
    return iterator;
}

Class *ClassTableIteratorNext(ClassTableIterator *iterator)
{
    while (iterator->next != iterator->end) {
        const Class &record = iterator->next->second;
        if (iterator->ns.has_value() && *iterator->ns != veltrane::NamespaceKey(record.ns)) {
            return nullptr;
        }
        ++iterator->next;
        if (record.is_soft ? iterator->is_soft : iterator->is_hard) {
            return const_cast<Class *>(&record);
        }
    }
    return nullptr;
}

void ClassTableIteratorDestroy(ClassTableIterator *iterator) { delete iterator; }
