// The words of the policy language: which attributes a promise type and a control section have, and what each may hold.
//
// What is not in these tables is refused, so that a typing error never passes for a setting. A check may rewrite what
// it accepts into the form that the evaluator reads: truth values become "true" and "false".
#ifndef VELTRANE_POLICY_SCHEMA_H
#define VELTRANE_POLICY_SCHEMA_H

#include <optional>
#include <string_view>

#include "libveltrane/policy_yaml.h"

namespace veltrane {

// Nothing, or what is wrong and where.
using Complaint = std::optional<PolicyError>;

struct Rule;
using Check = Complaint (*)(const Rule &rule, YamlNode *value);

// One attribute; what the fields after the check mean is the check's affair.
struct Rule {
    std::string_view name;
    Check check;
    long minimum = 0;
    long maximum = 0;
    std::string_view words{};  // with blanks between
};

bool IsPromiseType(std::string_view word);
bool IsBundleKind(std::string_view word);
bool IsControlSection(std::string_view word);

// Whether a bundle of this kind may hold promises of this type.
bool BundleMayHold(std::string_view kind, std::string_view promise_type);

// A name of a bundle, a namespace or a variable without indices: letters, digits and "_", at least one.
bool IsIdentifier(std::string_view text);

// Checks the attributes of a promise: a map whose member promise_type holds the promiser.
Complaint CheckPromise(std::string_view promise_type, YamlNode *promise);

// Checks a control section: a map of attributes, none of which holds variables.
Complaint CheckControlSection(std::string_view section, YamlNode *attributes);

}  // namespace veltrane

#endif
