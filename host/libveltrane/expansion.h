// Variables in the texts of a policy: what they hold, and which lists make a promise iterate.
//
// "$(name)" in a text stands for the variable's value: name, bundle.name, ns:bundle.name, each with [index] parts, and
// inside the parentheses again references. What a value holds is never looked at again for references. A variable that
// is a list makes the promise iterate: it is bound to one item after the other (Bindings), so expanding a text always
// gives one text. A text that is "@(name)" and nothing else stands for the whole value, a list's items inside a list.
#ifndef HOST_LIBVELTRANE_EXPANSION_H
#define HOST_LIBVELTRANE_EXPANSION_H

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <veltrane/eval_context.h>
#include <veltrane/json.h>
#include <veltrane/owned.h>
#include <veltrane/policy.h>

#include "libveltrane/owned_rval.h"

namespace veltrane {

// Text by what stands between "$(" and ")": the items that the iteration at hand is about, and this.promiser.
using Bindings = std::map<std::string, std::string>;

// Where names are looked up: the context, the bundle that names without a bundle belong to, and first of all bindings.
struct Scope {
    EvalContext *ctx;
    const Promise *promise;
    Bindings bindings;
};

// Why a value could not be had.
struct Shortfall {
    std::string missing;           // the variable without a value: it may have one in a later pass
    bool function_failed = false;  // a function failed, and said so in the log: trying again is no use
};

// A text with every reference replaced. nullopt with shortfall->missing when one has no text. A "$(" without its ")" is
// text.
std::optional<std::string> ExpandText(const Scope &scope, std::string_view text, Shortfall *shortfall);

// A value with every reference replaced and every function call ({name: [arguments]}) replaced by its result; NONE
// stays NONE. Functions are called in the order of the value, arguments first. The tags that their answers bring are
// appended to ret_tags unless it is NULL.
std::optional<OwnedRval> ExpandRval(const Scope &scope, const Rval &rval, Shortfall *shortfall,
                                    std::vector<std::string> *ret_tags = nullptr);

// The texts of a value that hold a "$(", appended to texts; function arguments and what containers hold included.
void CollectReferences(const Rval &rval, std::vector<std::string> *texts);

// A list that makes a promise iterate: what stands in the parentheses, and the items.
struct IteratedList {
    std::string name;
    std::vector<std::string> items;
};

// The first list that the texts refer to with "$( )" and that is not bound yet; nullopt when there is none left.
std::optional<IteratedList> FirstUnboundList(const Scope &scope, const std::vector<std::string> &texts);

}  // namespace veltrane

#endif
