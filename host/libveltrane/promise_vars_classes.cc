// The promise types that every program of the host evaluates.
#include "libveltrane/promise_vars_classes.h"

#include <optional>

#include <veltrane/json.h>
#include <veltrane/owned.h>
#include <veltrane/string_lib.h>

#include "libveltrane/eval_context_internal.h"
#include "libveltrane/expansion.h"
#include "libveltrane/policy_internal.h"
#include "libveltrane/promise_attributes.h"

namespace veltrane {

namespace {

struct ValueKind {
    const char *attribute;
    DataType type;
};

constexpr ValueKind kValueKinds[] = {
    {"string", VT_DATA_TYPE_STRING},     {"int", VT_DATA_TYPE_INT},        {"real", VT_DATA_TYPE_REAL},
    {"slist", VT_DATA_TYPE_STRING_LIST}, {"ilist", VT_DATA_TYPE_INT_LIST}, {"rlist", VT_DATA_TYPE_REAL_LIST},
    {"data", VT_DATA_TYPE_CONTAINER},
};

// A name that a reference can reach: letters, digits and '_', then indices. What has a dot would name another bundle.
bool IsVariableName(const char *name)
{
    const std::string_view text = name;
    const std::string_view lval = text.substr(0, text.find('['));
    return !lval.empty() && lval == CanonifyName(std::string(lval).c_str()) &&
           (lval.size() == text.size() || text.back() == ']');
}

bool IsItem(const char *text, DataType type)
{
    long whole = 0;
    double real = 0;
    switch (type) {
        case VT_DATA_TYPE_INT:
        case VT_DATA_TYPE_INT_LIST:
            return StringToLong(text, &whole) == 0;
        case VT_DATA_TYPE_REAL:
        case VT_DATA_TYPE_REAL_LIST:
            return StringToDouble(text, &real);
        default:
            return true;
    }
}

// Whether a value has the shape and the numbers that its type promises.
bool IsValue(const Rval &value, DataType type)
{
    if (value.type != DataTypeToRvalType(type)) {
        return false;
    }
    if (value.type == RVAL_TYPE_SCALAR) {
        return IsItem(RvalScalarValue(value), type);
    }
    for (const Rlist *node = RvalRlistValue(value); node != nullptr; node = node->next) {
        if (!IsItem(RlistScalarValue(node), type)) {
            return false;
        }
    }
    return true;
}

// Data may be given as a text that holds JSON (from a file, from a command) or as a list.
OwnedRval AsData(const Rval &value)
{
    JsonElement *json = nullptr;
    if (value.type == RVAL_TYPE_SCALAR && JsonParse(RvalScalarValue(value), &json) == JSON_PARSE_OK) {
        return OwnedRval(Rval{json, RVAL_TYPE_CONTAINER});
    }
    if (value.type == RVAL_TYPE_LIST) {
        json = JsonArrayCreate(RlistLen(RvalRlistValue(value)));
        for (const Rlist *node = RvalRlistValue(value); node != nullptr; node = node->next) {
            JsonArrayAppendString(json, RlistScalarValue(node));
        }
        return OwnedRval(Rval{json, RVAL_TYPE_CONTAINER});
    }
    return OwnedRval(RvalCopy(value));
}

// All expressions together: the neutral value when each is that, else the other one. "and" is true when none is false,
// "or" is false when none is true. All are looked at, so that a malformed one is found wherever it stands.
ExpressionValue Combine(const EvalContext *ctx, const std::vector<std::string> &expressions, ExpressionValue neutral)
{
    ExpressionValue value = neutral;
    for (const std::string &expression : expressions) {
        const ExpressionValue one = CheckClassExpression(ctx, expression.c_str());
        if (one == EXPRESSION_VALUE_ERROR) {
            return one;
        }
        value = one == neutral ? value : one;
    }
    return value;
}

ExpressionValue Not(ExpressionValue value)
{
    return value == EXPRESSION_VALUE_ERROR  ? value
           : value == EXPRESSION_VALUE_TRUE ? EXPRESSION_VALUE_FALSE
                                            : EXPRESSION_VALUE_TRUE;
}

ExpressionValue ClassesValue(const EvalContext *ctx, const Promise *expanded)
{
    if (PromiseGetConstraint(expanded, "expression") != nullptr) {
        return Combine(ctx, AttributeTexts(expanded, "expression"), EXPRESSION_VALUE_TRUE);
    }
    if (PromiseGetConstraint(expanded, "and") != nullptr) {
        return Combine(ctx, AttributeTexts(expanded, "and"), EXPRESSION_VALUE_TRUE);
    }
    if (PromiseGetConstraint(expanded, "or") != nullptr) {
        return Combine(ctx, AttributeTexts(expanded, "or"), EXPRESSION_VALUE_FALSE);
    }
    if (PromiseGetConstraint(expanded, "not") != nullptr) {
        return Not(Combine(ctx, AttributeTexts(expanded, "not"), EXPRESSION_VALUE_FALSE));
    }
    return EXPRESSION_VALUE_ERROR;
}

}  // namespace

std::string PromiseTags(const Promise *expanded)
{
    std::string tags = "source=promise";
    for (const std::string &tag : AttributeTexts(expanded, "meta")) { tags += "," + tag; }
    for (const std::string &tag : expanded->internal->value_tags) { tags += "," + tag; }
    return tags;
}

PromiseResult KeepVarsPromise(EvalContext *ctx, const Promise *expanded)
{
    const Attributes attr = CommonAttributes(expanded);
    if (!IsVariableName(expanded->promiser)) {
        RecordFailure(ctx, expanded, &attr, "'%s' is no name of a variable", expanded->promiser);
        return PROMISE_RESULT_FAIL;
    }
    for (const ValueKind &kind : kValueKinds) {
        const Constraint *constraint = PromiseGetConstraint(expanded, kind.attribute);
        if (constraint == nullptr) {
            continue;
        }
        const OwnedRval data = kind.type == VT_DATA_TYPE_CONTAINER ? AsData(constraint->rval) : OwnedRval();
        const Rval &value = kind.type == VT_DATA_TYPE_CONTAINER ? data.Get() : constraint->rval;
        const VarRefPtr ref(VarRefParseFromBundle(expanded->promiser, PromiseGetBundle(expanded)));
        if (!IsValue(value, kind.type) ||
            !EvalContextVariablePut(ctx, ref.get(), value.item, kind.type, PromiseTags(expanded).c_str())) {
            RecordFailure(ctx, expanded, &attr, "The value of variable '%s' is no %s", expanded->promiser,
                          kind.attribute);
            return PROMISE_RESULT_FAIL;
        }
        RecordNoChange(ctx, expanded, &attr, "Variable '%s' is defined", expanded->promiser);
        return PROMISE_RESULT_NOOP;
    }
    RecordFailure(ctx, expanded, &attr, "Variable '%s' has no value", expanded->promiser);
    return PROMISE_RESULT_FAIL;
}

PromiseResult KeepClassesPromise(EvalContext *ctx, const Promise *expanded)
{
    const Attributes attr = CommonAttributes(expanded);
    const ExpressionValue value = ClassesValue(ctx, expanded);
    if (value == EXPRESSION_VALUE_FALSE) {
        return PROMISE_RESULT_SKIPPED;
    }
    if (value == EXPRESSION_VALUE_ERROR) {
        RecordFailure(ctx, expanded, &attr, "The expression of class '%s' is malformed", expanded->promiser);
        return PROMISE_RESULT_FAIL;
    }
    const std::string name = std::string(PromiseGetNamespace(expanded)) + ":" + expanded->promiser;
    if (StringEqual(AttributeText(expanded, "scope"), "bundle")) {
        EvalContextClassPutLocal(ctx, name.c_str(), PromiseTags(expanded).c_str());
    } else {
        EvalContextClassPutSoft(ctx, name.c_str(), PromiseTags(expanded).c_str());
    }
    RecordNoChange(ctx, expanded, &attr, "Class '%s' is defined", expanded->promiser);
    return PROMISE_RESULT_NOOP;
}

}  // namespace veltrane
