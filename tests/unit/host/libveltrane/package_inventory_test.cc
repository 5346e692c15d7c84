// Inventories of package modules: their text, their databases, and what is no inventory.
#include "libveltrane/package_inventory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <veltrane/owned.h>

#include "support/work_dir.h"

using testing::Eq;
using testing::IsEmpty;
using testing::Optional;
using veltrane::InventoryText;
using veltrane::Package;
using veltrane::ReadInventory;
using veltrane::StoreInventory;

namespace {

const std::vector<Package> kTwo = {{"bash", "5.2", "amd64"}, {"tzdata", "2024a", "all"}};

class PackageInventory : public testing::Test {
  protected:
    void WriteValue(const std::string &bytes)
    {
        DBHandle *opened = nullptr;
        ASSERT_TRUE(CreateSubDB(&opened, dbid_packages_installed, "apt"));
        const veltrane::DBHandlePtr handle(opened);
        ASSERT_TRUE(WriteDB(opened, "<inventory>", bytes.data(), static_cast<int>(bytes.size())));
    }

    // The bytes that a reader finds under the key with its zero; "(none)" when there are none.
    std::string Value(dbid db)
    {
        DBHandle *opened = nullptr;
        if (!OpenSubDB(&opened, db, "apt")) {
            return "(none)";
        }
        const veltrane::DBHandlePtr handle(opened);
        const int size = ValueSizeDB(opened, "<inventory>", 12);
        std::string bytes(size > 0 ? static_cast<size_t>(size) : 0, '?');
        ReadDB(opened, "<inventory>", bytes.data(), size);
        return bytes;
    }

    WorkDirectory work;
};

}  // namespace

TEST_F(PackageInventory, IsLinesOfThreeFieldsAndAZero)
{
    ASSERT_TRUE(StoreInventory(dbid_packages_installed, "apt", kTwo));

    EXPECT_EQ(Value(dbid_packages_installed), std::string("bash,5.2,amd64\ntzdata,2024a,all\n") + '\0');
    EXPECT_EQ(Value(dbid_packages_updates), "(none)") << "each kind has its own database";
    EXPECT_TRUE(std::filesystem::exists(work.State("packages_installed_apt.lmdb")));
}

TEST_F(PackageInventory, OfNoPackagesIsAZeroAlone)
{
    ASSERT_TRUE(StoreInventory(dbid_packages_updates, "apt", {}));

    EXPECT_EQ(Value(dbid_packages_updates), std::string(1, '\0'));
    EXPECT_THAT(ReadInventory(dbid_packages_updates, "apt"), Optional(IsEmpty()));
}

TEST_F(PackageInventory, QuotesFieldsAsCsv)
{
    const std::vector<Package> odd = {{"a,b", "1 \"final\"", " amd64"}, {"", "", ""}};
    EXPECT_EQ(InventoryText(odd), "\"a,b\",\"1 \"\"final\"\"\",\" amd64\"\n,,\n");

    ASSERT_TRUE(StoreInventory(dbid_packages_installed, "apt", odd));
    EXPECT_THAT(ReadInventory(dbid_packages_installed, "apt"), Optional(Eq(odd)));
}

TEST_F(PackageInventory, TakesThePlaceOfTheOneBefore)
{
    ASSERT_TRUE(StoreInventory(dbid_packages_installed, "apt", kTwo));
    ASSERT_TRUE(StoreInventory(dbid_packages_installed, "apt", {{"dash", "1", "amd64"}}));

    EXPECT_EQ(Value(dbid_packages_installed), std::string("dash,1,amd64\n") + '\0');
}

TEST_F(PackageInventory, ThatIsTheSameIsNotWrittenAgain)
{
    ASSERT_TRUE(StoreInventory(dbid_packages_installed, "apt", kTwo));
    const std::string before = ReadFile(work.State("packages_installed_apt.lmdb"));

    ASSERT_TRUE(StoreInventory(dbid_packages_installed, "apt", kTwo));

    EXPECT_EQ(ReadFile(work.State("packages_installed_apt.lmdb")), before);
}

TEST_F(PackageInventory, CanBeLargerThanAnyBufferOfTheReader)
{
    const std::vector<Package> many(200'000, Package{"a-name-of-some-length", "1:2.3.4-5+deb12u6", "amd64"});
    ASSERT_TRUE(StoreInventory(dbid_packages_installed, "apt", many));
    EXPECT_THAT(ReadInventory(dbid_packages_installed, "apt"), Optional(Eq(many)));
}

TEST_F(PackageInventory, ThatNobodyMadeIsNothing)
{
    EXPECT_EQ(ReadInventory(dbid_packages_installed, "apt"), std::nullopt);
    EXPECT_FALSE(std::filesystem::exists(work.State("packages_installed_apt.lmdb"))) << "asking makes none";
}

TEST_F(PackageInventory, ThatIsDamagedIsNothing)
{
    for (const std::string &bytes : {std::string(), std::string("bash,5.2,amd64\n"), std::string("a,b\n\0", 5),
                                     std::string("a,b,c,d\n\0", 9), std::string("\"a,b,c\n\0", 8)}) {
        WriteValue(bytes);
        EXPECT_EQ(ReadInventory(dbid_packages_installed, "apt"), std::nullopt) << bytes;
    }
}

TEST_F(PackageInventory, ThatCannotBeStoredSaysSo)
{
    std::filesystem::create_directory(work.State("packages_installed_apt.lmdb"));

    errno = 0;
    EXPECT_FALSE(StoreInventory(dbid_packages_installed, "apt", kTwo));
    EXPECT_NE(errno, 0);
}

TEST_F(PackageInventory, HasANoteBesideIt)
{
    EXPECT_EQ(veltrane::ReadInventoryNote(dbid_packages_updates, "apt"), "");
    ASSERT_TRUE(StoreInventory(dbid_packages_updates, "apt", kTwo));
    ASSERT_TRUE(veltrane::StoreInventoryNote(dbid_packages_updates, "apt", "made\nthen"));

    EXPECT_EQ(veltrane::ReadInventoryNote(dbid_packages_updates, "apt"), "made\nthen");
    EXPECT_THAT(ReadInventory(dbid_packages_updates, "apt"), Optional(Eq(kTwo)));
}

TEST(PackageText, IsWhatALineOfTheInventoryCanHold)
{
    EXPECT_TRUE(veltrane::IsPackageText("libstdc++6"));
    EXPECT_TRUE(veltrane::IsPackageText("a, b"));
    EXPECT_TRUE(veltrane::IsPackageText("\xc3\xa4"));
    EXPECT_TRUE(veltrane::IsPackageText(std::string(1024, 'x')));
    for (const std::string &bad : {std::string(), std::string(1025, 'x'), std::string("a\nb"), std::string("a\tb"),
                                   std::string("a\0b", 3), std::string("a\x7f")}) {
        EXPECT_FALSE(veltrane::IsPackageText(bad)) << bad;
    }
}
