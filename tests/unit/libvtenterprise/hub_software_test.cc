// Packages and patches.
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "libvtenterprise/enterprise_install.h"
#include "support/record_text.h"

namespace {

using SoftwarePtr = std::unique_ptr<HubSoftware, veltrane::Destroyer<HubSoftwareDelete>>;
using HostPtr = std::unique_ptr<HubHost, veltrane::Destroyer<HubHostDelete>>;

SoftwarePtr Package(const char *name, const char *version, const char *arch)
{
    return SoftwarePtr(HubSoftwareNew(nullptr, name, version, arch, 0));
}

int Order(const SoftwarePtr &a, const SoftwarePtr &b) { return HubSoftwareCompareKeys(a.get(), b.get(), nullptr); }

SoftwarePtr ReadPackage(const std::vector<std::string> &fields)
{
    return SoftwarePtr(static_cast<HubSoftware *>(HubSoftwareFromAttributeList(Fields(fields).get())));
}

SoftwarePtr ReadPatch(const std::vector<std::string> &fields)
{
    return SoftwarePtr(static_cast<HubSoftware *>(HubSoftwarePatchFromAttributeList(Fields(fields).get())));
}

}  // namespace

TEST(HubSoftware, ANewPackageBorrowsItsHostAndCopiesItsTexts)
{
    const HostPtr host(HubHostNew("k", nullptr, nullptr));
    std::string name = "bash";
    const SoftwarePtr s(HubSoftwareNew(host.get(), name.c_str(), "5.2", "x", 11));
    name = "gone";
    EXPECT_EQ(s->hh, host.get());
    EXPECT_STREQ(s->name, "bash");
    EXPECT_STREQ(s->version, "5.2");
    EXPECT_STREQ(s->arch, "x");
    EXPECT_EQ(s->t, 11);
}

TEST(HubSoftware, ACopySharesTheHost)
{
    const HostPtr host(HubHostNew("k", nullptr, nullptr));
    SoftwarePtr s(HubSoftwareNew(host.get(), "bash", nullptr, "x", 11));
    const SoftwarePtr copy(static_cast<HubSoftware *>(HubSoftwareDup(s.get())));
    s.reset();
    EXPECT_EQ(copy->hh, host.get());
    EXPECT_STREQ(copy->name, "bash");
    EXPECT_EQ(copy->version, nullptr);
    EXPECT_STREQ(copy->arch, "x");
    EXPECT_EQ(copy->t, 11);
}

TEST(HubSoftware, NoneIsCopiedToNoneAndDeletedInPeace)
{
    EXPECT_EQ(HubSoftwareDup(nullptr), nullptr);
    HubSoftwareDelete(nullptr);
}

TEST(HubSoftware, KeysAreOrderedByNameThenArchitectureThenVersion)
{
    const SoftwarePtr s = Package("m", "m", "m");
    EXPECT_EQ(Order(s, Package("m", "m", "m")), 0);
    EXPECT_EQ(Order(s, Package("n", "a", "a")), -1);
    EXPECT_EQ(Order(s, Package("l", "z", "z")), 1);
    EXPECT_EQ(Order(s, Package("m", "a", "n")), -1);
    EXPECT_EQ(Order(s, Package("m", "z", "l")), 1);
    EXPECT_EQ(Order(s, Package("m", "n", "m")), -1);
    EXPECT_EQ(Order(s, Package("m", "l", "m")), 1);
    EXPECT_EQ(Order(s, Package("m", nullptr, "m")), 1);
}

TEST(HubSoftware, AnAbsentRecordComesFirstOnEitherSide)
{
    const SoftwarePtr s = Package("a", "b", "c");
    EXPECT_EQ(Order(nullptr, s), -1);
    EXPECT_EQ(Order(s, nullptr), -1);
    EXPECT_EQ(Order(nullptr, nullptr), -1);
}

TEST(HubSoftware, ItsUniqueKeyJoinsNameVersionAndArchitecture)
{
    EXPECT_EQ(Taken(HubSoftwareGetUniqKey(Package("bash", "5.2", "x").get())), "bash.5.2.x");
    EXPECT_EQ(Taken(HubSoftwareGetUniqKey(Package("bash", nullptr, nullptr).get())), "bash..");
    EXPECT_EQ(Taken(HubSoftwareGetUniqKey(Package(nullptr, nullptr, nullptr).get())), "..");
    EXPECT_EQ(HubSoftwareGetUniqKey(nullptr), nullptr);
}

TEST(HubSoftware, APackageHasThreeColumns)
{
    EXPECT_EQ(CsvOf<void>(HubSoftwareToCSV, Package("bash", "5.2,1", "x").get()), "bash,\"5.2,1\",x\r\n");
    EXPECT_EQ(CsvOf<void>(HubSoftwareToCSV, Package("bash", nullptr, nullptr).get()), "bash,,\r\n");

    const SoftwarePtr s = ReadPackage({"bash", "5.2", ""});
    EXPECT_STREQ(s->name, "bash");
    EXPECT_STREQ(s->version, "5.2");
    EXPECT_EQ(s->arch, nullptr);
    EXPECT_EQ(s->hh, nullptr);
    EXPECT_EQ(s->t, 0);
}

TEST(HubSoftware, AnotherNumberOfColumnsIsNoPackage)
{
    EXPECT_EQ(ReadPackage({}), nullptr);
    EXPECT_EQ(ReadPackage({"bash", "5.2"}), nullptr);
    EXPECT_EQ(ReadPackage({"bash", "5.2", "x", "0"}), nullptr);
    EXPECT_EQ(HubSoftwareFromAttributeList(nullptr), nullptr);
}

TEST(HubSoftware, APatchAlwaysWritesZeroAsItsFourthColumn)
{
    EXPECT_EQ(CsvOf<void>(HubSoftwarePatchToCSV, Package("bash", "5.3", "x").get()), "bash,5.3,x,0\r\n");
    EXPECT_EQ(CsvOf<void>(HubSoftwarePatchToCSV, Package(nullptr, nullptr, nullptr).get()), ",,,0\r\n");
}

TEST(HubSoftware, APatchAcceptsAnyFourthColumn)
{
    for (const char *fourth : {"0", "1", "", "anything"}) {
        const SoftwarePtr s = ReadPatch({"bash", "5.3", "x", fourth});
        ASSERT_NE(s, nullptr) << fourth;
        EXPECT_STREQ(s->name, "bash");
        EXPECT_STREQ(s->version, "5.3");
        EXPECT_STREQ(s->arch, "x");
    }
}

TEST(HubSoftware, AnotherNumberOfColumnsIsNoPatch)
{
    EXPECT_EQ(ReadPatch({"bash", "5.3", "x"}), nullptr);
    EXPECT_EQ(ReadPatch({"bash", "5.3", "x", "0", "0"}), nullptr);
    EXPECT_EQ(HubSoftwarePatchFromAttributeList(nullptr), nullptr);
}

TEST(HubSoftware, ListsAreSortedByNameWithOneForBeforeAndZeroElse)
{
    const SoftwarePtr a = Package("a", "2", "z");
    const SoftwarePtr b = Package("b", "1", "a");
    EXPECT_EQ(SortSoftware(a.get(), b.get()), 1);
    EXPECT_EQ(SortSoftware(b.get(), a.get()), 0);
    EXPECT_EQ(SortSoftware(a.get(), a.get()), 0);
}
