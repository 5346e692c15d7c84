// Tests of the promise types "vars" and "classes".
#include "libveltrane/promise_vars_classes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <veltrane/owned.h>

#include "libveltrane/eval_context_internal.h"
#include "libveltrane/promise_attributes.h"
#include "support/log_capture.h"
#include "support/texts.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

namespace {

Rval Scalar(const char *text) { return RvalNew(text, RVAL_TYPE_SCALAR); }

Rval Json(const char *text)
{
    JsonElement *json = nullptr;
    EXPECT_EQ(JsonParse(text, &json), JSON_PARSE_OK) << text;
    return Rval{json, RVAL_TYPE_CONTAINER};
}

class VarsAndClasses : public testing::Test {
  protected:
    Promise *New(const char *type, const char *promiser, const char *attribute, Rval value)
    {
        BundleSection *section = BundleAppendSection(bundle, type);
        Promise *pp = BundleSectionAppendPromise(section, promiser, Rval{}, SourceOffset{});
        PromiseAppendConstraint(pp, attribute, value);
        return pp;
    }

    PromiseResult Vars(const char *name, const char *attribute, Rval value)
    {
        return veltrane::KeepVarsPromise(ctx.get(), New("vars", name, attribute, value));
    }

    PromiseResult Classes(const char *name, const char *attribute, Rval value)
    {
        return veltrane::KeepClassesPromise(ctx.get(), New("classes", name, attribute, value));
    }

    // "<type number> <raw value> <tags>" of a variable; "" when there is none.
    std::string Stored(const char *scope, const char *lval)
    {
        const veltrane::VariableTableIteratorPtr all(
            EvalContextVariableTableIteratorNew(ctx.get(), nullptr, scope, lval));
        Variable *variable = VariableTableIteratorNext(all.get());
        if (variable == nullptr) {
            return "";
        }
        const veltrane::WriterPtr writer(StringWriter());
        RvalWriteRaw(writer.get(), VariableGetRval(variable, false));
        const veltrane::BufferPtr tags(StringSetToBuffer(VariableGetTags(variable), ','));
        return std::to_string(VariableGetType(variable)) + " " + StringWriterData(writer.get()) + " " +
               BufferData(tags.get());
    }

    bool IsDefined(const char *name) { return CheckClassExpression(ctx.get(), name) == EXPRESSION_VALUE_TRUE; }

    veltrane::EvalContextPtr ctx{EvalContextNew()};
    veltrane::PolicyPtr policy{PolicyNew()};
    Bundle *bundle = PolicyAppendBundle(policy.get(), "default", "main", "agent", nullptr);
    LogCapture log;
};

}  // namespace

TEST_F(VarsAndClasses, AVariableOfEachTypeIsStoredInItsBundle)
{
    EXPECT_EQ(Vars("s", "string", Scalar("text")), PROMISE_RESULT_NOOP);
    EXPECT_EQ(Vars("i", "int", Scalar("-5")), PROMISE_RESULT_NOOP);
    EXPECT_EQ(Vars("r", "real", Scalar("2.5")), PROMISE_RESULT_NOOP);
    EXPECT_EQ(Vars("sl", "slist", ListRval({"a", "b"})), PROMISE_RESULT_NOOP);
    EXPECT_EQ(Vars("il", "ilist", ListRval({"1"})), PROMISE_RESULT_NOOP);
    EXPECT_EQ(Vars("rl", "rlist", ListRval({"1.5"})), PROMISE_RESULT_NOOP);
    EXPECT_EQ(Vars("d", "data", Json(R"({"k":[1]})")), PROMISE_RESULT_NOOP);

    EXPECT_EQ(Stored("main", "s"), "0 text source=promise");
    EXPECT_EQ(Stored("main", "i"), "1 -5 source=promise");
    EXPECT_EQ(Stored("main", "r"), "2 2.5 source=promise");
    EXPECT_EQ(Stored("main", "sl"), "3 {\"a\",\"b\"} source=promise");
    EXPECT_EQ(Stored("main", "il"), "4 {\"1\"} source=promise");
    EXPECT_EQ(Stored("main", "rl"), "5 {\"1.5\"} source=promise");
    EXPECT_EQ(Stored("main", "d"), "6 {\"k\":[1]} source=promise");
    EXPECT_TRUE(log.Has(LOG_LEVEL_VERBOSE, "Variable 's' is defined"));
    EXPECT_THAT(log.UpTo(LOG_LEVEL_INFO), IsEmpty());
}

TEST_F(VarsAndClasses, AVariableMayHaveIndices)
{
    EXPECT_EQ(Vars("port[ssh]", "string", Scalar("22")), PROMISE_RESULT_NOOP);

    const veltrane::VarRefPtr ref(VarRefParse("main.port[ssh]"));
    EXPECT_STREQ(static_cast<const char *>(EvalContextVariableGet(ctx.get(), ref.get(), nullptr)), "22");
}

TEST_F(VarsAndClasses, TagsAreTheSourceAndThenTheMetaTags)
{
    Promise *pp = New("vars", "owner", "string", Scalar("ops"));
    PromiseAppendConstraint(pp, "meta", ListRval({"inventory", "attribute_name=Owner"}));

    EXPECT_EQ(veltrane::KeepVarsPromise(ctx.get(), pp), PROMISE_RESULT_NOOP);

    EXPECT_EQ(Stored("main", "owner"), "0 ops source=promise,inventory,attribute_name=Owner");
}

TEST_F(VarsAndClasses, AValueThatIsNoneOfItsTypeIsNotStored)
{
    EXPECT_EQ(Vars("i", "int", Scalar("five")), PROMISE_RESULT_FAIL);
    EXPECT_EQ(Vars("r", "real", Scalar("2,5")), PROMISE_RESULT_FAIL);
    EXPECT_EQ(Vars("il", "ilist", ListRval({"1", "x"})), PROMISE_RESULT_FAIL);
    EXPECT_EQ(Vars("s", "string", ListRval({"a"})), PROMISE_RESULT_FAIL);
    EXPECT_EQ(Vars("sl", "slist", Scalar("a")), PROMISE_RESULT_FAIL);
    EXPECT_EQ(Vars("d", "data", Scalar("{")), PROMISE_RESULT_FAIL);

    for (const char *name : {"i", "r", "il", "s", "sl", "d"}) { EXPECT_EQ(Stored("main", name), "") << name; }
    EXPECT_TRUE(log.Has(LOG_LEVEL_ERR, "The value of variable 'i' is no int"));
    EXPECT_TRUE(log.Has(LOG_LEVEL_ERR, "The value of variable 'sl' is no slist"));
}

TEST_F(VarsAndClasses, DataMayComeAsTextOrAsAList)
{
    EXPECT_EQ(Vars("text", "data", Scalar(" {\"a\": 1} ")), PROMISE_RESULT_NOOP);
    EXPECT_EQ(Vars("list", "data", ListRval({"a", "b"})), PROMISE_RESULT_NOOP);

    EXPECT_EQ(Stored("main", "text"), "6 {\"a\":1} source=promise");
    EXPECT_EQ(Stored("main", "list"), "6 [\"a\",\"b\"] source=promise");
}

TEST_F(VarsAndClasses, AnExpandedNameThatIsNoneIsRefused)
{
    for (const char *name : {"other.x", "a b", "a-b", "x[1", "[1]", "ns:x"}) {
        EXPECT_EQ(Vars(name, "string", Scalar("v")), PROMISE_RESULT_FAIL) << name;
        EXPECT_TRUE(log.Has(LOG_LEVEL_ERR, "'" + std::string(name) + "' is no name of a variable"));
    }
}

TEST_F(VarsAndClasses, AVariableWithoutAValueIsAFailure)
{
    EXPECT_EQ(Vars("x", "comment", Scalar("v")), PROMISE_RESULT_FAIL);
    EXPECT_TRUE(log.Has(LOG_LEVEL_ERR, "Variable 'x' has no value"));
}

TEST_F(VarsAndClasses, AClassIsDefinedWhenItsExpressionHolds)
{
    EvalContextClassPutHard(ctx.get(), "linux", nullptr);

    EXPECT_EQ(Classes("yes", "expression", Scalar("linux.!windows")), PROMISE_RESULT_NOOP);
    EXPECT_EQ(Classes("no", "expression", Scalar("windows")), PROMISE_RESULT_SKIPPED);

    EXPECT_TRUE(IsDefined("yes"));
    EXPECT_FALSE(IsDefined("no"));
    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_VERBOSE, "Class 'yes' is defined")));
}

TEST_F(VarsAndClasses, AndNeedsAllOrNeedsOneNotNeedsNone)
{
    EvalContextClassPutHard(ctx.get(), "a", nullptr);
    EvalContextClassPutHard(ctx.get(), "b", nullptr);

    EXPECT_EQ(Classes("and_yes", "and", ListRval({"a", "b"})), PROMISE_RESULT_NOOP);
    EXPECT_EQ(Classes("and_no", "and", ListRval({"a", "c"})), PROMISE_RESULT_SKIPPED);
    EXPECT_EQ(Classes("or_yes", "or", ListRval({"c", "b"})), PROMISE_RESULT_NOOP);
    EXPECT_EQ(Classes("or_no", "or", ListRval({"c", "d"})), PROMISE_RESULT_SKIPPED);
    EXPECT_EQ(Classes("not_yes", "not", Scalar("c")), PROMISE_RESULT_NOOP);
    EXPECT_EQ(Classes("not_no", "not", Scalar("a")), PROMISE_RESULT_SKIPPED);
    EXPECT_EQ(Classes("one", "or", Scalar("a|c")), PROMISE_RESULT_NOOP);
}

TEST_F(VarsAndClasses, AMalformedExpressionIsAFailure)
{
    for (const char *attribute : {"expression", "and", "or", "not"}) {
        EXPECT_EQ(Classes(attribute, attribute, Scalar("a..b")), PROMISE_RESULT_FAIL) << attribute;
        EXPECT_TRUE(log.Has(LOG_LEVEL_ERR, "The expression of class '" + std::string(attribute) + "' is malformed"));
        EXPECT_FALSE(IsDefined(attribute));
    }
    EXPECT_EQ(Classes("none", "comment", Scalar("x")), PROMISE_RESULT_FAIL);
}

TEST_F(VarsAndClasses, AClassIsOneOfTheRunUnlessItsScopeIsTheBundle)
{
    EvalContextClassPutHard(ctx.get(), "any", nullptr);
    EvalContextStackPushBundle(ctx.get(), bundle);
    Promise *local = New("classes", "local", "expression", Scalar("any"));
    PromiseAppendConstraint(local, "scope", Scalar("bundle"));
    Promise *global = New("classes", "global", "expression", Scalar("any"));
    PromiseAppendConstraint(global, "scope", Scalar("namespace"));

    EXPECT_EQ(veltrane::KeepClassesPromise(ctx.get(), local), PROMISE_RESULT_NOOP);
    EXPECT_EQ(veltrane::KeepClassesPromise(ctx.get(), global), PROMISE_RESULT_NOOP);
    EXPECT_EQ(Classes("unsaid", "expression", Scalar("any")), PROMISE_RESULT_NOOP);

    EXPECT_TRUE(IsDefined("local.global.unsaid"));
    EvalContextStackPop(ctx.get());
    EXPECT_FALSE(IsDefined("local"));
    EXPECT_TRUE(IsDefined("global.unsaid"));
}

TEST_F(VarsAndClasses, AClassBelongsToTheNamespaceOfItsBundle)
{
    bundle = PolicyAppendBundle(policy.get(), "site", "main", "agent", nullptr);
    EvalContextClassPutHard(ctx.get(), "any", nullptr);
    EvalContextStackPushBundle(ctx.get(), bundle);

    EXPECT_EQ(Classes("web", "expression", Scalar("any")), PROMISE_RESULT_NOOP);

    EXPECT_TRUE(IsDefined("web"));
    EvalContextStackPop(ctx.get());
    EXPECT_FALSE(IsDefined("web"));
    EXPECT_TRUE(IsDefined("site:web"));
}

TEST_F(VarsAndClasses, AClassIsSoftAndCarriesItsTags)
{
    EvalContextClassPutHard(ctx.get(), "any", nullptr);
    Promise *pp = New("classes", "web-server", "expression", Scalar("any"));
    PromiseAppendConstraint(pp, "meta", ListRval({"report"}));
    ASSERT_EQ(veltrane::KeepClassesPromise(ctx.get(), pp), PROMISE_RESULT_NOOP);

    const veltrane::ClassTableIteratorPtr soft(EvalContextClassTableIteratorNewGlobal(ctx.get(), nullptr, false, true));
    const Class *one = ClassTableIteratorNext(soft.get());
    ASSERT_NE(one, nullptr);
    EXPECT_STREQ(one->name, "web_server");
    EXPECT_EQ(one->ns, nullptr);
    const veltrane::BufferPtr tags(StringSetToBuffer(one->tags, ','));
    EXPECT_STREQ(BufferData(tags.get()), "source=promise,report");
}

TEST_F(VarsAndClasses, OutcomeClassesAreThoseOfThePromise)
{
    Promise *pp = New("vars", "x", "string", Scalar("v"));
    PromiseAppendConstraint(pp, "classes", Json(R"({"kept": "x_is_there", "failed": ["x_is_not"]})"));

    ASSERT_EQ(veltrane::KeepVarsPromise(ctx.get(), pp), PROMISE_RESULT_NOOP);

    EXPECT_TRUE(IsDefined("x_is_there.!x_is_not"));
}

TEST_F(VarsAndClasses, AttributesAreReadInTheShapeThatIsAskedFor)
{
    Promise *pp = New("commands", "x", "text", Scalar("t"));
    PromiseAppendConstraint(pp, "list", ListRval({"a", "b"}));
    PromiseAppendConstraint(pp, "yes", Scalar("yes"));
    PromiseAppendConstraint(pp, "true", Scalar("true"));
    PromiseAppendConstraint(pp, "false", Scalar("false"));
    PromiseAppendConstraint(pp, "map", Json(R"({"A": "1", "B": "x y"})"));

    EXPECT_STREQ(veltrane::AttributeText(pp, "text"), "t");
    EXPECT_EQ(veltrane::AttributeText(pp, "list"), nullptr);
    EXPECT_EQ(veltrane::AttributeText(pp, "absent"), nullptr);
    EXPECT_THAT(veltrane::AttributeTexts(pp, "text"), ElementsAre("t"));
    EXPECT_THAT(veltrane::AttributeTexts(pp, "list"), ElementsAre("a", "b"));
    EXPECT_THAT(veltrane::AttributeTexts(pp, "absent"), IsEmpty());
    EXPECT_TRUE(veltrane::AttributeIsTrue(pp, "yes"));
    EXPECT_TRUE(veltrane::AttributeIsTrue(pp, "true"));
    EXPECT_FALSE(veltrane::AttributeIsTrue(pp, "false"));
    EXPECT_FALSE(veltrane::AttributeIsTrue(pp, "absent"));
    EXPECT_THAT(veltrane::AttributeSettings(pp, "map"), ElementsAre("A=1", "B=x y"));
    EXPECT_THAT(veltrane::AttributeSettings(pp, "list"), ElementsAre("a", "b"));
    EXPECT_EQ(veltrane::CommonAttributes(pp).classes, nullptr);
}
