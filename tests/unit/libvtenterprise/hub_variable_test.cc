// Variables: as policy holds them, and serialised for the report.
#include <memory>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "libvtenterprise/enterprise_install.h"
#include "support/log_capture.h"
#include "support/record_text.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

namespace {

using VariablePtr = std::unique_ptr<HubVariable, veltrane::Destroyer<HubVariableDelete>>;
using SerializedPtr = std::unique_ptr<HubVariableSerialized, veltrane::Destroyer<HubVariableSerializedDelete>>;
using HostPtr = std::unique_ptr<HubHost, veltrane::Destroyer<HubHostDelete>>;

SerializedPtr Serialized(const char *ns, const char *scope, const char *name, DataType type = VT_DATA_TYPE_STRING,
                         const char *value = nullptr, const char *meta = nullptr)
{
    return SerializedPtr(HubVariableSerializedNew(ns, scope, name, type, value, meta));
}

SerializedPtr Read(const std::vector<std::string> &fields)
{
    return SerializedPtr(
        static_cast<HubVariableSerialized *>(HubVariableSerializedFromAttributeList(Fields(fields).get())));
}

int Order(const SerializedPtr &a, const SerializedPtr &b)
{
    return HubVariableSerializedCompareKeys(a.get(), b.get(), nullptr);
}

bool SameValue(const SerializedPtr &a, const SerializedPtr &b)
{
    return HubVariableSerializedCompareValues(a.get(), b.get());
}

}  // namespace

TEST(HubVariable, ANewVariableBorrowsItsHostAndTakesItsValue)
{
    const HostPtr host(HubHostNew("k", nullptr, nullptr));
    const Rval value = RvalNew("v", RVAL_TYPE_SCALAR);
    const VariablePtr variable(HubVariableNew(host.get(), "string", "ns", "main", "x", value, 9));
    EXPECT_EQ(variable->hh, host.get());
    EXPECT_STREQ(variable->ns, "ns");
    EXPECT_STREQ(variable->bundle, "main");
    EXPECT_STREQ(variable->lval, "x");
    EXPECT_STREQ(variable->dtype, "string");
    EXPECT_EQ(variable->t, 9);
    EXPECT_EQ(variable->rval.item, value.item);
    EXPECT_EQ(variable->rval.type, RVAL_TYPE_SCALAR);
}

TEST(HubVariable, NamespaceBundleAndValueMayBeAbsent)
{
    const VariablePtr variable(HubVariableNew(nullptr, "slist", nullptr, nullptr, "x", Rval(), 0));
    EXPECT_EQ(variable->ns, nullptr);
    EXPECT_EQ(variable->bundle, nullptr);
    EXPECT_EQ(variable->rval.item, nullptr);
}

TEST(HubVariable, NoVariableIsDeletedInPeace) { HubVariableDelete(nullptr); }

TEST(HubVariableSerialized, ANewOneCopiesItsTexts)
{
    std::string name = "x";
    const SerializedPtr v = Serialized("ns", "main", name.c_str(), VT_DATA_TYPE_INT_LIST, "{\"1\"}", "inventory");
    name = "gone";
    EXPECT_STREQ(v->ns, "ns");
    EXPECT_STREQ(v->scope, "main");
    EXPECT_STREQ(v->name, "x");
    EXPECT_EQ(v->type, VT_DATA_TYPE_INT_LIST);
    EXPECT_STREQ(v->value_serialized, "{\"1\"}");
    EXPECT_STREQ(v->meta_serialized, "inventory");
}

TEST(HubVariableSerialized, ACopyIsDeepAndHasEveryField)
{
    SerializedPtr v = Serialized("ns", "main", "x", VT_DATA_TYPE_REAL, "1.5", nullptr);
    const SerializedPtr copy(static_cast<HubVariableSerialized *>(HubVariableSerializedDup(v.get())));
    v.reset();
    EXPECT_STREQ(copy->ns, "ns");
    EXPECT_STREQ(copy->scope, "main");
    EXPECT_STREQ(copy->name, "x");
    EXPECT_EQ(copy->type, VT_DATA_TYPE_REAL);
    EXPECT_STREQ(copy->value_serialized, "1.5");
    EXPECT_EQ(copy->meta_serialized, nullptr);
}

TEST(HubVariableSerialized, NoneIsCopiedToNoneAndDeletedInPeace)
{
    EXPECT_EQ(HubVariableSerializedDup(nullptr), nullptr);
    HubVariableSerializedDelete(nullptr);
}

TEST(HubVariableSerialized, KeysAreOrderedByNameThenScopeThenNamespace)
{
    const SerializedPtr v = Serialized("m", "m", "m");
    EXPECT_EQ(Order(v, Serialized("m", "m", "m", VT_DATA_TYPE_INT, "other", "tags")), 0);
    EXPECT_EQ(Order(v, Serialized("a", "a", "n")), -1);
    EXPECT_EQ(Order(v, Serialized("z", "z", "l")), 1);
    EXPECT_EQ(Order(v, Serialized("a", "n", "m")), -1);
    EXPECT_EQ(Order(v, Serialized("z", "l", "m")), 1);
    EXPECT_EQ(Order(v, Serialized("n", "m", "m")), -1);
    EXPECT_EQ(Order(v, Serialized("l", "m", "m")), 1);
    EXPECT_EQ(Order(v, Serialized(nullptr, "m", "m")), 1);
}

TEST(HubVariableSerialized, VariablesThatDifferOnlyInNamespaceAreDifferent)
{
    const SerializedPtr a = Serialized("a", "main", "x");
    const SerializedPtr none = Serialized(nullptr, "main", "x");
    EXPECT_NE(Order(a, none), 0);
    EXPECT_NE(Taken(HubVariableSerializedGetMainKey(a.get())), Taken(HubVariableSerializedGetMainKey(none.get())));
}

TEST(HubVariableSerialized, AnAbsentRecordComesFirstOnEitherSide)
{
    const SerializedPtr v = Serialized("ns", "main", "x");
    EXPECT_EQ(Order(nullptr, v), -1);
    EXPECT_EQ(Order(v, nullptr), -1);
    EXPECT_EQ(Order(nullptr, nullptr), -1);
}

TEST(HubVariableSerialized, ValueTypeAndTagsAreItsValue)
{
    const SerializedPtr v = Serialized("ns", "main", "x", VT_DATA_TYPE_INT, "1", "tag");
    EXPECT_TRUE(SameValue(v, Serialized("other", "other", "other", VT_DATA_TYPE_INT, "1", "tag")));
    EXPECT_FALSE(SameValue(v, Serialized("ns", "main", "x", VT_DATA_TYPE_INT, "2", "tag")));
    EXPECT_FALSE(SameValue(v, Serialized("ns", "main", "x", VT_DATA_TYPE_REAL, "1", "tag")));
    EXPECT_FALSE(SameValue(v, Serialized("ns", "main", "x", VT_DATA_TYPE_INT, "1", "gat")));
    EXPECT_FALSE(SameValue(v, nullptr));
    EXPECT_FALSE(SameValue(nullptr, v));
    EXPECT_FALSE(SameValue(nullptr, nullptr));
}

TEST(HubVariableSerialized, ItsMainKeyIsJoinedWithDots)
{
    EXPECT_EQ(Taken(HubVariableSerializedGetMainKey(Serialized("ns", "main", "x").get())), "ns.main.x");
    EXPECT_EQ(Taken(HubVariableSerializedGetMainKey(Serialized(nullptr, "main", "x").get())), "main.x");
}

TEST(HubVariableSerialized, WithoutNameOrScopeItHasNoMainKey)
{
    EXPECT_EQ(HubVariableSerializedGetMainKey(Serialized("ns", nullptr, "x").get()), nullptr);
    EXPECT_EQ(HubVariableSerializedGetMainKey(Serialized("ns", "main", nullptr).get()), nullptr);
    EXPECT_EQ(HubVariableSerializedGetMainKey(nullptr), nullptr);
}

TEST(HubVariableSerialized, ItsColumnsAreSix)
{
    EXPECT_EQ(CsvOf<void>(HubVariableSerializedToCSV,
                          Serialized("ns", "sys", "x", VT_DATA_TYPE_STRING_LIST, "{\"a\"}", "t1,t2").get()),
              "ns,sys,x,3,\"{\"\"a\"\"}\",\"t1,t2\"\r\n");
    EXPECT_EQ(CsvOf<void>(HubVariableSerializedToCSV, Serialized(nullptr, "sys", "x").get()), ",sys,x,0,,\r\n");
    EXPECT_EQ(CsvOf<void>(HubVariableSerializedToCSV, Serialized(nullptr, "sys", "x", VT_DATA_TYPE_NONE).get()),
              ",sys,x,15,,\r\n");
}

TEST(HubVariableSerialized, ReadsBack)
{
    const SerializedPtr v = Read({"", "sys", "x", "6", "{}", ""});
    EXPECT_EQ(v->ns, nullptr);
    EXPECT_STREQ(v->scope, "sys");
    EXPECT_STREQ(v->name, "x");
    EXPECT_EQ(v->type, VT_DATA_TYPE_CONTAINER);
    EXPECT_STREQ(v->value_serialized, "{}");
    EXPECT_EQ(v->meta_serialized, nullptr);
    EXPECT_EQ(Read({"", "sys", "x", "15", "", ""})->type, 15);
}

TEST(HubVariableSerialized, ATypeOutOfRangeIsRefusedWithAnError)
{
    for (const char *type : {"16", "-1", "4294967296", "string", "", "3 ", "99999999999999999999"}) {
        LogCapture log;
        EXPECT_EQ(Read({"ns", "sys", "x", type, "v", "m"}), nullptr) << type;
        EXPECT_THAT(log.lines,
                    ElementsAre(Pair(LOG_LEVEL_ERR, "Received variable with invalid type in reporting data")));
    }
}

TEST(HubVariableSerialized, AnotherNumberOfColumnsIsNoVariable)
{
    LogCapture log;
    EXPECT_EQ(Read({}), nullptr);
    EXPECT_EQ(Read({"ns", "sys", "x", "0", "v"}), nullptr);
    EXPECT_EQ(Read({"ns", "sys", "x", "0", "v", "m", "more"}), nullptr);
    EXPECT_EQ(HubVariableSerializedFromAttributeList(nullptr), nullptr);
    EXPECT_THAT(log.lines, IsEmpty());
}
