// Builds the tree from libyaml's events, with a stack of its own: depth is counted before anything is kept, so no text
// makes this recurse deeper, or the library's scanner work longer, than the limit allows.
#include "libveltrane/policy_yaml.h"

#include <yaml.h>

#include <algorithm>
#include <unordered_set>
#include <utility>

#include "libveltrane/out_of_memory.h"

namespace veltrane {

namespace {

SourceOffset OffsetOf(const yaml_mark_t &mark) { return {mark.line + 1, mark.column + 1}; }

struct Event : yaml_event_t {
    Event() : yaml_event_t{} {}
    ~Event() { yaml_event_delete(this); }
    Event(const Event &) = delete;
    Event &operator=(const Event &) = delete;
};

struct Parser : yaml_parser_t {
    explicit Parser(std::string_view bytes) : yaml_parser_t{}
    {
        if (yaml_parser_initialize(this) == 0) {
            EndOutOfMemory(0);
        }
        yaml_parser_set_encoding(this, YAML_UTF8_ENCODING);
        yaml_parser_set_input_string(this, reinterpret_cast<const unsigned char *>(bytes.data()), bytes.size());
    }
    ~Parser() { yaml_parser_delete(this); }
    Parser(const Parser &) = delete;
    Parser &operator=(const Parser &) = delete;
};

SourceOffset OffsetOfByte(std::string_view bytes, size_t position)
{
    SourceOffset offset{1, 1};
    for (const char c : bytes.substr(0, position)) {
        offset.line += c == '\n' ? 1 : 0;
        offset.column += (c & 0xC0) != 0x80 ? 1 : 0;  // a column is a character, as the library counts them
        offset.column = c == '\n' ? 1 : offset.column;
    }
    return offset;
}

// The library compares each %TAG directive with all before it, so a file of them alone would keep it busy for days:
// they are found before it sees them. A line begins wherever the library begins one.
std::optional<size_t> FindDirective(std::string_view bytes)
{
    constexpr std::string_view kLineEnds[] = {"\n", "\r", "\xC2\x85", "\xE2\x80\xA8", "\xE2\x80\xA9"};
    for (size_t i = bytes.find('%'); i != std::string_view::npos; i = bytes.find('%', i + 1)) {
        const std::string_view before = bytes.substr(0, i);
        if (before.empty() || std::any_of(std::begin(kLineEnds), std::end(kLineEnds),
                                          [before](std::string_view end) { return before.ends_with(end); })) {
            return i;
        }
    }
    return std::nullopt;
}

class TreeBuilder {
  public:
    explicit TreeBuilder(PolicyError *error) : error_(error) {}

    // Takes one event; false, and the error, when it cannot stand here.
    bool Take(const yaml_event_t &event)
    {
        switch (event.type) {
            case YAML_DOCUMENT_START_EVENT:
                return documents_++ == 0 || Refuse(event.start_mark, "a second document begins here");
            case YAML_ALIAS_EVENT:
                return Refuse(event.start_mark, "an alias is no part of the policy language");
            case YAML_SCALAR_EVENT:
                return IsPlain(event, event.data.scalar.anchor, event.data.scalar.tag) && TakeScalar(event);
            case YAML_SEQUENCE_START_EVENT:
                return IsPlain(event, event.data.sequence_start.anchor, event.data.sequence_start.tag) &&
                       Open(event, YamlNode::Kind::kList);
            case YAML_MAPPING_START_EVENT:
                return IsPlain(event, event.data.mapping_start.anchor, event.data.mapping_start.tag) &&
                       Open(event, YamlNode::Kind::kMap);
            case YAML_SEQUENCE_END_EVENT:
            case YAML_MAPPING_END_EVENT:
                Close();
                return true;
            default:
                return true;
        }
    }

    std::optional<YamlNode> TakeRoot() { return std::exchange(root_, std::nullopt); }

  private:
    // A list or map that is not complete yet.
    struct Level {
        YamlNode node;
        std::optional<std::pair<std::string, SourceOffset>> key;  // read, its value not yet
        std::unordered_set<std::string> keys;
    };

    bool Refuse(const yaml_mark_t &mark, std::string message)
    {
        *error_ = {OffsetOf(mark), std::move(message)};
        return false;
    }

    bool IsPlain(const yaml_event_t &event, const yaml_char_t *anchor, const yaml_char_t *tag)
    {
        if (anchor != nullptr) {
            return Refuse(event.start_mark, "an anchor is no part of the policy language");
        }
        return tag == nullptr || Refuse(event.start_mark, "a tag is no part of the policy language");
    }

    bool WantsKey() const { return !levels_.empty() && levels_.back().node.IsMap() && !levels_.back().key.has_value(); }

    bool TakeScalar(const yaml_event_t &event)
    {
        std::string text(reinterpret_cast<const char *>(event.data.scalar.value), event.data.scalar.length);
        if (text.find('\0') != std::string::npos) {
            return Refuse(event.start_mark, "a text cannot hold a zero byte");
        }
        if (WantsKey()) {
            if (!levels_.back().keys.insert(text).second) {
                return Refuse(event.start_mark, "the key " + Quoted(text) + " stands twice in this map");
            }
            levels_.back().key = {std::move(text), OffsetOf(event.start_mark)};
            return true;
        }
        YamlNode node;
        node.offset = OffsetOf(event.start_mark);
        node.text = std::move(text);
        Add(std::move(node));
        return true;
    }

    bool Open(const yaml_event_t &event, YamlNode::Kind kind)
    {
        if (WantsKey()) {
            return Refuse(event.start_mark, "a key must be a text");
        }
        if (levels_.size() == kYamlDepthLimit) {
            return Refuse(event.start_mark, "lists and maps nest deeper than " + std::to_string(kYamlDepthLimit));
        }
        Level &level = levels_.emplace_back();
        level.node.kind = kind;
        level.node.offset = OffsetOf(event.start_mark);
        return true;
    }

    void Close()
    {
        YamlNode node = std::move(levels_.back().node);
        levels_.pop_back();
        Add(std::move(node));
    }

    void Add(YamlNode node)
    {
        if (levels_.empty()) {
            root_ = std::move(node);
            return;
        }
        Level &level = levels_.back();
        if (level.node.IsList()) {
            level.node.items.push_back(std::move(node));
            return;
        }
        level.node.members.push_back({std::move(level.key->first), level.key->second, std::move(node)});
        level.key.reset();
    }

    PolicyError *error_;
    int documents_ = 0;
    std::vector<Level> levels_;
    std::optional<YamlNode> root_;
};

PolicyError ErrorOfParser(const yaml_parser_t &parser, std::string_view bytes)
{
    const char *problem = parser.problem != nullptr ? parser.problem : "not YAML";
    if (parser.error == YAML_READER_ERROR) {
        return {OffsetOfByte(bytes, parser.problem_offset), problem};
    }
    if (parser.error == YAML_MEMORY_ERROR) {
        return {OffsetOf(parser.mark), "not enough memory"};
    }
    if (parser.context == nullptr) {
        return {OffsetOf(parser.problem_mark), problem};
    }
    const SourceOffset begin = OffsetOf(parser.context_mark);
    return {OffsetOf(parser.problem_mark), std::string(problem) + " (" + parser.context + " that begins at " +
                                               std::to_string(begin.line) + ":" + std::to_string(begin.column) + ")"};
}

}  // namespace

const YamlNode *YamlNode::Find(std::string_view key) const
{
    for (const YamlMember &member : members) {
        if (member.key == key) {
            return &member.value;
        }
    }
    return nullptr;
}

std::string Quoted(std::string_view text)
{
    constexpr size_t kShown = 100;
    std::string quoted = "'" + std::string(text.substr(0, kShown));
    std::replace_if(
        quoted.begin(), quoted.end(), [](unsigned char c) { return c < ' ' || c == 0x7F; }, '?');
    return quoted + (text.size() > kShown ? "...'" : "'");
}

std::optional<YamlNode> ParseYaml(std::string_view bytes, PolicyError *ret_error)
{
    if (bytes.starts_with("\xEF\xBB\xBF")) {
        bytes.remove_prefix(3);  // the mark some editors begin a file with
    }
    if (const std::optional<size_t> directive = FindDirective(bytes); directive.has_value()) {
        *ret_error = {OffsetOfByte(bytes, *directive), "a directive is no part of the policy language"};
        return std::nullopt;
    }
    Parser parser(bytes);
    TreeBuilder builder(ret_error);
    for (bool done = false; !done;) {
        Event event;
        if (yaml_parser_parse(&parser, &event) == 0) {
            *ret_error = ErrorOfParser(parser, bytes);
            return std::nullopt;
        }
        if (!builder.Take(event)) {
            return std::nullopt;
        }
        done = event.type == YAML_STREAM_END_EVENT;
    }
    std::optional<YamlNode> root = builder.TakeRoot();
    if (!root.has_value()) {
        *ret_error = {{1, 1}, "the file holds no policy"};
    }
    return root;
}

}  // namespace veltrane
