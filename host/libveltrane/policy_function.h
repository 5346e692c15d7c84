// What a policy function is given and what it gives back.
#ifndef HOST_LIBVELTRANE_POLICY_FUNCTION_H
#define HOST_LIBVELTRANE_POLICY_FUNCTION_H

#include <string>
#include <utility>
#include <vector>

#include <veltrane/eval_context.h>
#include <veltrane/policy.h>

#include "libveltrane/owned_rval.h"

namespace veltrane {

// No text that a function gives is longer.
inline constexpr size_t kLargestText = size_t{1024} * 1024;

struct FunctionCall {
    EvalContext *ctx;
    const Promise *promise;  // that the call belongs to
    std::string name;
    std::vector<std::string> arguments;
};

// The value of a call, or why it failed.
struct Answer {
    bool ok = false;
    OwnedRval value;                // set when ok
    std::string why;                // set when not
    std::vector<std::string> tags;  // for the variable or class that takes the value, beside those of its promise
};

inline Answer Failed(std::string why)
{
    Answer answer;
    answer.why = std::move(why);
    return answer;
}

// A value that already is one; taken over.
inline Answer Value(Rval value)
{
    Answer answer;
    answer.ok = true;
    answer.value = OwnedRval(value);
    return answer;
}

inline Answer Text(const std::string &text) { return Value(RvalNew(text.c_str(), RVAL_TYPE_SCALAR)); }

}  // namespace veltrane

#endif
