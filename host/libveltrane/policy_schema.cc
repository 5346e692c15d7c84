// The tables of the policy language, and the checks that look at a promise or a control section as a whole.
#include "libveltrane/policy_schema.h"

#include <algorithm>
#include <climits>
#include <iterator>
#include <string>
#include <vector>

#include <veltrane/string_lib.h>

#include "libveltrane/policy_checks.h"
#include "libveltrane/policy_functions.h"
#include "libveltrane/query_border.h"
#include "libveltrane/tree_walk.h"

namespace veltrane {

namespace {

Complaint Perms(const Rule &rule, YamlNode *value);
Complaint Changes(const Rule &rule, YamlNode *value);
Complaint CopyFrom(const Rule &rule, YamlNode *value);
Complaint DepthSearch(const Rule &rule, YamlNode *value);
Complaint Count(const Rule &rule, YamlNode *value);
Complaint OutcomeClasses(const Rule &rule, YamlNode *value);
Complaint ReportDataSelect(const Rule &rule, YamlNode *value);
Complaint AbsolutePath(const Rule &rule, YamlNode *value);

// clang-format off

constexpr Rule kCommonRules[] = {
    {"handle",     FixedText},
    {"meta",       FixedList},
    {"if",         ClassExpression},
    {"unless",     ClassExpression},
    {"comment",    FixedText},
    {"promisees",  FixedTextOrList},
    {"classes",    OutcomeClasses},
};

constexpr Rule kVarsRules[] = {
    {"string",     Text},
    {"int",        WholeNumber,     LONG_MIN, LONG_MAX},
    {"real",       RealNumber},
    {"slist",      TextList},
    {"ilist",      WholeNumberList, LONG_MIN, LONG_MAX},
    {"rlist",      RealNumberList},
    {"data",       AnyData},
};

constexpr Rule kClassesRules[] = {
    {"expression", ClassExpression},
    {"and",        ClassExpressions},
    {"or",         ClassExpressions},
    {"not",        ClassExpression},
    {"scope",      Word,            0, 0, "bundle namespace"},
};

constexpr Rule kFilesRules[] = {
    {"content",           Text},
    {"create",            Boolean},
    {"delete",            Boolean},
    {"copy_from",         CopyFrom},
    {"perms",             Perms},
    {"changes",           Changes},
    {"depth_search",      DepthSearch},
    {"move_obstructions", Boolean},
};

constexpr Rule kCommandsRules[] = {
    {"args",       TextOrList},
    {"timeout",    WholeNumber,     0, INT_MAX},
    {"shell",      Boolean},
    {"env",        Environment},
    {"cwd",        Text},
};

constexpr Rule kPackagesRules[] = {
    {"policy",       Word,          0, 0, "present absent"},
    {"version",      Text},
    {"architecture", Text},
    {"module",       Text},
};

constexpr Rule kProcessesRules[] = {
    {"count",         Count},
    {"signals",       TextOrList},
    {"restart_class", Text},
};

constexpr Rule kMethodsRules[] = {
    {"args",       TextOrList},
};

constexpr Rule kReportsRules[] = {
    {"to_file",    Text},
};

constexpr Rule kAccessRules[] = {
    {"resource",           Word,    0, 0, "query literal context"},
    {"admit_keys",         TextList},
    {"admit_ips",          TextList},
    {"deny_keys",          TextList},
    {"report_data_select", ReportDataSelect},
};

constexpr Rule kReportDataSelectRules[] = {
    {"monitoring_include",     FixedList},
    {"monitoring_exclude",     FixedList},
    {"metatags_include",       FixedList},
    {"metatags_exclude",       FixedList},
    {"promise_handle_include", FixedList},
    {"promise_handle_exclude", FixedList},
};

constexpr Rule kPermsRules[] = {
    {"mode",         OctalMode},
    {"owner",        FixedText},
    {"group",        FixedText},
};

constexpr Rule kChangesRules[] = {
    {"report_diffs", Boolean},
    {"repository",   FixedText},
};

constexpr Rule kCopyFromRules[] = {
    {"source",       FixedText},
    {"servers",      FixedList},
    {"backup",       Word,          0, 0, "true false timestamp"},
    {"stealth",      Boolean},
    {"verify",       Boolean},
};

constexpr Rule kDepthSearchRules[] = {
    {"depth",              WholeNumber, 1, kDeepestTree},
    {"cross_file_systems", Boolean},
};

constexpr Rule kCountRules[] = {
    {"min",          WholeNumber,   0, INT_MAX},
    {"max",          WholeNumber,   0, INT_MAX},
};

constexpr Rule kOutcomeRules[] = {
    {"kept",         TextOrList},
    {"repaired",     TextOrList},
    {"failed",       TextOrList},
};

constexpr Rule kControlCommonRules[] = {
    {"package_inventory",     ModuleList},
    {"protocol_version",      Word,        0, 0, "classic tls cookie filestream latest 1 2 3 4"},
    {"lastseen_expire_after", WholeNumber, 0, INT_MAX},
};

constexpr Rule kControlAgentRules[] = {
    {"report_class_log",      Boolean},
    {"log_limit",             WholeNumber, 4096, INT_MAX},
};

constexpr Rule kControlServerRules[] = {
    {"listen",                Boolean},
    {"call_collect_interval", WholeNumber, 0, INT_MAX},
    {"dump_reports",          Boolean},
    {"max_connections",       WholeNumber, 1, 65535},
    {"service_announcement",  AbsolutePath},
};

struct Chapter {
    std::string_view name;
    std::span<const Rule> rules;
    std::string_view kinds;  // of the bundles that may hold such promises
};

constexpr Chapter kPromiseTypes[] = {
    {"vars",      kVarsRules,      "agent server common"},
    {"classes",   kClassesRules,   "agent server common"},
    {"files",     kFilesRules,     "agent"},
    {"commands",  kCommandsRules,  "agent"},
    {"packages",  kPackagesRules,  "agent"},
    {"processes", kProcessesRules, "agent"},
    {"methods",   kMethodsRules,   "agent"},
    {"reports",   kReportsRules,   "agent server common"},
    {"access",    kAccessRules,    "server"},
};

constexpr Chapter kControlSections[] = {
    {"common",    kControlCommonRules, ""},
    {"agent",     kControlAgentRules,  ""},
    {"server",    kControlServerRules, ""},
};

// clang-format on

const Chapter *FindChapter(std::span<const Chapter> chapters, std::string_view name)
{
    const auto found =
        std::find_if(chapters.begin(), chapters.end(), [name](const Chapter &chapter) { return chapter.name == name; });
    return found != chapters.end() ? &*found : nullptr;
}

// The map that an attribute holds; its members are texts and lists, no function stands for one of them.
Complaint CheckNested(std::span<const Rule> rules, const Rule &rule, YamlNode *value)
{
    const std::string what = "'" + std::string(rule.name) + "'";
    for (const YamlMember &member : value->members) {
        if (member.value.IsMap()) {
            return Refuse(member.value.offset, Quoted(member.key) + " of " + what + " cannot be a map");
        }
    }
    return CheckMembers(rules, what, value);
}

Complaint Perms(const Rule &rule, YamlNode *value) { return CheckNested(kPermsRules, rule, value); }

Complaint Changes(const Rule &rule, YamlNode *value) { return CheckNested(kChangesRules, rule, value); }

Complaint CopyFrom(const Rule &rule, YamlNode *value)
{
    if (value->IsText()) {
        return std::nullopt;
    }
    Complaint complaint = CheckNested(kCopyFromRules, rule, value);
    return complaint.has_value() || value->Find("source") != nullptr
               ? complaint
               : Refuse(value->offset, "'copy_from' needs a 'source'");
}

// True or false, also as the result of a function, or how the search is bounded.
Complaint DepthSearch(const Rule &rule, YamlNode *value)
{
    const bool is_call = value->members.size() == 1 && IsPolicyFunction(value->members[0].key.c_str());
    return value->IsMap() && !is_call ? CheckNested(kDepthSearchRules, rule, value) : Boolean(rule, value);
}

Complaint Count(const Rule &rule, YamlNode *value) { return CheckNested(kCountRules, rule, value); }

Complaint OutcomeClasses(const Rule &rule, YamlNode *value) { return CheckNested(kOutcomeRules, rule, value); }

Complaint ReportDataSelect(const Rule &rule, YamlNode *value)
{
    return CheckNested(kReportDataSelectRules, rule, value);
}

Complaint AbsolutePath(const Rule &rule, YamlNode *value)
{
    return value->IsText() && value->text.starts_with('/')
               ? std::nullopt
               : Refuse(value->offset, "'" + std::string(rule.name) + "' must be an absolute path");
}

Complaint CheckExactlyOne(std::initializer_list<std::string_view> names, std::string_view promise_type,
                          const YamlNode &promise)
{
    const YamlMember *first = nullptr;
    std::string all;
    for (const std::string_view name : names) { all += (all.empty() ? "" : ", ") + std::string(name); }
    for (const YamlMember &member : promise.members) {
        if (std::find(names.begin(), names.end(), member.key) == names.end()) {
            continue;
        }
        if (first != nullptr) {
            return Refuse(member.offset, "'" + member.key + "' beside '" + first->key + "': a promise of type '" +
                                             std::string(promise_type) + "' has one of " + all);
        }
        first = &member;
    }
    return first != nullptr
               ? std::nullopt
               : Refuse(promise.offset, "a promise of type '" + std::string(promise_type) + "' needs one of " + all);
}

// "name" and any number of [index].
bool IsVariableName(const std::string &text)
{
    const size_t bracket = text.find('[');
    return IsIdentifier(std::string_view(text).substr(0, bracket)) &&
           (bracket == std::string::npos || text.ends_with(']'));
}

Complaint CheckPromiser(std::string_view promise_type, const YamlNode &promiser)
{
    const std::string type(promise_type);
    if (!promiser.IsText()) {
        return Refuse(promiser.offset, "the promiser of '" + type + "' must be a text");
    }
    if (EmptyString(promiser.text.c_str())) {
        return Refuse(promiser.offset, "the promiser of '" + type + "' is empty");
    }
    if (HoldsVariable(promiser.text)) {
        return std::nullopt;
    }
    if (promise_type == "vars" && !IsVariableName(promiser.text)) {
        return Refuse(promiser.offset, Quoted(promiser.text) + " is no name of a variable");
    }
    if (promise_type == "files" && !promiser.text.starts_with('/')) {
        return Refuse(promiser.offset, Quoted(promiser.text) + " is no absolute path");
    }
    return std::nullopt;
}

Complaint CheckAccess(const YamlNode &promise)
{
    const YamlNode *resource = promise.Find("resource");
    if (resource == nullptr) {
        return Refuse(promise.offset, "a promise of type 'access' needs a 'resource'");
    }
    const YamlNode *handle = promise.Find("handle");
    if (resource->text == "literal" && handle == nullptr) {
        return Refuse(promise.offset, "a literal needs a 'handle' under which it is published");
    }
    if (resource->text == "literal" && !HoldsVariable(handle->text) && !IsHandle(handle->text)) {
        return Refuse(handle->offset,
                      "a 'handle' has 1 to " + std::to_string(kLongestHandle) + " bytes and no control characters");
    }
    const YamlNode *promiser = promise.Find("access");
    if (resource->text == "context" && !HoldsVariable(promiser->text) && promiser->text != kCollectCalls) {
        return Refuse(promiser->offset, Quoted(promiser->text) + " is no context: there is " + kCollectCalls);
    }
    return std::nullopt;
}

// What the attributes of one promise must be together.
Complaint CheckTogether(std::string_view promise_type, const YamlNode &promise)
{
    if (promise_type == "vars") {
        return CheckExactlyOne({"string", "int", "real", "slist", "ilist", "rlist", "data"}, promise_type, promise);
    }
    if (promise_type == "classes") {
        return CheckExactlyOne({"expression", "and", "or", "not"}, promise_type, promise);
    }
    if (promise_type == "access") {
        return CheckAccess(promise);
    }
    return std::nullopt;
}

bool AnyVariable(const YamlNode &node)
{
    return HoldsVariable(node.text) || std::any_of(node.items.begin(), node.items.end(), AnyVariable);
}

}  // namespace

bool IsPromiseType(std::string_view word) { return FindChapter(kPromiseTypes, word) != nullptr; }

bool IsBundleKind(std::string_view word) { return word == "agent" || word == "server" || word == "common"; }

bool IsControlSection(std::string_view word) { return FindChapter(kControlSections, word) != nullptr; }

bool BundleMayHold(std::string_view kind, std::string_view promise_type)
{
    const Chapter *chapter = FindChapter(kPromiseTypes, promise_type);
    return chapter != nullptr && chapter->kinds.find(kind) != std::string_view::npos;
}

bool IsIdentifier(std::string_view text)
{
    return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
    });
}

Complaint CheckPromise(std::string_view promise_type, YamlNode *promise)
{
    const Chapter *chapter = FindChapter(kPromiseTypes, promise_type);
    std::vector<Rule> rules(chapter->rules.begin(), chapter->rules.end());
    rules.insert(rules.end(), std::begin(kCommonRules), std::end(kCommonRules));
    const auto promiser = [](const Rule &rule, YamlNode *value) { return CheckPromiser(rule.name, *value); };
    rules.insert(rules.begin(), {promise_type, promiser});  // before the attribute of that name

    Complaint complaint = CheckMembers(rules, "promise type '" + std::string(promise_type) + "'", promise);
    return complaint.has_value() ? complaint : CheckTogether(promise_type, *promise);
}

Complaint CheckControlSection(std::string_view section, YamlNode *attributes)
{
    for (const YamlMember &member : attributes->members) {
        if (AnyVariable(member.value)) {
            return Refuse(member.value.offset, "a control attribute holds no variables");
        }
        if (member.value.IsMap()) {
            return Refuse(member.value.offset, "a control attribute cannot be a map");
        }
    }
    const Chapter *chapter = FindChapter(kControlSections, section);
    return CheckMembers(chapter->rules, "control section '" + std::string(section) + "'", attributes);
}

}  // namespace veltrane
