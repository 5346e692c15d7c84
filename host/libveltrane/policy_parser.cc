// Reads policy files into a Policy: the file and what it includes, each checked against the tables of the language and
// then converted. The first thing that is wrong ends the reading; a policy is taken whole or not at all.
//
// Order: what a file includes comes before what it says itself; a file that is included again is not read again.
// Promises of one type that follow one another share a section, so that the order of the file is kept.
#include <veltrane/policy.h>

#include <algorithm>
#include <array>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <veltrane/alloc.h>
#include <veltrane/crypto.h>
#include <veltrane/file_lib.h>
#include <veltrane/json.h>
#include <veltrane/known_dirs.h>
#include <veltrane/owned.h>
#include <veltrane/rlist.h>
#include <veltrane/scope.h>
#include <veltrane/seq.h>
#include <veltrane/string_lib.h>
#include <veltrane/writer.h>

#include "libveltrane/policy_checks.h"
#include "libveltrane/policy_internal.h"
#include "libveltrane/policy_schema.h"
#include "libveltrane/policy_source.h"
#include "libveltrane/policy_yaml.h"

using veltrane::Complaint;
using veltrane::PolicyError;
using veltrane::Quoted;
using veltrane::Refuse;
using veltrane::YamlMember;
using veltrane::YamlNode;

namespace {

constexpr size_t kIncludeDepthLimit = 32;
constexpr size_t kReleaseIdLimit = 64;

void WriteJsonText(const std::string &text, std::string *json)
{
    *json += '"';
    for (const char c : text) {
        if (c == '"' || c == '\\') {
            (*json += '\\') += c;
        } else if (static_cast<unsigned char>(c) < ' ') {
            char escaped[8];
            snprintf(escaped, sizeof(escaped), "\\u%04x", static_cast<unsigned>(c));
            *json += escaped;
        } else {
            *json += c;
        }
    }
    *json += '"';
}

// Recursion is bounded by the depth limit of the tree.
void WriteJson(const YamlNode &node, std::string *json)
{
    if (node.IsText()) {
        WriteJsonText(node.text, json);
    } else if (node.IsList()) {
        *json += '[';
        for (const YamlNode &item : node.items) {
            *json += &item == node.items.data() ? "" : ",";
            WriteJson(item, json);
        }
        *json += ']';
    } else {
        *json += '{';
        for (const YamlMember &member : node.members) {
            *json += &member == node.members.data() ? "" : ",";
            WriteJsonText(member.key, json);
            *json += ':';
            WriteJson(member.value, json);
        }
        *json += '}';
    }
}

Rval ListRval(const YamlNode &list)
{
    Rlist *first = nullptr;
    Rlist *last = nullptr;
    for (const YamlNode &item : list.items) {  // kept at its end, so that a long list is not walked for each item
        Rlist *node = nullptr;
        RlistAppendScalar(&node, item.text.c_str());
        (last != nullptr ? last->next : first) = node;
        last = node;
    }
    return {first, RVAL_TYPE_LIST};
}

// A text is a scalar, a list of texts a list, anything else a container. An Rval of type none when no container can
// hold the value.
Rval ToRval(const YamlNode &node)
{
    if (node.IsText()) {
        return RvalNew(node.text.c_str(), RVAL_TYPE_SCALAR);
    }
    if (node.IsList() &&
        std::all_of(node.items.begin(), node.items.end(), [](const YamlNode &i) { return i.IsText(); })) {
        return ListRval(node);
    }
    std::string text;
    WriteJson(node, &text);
    JsonElement *json = nullptr;
    if (JsonParse(text.c_str(), &json) != JSON_PARSE_OK) {
        return {nullptr, RVAL_TYPE_NONE};
    }
    return {json, RVAL_TYPE_CONTAINER};
}

// Why no bundle may have this name in this namespace; "" when one may.
std::string WhyReserved(const std::string &name)
{
    for (int i = SPECIAL_SCOPE_CONST; i < SPECIAL_SCOPE_NONE; i++) {
        if (name == SpecialScopeToString(static_cast<SpecialScope>(i))) {
            return "the host keeps its own variables in '" + name + "'";
        }
    }
    return name == "remote_access" ? "the variables of 'remote_access' are those that other hosts may read" : "";
}

class PolicyReader {
  public:
    explicit PolicyReader(Policy *policy) : policy_(policy) {}

    // Reads a file and what it includes; false when something is wrong, and then error() says what. included_at: ""
    // or where the file is included, with ": " behind, for what is wrong with the file itself.
    bool Read(const std::string &path, const std::string &included_at);

    const std::string &error() const { return error_; }

  private:
    bool ReadTree(const std::string &path, const veltrane::PolicySource &source, YamlNode *ret_root);
    bool ReadIncluded(const std::string &path, const YamlNode &root);
    Complaint TakeControl(const std::string &path, YamlNode *control);
    Complaint TakeBundles(const std::string &path, YamlNode *bundles);
    Complaint TakeBundle(const std::string &path, YamlNode *node);
    Complaint TakePromises(Bundle *bundle, YamlNode *promises);
    Complaint TakePromise(Bundle *bundle, YamlNode *node);
    Complaint TakeAttributes(Promise *pp, const std::string &type, const YamlNode &node);
    bool Fail(const std::string &path, const PolicyError &error);

    using Names = std::pair<std::string, std::string>;

    Policy *policy_;
    std::string error_;
    std::vector<veltrane::FileIdentity> chain_;    // files being read, each included by the one before
    std::set<veltrane::FileIdentity> read_;        // every file so far
    std::map<Names, std::string> bundle_places_;   // namespace and name -> where
    std::map<Names, std::string> control_places_;  // section and attribute -> where
};

std::string Place(const std::string &path, SourceOffset offset)
{
    return path + ":" + std::to_string(offset.line) + ":" + std::to_string(offset.column);
}

bool PolicyReader::Fail(const std::string &path, const PolicyError &error)
{
    error_ = Place(path, error.offset) + ": " + error.message;
    return false;
}

bool PolicyReader::Read(const std::string &path, const std::string &included_at)
{
    std::string reason;
    const std::optional<veltrane::PolicySource> source = veltrane::ReadPolicySource(path, &reason);
    if (!source.has_value()) {
        error_ = included_at + path + ": " + reason;
        return false;
    }
    if (std::find(chain_.begin(), chain_.end(), source->identity) != chain_.end()) {
        error_ = included_at + path + ": includes itself, directly or through others";
        return false;
    }
    if (!read_.insert(source->identity).second) {
        return true;
    }
    YamlNode root;
    chain_.push_back(source->identity);
    if (!ReadTree(path, *source, &root) || !ReadIncluded(path, root)) {
        return false;
    }
    chain_.pop_back();
    for (YamlMember &member : root.members) {
        Complaint complaint;
        if (member.key == "control") {
            complaint = TakeControl(path, &member.value);
        } else if (member.key == "bundles") {
            complaint = TakeBundles(path, &member.value);
        }
        if (complaint.has_value()) {
            return Fail(path, *complaint);
        }
    }
    return true;
}

bool PolicyReader::ReadTree(const std::string &path, const veltrane::PolicySource &source, YamlNode *ret_root)
{
    PolicyError error;
    std::optional<YamlNode> root = veltrane::ParseYaml(source.bytes, &error);
    if (!root.has_value()) {
        return Fail(path, error);
    }
    if (!root->IsMap()) {
        return Fail(path, {root->offset, "a policy is a map of include, control and bundles"});
    }
    for (const YamlMember &member : root->members) {
        if (member.key != "include" && member.key != "control" && member.key != "bundles") {
            return Fail(path, {member.offset, "unknown key " + Quoted(member.key) + " of a policy"});
        }
    }
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    std::array<char, 2 * VT_SHA256_LEN + 1> hex{};
    if (!HashBytes(source.bytes.data(), source.bytes.size(), digest.data(), HASH_METHOD_SHA256)) {
        error_ = path + ": no digest can be made of it";
        return false;
    }
    StringBytesToHex(hex.data(), hex.size(), digest.data(), VT_SHA256_LEN);
    PolicySetFileHash(policy_, path.c_str(), hex.data());
    *ret_root = std::move(*root);
    return true;
}

bool PolicyReader::ReadIncluded(const std::string &path, const YamlNode &root)
{
    const YamlNode *include = root.Find("include");
    if (include == nullptr) {
        return true;
    }
    if (!include->IsList()) {
        return Fail(path, {include->offset, "'include' must be a list of files"});
    }
    for (const YamlNode &item : include->items) {
        if (!item.IsText() || item.text.empty()) {
            return Fail(path, {item.offset, "an item of 'include' must be the path of a file"});
        }
        if (chain_.size() == kIncludeDepthLimit) {
            return Fail(path,
                        {item.offset, "files include one another deeper than " + std::to_string(kIncludeDepthLimit)});
        }
        const size_t slash = path.rfind('/');
        const std::string directory = slash == std::string::npos ? "" : path.substr(0, slash + 1);
        if (!Read(item.text.starts_with('/') ? item.text : directory + item.text, Place(path, item.offset) + ": ")) {
            return false;
        }
    }
    return true;
}

Complaint PolicyReader::TakeControl(const std::string &path, YamlNode *control)
{
    if (!control->IsMap()) {
        return Refuse(control->offset, "'control' must be a map of sections");
    }
    for (YamlMember &section : control->members) {
        if (!veltrane::IsControlSection(section.key)) {
            return Refuse(section.offset, "unknown control section " + Quoted(section.key));
        }
        if (Complaint complaint = veltrane::CheckControlSection(section.key, &section.value); complaint.has_value()) {
            return complaint;
        }
        for (const YamlMember &attribute : section.value.members) {
            const Names names{section.key, attribute.key};
            const auto [place, is_new] = control_places_.try_emplace(names, Place(path, attribute.offset));
            if (!is_new) {
                return Refuse(attribute.offset, "'" + attribute.key + "' is set already at " + place->second);
            }
            policy_->internal->control[names] = ToRval(attribute.value);
        }
    }
    return std::nullopt;
}

Complaint PolicyReader::TakeBundles(const std::string &path, YamlNode *bundles)
{
    if (!bundles->IsList()) {
        return Refuse(bundles->offset, "'bundles' must be a list");
    }
    for (YamlNode &bundle : bundles->items) {
        if (Complaint complaint = TakeBundle(path, &bundle); complaint.has_value()) {
            return complaint;
        }
    }
    return std::nullopt;
}

// The identifier that a member of a bundle holds.
Complaint CheckIdentifier(const YamlMember &member)
{
    return member.value.IsText() && veltrane::IsIdentifier(member.value.text)
               ? std::nullopt
               : Refuse(member.value.offset, "'" + member.key + "' must be a name of letters, digits and '_'");
}

// What the members of a bundle are.
struct BundleParts {
    const YamlMember *kind = nullptr;  // "agent: main"
    std::string ns = "default";
    YamlNode *promises = nullptr;
};

Complaint SortMembers(YamlNode *node, BundleParts *parts)
{
    for (YamlMember &member : node->members) {
        if (member.key == "promises") {
            parts->promises = &member.value;
            continue;
        }
        const bool is_kind = veltrane::IsBundleKind(member.key);
        if (!is_kind && member.key != "namespace") {
            return Refuse(member.offset, "unknown key " + Quoted(member.key) + " of a bundle");
        }
        if (Complaint complaint = CheckIdentifier(member); complaint.has_value()) {
            return complaint;
        }
        if (is_kind && parts->kind != nullptr) {
            return Refuse(member.offset,
                          "'" + member.key + "' beside '" + parts->kind->key + "': a bundle has one kind");
        }
        parts->kind = is_kind ? &member : parts->kind;
        parts->ns = is_kind ? parts->ns : member.value.text;
    }
    return parts->kind != nullptr ? std::nullopt
                                  : Refuse(node->offset, "a bundle needs its kind and name: agent, server or common");
}

Complaint PolicyReader::TakeBundle(const std::string &path, YamlNode *node)
{
    if (!node->IsMap()) {
        return Refuse(node->offset, "a bundle must be a map");
    }
    BundleParts parts;
    if (Complaint complaint = SortMembers(node, &parts); complaint.has_value()) {
        return complaint;
    }
    const std::string &name = parts.kind->value.text;
    const SourceOffset offset = parts.kind->value.offset;
    if (const std::string reserved = WhyReserved(name); !reserved.empty()) {
        return Refuse(offset, "no bundle can be called '" + name + "': " + reserved);
    }
    const auto [place, is_new] = bundle_places_.try_emplace({parts.ns, name}, Place(path, offset));
    if (!is_new) {
        return Refuse(offset, "a bundle '" + name + "' stands already at " + place->second);
    }
    Bundle *bundle = PolicyAppendBundle(policy_, parts.ns.c_str(), name.c_str(), parts.kind->key.c_str(), path.c_str());
    return parts.promises != nullptr ? TakePromises(bundle, parts.promises) : std::nullopt;
}

Complaint PolicyReader::TakePromises(Bundle *bundle, YamlNode *promises)
{
    if (!promises->IsList()) {
        return Refuse(promises->offset, "'promises' must be a list");
    }
    for (YamlNode &promise : promises->items) {
        if (Complaint complaint = TakePromise(bundle, &promise); complaint.has_value()) {
            return complaint;
        }
    }
    return std::nullopt;
}

// The member that says a promise's type. "classes" is both a type and an attribute of every type: beside another type
// it is the attribute.
Complaint FindType(const YamlNode &promise, const YamlMember **ret_type)
{
    const YamlMember *type = nullptr;
    for (const YamlMember &member : promise.members) {
        if (!veltrane::IsPromiseType(member.key) || (member.key == "classes" && type != nullptr)) {
            continue;
        }
        if (type != nullptr && type->key != "classes") {
            return Refuse(member.offset, "'" + member.key + "' beside '" + type->key + "': a promise has one type");
        }
        type = &member;
    }
    if (type == nullptr && !promise.members.empty()) {
        const YamlMember &first = promise.members.front();
        return Refuse(first.offset, "unknown promise type " + Quoted(first.key));
    }
    *ret_type = type;
    return type != nullptr ? std::nullopt : Refuse(promise.offset, "a promise needs a type");
}

Complaint PolicyReader::TakePromise(Bundle *bundle, YamlNode *node)
{
    if (!node->IsMap()) {
        return Refuse(node->offset, "a promise must be a map");
    }
    const YamlMember *type = nullptr;
    if (Complaint complaint = FindType(*node, &type); complaint.has_value()) {
        return complaint;
    }
    if (!veltrane::BundleMayHold(bundle->type, type->key)) {
        return Refuse(type->offset, "a bundle of kind '" + std::string(bundle->type) + "' holds no promises of type '" +
                                        type->key + "'");
    }
    if (Complaint complaint = veltrane::CheckPromise(type->key, node); complaint.has_value()) {
        return complaint;
    }
    const size_t sections = SeqLength(bundle->sections);
    BundleSection *section =
        sections > 0 ? static_cast<BundleSection *>(SeqAt(bundle->sections, sections - 1)) : nullptr;
    if (section == nullptr || section->promise_type != type->key) {
        section = BundleAppendSection(bundle, type->key.c_str());
    }
    const YamlNode *promisees = node->Find("promisees");
    Promise *pp = BundleSectionAppendPromise(section, type->value.text.c_str(),
                                             promisees != nullptr ? ToRval(*promisees) : Rval{}, type->offset);
    return TakeAttributes(pp, type->key, *node);
}

Complaint PolicyReader::TakeAttributes(Promise *pp, const std::string &type, const YamlNode &node)
{
    for (const YamlMember &member : node.members) {
        if (member.key == type || member.key == "promisees") {
            continue;
        }
        const Rval rval = ToRval(member.value);
        if (rval.type == RVAL_TYPE_NONE) {
            return Refuse(member.value.offset, "'" + member.key + "' cannot be kept as data");
        }
        PromiseAppendConstraint(pp, member.key.c_str(), rval)->offset = member.offset;
        if (member.key != "report_data_select") {
            continue;
        }
        for (const YamlMember &list : member.value.members) {  // attributes of a body count as the promise's own
            PromiseAppendConstraint(pp, list.key.c_str(), ToRval(list.value))->offset = list.offset;
        }
    }
    return std::nullopt;
}

// new; NULL when the file is not there or begins with an empty line
char *ReadReleaseId()
{
    bool truncated = false;
    const veltrane::WriterPtr bytes(FileRead((std::string(GetInputDir()) + "/release_id").c_str(), 4096, &truncated));
    if (bytes == nullptr) {
        return nullptr;
    }
    std::string id(StringWriterData(bytes.get()));
    id.resize(std::min({id.find_first_of("\r\n"), id.size(), kReleaseIdLimit}));
    return id.empty() ? nullptr : xstrdup(id.c_str());
}

}  // namespace

Policy *PolicyParseFile(const char *path, char **ret_error)
{
    veltrane::PolicyPtr policy(PolicyNew());
    PolicyReader reader(policy.get());
    if (!reader.Read(path, "")) {
        *ret_error = xstrdup(reader.error().c_str());
        return nullptr;
    }
    policy->release_id = ReadReleaseId();
    return policy.release();
}
