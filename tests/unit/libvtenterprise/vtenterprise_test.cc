// The plug-in's identity: versions, edition, FIPS mode and built-in paths.
#include "libvtenterprise/vtenterprise.h"

#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <veltrane/class.h>
#include <veltrane/globals.h>
#include <veltrane/known_dirs.h>
#include <veltrane/owned.h>
#include <veltrane/set.h>

#include "libvtenterprise/entry_points_real.h"
#include "support/log_capture.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::UnorderedElementsAre;

namespace {

using Tagged = std::pair<std::string, std::string>;

std::string JoinedTags(const StringSet *tags)
{
    const veltrane::BufferPtr joined(StringSetToBuffer(tags, ','));
    return BufferData(joined.get());
}

// Every class of the context with its tags.
std::vector<Tagged> Classes(const EvalContext *ctx, bool hard, bool soft)
{
    std::vector<Tagged> classes;
    const veltrane::ClassTableIteratorPtr i(EvalContextClassTableIteratorNewGlobal(ctx, nullptr, hard, soft));
    while (const Class *c = ClassTableIteratorNext(i.get())) { classes.emplace_back(c->name, JoinedTags(c->tags)); }
    return classes;
}

// "scope.name=value" of every variable of the context with its tags.
std::vector<Tagged> Variables(const EvalContext *ctx)
{
    std::vector<Tagged> variables;
    const veltrane::VariableTableIteratorPtr i(EvalContextVariableTableIteratorNew(ctx, nullptr, nullptr, nullptr));
    while (const Variable *v = VariableTableIteratorNext(i.get())) {
        EXPECT_EQ(VariableGetType(v), VT_DATA_TYPE_STRING);
        const VarRef *ref = VariableGetRef(v);
        variables.emplace_back(
            std::string(ref->scope) + "." + ref->lval + "=" + RvalScalarValue(VariableGetRval(v, false)),
            JoinedTags(VariableGetTags(v)));
    }
    return variables;
}

// The result of TranslatePath with a buffer of `size` bytes, and the text in it.
std::pair<bool, std::string> Translated(const std::string &from, size_t size = 4096)
{
    std::string to(size + 1, 'X');
    const bool fits = TranslatePath__real(from.c_str(), to.data(), size);
    EXPECT_EQ(to[size], 'X') << "written beyond the buffer";
    return {fits, std::string(to.c_str())};
}

class TranslatePath : public testing::Test {
  protected:
    TranslatePath() { SetWorkDir("/opt/w"); }
};

constexpr char kInventory[] = "inventory,attribute_name=none,source=agent";

}  // namespace

TEST(Identity, VersionAndNameAreFixed)
{
    EXPECT_STREQ(Vesk_Version(), "3.27.0");
    EXPECT_STREQ(Vesk_NameVersion(), "Veltrane Enterprise 3.27.0");
}

TEST(Identity, TheConsolePrefixSaysEnterprise) { EXPECT_STREQ(GetConsolePrefix__real(), "enterprise"); }

TEST(Identity, TheModuleTrickDoesNothing)
{
    LogCapture log;
    EnterpriseModuleTrick();
    EXPECT_THAT(log.lines, IsEmpty());
}

TEST(Identity, EveryStateButCompliantAndRepairedIsNotCompliant)
{
    EXPECT_STREQ(Vesk_LongState('c'), "Compliant");
    EXPECT_STREQ(Vesk_LongState('r'), "Repaired");
    for (const char c : {'x', 'n', 'C', 'R', '\0'}) { EXPECT_STREQ(Vesk_LongState(c), "Not Compliant") << c; }
}

TEST(Identity, AVersionListingIsTheHostsLineAndThenOurs)
{
    veltrane::WriterPtr w(StringWriter());
    GenericAgentWriteVersion__real(w.get());
    EXPECT_EQ(std::string(StringWriterData(w.get())), std::string(NameVersion()) + "\nVeltrane Enterprise 3.27.0\n");
}

TEST(InitializeDeathTest, FipsModeEndsTheProcess)
{
    const veltrane::EvalContextPtr ctx(EvalContextNew());
    EXPECT_EXIT(
        {
            FIPS_MODE = true;
            Vesk_Initialize__real(ctx.get());
            exit(0);
        },
        testing::ExitedWithCode(255), "This software version has not been built with FIPS mode support");
}

TEST(Initialize, WithoutFipsModeNothingHappens)
{
    LogCapture log;
    const veltrane::EvalContextPtr ctx(EvalContextNew());
    Vesk_Initialize__real(ctx.get());
    EXPECT_THAT(log.lines, IsEmpty());
    EXPECT_THAT(Classes(ctx.get(), true, true), IsEmpty());
    EXPECT_THAT(Variables(ctx.get()), IsEmpty());
}

TEST(Edition, TwoHardClassesAreDefinedAndNothingElse)
{
    const veltrane::EvalContextPtr ctx(EvalContextNew());
    GenericAgentAddEditionClasses__real(ctx.get());
    EXPECT_THAT(Classes(ctx.get(), true, false),
                UnorderedElementsAre(Pair("vesk_edition", "source=agent"), Pair("enterprise_edition", kInventory)));
    EXPECT_THAT(Classes(ctx.get(), false, true), IsEmpty());
    EXPECT_THAT(Variables(ctx.get()), IsEmpty());
}

TEST(Edition, TheContextGainsTwoVersionVariablesAndTheClassesOfTwoNames)
{
    const veltrane::EvalContextPtr ctx(EvalContextNew());
    EnterpriseContext__real(ctx.get());
    EXPECT_THAT(Variables(ctx.get()), UnorderedElementsAre(Pair("sys.vesk_version=3.27.0", "deprecated,source=agent"),
                                                           Pair("sys.enterprise_version=3.27.0", "source=agent")));
    EXPECT_THAT(Classes(ctx.get(), true, false),
                UnorderedElementsAre(Pair("vesk_3_27_0", kInventory), Pair("vesk_3_27", kInventory),
                                     Pair("vesk_3", kInventory), Pair("vesk", kInventory),
                                     Pair("enterprise_3_27_0", kInventory), Pair("enterprise_3_27", kInventory),
                                     Pair("enterprise_3", kInventory), Pair("enterprise", kInventory)));
    EXPECT_THAT(Classes(ctx.get(), false, true), IsEmpty());
}

TEST_F(TranslatePath, ABuiltInPathMovesToTheWorkDirectory)
{
    EXPECT_THAT(Translated("/var/veltrane/state/x"), Pair(true, "/opt/w/state/x"));
    EXPECT_THAT(Translated("/var/veltrane"), Pair(true, "/opt/w"));
}

TEST_F(TranslatePath, AnotherPathIsCopiedUnchanged)
{
    EXPECT_THAT(Translated("/tmp/x"), Pair(true, "/tmp/x"));
    EXPECT_THAT(Translated(""), Pair(true, ""));
    EXPECT_THAT(Translated("/opt/var/veltrane/x"), Pair(true, "/opt/var/veltrane/x"));
}

TEST_F(TranslatePath, TheTestOfThePrefixKnowsNoSeparator)
{
    EXPECT_THAT(Translated("/var/veltrane2/x"), Pair(true, "/opt/w2/x"));
}

TEST_F(TranslatePath, AResultThatLeavesNoRoomForItsEndIsTruncated)
{
    LogCapture log;
    EXPECT_THAT(Translated("/var/veltrane/abc", 11), Pair(true, "/opt/w/abc"));
    EXPECT_THAT(Translated("/tmp/x", 7), Pair(true, "/tmp/x"));
    EXPECT_THAT(log.lines, IsEmpty());

    EXPECT_THAT(Translated("/var/veltrane/abc", 10), Pair(false, "/opt/w/ab"));
    EXPECT_THAT(Translated("/tmp/x", 6), Pair(false, "/tmp/"));
    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_ERR, "File name was too long and got truncated: '/opt/w/ab'"),
                                       Pair(LOG_LEVEL_ERR, "File name was too long and got truncated: '/tmp/'")));
}

TEST_F(TranslatePath, ABufferOfNoBytesIsNotTouched)
{
    LogCapture log;
    char to = 'X';
    EXPECT_FALSE(TranslatePath__real("/var/veltrane/x", &to, 0));
    EXPECT_FALSE(TranslatePath__real("/tmp/x", &to, 0));
    EXPECT_EQ(to, 'X');
    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_ERR, "File name was too long and got truncated: ''"),
                                       Pair(LOG_LEVEL_ERR, "File name was too long and got truncated: ''")));
}
