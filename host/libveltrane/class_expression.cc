// Class expressions are read once from left to right, with one level of a stack for each open parenthesis instead of
// recursion, so that no text can exhaust the program's own stack.
#include "libveltrane/class_expression.h"

#include <utility>
#include <vector>

#include "libveltrane/eval_context_internal.h"

namespace veltrane {
namespace {

bool IsNameByte(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == ':';
}

// "name", or "ns:name" with neither side empty.
bool IsClassName(std::string_view name)
{
    const size_t colon = name.find(':');
    return colon == std::string_view::npos ||
           (colon > 0 && colon + 1 < name.size() && name.find(':', colon + 1) == std::string_view::npos);
}

// What is known of the text between two parentheses: the alternatives so far, and the one being read.
struct Level {
    bool alternatives = false;
    bool conjunction = true;
    bool negated = false;
    bool wants_operand = true;

    void Operand(bool value)
    {
        conjunction = conjunction && value != negated;
        negated = false;
        wants_operand = false;
    }
    bool Alternative()
    {
        alternatives = alternatives || conjunction;
        conjunction = true;
        return !std::exchange(wants_operand, true);
    }
    bool Value() const { return alternatives || conjunction; }
};

bool CloseParenthesis(std::vector<Level> *levels)
{
    if (levels->back().wants_operand || levels->size() == 1) {
        return false;
    }
    const bool value = levels->back().Value();
    levels->pop_back();
    levels->back().Operand(value);
    return true;
}

// Takes one byte that belongs to no name; false when it cannot stand here.
bool Operator(char c, std::vector<Level> *levels)
{
    Level &level = levels->back();
    switch (c) {
        case ' ':
        case '\t':
        case '\r':
        case '\n':
            return true;
        case '!':
            level.negated = !level.negated;
            return level.wants_operand;
        case '(': {
            const bool in_place = level.wants_operand;
            levels->emplace_back();
            return in_place;
        }
        case '.':
        case '&':
            return !std::exchange(level.wants_operand, true);
        case '|':
            return level.Alternative();
        case ')':
            return CloseParenthesis(levels);
        default:
            return false;
    }
}

}  // namespace

ExpressionValue EvaluateClassExpression(std::string_view expression, const ClassPredicate &is_defined)
{
    std::vector<Level> levels(1);
    for (size_t i = 0; i < expression.size();) {
        if (!IsNameByte(expression[i])) {
            if (!Operator(expression[i++], &levels)) {
                return EXPRESSION_VALUE_ERROR;
            }
            continue;
        }
        const size_t begin = i;
        while (i < expression.size() && IsNameByte(expression[i])) { i++; }
        const std::string name(expression.substr(begin, i - begin));
        if (!levels.back().wants_operand || !IsClassName(name)) {
            return EXPRESSION_VALUE_ERROR;
        }
        levels.back().Operand(is_defined(name));
    }
    if (levels.size() > 1 || levels.back().wants_operand) {
        return EXPRESSION_VALUE_ERROR;
    }
    return levels.back().Value() ? EXPRESSION_VALUE_TRUE : EXPRESSION_VALUE_FALSE;
}

}  // namespace veltrane

ExpressionValue CheckClassExpression(const EvalContext *ctx, const char *expression)
{
    return veltrane::EvaluateClassExpression(
        expression, [ctx](const std::string &name) { return veltrane::EvalContextClassIsDefined(ctx, name.c_str()); });
}
