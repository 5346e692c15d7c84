// Tests of variables in the texts of a policy.
#include "libveltrane/expansion.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "libveltrane/policy_internal.h"
#include "support/log_capture.h"
#include "support/texts.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using veltrane::Bindings;
using veltrane::OwnedRval;
using veltrane::Shortfall;

namespace {

OwnedRval Json(const char *text)
{
    JsonElement *json = nullptr;
    EXPECT_EQ(JsonParse(text, &json), JSON_PARSE_OK) << text;
    return OwnedRval(Rval{json, RVAL_TYPE_CONTAINER});
}

std::string Raw(const Rval &value)
{
    const veltrane::WriterPtr writer(StringWriter());
    RvalWriteRaw(writer.get(), value);
    return StringWriterData(writer.get());
}

class Expansion : public testing::Test {
  protected:
    Expansion()
    {
        Bundle *bundle = PolicyAppendBundle(policy.get(), "default", "main", "agent", nullptr);
        promise = BundleSectionAppendPromise(BundleAppendSection(bundle, "reports"), "x", Rval{}, SourceOffset{});
        Text("name", "value");
        Text("other.name", "elsewhere");
        Text("port[ssh]", "22");
        Text("key", "ssh");
        Text("tricky", "$(name)");
        List("list", {"a", "b"});
        List("empty", {});
        Data("data", R"({"host": {"name": "web", "ports": [80, "443"], "load": 0.5, "up": true, "gone": null}})");
        EvalContextVariablePutSpecial(ctx.get(), SPECIAL_SCOPE_SYS, "host", "web-1", VT_DATA_TYPE_STRING, nullptr);
    }

    void Put(const char *name, const void *value, DataType type)
    {
        const veltrane::VarRefPtr ref(VarRefParseFromBundle(name, PromiseGetBundle(promise)));
        ASSERT_TRUE(EvalContextVariablePut(ctx.get(), ref.get(), value, type, nullptr));
    }
    void Text(const char *name, const char *value) { Put(name, value, VT_DATA_TYPE_STRING); }
    void List(const char *name, const std::vector<std::string> &items)
    {
        Put(name, RlistOf(items).get(), VT_DATA_TYPE_STRING_LIST);
    }
    void Data(const char *name, const char *json) { Put(name, Json(json).Get().item, VT_DATA_TYPE_CONTAINER); }

    veltrane::Scope Scope(Bindings bindings = {}) { return {ctx.get(), promise, std::move(bindings)}; }

    // The expanded text, or "missing: <name>".
    std::string Expand(const std::string &text, Bindings bindings = {})
    {
        Shortfall shortfall;
        const auto expanded = veltrane::ExpandText(Scope(std::move(bindings)), text, &shortfall);
        return expanded.has_value() ? *expanded : "missing: " + shortfall.missing;
    }

    // The expanded value as it is written raw, or why there is none.
    std::string ExpandValue(const Rval &value)
    {
        Shortfall shortfall;
        const auto expanded = veltrane::ExpandRval(Scope(), value, &shortfall);
        return expanded.has_value()        ? Raw(expanded->Get())
               : shortfall.function_failed ? "function failed"
                                           : "missing: " + shortfall.missing;
    }
    std::string ExpandJson(const char *text) { return ExpandValue(Json(text).Get()); }
    std::string ExpandList(const std::vector<std::string> &items)
    {
        return ExpandValue(Rval{RlistOf(items).get(), RVAL_TYPE_LIST});
    }

    std::string FirstList(const std::vector<std::string> &texts, Bindings bindings = {})
    {
        const auto list = veltrane::FirstUnboundList(Scope(std::move(bindings)), texts);
        return list.has_value() ? list->name + ":" + testing::PrintToString(list->items) : "none";
    }

    veltrane::EvalContextPtr ctx{EvalContextNew()};
    veltrane::PolicyPtr policy{PolicyNew()};
    Promise *promise = nullptr;
};

}  // namespace

TEST_F(Expansion, LeavesATextWithoutReferencesAsItIs)
{
    for (const char *text : {"", "plain", "$", "$name", "(name)", "${name}", "a $ (b)", "@(list) and more"}) {
        EXPECT_EQ(Expand(text), text);
    }
}

TEST_F(Expansion, ReplacesEveryReference)
{
    EXPECT_EQ(Expand("<$(name)> <$(main.name)> $(other.name)$(sys.host)"), "<value> <value> elsewhereweb-1");
    EXPECT_EQ(Expand("$(default:main.name)"), "value");
}

TEST_F(Expansion, TakesAnIndexLiteralOrFromAnotherVariable)
{
    EXPECT_EQ(Expand("$(port[ssh])"), "22");
    EXPECT_EQ(Expand("$(port[$(key)])"), "22");
    EXPECT_EQ(Expand("$(port[$(name)])"), "missing: port[value]");
}

TEST_F(Expansion, NeverLooksAtAValueAgain) { EXPECT_EQ(Expand("$(tricky)"), "$(name)"); }

TEST_F(Expansion, TakesAReferenceThatStaysOpenForText)
{
    EXPECT_EQ(Expand("$(name"), "$(name");
    EXPECT_EQ(Expand("$(name) $(name"), "value $(name");
}

TEST_F(Expansion, NamesTheVariableWithoutAValue)
{
    EXPECT_EQ(Expand("a $(nothing) b"), "missing: nothing");
    EXPECT_EQ(Expand("$()"), "missing: ");
    EXPECT_EQ(Expand("$(port)"), "missing: port");
    EXPECT_EQ(Expand("$(date +%s)"), "missing: date +%s");
}

TEST_F(Expansion, AListHasNoTextUntilItIsBound)
{
    EXPECT_EQ(Expand("$(list)"), "missing: list");
    EXPECT_EQ(Expand("$(list)", {{"list", "b"}}), "b");
}

TEST_F(Expansion, BoundNamesComeFirst) { EXPECT_EQ(Expand("$(name)", {{"name", "bound"}}), "bound"); }

TEST_F(Expansion, ReachesIntoContainers)
{
    EXPECT_EQ(Expand("$(data[host][name])"), "web");
    EXPECT_EQ(Expand("$(data[host][ports][0])"), "80");
    EXPECT_EQ(Expand("$(data[host][ports][1])"), "443");
    EXPECT_EQ(Expand("$(data[host][load])"), "0.5");
    EXPECT_EQ(Expand("$(data[host][up])"), "true");
}

TEST_F(Expansion, WhatAContainerDoesNotHoldIsMissing)
{
    for (const char *name : {"data", "data[host]", "data[nobody]", "data[host][gone]", "data[host][ports][2]",
                             "data[host][ports][-1]", "data[host][ports][x]", "data[host][name][0]"}) {
        EXPECT_EQ(Expand("$(" + std::string(name) + ")"), "missing: " + std::string(name));
    }
}

TEST_F(Expansion, EndsWhereReferencesNestTooDeep)
{
    std::string text = "x";
    for (int depth = 0; depth < 10'000; ++depth) { text = "$(" + text + ")"; }
    EXPECT_TRUE(Expand(text).starts_with("missing: ")) << Expand(text);
    EXPECT_EQ(FirstList({text}), "none");
}

TEST_F(Expansion, OfAScalarGivesAScalar)
{
    char text[] = "to $(name)";
    EXPECT_EQ(ExpandValue(Rval{text, RVAL_TYPE_SCALAR}), "to value");
}

TEST_F(Expansion, OfNothingGivesNothing)
{
    Shortfall shortfall;
    const auto expanded = veltrane::ExpandRval(Scope(), Rval{nullptr, RVAL_TYPE_NONE}, &shortfall);
    ASSERT_TRUE(expanded.has_value());
    EXPECT_EQ(expanded->Get().type, RVAL_TYPE_NONE);
}

TEST_F(Expansion, AnAtSignPassesTheWholeValue)
{
    for (const auto &[text, expected] : std::map<std::string, std::string>{{"@(list)", R"({"a","b"})"},
                                                                           {"@(name)", "value"},
                                                                           {"@(empty)", ""},
                                                                           {"@(data[host][ports])", R"([80,"443"])"},
                                                                           {"@(nothing)", "missing: nothing"},
                                                                           {"x @(list)", "x @(list)"}}) {
        std::string copy = text;
        EXPECT_EQ(ExpandValue(Rval{copy.data(), RVAL_TYPE_SCALAR}), expected) << text;
    }
}

TEST_F(Expansion, AnAtSignInsideAListPutsTheItemsThere)
{
    EXPECT_EQ(ExpandList({"x", "@(list)", "$(name)"}), R"({"x","a","b","value"})");
    EXPECT_EQ(ExpandList({"@(empty)", "x"}), R"({"x"})");
    EXPECT_EQ(ExpandList({"@(data[host][ports])"}), R"({"80","443"})");
    EXPECT_EQ(ExpandList({"$(nothing)"}), "missing: nothing");
}

TEST_F(Expansion, GoesThroughContainersInTheirOrder)
{
    EXPECT_EQ(ExpandJson(R"j({"z": "$(name)", "a": {"b": ["@(list)", "$(key)", 1, true, null]}, "l": "@(list)"})j"),
              R"({"z":"value","a":{"b":["a","b","ssh",1,true,null]},"l":["a","b"]})");
    EXPECT_EQ(ExpandJson(R"j({"z": ["$(nothing)"]})j"), "missing: nothing");
    EXPECT_EQ(ExpandJson(R"j({"z": {"y": "$(nothing)"}})j"), "missing: nothing");
}

TEST_F(Expansion, ReplacesAFunctionCallByItsResult)
{
    EXPECT_EQ(ExpandJson(R"j({"canonify": ["$(sys.host).$(name)"]})j"), "web_1_value");
    EXPECT_EQ(ExpandJson(R"({"class": {"canonify": ["a-b"]}})"), R"({"class":"a_b"})");
    EXPECT_EQ(ExpandJson(R"([{"canonify": ["a-b"]}])"), R"(["a_b"])");
}

TEST_F(Expansion, CallsFunctionsInArgumentsFirst)
{
    EXPECT_EQ(ExpandJson(R"j({"canonify": [{"execresult": ["echo $(name)-x", "noshell"]}]})j"), "value_x");
}

TEST_F(Expansion, AMapThatCallsNothingStaysAMap)
{
    EXPECT_EQ(ExpandJson(R"j({"repaired": ["$(name)"]})j"), R"({"repaired":["value"]})");
    EXPECT_EQ(ExpandJson(R"({"canonify": "a-b"})"), R"({"canonify":"a-b"})");
    EXPECT_EQ(ExpandJson(R"({"canonify": ["a-b"], "more": "x"})"), R"({"canonify":["a-b"],"more":"x"})");
}

TEST_F(Expansion, AFunctionThatFailsIsToldOnce)
{
    LogCapture log;

    EXPECT_EQ(ExpandJson(R"({"a": {"readfile": ["/nonexistent/file"]}, "b": {"readfile": ["/nonexistent/2"]}})"),
              "function failed");

    EXPECT_THAT(
        log.UpTo(LOG_LEVEL_NOTICE),
        ElementsAre(
            Pair(LOG_LEVEL_ERR,
                 "Function 'readfile' failed: could not open '/nonexistent/file' (open: No such file or directory)")));
}

TEST_F(Expansion, AFunctionWithAMissingArgumentIsNotCalled)
{
    LogCapture log;

    EXPECT_EQ(ExpandJson(R"j({"readfile": ["$(nothing)"]})j"), "missing: nothing");

    EXPECT_THAT(log.lines, IsEmpty());
}

TEST_F(Expansion, EndsWhereFunctionsNestTooDeep)
{
    LogCapture log;
    std::string text = "\"x\"";
    for (int depth = 0; depth < 17; ++depth) { text = "{\"canonify\": [" + text + "]}"; }

    EXPECT_EQ(ExpandJson(text.c_str()), "function failed");

    EXPECT_TRUE(log.Has(LOG_LEVEL_ERR, "Function 'canonify' is called too deep inside other calls"));
}

TEST_F(Expansion, BytesThatAreNoUtf8AreReplacedInContainersOnly)
{
    Text("bytes", "\xff");
    EXPECT_EQ(Expand("$(bytes)"), "\xff");
    EXPECT_EQ(ExpandJson(R"j({"a": "$(bytes)"})j"), "{\"a\":\"\xEF\xBF\xBD\"}");
}

TEST_F(Expansion, FindsTheFirstListThatIsNotBound)
{
    EXPECT_EQ(FirstList({"$(name)", "x $(list)"}), "list:{ \"a\", \"b\" }");
    EXPECT_EQ(FirstList({"$(list)"}, {{"list", "a"}}), "none");
    EXPECT_EQ(FirstList({"$(nothing) @(list)"}), "none");
    EXPECT_EQ(FirstList({"$(empty)"}), "empty:{}");
    EXPECT_EQ(FirstList({"$(data[host][ports])"}), "data[host][ports]:{ \"80\", \"443\" }");
}

TEST_F(Expansion, FindsAListInsideAnIndexBeforeTheVariableAround)
{
    List("port[a]", {"1", "2"});
    EXPECT_EQ(FirstList({"$(port[$(list)])"}), "list:{ \"a\", \"b\" }");
    EXPECT_EQ(FirstList({"$(port[$(list)])"}, {{"list", "a"}}), "port[a]:{ \"1\", \"2\" }");
    EXPECT_EQ(Expand("$(port[$(list)])", {{"list", "a"}, {"port[a]", "2"}}), "2");
}

TEST_F(Expansion, CollectsTheTextsThatReferToVariables)
{
    std::vector<std::string> texts;
    veltrane::CollectReferences(Json(R"j({"a": "$(x)", "b": ["plain", {"f": ["$(y)"]}], "c": 1})j").Get(), &texts);
    veltrane::CollectReferences(Rval{RlistOf({"plain", "$(z)"}).get(), RVAL_TYPE_LIST}, &texts);
    veltrane::CollectReferences(Rval{nullptr, RVAL_TYPE_NONE}, &texts);
    EXPECT_THAT(texts, ElementsAre("$(x)", "$(y)", "$(z)"));
}
