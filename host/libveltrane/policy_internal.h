// The parts of a policy that only the library itself touches.
#ifndef VELTRANE_POLICY_INTERNAL_H
#define VELTRANE_POLICY_INTERNAL_H

#include <map>
#include <string>
#include <utility>
#include <vector>

#include <veltrane/owned.h>
#include <veltrane/policy.h>

struct PolicyInternal_ {
    PolicyInternal_() = default;
    ~PolicyInternal_()
    {
        for (auto &[name, value] : control) { RvalDestroy(value); }
    }
    PolicyInternal_(const PolicyInternal_ &) = delete;
    PolicyInternal_ &operator=(const PolicyInternal_ &) = delete;

    std::map<std::string, std::string> file_hashes;               // path -> 64 hex digits
    std::map<std::pair<std::string, std::string>, Rval> control;  // (section, attribute) -> value, owned
};

struct PromiseInternal_ {
    std::string location{};  // "<source file>:<line>"

    // What functions of the policy said of the values that they gave, as tags for what the promise defines. No
    // attribute: where a value came from does not make it another promise.
    std::vector<std::string> value_tags{};
};

namespace veltrane {

// A promise that stands in its section's policy but not in its list of promises: what the evaluator makes of a promise
// by expanding it. Takes over promisee; attributes are added with PromiseAppendConstraint. Ends with PromiseDestroy.
Promise *PromiseNewDetached(BundleSection *section, const char *promiser, Rval promisee, SourceOffset offset);
void PromiseDestroy(Promise *pp);

using PromisePtr = std::unique_ptr<Promise, Destroyer<PromiseDestroy>>;

}  // namespace veltrane

#endif
