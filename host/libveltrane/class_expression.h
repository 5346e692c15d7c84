// Class expressions: names joined by . and & (both), | (either), ! (not) and parentheses.
//
// "." and "&" are the same and bind closer than "|"; "!" belongs to the name or the parenthesis that follows it. Blanks
// may stand between. A name is letters, digits and "_", with a namespace and ":" before it or without.
#ifndef VELTRANE_CLASS_EXPRESSION_H
#define VELTRANE_CLASS_EXPRESSION_H

#include <functional>
#include <string>
#include <string_view>

#include <veltrane/eval_context.h>

namespace veltrane {

using ClassPredicate = std::function<bool(const std::string &name)>;

// The value of an expression whose names are what is_defined says; ERROR when it is malformed or empty. Every name is
// asked for, whatever the others are. Takes time and memory in proportion to the text, however deep it nests.
ExpressionValue EvaluateClassExpression(std::string_view expression, const ClassPredicate &is_defined);

}  // namespace veltrane

#endif
