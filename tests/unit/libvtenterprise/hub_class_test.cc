// Classes: identity, value and columns.
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "libvtenterprise/enterprise_install.h"
#include "support/record_text.h"

namespace {

using ClassPtr = std::unique_ptr<HubClass, veltrane::Destroyer<HubClassDelete>>;
using HostPtr = std::unique_ptr<HubHost, veltrane::Destroyer<HubHostDelete>>;

ClassPtr Named(const char *context, const char *meta_serialized = nullptr)
{
    return ClassPtr(HubClassNew(nullptr, context, 0, meta_serialized));
}

ClassPtr Read(const std::vector<std::string> &fields)
{
    return ClassPtr(static_cast<HubClass *>(HubClassFromAttributeList(Fields(fields).get())));
}

}  // namespace

TEST(HubClass, ANewClassBorrowsItsHostAndCopiesItsTexts)
{
    const HostPtr host(HubHostNew("k", nullptr, nullptr));
    std::string context = "ns:web";
    const ClassPtr c(HubClassNew(host.get(), context.c_str(), 7, "inventory,source=agent"));
    context = "gone";
    EXPECT_EQ(c->hh, host.get());
    EXPECT_STREQ(c->context, "ns:web");
    EXPECT_STREQ(c->meta_serialized, "inventory,source=agent");
    EXPECT_EQ(c->t, 7);
}

TEST(HubClass, ACopyHasAHostOfItsOwn)
{
    const HostPtr host(HubHostNew("k", nullptr, nullptr));
    ClassPtr c(HubClassNew(host.get(), "web", 7, "tag"));
    const ClassPtr copy(static_cast<HubClass *>(HubClassDup(c.get())));
    const HostPtr host_of_copy(copy->hh);  // a class never frees its host
    c.reset();
    EXPECT_NE(copy->hh, host.get());
    EXPECT_STREQ(copy->hh->keyhash, "k");
    EXPECT_STREQ(copy->context, "web");
    EXPECT_STREQ(copy->meta_serialized, "tag");
    EXPECT_EQ(copy->t, 7);
}

TEST(HubClass, ACopyWithoutAHostHasNone)
{
    const ClassPtr c = Named("web");
    const ClassPtr copy(static_cast<HubClass *>(HubClassDup(c.get())));
    EXPECT_EQ(copy->hh, nullptr);
    EXPECT_EQ(copy->meta_serialized, nullptr);
}

TEST(HubClass, NoClassIsCopiedToNoneAndDeletedInPeace)
{
    EXPECT_EQ(HubClassDup(nullptr), nullptr);
    HubClassDelete(nullptr);
}

TEST(HubClass, ItsNameIsItsIdentity)
{
    const ClassPtr a = Named("a", "x");
    const ClassPtr same = Named("a", "y");
    const ClassPtr b = Named("b", "x");
    const ClassPtr high = Named("\xc3\xa9");
    const ClassPtr none = Named(nullptr);
    EXPECT_EQ(HubClassCompareKeys(a.get(), same.get(), nullptr), 0);
    EXPECT_EQ(HubClassCompareKeys(a.get(), b.get(), nullptr), -1);
    EXPECT_EQ(HubClassCompareKeys(b.get(), a.get(), nullptr), 1);
    EXPECT_EQ(HubClassCompareKeys(b.get(), high.get(), nullptr), -1);
    EXPECT_EQ(HubClassCompareKeys(none.get(), a.get(), nullptr), -1);
}

TEST(HubClass, ItsTagsAreItsValue)
{
    const ClassPtr a = Named("a", "x");
    EXPECT_TRUE(HubClassCompareValues(a.get(), Named("b", "x").get()));
    EXPECT_FALSE(HubClassCompareValues(a.get(), Named("a", "y").get()));
    EXPECT_FALSE(HubClassCompareValues(a.get(), Named("a").get()));
    EXPECT_TRUE(HubClassCompareValues(Named("a").get(), Named("a").get()));
    EXPECT_FALSE(HubClassCompareValues(Named("a").get(), Named("a", "").get()));
    EXPECT_FALSE(HubClassCompareValues(a.get(), nullptr));
    EXPECT_FALSE(HubClassCompareValues(nullptr, a.get()));
    EXPECT_FALSE(HubClassCompareValues(nullptr, nullptr));
}

TEST(HubClass, ItsMainKeyIsACopyOfItsName)
{
    const ClassPtr a = Named("ns:a");
    char *key = HubClassGetMainKey(a.get());
    EXPECT_NE(key, a->context);
    EXPECT_EQ(Taken(key), "ns:a");
    EXPECT_EQ(HubClassGetMainKey(nullptr), nullptr);
    EXPECT_EQ(HubClassGetMainKey(Named(nullptr).get()), nullptr);
}

TEST(HubClass, ItsColumnsAreNameAndTags)
{
    EXPECT_EQ(CsvOf<void>(HubClassToCSV, Named("web", "inventory,source=agent").get()),
              "web,\"inventory,source=agent\"\r\n");
    EXPECT_EQ(CsvOf<void>(HubClassToCSV, Named("web").get()), "web,\r\n");
    EXPECT_EQ(CsvOf<void>(HubClassToCSV, Named("%s", "%n").get()), "%s,%n\r\n");
}

TEST(HubClass, ReadsBackWithoutHostAndTime)
{
    const ClassPtr c = Read({"web", "tag"});
    EXPECT_STREQ(c->context, "web");
    EXPECT_STREQ(c->meta_serialized, "tag");
    EXPECT_EQ(c->hh, nullptr);
    EXPECT_EQ(c->t, 0);
}

TEST(HubClass, AnEmptyColumnReadsAsAbsent)
{
    EXPECT_EQ(Read({"web", ""})->meta_serialized, nullptr);
    EXPECT_EQ(Read({"", "tag"})->context, nullptr);
}

TEST(HubClass, AnotherNumberOfColumnsIsNoClass)
{
    EXPECT_EQ(Read({}), nullptr);
    EXPECT_EQ(Read({"web"}), nullptr);
    EXPECT_EQ(Read({"web", "tag", "x"}), nullptr);
    EXPECT_EQ(HubClassFromAttributeList(nullptr), nullptr);
}

TEST(HubClass, ListsAreSortedByNameWithOneForBeforeAndZeroElse)
{
    const ClassPtr a = Named("a");
    const ClassPtr b = Named("b");
    EXPECT_EQ(SortClasses(a.get(), b.get()), 1);
    EXPECT_EQ(SortClasses(b.get(), a.get()), 0);
    EXPECT_EQ(SortClasses(a.get(), a.get()), 0);
}
