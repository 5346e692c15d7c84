// The checks of single attributes; see policy_checks.h.
#include "libveltrane/policy_checks.h"

#include <algorithm>
#include <climits>

#include <veltrane/string_lib.h>

#include "libveltrane/class_expression.h"
#include "libveltrane/policy_functions.h"

namespace veltrane {

namespace {

std::string Attribute(const Rule &rule) { return "'" + std::string(rule.name) + "'"; }

// A map that stands for a value: one function and the list of its arguments. How many they are is the function's
// affair.
Complaint CheckCall(const Rule &rule, const YamlNode &map)
{
    if (map.members.size() != 1) {
        return Refuse(map.offset, Attribute(rule) + " takes no map but the call of one function");
    }
    const YamlMember &call = map.members.front();
    if (!IsPolicyFunction(call.key.c_str())) {
        return Refuse(call.offset, "unknown function " + Quoted(call.key));
    }
    if (!call.value.IsList()) {
        return Refuse(call.value.offset, "function '" + call.key + "' takes a list of arguments");
    }
    for (const YamlNode &argument : call.value.items) {
        if (!argument.IsText()) {
            return Refuse(argument.offset, "an argument of function '" + call.key + "' must be a text");
        }
    }
    return std::nullopt;
}

// What a check says of a text: it may be the call of a function or hold a variable instead.
Complaint TextThat(const Rule &rule, const YamlNode &value, const std::string &wanted, bool is_good)
{
    if (value.IsMap()) {
        return CheckCall(rule, value);
    }
    if (!value.IsText()) {
        return Refuse(value.offset, Attribute(rule) + " must be " + wanted);
    }
    return is_good || HoldsVariable(value.text)
               ? std::nullopt
               : Refuse(value.offset, Attribute(rule) + " must be " + wanted + ", not " + Quoted(value.text));
}

// Runs a check on each item of a list, for which the call of a function or @(name) may stand.
Complaint ListOf(Check check, const Rule &rule, YamlNode *value)
{
    if (value->IsMap()) {
        return CheckCall(rule, *value);
    }
    if (value->IsText() && value->text.starts_with("@(")) {
        return std::nullopt;
    }
    if (!value->IsList()) {
        return Refuse(value->offset, Attribute(rule) + " must be a list");
    }
    for (YamlNode &item : value->items) {
        if (!item.IsText()) {
            return Refuse(item.offset, "an item of " + Attribute(rule) + " must be a text");
        }
        if (Complaint complaint = check(rule, &item); complaint.has_value()) {
            return complaint;
        }
    }
    return std::nullopt;
}

bool IsWholeNumber(const std::string &text, long minimum, long maximum)
{
    long number = 0;
    return StringToLong(text.c_str(), &number) == 0 && number >= minimum && number <= maximum;
}

std::string Range(const Rule &rule)
{
    if (rule.minimum == LONG_MIN && rule.maximum == LONG_MAX) {
        return "a whole number";
    }
    return "a whole number from " + std::to_string(rule.minimum) + " to " + std::to_string(rule.maximum);
}

bool IsReal(const std::string &text)
{
    double number = 0;
    return StringToDouble(text.c_str(), &number);
}

}  // namespace

bool HoldsVariable(std::string_view text)
{
    return text.find("$(") != std::string_view::npos || text.find("@(") != std::string_view::npos;
}

Complaint Refuse(SourceOffset where, std::string message) { return PolicyError{where, std::move(message)}; }

Complaint CheckMembers(std::span<const Rule> rules, const std::string &what, YamlNode *map)
{
    if (!map->IsMap()) {
        return Refuse(map->offset, what + " must be a map");
    }
    for (YamlMember &member : map->members) {
        const auto rule =
            std::find_if(rules.begin(), rules.end(), [&member](const Rule &known) { return known.name == member.key; });
        if (rule == rules.end()) {
            return Refuse(member.offset, "unknown attribute " + Quoted(member.key) + " of " + what);
        }
        if (Complaint complaint = rule->check(*rule, &member.value); complaint.has_value()) {
            return complaint;
        }
    }
    return std::nullopt;
}

Complaint AnyData(const Rule &, YamlNode *) { return std::nullopt; }

Complaint FixedText(const Rule &rule, YamlNode *value)
{
    return value->IsText() ? std::nullopt : Refuse(value->offset, Attribute(rule) + " must be a text");
}

Complaint Text(const Rule &rule, YamlNode *value) { return TextThat(rule, *value, "a text", true); }

Complaint Word(const Rule &rule, YamlNode *value)
{
    const std::string padded = " " + std::string(rule.words) + " ";
    const bool is_word = value->IsText() && value->text.find(' ') == std::string::npos && !value->text.empty() &&
                         padded.find(" " + value->text + " ") != std::string::npos;
    return is_word ? std::nullopt
                   : Refuse(value->offset, Attribute(rule) + " must be one of: " + std::string(rule.words));
}

Complaint Boolean(const Rule &rule, YamlNode *value)
{
    const bool is_true = value->text == "true" || value->text == "yes";
    const bool is_false = value->text == "false" || value->text == "no";
    if (value->IsText() && (is_true || is_false)) {
        value->text = is_true ? "true" : "false";
    }
    return TextThat(rule, *value, "true or false", is_true || is_false);
}

Complaint WholeNumber(const Rule &rule, YamlNode *value)
{
    return TextThat(rule, *value, Range(rule), IsWholeNumber(value->text, rule.minimum, rule.maximum));
}

Complaint RealNumber(const Rule &rule, YamlNode *value)
{
    return TextThat(rule, *value, "a number", IsReal(value->text));
}

Complaint FixedList(const Rule &rule, YamlNode *value)
{
    return value->IsList() ? ListOf(FixedText, rule, value)
                           : Refuse(value->offset, Attribute(rule) + " must be a list of texts");
}

Complaint FixedTextOrList(const Rule &rule, YamlNode *value)
{
    return value->IsList() ? FixedList(rule, value) : FixedText(rule, value);
}

Complaint TextList(const Rule &rule, YamlNode *value) { return ListOf(Text, rule, value); }

Complaint TextOrList(const Rule &rule, YamlNode *value)
{
    return value->IsList() ? ListOf(Text, rule, value) : Text(rule, value);
}

Complaint WholeNumberList(const Rule &rule, YamlNode *value) { return ListOf(WholeNumber, rule, value); }

Complaint RealNumberList(const Rule &rule, YamlNode *value) { return ListOf(RealNumber, rule, value); }

Complaint ModuleList(const Rule &rule, YamlNode *value)
{
    const auto is_module = [](const Rule &, YamlNode *item) -> Complaint {
        const bool good = !item->text.empty() && std::all_of(item->text.begin(), item->text.end(), [](char c) {
            return IsIdentifier(std::string_view(&c, 1)) || c == '-' || c == '.';
        });
        return good ? std::nullopt : Refuse(item->offset, Quoted(item->text) + " is no name of a package module");
    };
    return value->IsList() ? ListOf(is_module, rule, value)
                           : Refuse(value->offset, Attribute(rule) + " must be a list of package modules");
}

Complaint ClassExpression(const Rule &rule, YamlNode *value)
{
    const bool is_good =
        EvaluateClassExpression(value->text, [](const std::string &) { return false; }) != EXPRESSION_VALUE_ERROR;
    return TextThat(rule, *value, "a class expression", is_good);
}

Complaint ClassExpressions(const Rule &rule, YamlNode *value)
{
    if (!value->IsList()) {
        return ClassExpression(rule, value);
    }
    for (YamlNode &item : value->items) {
        if (Complaint complaint = ClassExpression(rule, &item); complaint.has_value()) {
            return complaint;
        }
    }
    return std::nullopt;
}

Complaint OctalMode(const Rule &rule, YamlNode *value)
{
    const bool is_octal = !value->text.empty() && value->text.size() <= 4 &&
                          value->text.find_first_not_of("01234567") == std::string::npos;
    return TextThat(rule, *value, "one to four octal digits", is_octal);
}

Complaint Environment(const Rule &rule, YamlNode *value)
{
    if (value->IsMap()) {
        for (const YamlMember &member : value->members) {
            if (!IsIdentifier(member.key)) {
                return Refuse(member.offset, Quoted(member.key) + " is no name of an environment variable");
            }
            if (!member.value.IsText()) {
                return Refuse(member.value.offset, "an environment variable must be a text");
            }
        }
        return std::nullopt;
    }
    const auto is_setting = [](const Rule &, YamlNode *item) -> Complaint {
        const bool good =
            IsIdentifier(item->text.substr(0, item->text.find('='))) && item->text.find('=') != std::string::npos;
        return good || HoldsVariable(item->text) ? std::nullopt
                                                 : Refuse(item->offset, Quoted(item->text) + " is no NAME=value");
    };
    return ListOf(is_setting, rule, value);
}

}  // namespace veltrane
