// The shape of a policy file before its meaning: a tree of texts, lists and maps that know their line and column.
//
// Of YAML only what a policy needs is read. Refused: bytes that are not UTF-8, a zero byte, directives, more than one
// document, tags, anchors and aliases, keys that are no texts, a key twice in one map, and what nests deeper than
// kYamlDepthLimit. Every scalar is text, whatever it looks like.
#ifndef VELTRANE_POLICY_YAML_H
#define VELTRANE_POLICY_YAML_H

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <veltrane/policy.h>

namespace veltrane {

inline constexpr size_t kYamlDepthLimit = 64;

struct YamlMember;

struct YamlNode {
    enum class Kind { kText, kList, kMap };

    Kind kind = Kind::kText;
    SourceOffset offset{};
    std::string text;                 // kText; holds no zero byte
    std::vector<YamlNode> items;      // kList
    std::vector<YamlMember> members;  // kMap, in the order of the file, each key once

    bool IsText() const { return kind == Kind::kText; }
    bool IsList() const { return kind == Kind::kList; }
    bool IsMap() const { return kind == Kind::kMap; }
    const YamlNode *Find(std::string_view key) const;  // lent; NULL when there is none, or when this is no map
};

struct YamlMember {
    std::string key;
    SourceOffset offset{};  // of the key
    YamlNode value;
};

// What is wrong, and where.
struct PolicyError {
    SourceOffset offset{};
    std::string message;
};

// A foreign text as it stands in a message: quoted, control bytes as '?', cut when it is long.
std::string Quoted(std::string_view text);

// The tree of a file's bytes; nothing, and *ret_error, when they are refused. Takes time in proportion to the bytes.
std::optional<YamlNode> ParseYaml(std::string_view bytes, PolicyError *ret_error);

}  // namespace veltrane

#endif
