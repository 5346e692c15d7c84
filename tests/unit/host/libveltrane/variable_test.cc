// Variables of a context: what is stored for each type, and the order in which they are walked.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <veltrane/json.h>
#include <veltrane/owned.h>
#include <veltrane/rlist.h>
#include <veltrane/variable.h>

#include "libveltrane/eval_context_internal.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using veltrane::BufferPtr;
using veltrane::VariableTableIteratorPtr;
using veltrane::VarRefPtr;

class VariableTest : public testing::Test {
  protected:
    bool Put(const char *name, const char *value = "v", const char *tags = nullptr)
    {
        return EvalContextVariablePut(ctx_.get(), VarRefPtr(VarRefParse(name)).get(), value, VT_DATA_TYPE_STRING, tags);
    }

    std::vector<std::string> Walk(const char *ns = nullptr, const char *scope = nullptr,
                                  const char *lval = nullptr) const
    {
        std::vector<std::string> names;
        const VariableTableIteratorPtr variables(EvalContextVariableTableIteratorNew(ctx_.get(), ns, scope, lval));
        while (const Variable *variable = VariableTableIteratorNext(variables.get())) {
            const VarRef *ref = VariableGetRef(variable);
            std::string name = (ref->ns != nullptr ? std::string(ref->ns) + ":" : "") + ref->scope + "." + ref->lval;
            for (size_t i = 0; i < ref->num_indices; i++) { name += "[" + std::string(ref->indices[i]) + "]"; }
            names.push_back(name);
        }
        return names;
    }

    const Variable *Only() const
    {
        const VariableTableIteratorPtr variables(
            EvalContextVariableTableIteratorNew(ctx_.get(), nullptr, nullptr, nullptr));
        const Variable *first = VariableTableIteratorNext(variables.get());
        EXPECT_EQ(VariableTableIteratorNext(variables.get()), nullptr);
        return first;
    }

    veltrane::EvalContextPtr ctx_{EvalContextNew()};
};

TEST_F(VariableTest, TheWalkAscendsByNamespaceScopeNameAndIndices)
{
    for (const char *name : {"b.x", "a.y", "a.x[2]", "a.x", "a.x[10]", "a.xy", "ns:a.x", "a.x[10][1]", "ab.w"}) {
        ASSERT_TRUE(Put(name));
    }
    EXPECT_THAT(Walk(), ElementsAre("a.x", "a.x[10]", "a.x[10][1]", "a.x[2]", "a.xy", "a.y", "ab.w", "b.x", "ns:a.x"));
}

TEST_F(VariableTest, TheWalkSelectsByEachPart)
{
    for (const char *name : {"a.x", "a.y[1]", "ab.x", "ns:a.x", "ns:c.x"}) { ASSERT_TRUE(Put(name)); }
    EXPECT_THAT(Walk("default"), ElementsAre("a.x", "a.y[1]", "ab.x"));
    EXPECT_THAT(Walk("default", "a"), ElementsAre("a.x", "a.y[1]"));
    EXPECT_THAT(Walk("default", "a", "y"), ElementsAre("a.y[1]"));
    EXPECT_THAT(Walk(nullptr, "a"), ElementsAre("a.x", "a.y[1]", "ns:a.x"));
    EXPECT_THAT(Walk(nullptr, nullptr, "x"), ElementsAre("a.x", "ab.x", "ns:a.x", "ns:c.x"));
    EXPECT_THAT(Walk("ns", nullptr, "x"), ElementsAre("ns:a.x", "ns:c.x"));
    EXPECT_THAT(Walk("n"), IsEmpty());
}

TEST_F(VariableTest, AnEmptyIndexIsAnotherVariableThanNone)
{
    ASSERT_TRUE(Put("a.x"));
    ASSERT_TRUE(Put("a.x[]"));
    EXPECT_THAT(Walk(), ElementsAre("a.x", "a.x[]"));
}

TEST_F(VariableTest, TheDefaultNamespaceReadsAsNull)
{
    ASSERT_TRUE(Put("default:a.x[1]"));
    const VarRef *ref = VariableGetRef(Only());
    EXPECT_EQ(ref->ns, nullptr);
    EXPECT_STREQ(ref->scope, "a");
    EXPECT_STREQ(ref->lval, "x");
    ASSERT_EQ(ref->num_indices, 1u);
    EXPECT_STREQ(ref->indices[0], "1");
}

TEST_F(VariableTest, WithoutTagsThereIsNoSet)
{
    ASSERT_TRUE(Put("a.x", "v", nullptr));
    EXPECT_EQ(VariableGetTags(Only()), nullptr);
}

TEST_F(VariableTest, ALaterPutReplacesValueTypeAndTags)
{
    ASSERT_TRUE(Put("a.x", "one", "inventory"));
    const VarRefPtr ref(VarRefParse("a.x"));
    ASSERT_TRUE(EvalContextVariablePut(ctx_.get(), ref.get(), "2", VT_DATA_TYPE_INT, "report,source=agent"));

    EXPECT_EQ(VariableGetType(Only()), VT_DATA_TYPE_INT);
    EXPECT_STREQ(RvalScalarValue(VariableGetRval(Only(), false)), "2");
    EXPECT_STREQ(BufferData(BufferPtr(StringSetToBuffer(VariableGetTags(Only()), ',')).get()), "report,source=agent");
}

TEST_F(VariableTest, ACopiedValueOutlivesTheVariable)
{
    ASSERT_TRUE(Put("a.x", "kept"));
    const Rval copy = VariableGetRval(Only(), true);
    ASSERT_TRUE(veltrane::EvalContextVariableRemove(ctx_.get(), VarRefPtr(VarRefParse("a.x")).get()));
    EXPECT_STREQ(RvalScalarValue(copy), "kept");
    RvalDestroy(copy);
}

TEST_F(VariableTest, RemovingSaysWhetherThereWasOne)
{
    ASSERT_TRUE(Put("a.x"));
    const VarRefPtr ref(VarRefParse("a.x"));
    EXPECT_TRUE(veltrane::EvalContextVariableRemove(ctx_.get(), ref.get()));
    EXPECT_FALSE(veltrane::EvalContextVariableRemove(ctx_.get(), ref.get()));
    EXPECT_THAT(Walk(), IsEmpty());
}

TEST_F(VariableTest, ClearingAScopeLeavesTheOthers)
{
    for (const char *name : {"a.x", "a.y[1]", "ab.x", "ns:a.x"}) { ASSERT_TRUE(Put(name)); }
    veltrane::EvalContextVariableClearScope(ctx_.get(), nullptr, "a");
    EXPECT_THAT(Walk(), ElementsAre("ab.x", "ns:a.x"));
}

}  // namespace
