// The context as programs and the plug-in see it: classes put and asked for, their history, variables, control.
#include <veltrane/eval_context.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <veltrane/json.h>
#include <veltrane/owned.h>
#include <veltrane/rlist.h>

#include "libveltrane/eval_context_internal.h"
#include "support/log_capture.h"

namespace {

using testing::ElementsAre;
using testing::ExitedWithCode;
using testing::IsEmpty;
using testing::Pair;
using veltrane::BufferPtr;
using veltrane::RlistPtr;
using veltrane::VarRefPtr;

class EvalContextTest : public testing::Test {
  protected:
    // Every class of the run with its tags, in the order of the walk.
    std::vector<std::pair<std::string, std::string>> Classes() const
    {
        std::vector<std::pair<std::string, std::string>> all;
        const veltrane::ClassTableIteratorPtr classes(
            EvalContextClassTableIteratorNewGlobal(ctx_.get(), nullptr, true, true));
        while (const Class *one = ClassTableIteratorNext(classes.get())) {
            all.emplace_back(veltrane::TextPtr(ClassRefToString(one->ns, one->name)).get(),
                             BufferData(BufferPtr(StringSetToBuffer(one->tags, ',')).get()));
        }
        return all;
    }

    std::vector<std::string> History() const
    {
        std::vector<std::string> names;
        StringSetIterator i = StringSetIteratorInit(EvalContextAllClassesGet(ctx_.get()));
        while (const char *name = StringSetIteratorNext(&i)) { names.emplace_back(name); }
        return names;
    }

    bool Put(const char *name, const void *value, DataType type = VT_DATA_TYPE_STRING)
    {
        return EvalContextVariablePut(ctx_.get(), VarRefPtr(VarRefParse(name)).get(), value, type, nullptr);
    }

    const void *Get(const char *name, DataType *type = nullptr) const
    {
        return EvalContextVariableGet(ctx_.get(), VarRefPtr(VarRefParse(name)).get(), type);
    }

    const char *Text(const char *name) const { return static_cast<const char *>(Get(name)); }

    veltrane::EvalContextPtr ctx_{EvalContextNew()};
};

TEST_F(EvalContextTest, DestroyAcceptsNull)
{
    EvalContextDestroy(nullptr);
    EXPECT_THAT(Classes(), IsEmpty());
}

TEST_F(EvalContextTest, RemovingAClassSaysWhetherItWasDefined)
{
    EvalContextClassPutSoft(ctx_.get(), "site:web-1", nullptr);
    EXPECT_FALSE(EvalContextClassRemove(ctx_.get(), "web_1"));
    EXPECT_TRUE(EvalContextClassRemove(ctx_.get(), "site:web-1"));
    EXPECT_FALSE(EvalContextClassRemove(ctx_.get(), "site:web-1"));
    EXPECT_THAT(Classes(), IsEmpty());
}

TEST_F(EvalContextTest, ACanonifiedNameGivesEachOfItsPrefixes)
{
    CreateHardClassesFromCanonification(ctx_.get(), "vesk_3_27_0", "inventory,source=agent");
    EXPECT_THAT(Classes(), ElementsAre(Pair("vesk", "inventory,source=agent"), Pair("vesk_3", "inventory,source=agent"),
                                       Pair("vesk_3_27", "inventory,source=agent"),
                                       Pair("vesk_3_27_0", "inventory,source=agent")));
}

TEST_F(EvalContextTest, APrefixAlreadyDefinedKeepsItsTags)
{
    EvalContextClassPutSoft(ctx_.get(), "vesk", "mine");
    EvalContextClassPutSoft(ctx_.get(), "vesk_3_27", "whole");
    CreateHardClassesFromCanonification(ctx_.get(), "vesk_3_27", "given");
    EXPECT_THAT(Classes(), ElementsAre(Pair("vesk", "mine"), Pair("vesk_3", "given"), Pair("vesk_3_27", "whole")));
}

TEST_F(EvalContextTest, TheEmptyPrefixIsNeverAClass)
{
    CreateHardClassesFromCanonification(ctx_.get(), "_a__b", nullptr);
    EXPECT_THAT(Classes(), ElementsAre(Pair("_a", ""), Pair("_a_", ""), Pair("_a__b", "")));
}

TEST_F(EvalContextTest, PrefixesAreHardClasses)
{
    CreateHardClassesFromCanonification(ctx_.get(), "linux_6", nullptr);
    const veltrane::ClassTableIteratorPtr soft(
        EvalContextClassTableIteratorNewGlobal(ctx_.get(), nullptr, false, true));
    EXPECT_EQ(ClassTableIteratorNext(soft.get()), nullptr);
}

TEST_F(EvalContextTest, AClassOfABundleIsSeenInItAndGoesWithIt)
{
    const veltrane::PolicyPtr policy(PolicyNew());
    const Bundle *outer = PolicyAppendBundle(policy.get(), nullptr, "outer", "agent", nullptr);
    const Bundle *inner = PolicyAppendBundle(policy.get(), nullptr, "inner", "agent", nullptr);

    EvalContextStackPushBundle(ctx_.get(), outer);
    veltrane::EvalContextClassPutLocal(ctx_.get(), "here", nullptr);
    EXPECT_EQ(CheckClassExpression(ctx_.get(), "here"), EXPRESSION_VALUE_TRUE);
    EXPECT_THAT(Classes(), IsEmpty());

    EvalContextStackPushBundle(ctx_.get(), inner);
    EXPECT_EQ(CheckClassExpression(ctx_.get(), "here"), EXPRESSION_VALUE_FALSE);
    EvalContextStackPop(ctx_.get());
    EXPECT_EQ(CheckClassExpression(ctx_.get(), "here"), EXPRESSION_VALUE_TRUE);
    EvalContextStackPop(ctx_.get());
    EXPECT_EQ(CheckClassExpression(ctx_.get(), "here"), EXPRESSION_VALUE_FALSE);
}

TEST_F(EvalContextTest, AClassOfABundleCanBeRemoved)
{
    const veltrane::PolicyPtr policy(PolicyNew());
    EvalContextStackPushBundle(ctx_.get(), PolicyAppendBundle(policy.get(), nullptr, "main", "agent", nullptr));
    veltrane::EvalContextClassPutLocal(ctx_.get(), "here", nullptr);
    EXPECT_TRUE(EvalContextClassRemove(ctx_.get(), "here"));
    EXPECT_EQ(CheckClassExpression(ctx_.get(), "here"), EXPRESSION_VALUE_FALSE);
}

TEST_F(EvalContextTest, AtRestALocalClassIsOneOfTheRun)
{
    veltrane::EvalContextClassPutLocal(ctx_.get(), "here", "report");
    EXPECT_THAT(Classes(), ElementsAre(Pair("here", "report")));
}

TEST_F(EvalContextTest, APlainNameIsLookedForInTheBundlesNamespaceToo)
{
    const veltrane::PolicyPtr policy(PolicyNew());
    EvalContextClassPutSoft(ctx_.get(), "site:web", nullptr);
    EvalContextClassPutHard(ctx_.get(), "debian", nullptr);
    EXPECT_FALSE(veltrane::EvalContextClassIsDefined(ctx_.get(), "web"));

    EvalContextStackPushBundle(ctx_.get(), PolicyAppendBundle(policy.get(), "site", "main", "agent", nullptr));
    EXPECT_TRUE(veltrane::EvalContextClassIsDefined(ctx_.get(), "web"));
    EXPECT_TRUE(veltrane::EvalContextClassIsDefined(ctx_.get(), "debian"));
    EXPECT_FALSE(veltrane::EvalContextClassIsDefined(ctx_.get(), "default:web"));
}

TEST_F(EvalContextTest, WithoutHistoryThereIsNoSetOfAllClasses)
{
    EvalContextClassPutSoft(ctx_.get(), "web", nullptr);
    EXPECT_EQ(EvalContextAllClassesGet(ctx_.get()), nullptr);
}

TEST_F(EvalContextTest, HistoryBeginsWithTheClassesAlreadyDefined)
{
    EvalContextClassPutHard(ctx_.get(), "linux", nullptr);
    EvalContextClassPutSoft(ctx_.get(), "default:any", nullptr);
    EvalContextClassHistoryEnable(ctx_.get(), true);
    EvalContextClassPutSoft(ctx_.get(), "web-1", nullptr);
    EvalContextClassPutSoft(ctx_.get(), "linux", nullptr);
    EXPECT_THAT(History(), ElementsAre("any", "linux", "web_1"));
}

TEST_F(EvalContextTest, HistoryCanonifiesTheNamespaceWithTheName)
{
    EvalContextClassHistoryEnable(ctx_.get(), true);
    EvalContextClassPutSoft(ctx_.get(), "site:web", nullptr);
    EXPECT_THAT(History(), ElementsAre("site_web"));
}

TEST_F(EvalContextTest, HistoryForgetsARemovedClass)
{
    EvalContextClassHistoryEnable(ctx_.get(), true);
    for (const char *name : {"b", "a", "c"}) { EvalContextClassPutSoft(ctx_.get(), name, nullptr); }
    EvalContextClassRemove(ctx_.get(), "a");
    EXPECT_THAT(History(), ElementsAre("b", "c"));
}

TEST_F(EvalContextTest, EnablingHistoryAgainBringsNoRemovedClassBack)
{
    EvalContextClassHistoryEnable(ctx_.get(), true);
    EvalContextClassPutSoft(ctx_.get(), "a", nullptr);
    EvalContextClassRemove(ctx_.get(), "a");
    EvalContextClassHistoryEnable(ctx_.get(), true);
    EXPECT_THAT(History(), IsEmpty());
}

TEST_F(EvalContextTest, DisablingHistoryDropsTheSet)
{
    EvalContextClassHistoryEnable(ctx_.get(), true);
    EvalContextClassPutSoft(ctx_.get(), "a", nullptr);
    EvalContextClassHistoryEnable(ctx_.get(), false);
    EXPECT_EQ(EvalContextAllClassesGet(ctx_.get()), nullptr);
    EvalContextClassRemove(ctx_.get(), "a");
    EvalContextClassHistoryEnable(ctx_.get(), true);
    EXPECT_THAT(History(), IsEmpty());
}

TEST_F(EvalContextTest, AVariableIsReadBackWithItsType)
{
    ASSERT_TRUE(Put("main.x", "42", VT_DATA_TYPE_INT));
    DataType type = VT_DATA_TYPE_NONE;
    EXPECT_STREQ(static_cast<const char *>(Get("main.x", &type)), "42");
    EXPECT_EQ(type, VT_DATA_TYPE_INT);
    EXPECT_STREQ(Text("default:main.x"), "42");
}

TEST_F(EvalContextTest, AnUnknownVariableIsNullOfTypeNone)
{
    ASSERT_TRUE(Put("main.x[1]", "v"));
    DataType type = VT_DATA_TYPE_INT;
    EXPECT_EQ(Get("main.x", &type), nullptr);
    EXPECT_EQ(type, VT_DATA_TYPE_NONE);
    EXPECT_EQ(Get("site:main.x[1]"), nullptr);
    EXPECT_EQ(Get("main.x[2]"), nullptr);
}

TEST_F(EvalContextTest, TheValueIsCopied)
{
    char value[] = "before";
    ASSERT_TRUE(Put("main.x", value));
    value[0] = 'X';
    EXPECT_STREQ(Text("main.x"), "before");
}

TEST_F(EvalContextTest, ANullScalarCountsAsTheEmptyText)
{
    ASSERT_TRUE(Put("main.x", nullptr));
    EXPECT_STREQ(Text("main.x"), "");
}

TEST_F(EvalContextTest, ANullListIsTheEmptyList)
{
    ASSERT_TRUE(Put("main.x", nullptr, VT_DATA_TYPE_STRING_LIST));
    DataType type = VT_DATA_TYPE_NONE;
    EXPECT_EQ(Get("main.x", &type), nullptr);
    EXPECT_EQ(type, VT_DATA_TYPE_STRING_LIST);
}

TEST_F(EvalContextTest, ListsAndContainersAreKept)
{
    const RlistPtr list(RlistFromSplitString("a,b", ','));
    JsonElement *json = nullptr;
    ASSERT_EQ(JsonParse("{\"a\":[1]}", &json), JSON_PARSE_OK);
    const veltrane::JsonPtr owner(json);
    ASSERT_TRUE(Put("main.l", list.get(), VT_DATA_TYPE_STRING_LIST));
    ASSERT_TRUE(Put("main.d", json, VT_DATA_TYPE_CONTAINER));

    EXPECT_EQ(RlistLen(static_cast<const Rlist *>(Get("main.l"))), 2u);
    EXPECT_NE(JsonObjectGetAsArray(static_cast<const JsonElement *>(Get("main.d")), "a"), nullptr);
}

TEST_F(EvalContextTest, ABadTypeIsRefused)
{
    EXPECT_FALSE(Put("main.x", "v", VT_DATA_TYPE_NONE));
    EXPECT_FALSE(Put("main.x", "v", static_cast<DataType>(7)));
    EXPECT_FALSE(Put("main.x", nullptr, VT_DATA_TYPE_CONTAINER));
    EXPECT_EQ(Get("main.x"), nullptr);
}

TEST_F(EvalContextTest, AListOfOtherThingsThanScalarsIsRefused)
{
    const RlistPtr list(RlistFromSplitString("a", ','));
    Rlist outer{{list.get(), RVAL_TYPE_LIST}, nullptr};
    EXPECT_FALSE(Put("main.x", &outer, VT_DATA_TYPE_STRING_LIST));
}

TEST_F(EvalContextTest, ABadReferenceIsRefused)
{
    EXPECT_FALSE(Put("main.", "v"));
    EXPECT_FALSE(Put("x", "v"));  // no scope, and no bundle under evaluation
}

TEST_F(EvalContextTest, ANameWithoutScopeBelongsToTheBundleUnderEvaluation)
{
    const veltrane::PolicyPtr policy(PolicyNew());
    EvalContextStackPushBundle(ctx_.get(), PolicyAppendBundle(policy.get(), "site", "web", "agent", nullptr));
    EXPECT_TRUE(Put("x", "v"));
    EXPECT_STREQ(Text("x"), "v");
    EvalContextStackPop(ctx_.get());
    EXPECT_STREQ(Text("site:web.x"), "v");
    EXPECT_EQ(Get("x"), nullptr);
}

TEST_F(EvalContextTest, SpecialScopesBelongToNoNamespace)
{
    ASSERT_TRUE(
        EvalContextVariablePutSpecial(ctx_.get(), SPECIAL_SCOPE_SYS, "host", "h", VT_DATA_TYPE_STRING, nullptr));
    EXPECT_STREQ(Text("sys.host"), "h");
    EXPECT_STREQ(Text("site:sys.host"), "h");
}

TEST_F(EvalContextTest, ASpecialVariableMayHaveIndices)
{
    ASSERT_TRUE(EvalContextVariablePutSpecial(ctx_.get(), SPECIAL_SCOPE_SYS, "ip[eth0]", "10.0.0.1",
                                              VT_DATA_TYPE_STRING, "source=agent"));
    EXPECT_STREQ(Text("sys.ip[eth0]"), "10.0.0.1");
}

TEST_F(EvalContextTest, NoSpecialScopeTakesNoVariable)
{
    EXPECT_FALSE(EvalContextVariablePutSpecial(ctx_.get(), SPECIAL_SCOPE_NONE, "x", "v", VT_DATA_TYPE_STRING, nullptr));
}

TEST_F(EvalContextTest, ControlAttributesAreNullUntilTheyAreSet)
{
    EXPECT_EQ(EvalContextVariableControlCommonGet(ctx_.get(), COMMON_CONTROL_PROTOCOL_VERSION), nullptr);
    EvalContextVariableControlCommonPut(ctx_.get(), COMMON_CONTROL_PROTOCOL_VERSION, "latest");
    EXPECT_STREQ(EvalContextVariableControlCommonGet(ctx_.get(), COMMON_CONTROL_PROTOCOL_VERSION), "latest");
    EXPECT_EQ(EvalContextVariableControlCommonGet(ctx_.get(), COMMON_CONTROL_LASTSEEN_EXPIRE_AFTER), nullptr);
    EXPECT_EQ(EvalContextVariableControlCommonGet(ctx_.get(), COMMON_CONTROL_MAX), nullptr);
}

TEST_F(EvalContextTest, TheDefaultInventoryIsTheListOfPackageModules)
{
    EXPECT_EQ(GetDefaultInventoryFromContext(ctx_.get()), nullptr);
    EvalContextVariableControlCommonPut(ctx_.get(), COMMON_CONTROL_PACKAGE_INVENTORY, "apt,snap");
    const Rlist *modules = GetDefaultInventoryFromContext(ctx_.get());
    ASSERT_EQ(RlistLen(modules), 2u);
    EXPECT_STREQ(RlistScalarValue(modules), "apt");
    EXPECT_STREQ(RlistScalarValue(modules->next), "snap");
}

TEST(FatalErrorDeathTest, LogsTheBareMessageAndExitsWith255)
{
    EXPECT_EXIT(
        {
            LoggingPrivContext hook{};
            hook.log_hook = [](LoggingPrivContext *, LogLevel level, const char *message) {
                fprintf(stderr, "level %d <%s>\n", level, message);
            };
            LogSetOutput(nullptr, false);
            LoggingPrivSetContext(&hook);
            FatalError(nullptr, "No %s today", "policy");
        },
        ExitedWithCode(255), "level 0 <No policy today>");
}

}  // namespace
