// The tree of a policy file: places, kinds, what YAML is refused, and texts made to exhaust a reader.
#include "libveltrane/policy_yaml.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace {

using testing::HasSubstr;
using testing::StartsWith;
using veltrane::ParseYaml;
using veltrane::PolicyError;
using veltrane::YamlMember;
using veltrane::YamlNode;

std::string At(SourceOffset offset) { return std::to_string(offset.line) + ":" + std::to_string(offset.column); }

// "line:column: what is wrong", or "accepted".
std::string Refusal(const std::string &bytes)
{
    PolicyError error;
    return ParseYaml(bytes, &error).has_value() ? "accepted" : At(error.offset) + ": " + error.message;
}

// The tree in one line: texts in quotes, each node with its place.
std::string Drawn(const YamlNode &node)
{
    std::string text = At(node.offset) + " ";
    if (node.IsText()) {
        return text + "'" + node.text + "'";
    }
    text += node.IsList() ? "[" : "{";
    for (const YamlNode &item : node.items) { text += " " + Drawn(item); }
    for (const YamlMember &member : node.members) {
        text += " " + At(member.offset) + " " + member.key + "= " + Drawn(member.value);
    }
    return text + (node.IsList() ? " ]" : " }");
}

std::string Tree(const std::string &bytes)
{
    PolicyError error;
    const std::optional<YamlNode> root = ParseYaml(bytes, &error);
    return root.has_value() ? Drawn(*root) : At(error.offset) + ": " + error.message;
}

TEST(PolicyYaml, EveryNodeKnowsItsLineAndColumn)
{
    EXPECT_EQ(Tree("a: x\nb:\n  - y\n  - {c: z}\n"),
              "1:1 { 1:1 a= 1:4 'x' 2:1 b= 3:3 [ 3:5 'y' 4:5 { 4:6 c= 4:9 'z' } ] }");
}

TEST(PolicyYaml, EverythingIsText)
{
    EXPECT_EQ(
        Tree("[0644, yes, 12:30, ~, null, 1.0, \"a\\tb\", 'it''s', '']"),
        "1:1 [ 1:2 '0644' 1:8 'yes' 1:13 '12:30' 1:20 '~' 1:23 'null' 1:29 '1.0' 1:34 'a\tb' 1:42 'it's' 1:51 '' ]");
}

TEST(PolicyYaml, AKeyWithoutValueHoldsTheEmptyText) { EXPECT_EQ(Tree("a:\n"), "1:1 { 1:1 a= 1:3 '' }"); }

TEST(PolicyYaml, ABlockOfTextKeepsItsLines)
{
    EXPECT_EQ(Tree("a: |\n  one\n  two\n"), "1:1 { 1:1 a= 1:4 'one\ntwo\n' }");
}

TEST(PolicyYaml, ColumnsCountCharacters) { EXPECT_EQ(Tree("{\xC3\xA4: x}"), "1:1 { 1:2 \xC3\xA4= 1:5 'x' }"); }

TEST(PolicyYaml, TheMarkThatSomeEditorsBeginAFileWithIsSkipped)
{
    EXPECT_EQ(Tree("\xEF\xBB\xBF"
                   "a: x"),
              "1:1 { 1:1 a= 1:4 'x' }");
}

TEST(PolicyYaml, ADocumentMayBeMarked) { EXPECT_EQ(Tree("---\na: x\n...\n"), "2:1 { 2:1 a= 2:4 'x' }"); }

TEST(PolicyYaml, FindGivesAMemberOfAMapOrNothing)
{
    PolicyError error;
    const std::optional<YamlNode> root = ParseYaml("{a: x, b: [y]}", &error);
    ASSERT_TRUE(root.has_value());
    ASSERT_NE(root->Find("a"), nullptr);
    EXPECT_EQ(root->Find("a")->text, "x");
    EXPECT_EQ(root->Find("c"), nullptr);
    EXPECT_EQ(root->Find("b")->Find("y"), nullptr);
}

TEST(PolicyYaml, WhatNoPolicyNeedsIsRefusedWithItsPlace)
{
    const struct {
        const char *bytes;
        const char *refusal;
    } table[] = {
        {"", "1:1: the file holds no policy"},
        {"# only a comment\n", "1:1: the file holds no policy"},
        {"a: x\na: y\n", "2:1: the key 'a' stands twice in this map"},
        {"a: {b: 1, c: 2, b: 3}", "1:17: the key 'b' stands twice in this map"},
        {"a: &x y\n", "1:4: an anchor is no part of the policy language"},
        {"a: &x [y]\n", "1:4: an anchor is no part of the policy language"},
        {"a: &x {y: z}\n", "1:4: an anchor is no part of the policy language"},
        {"a: *x\n", "1:4: an alias is no part of the policy language"},
        {"a: !!int 3\n", "1:4: a tag is no part of the policy language"},
        {"a: !mine [3]\n", "1:4: a tag is no part of the policy language"},
        {"a: ! {b: c}\n", "1:4: a tag is no part of the policy language"},
        {"a: x\n---\nb: y\n", "2:1: a second document begins here"},
        {"a: x\n...\n---\n", "3:1: a second document begins here"},
        {"[a, b]: x\n", "1:1: a key must be a text"},
        {"? {a: b}\n: x\n", "1:3: a key must be a text"},
        {"%YAML 1.1\n---\na: x\n", "1:1: a directive is no part of the policy language"},
        {"a: x\n...\n%TAG ! tag:x\n", "3:1: a directive is no part of the policy language"},
        {"a: \"\\0\"\n", "1:4: a text cannot hold a zero byte"},
    };
    for (const auto &row : table) { EXPECT_EQ(Refusal(row.bytes), row.refusal) << row.bytes; }
}

TEST(PolicyYaml, WhatIsNotYamlIsRefusedWithItsPlace)
{
    EXPECT_EQ(Refusal("a: \"x\nb: y\n"),
              "3:1: found unexpected end of stream (while scanning a quoted scalar that begins at 1:4)");
    EXPECT_THAT(Refusal("a: 'x"), StartsWith("1:6: found unexpected end of stream"));
    EXPECT_THAT(Refusal("a: [x, y\n"), HasSubstr("(while parsing a flow sequence that begins at 1:4)"));
    EXPECT_THAT(Refusal("a: x\n b: y\n"), StartsWith("2:3: mapping values are not allowed in this context"));
    EXPECT_THAT(Refusal("\ta: x\n"), StartsWith("1:1: found character that cannot start any token"));
}

TEST(PolicyYaml, BytesThatAreNotUtf8AreRefusedWithTheirPlace)
{
    EXPECT_EQ(Refusal("a: x\nb: \xFF\n"), "2:4: invalid leading UTF-8 octet");
    EXPECT_EQ(Refusal("\xC3\xA4: \xC3(\n"), "1:5: invalid trailing UTF-8 octet");
    EXPECT_EQ(Refusal("a: \xED\xA0\x80\n"), "1:4: invalid Unicode character");
    EXPECT_EQ(Refusal(std::string("a: x\0y\n", 7)), "1:5: control characters are not allowed");
    EXPECT_THAT(Refusal(std::string("\xFF\xFE"
                                    "a\0:\0 \0x\0",
                                    10)),
                StartsWith("1:1: "));
}

TEST(PolicyYaml, SixtyFourLevelsAreReadAndNoMore)
{
    const auto nested = [](size_t levels) { return std::string(levels, '[') + std::string(levels, ']'); };
    EXPECT_EQ(Refusal(nested(64)), "accepted");
    EXPECT_EQ(Refusal(nested(65)), "1:65: lists and maps nest deeper than 64");

    std::string block;
    for (size_t i = 0; i < 64; i++) { block += std::string(i, ' ') + "a:\n"; }
    EXPECT_EQ(Refusal(block), "accepted");
    EXPECT_EQ(Refusal(block + std::string(64, ' ') + "a:\n"), "65:65: lists and maps nest deeper than 64");
}

TEST(PolicyYaml, TextsMadeToExhaustAReaderAreRefusedSoon)
{
    constexpr size_t kMany = 1'000'000;
    EXPECT_EQ(Refusal(std::string(kMany, '[')), "1:65: lists and maps nest deeper than 64");
    EXPECT_EQ(Refusal(std::string(kMany, '{')), "1:2: a key must be a text");
    std::string lists;
    std::string maps;
    std::string directives;
    std::string later_directives = "a: x\n...\n";
    std::string hidden_directives = "# x";
    for (size_t i = 0; i < kMany / 10; i++) {
        lists += "- ";
        maps += "{a: ";
        directives += "%TAG !" + std::to_string(i) + "! x\n";
        later_directives += "%TAG !" + std::to_string(i) + "! x\n";
        hidden_directives += "\xC2\x85%TAG !" + std::to_string(i) + "! x";
    }
    EXPECT_EQ(Refusal(lists), "1:129: lists and maps nest deeper than 64");
    EXPECT_EQ(Refusal(maps), "1:257: lists and maps nest deeper than 64");
    EXPECT_EQ(Refusal(directives), "1:1: a directive is no part of the policy language");
    EXPECT_EQ(Refusal(later_directives), "3:1: a directive is no part of the policy language");
    EXPECT_THAT(Refusal(hidden_directives), HasSubstr("a directive is no part of the policy language"));
}

TEST(PolicyYaml, AMapOfManyKeysIsReadInProportion)
{
    std::string bytes;
    for (int i = 0; i < 50'000; i++) { bytes += "key" + std::to_string(i) + ": x\n"; }
    EXPECT_EQ(Refusal(bytes), "accepted");
    EXPECT_EQ(Refusal(bytes + "key7: x\n"), "50001:1: the key 'key7' stands twice in this map");
}

TEST(PolicyYaml, AForeignTextIsShownShortAndOnOneLine)
{
    EXPECT_EQ(veltrane::Quoted("a\nb\x7F"), "'a?b?'");
    EXPECT_EQ(veltrane::Quoted(std::string(100, 'x')), "'" + std::string(100, 'x') + "'");
    EXPECT_EQ(veltrane::Quoted(std::string(101, 'x')), "'" + std::string(100, 'x') + "...'");
}

}  // namespace
