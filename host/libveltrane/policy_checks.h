// What one attribute of a policy may hold: the checks that the tables of policy_schema.cc are made of.
//
// Where a promise's attribute takes a text, a number or a list, a call of a function may stand for it, and a text with
// a variable in it is checked when it is evaluated; the checks for control sections are the same, for such a section
// is refused before when it holds a variable.
#ifndef VELTRANE_POLICY_CHECKS_H
#define VELTRANE_POLICY_CHECKS_H

#include <span>
#include <string>

#include "libveltrane/policy_schema.h"

namespace veltrane {

// Whether a text holds $(...) or @(...): its value is not known before the evaluation.
bool HoldsVariable(std::string_view text);

Complaint Refuse(SourceOffset where, std::string message);

// Checks each member of a map against the rule of its name; what names the map in a message.
Complaint CheckMembers(std::span<const Rule> rules, const std::string &what, YamlNode *map);

Complaint AnyData(const Rule &rule, YamlNode *value);           // any texts, lists and maps, taken as they stand
Complaint FixedText(const Rule &rule, YamlNode *value);         // a text; no function
Complaint Text(const Rule &rule, YamlNode *value);              // a text
Complaint Word(const Rule &rule, YamlNode *value);              // one of rule.words; no function
Complaint Boolean(const Rule &rule, YamlNode *value);           // true, false, yes, no
Complaint WholeNumber(const Rule &rule, YamlNode *value);       // minimum to maximum
Complaint RealNumber(const Rule &rule, YamlNode *value);        // decimal
Complaint FixedList(const Rule &rule, YamlNode *value);         // a list of texts; no function
Complaint FixedTextOrList(const Rule &rule, YamlNode *value);   // a text or a list of texts; no function
Complaint TextList(const Rule &rule, YamlNode *value);          // a list of texts, or @(name)
Complaint TextOrList(const Rule &rule, YamlNode *value);        // a text or a list of texts
Complaint WholeNumberList(const Rule &rule, YamlNode *value);   // each item minimum to maximum
Complaint RealNumberList(const Rule &rule, YamlNode *value);    // each item decimal
Complaint ModuleList(const Rule &rule, YamlNode *value);        // names of package modules
Complaint ClassExpression(const Rule &rule, YamlNode *value);   // a class expression
Complaint ClassExpressions(const Rule &rule, YamlNode *value);  // a list of class expressions and functions, or one
Complaint OctalMode(const Rule &rule, YamlNode *value);         // permission bits, one to four octal digits
Complaint Environment(const Rule &rule, YamlNode *value);       // a list of NAME=value, or a map of texts

}  // namespace veltrane

#endif
