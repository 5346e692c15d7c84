// What the access promises of a policy say: which trusted peer may ask for what, and what a report may carry.
//
// Trust opens the connection, no more. Nobody is admitted who is not named, by key (admit_keys) or by address
// (admit_ips); a key in deny_keys is refused whatever else names it. Promises about the same thing add up.
#ifndef HOST_LIBVELTRANE_ACCESS_RULES_H
#define HOST_LIBVELTRANE_ACCESS_RULES_H

#include <string>
#include <string_view>
#include <vector>

#include <veltrane/policy.h>

#include "libveltrane/policy_internal.h"

namespace veltrane {

class AccessRules {
  public:
    // Add an evaluated access promise. It is copied, but not the section it belongs to: the policy must outlive the
    // rules. An entry of admit_ips that is no address or network, and one of the key lists that is no identity, admits
    // and denies nobody and costs a warning.
    void Add(const Promise *expanded);

    // Whether a peer may have what resource and name say.
    //
    // resource  "query", "literal" or "context"
    // name      the query word; of a literal, its handle; of a context, "collect_calls"
    // identity  of the peer's key
    // address   numeric; "" matches no rule by address
    bool Admits(std::string_view resource, std::string_view name, std::string_view identity,
                std::string_view address) const;

    // Make the report filters of these rules the ones in force, in place of all there were. Between the two steps of
    // this a reply would go out unfiltered, so the caller keeps every query out meanwhile.
    void ApplyReportFilters() const;

    // Warn when only one of delta and rebase has a report filter: the other then carries everything.
    void WarnOfHalfFilters() const;

  private:
    struct Rule {
        std::string resource;
        std::string name;
        std::vector<std::string> admit_keys;
        std::vector<std::string> admit_ips;
        std::vector<std::string> deny_keys;
    };

    bool HasReportFilter(std::string_view query_word) const;

    std::vector<Rule> rules_;
    std::vector<PromisePtr> filters_;  // copies of the promises about queries
};

}  // namespace veltrane

#endif
