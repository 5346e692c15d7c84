#include "libveltrane/access_rules.h"

#include <algorithm>

#include <veltrane/entry_points.h>
#include <veltrane/logging.h>
#include <veltrane/rlist.h>
#include <veltrane/seq.h>
#include <veltrane/string_lib.h>

#include "libveltrane/keys.h"
#include "libveltrane/net_address.h"

namespace veltrane {

namespace {

constexpr const char *kReportDataSelect = "report_data_select";

std::string ScalarOf(const Promise *pp, const char *attribute)
{
    const Constraint *constraint = PromiseGetConstraint(pp, attribute);
    const char *text = constraint != nullptr ? RvalScalarValue(constraint->rval) : nullptr;
    return text != nullptr ? text : "";
}

// The entries of a list attribute that are valid; the others are warned of. One scalar is a list of one.
std::vector<std::string> ListOf(const Promise *pp, const char *attribute, bool (*valid)(std::string_view),
                                const char *what)
{
    std::vector<std::string> texts;
    if (const std::string scalar = ScalarOf(pp, attribute); !scalar.empty()) {
        texts.push_back(scalar);
    }
    for (const Rlist *node = PromiseGetConstraintAsList(pp, attribute); node != nullptr; node = node->next) {
        texts.emplace_back(RlistScalarValue(node));
    }
    std::erase_if(texts, [&](const std::string &text) {
        if (valid(text)) {
            return false;
        }
        Log(LOG_LEVEL_WARNING, "Access promise '%s': '%s' in %s is no %s", PromiseID(pp), text.c_str(), attribute,
            what);
        return true;
    });
    return texts;
}

PromisePtr CopyOf(const Promise *pp)
{
    PromisePtr copy(PromiseNewDetached(pp->parent_section, pp->promiser, RvalCopy(pp->promisee), pp->offset));
    for (size_t i = 0; i < SeqLength(pp->conlist); ++i) {
        const auto *constraint = static_cast<const Constraint *>(SeqAt(pp->conlist, i));
        PromiseAppendConstraint(copy.get(), constraint->lval, RvalCopy(constraint->rval))->offset = constraint->offset;
    }
    return copy;
}

bool Contains(const std::vector<std::string> &texts, std::string_view text)
{
    return std::find(texts.begin(), texts.end(), text) != texts.end();
}

}  // namespace

void AccessRules::Add(const Promise *expanded)
{
    Rule rule;
    rule.resource = ScalarOf(expanded, "resource");
    const char *handle = PromiseGetHandle(expanded);
    rule.name = rule.resource == "literal" && handle != nullptr ? handle : expanded->promiser;
    rule.admit_keys = ListOf(expanded, "admit_keys", IsIdentity, "key");
    rule.admit_ips = ListOf(expanded, "admit_ips", IsAddressOrNetwork, "address or network");
    rule.deny_keys = ListOf(expanded, "deny_keys", IsIdentity, "key");
    if (rule.resource == "query") {
        filters_.push_back(CopyOf(expanded));
    }
    rules_.push_back(std::move(rule));
}

bool AccessRules::Admits(std::string_view resource, std::string_view name, std::string_view identity,
                         std::string_view address) const
{
    bool admitted = false;
    for (const Rule &rule : rules_) {
        if (rule.resource != resource || rule.name != name) {
            continue;
        }
        if (Contains(rule.deny_keys, identity)) {
            return false;
        }
        admitted = admitted || Contains(rule.admit_keys, identity) ||
                   std::any_of(rule.admit_ips.begin(), rule.admit_ips.end(),
                               [address](const std::string &network) { return AddressIn(address, network); });
    }
    return admitted;
}

void AccessRules::ApplyReportFilters() const
{
    CleanReportBookFilterSet();
    for (const PromisePtr &promise : filters_) { KeepReportDataSelectAccessPromise(promise.get()); }
}

bool AccessRules::HasReportFilter(std::string_view query_word) const
{
    return std::any_of(filters_.begin(), filters_.end(), [query_word](const PromisePtr &promise) {
        return query_word == promise->promiser &&
               PromiseGetImmediateConstraint(promise.get(), kReportDataSelect) != nullptr;
    });
}

void AccessRules::WarnOfHalfFilters() const
{
    const bool delta = HasReportFilter("delta");
    if (delta != HasReportFilter("rebase")) {
        Log(LOG_LEVEL_WARNING, "Only '%s' queries have a report filter: '%s' queries are answered with everything",
            delta ? "delta" : "rebase", delta ? "rebase" : "delta");
    }
}

}  // namespace veltrane
