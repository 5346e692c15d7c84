#include "libvtenterprise/diff_software.h"

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <veltrane/eval_context.h>
#include <veltrane/packages.h>
#include <veltrane/string_lib.h>

#include "libvtenterprise/diff_engine.h"
#include "support/golden.h"
#include "support/log_capture.h"
#include "support/texts.h"
#include "tests/unit/libvtenterprise/diff_test_support.h"

namespace {

bool reads_fail = false;
bool splitting_fails = false;

template <typename Function>
Function *HostsOwn(const char *name)
{
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

}  // namespace

// Both stand before the host's own, so that they can fail where no file makes them fail.
extern "C" bool ReadDB(DBHandle *db, const char *key, void *buffer, int size)
{
    static const auto hosts_own = HostsOwn<bool(DBHandle *, const char *, void *, int)>("ReadDB");
    return !reads_fail && hosts_own(db, key, buffer, size);
}

extern "C" Seq *SeqStringFromString(const char *text, char separator)
{
    static const auto hosts_own = HostsOwn<Seq *(const char *, char)>("SeqStringFromString");
    return splitting_fails ? nullptr : hosts_own(text, separator);
}

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using veltrane::DBHandlePtr;
using veltrane::EvalContextPtr;
using veltrane::MapPtr;
using veltrane::SeqPtr;

struct RecordDeleter {
    void operator()(HubSoftware *record) const { HubSoftwareDelete(record); }
};
using RecordPtr = std::unique_ptr<HubSoftware, RecordDeleter>;

// Sets a flag for the length of a block.
class Failing {
  public:
    explicit Failing(bool *flag) : flag_(flag) { *flag = true; }
    ~Failing() { *flag_ = false; }
    Failing(const Failing &) = delete;
    Failing &operator=(const Failing &) = delete;

  private:
    bool *flag_;
};

// An inventory exactly of these bytes.
void StoreBytes(const char *module, const std::string &bytes, dbid id = dbid_packages_installed)
{
    DBHandle *opened = nullptr;
    ASSERT_TRUE(CreateSubDB(&opened, id, module));
    const DBHandlePtr db(opened);
    ASSERT_TRUE(WriteDB(db.get(), "<inventory>", bytes.data(), static_cast<int>(bytes.size())));
}

// An inventory as modules store it: with a zero at its end.
void Store(const char *module, const std::string &text, dbid id = dbid_packages_installed)
{
    StoreBytes(module, text + '\0', id);
}

EvalContextPtr ContextWithInventory(const char *modules)
{
    EvalContextPtr ctx(EvalContextNew());
    EvalContextVariableControlCommonPut(ctx.get(), COMMON_CONTROL_PACKAGE_INVENTORY, modules);
    return ctx;
}

std::vector<std::string> Packages(const Seq *state) { return StateTexts(state, report_type_software); }

std::vector<std::string> PackagesOf(const Texts &modules)
{
    const SeqPtr state(GetSoftwareListFromDB(dbid_packages_installed, RlistOf(modules).get()));
    return state != nullptr ? Packages(state.get()) : std::vector<std::string>{"(no state)"};
}

std::string LegacyFile(char *(*name)(char *, size_t) = GetSoftwareCacheFilename)
{
    char path[4096];
    return name(path, sizeof(path));
}

// --- MakeSoftwareItemFromCSVLine ---

TEST(MakeSoftwareItemFromCSVLine, TakesNameVersionAndArchitecture)
{
    const RecordPtr record(MakeSoftwareItemFromCSVLine("bash,5.2,x86_64", 3));
    ASSERT_NE(record, nullptr);
    EXPECT_STREQ(record->name, "bash");
    EXPECT_STREQ(record->version, "5.2");
    EXPECT_STREQ(record->arch, "x86_64");
    EXPECT_EQ(record->hh, nullptr);
    EXPECT_EQ(record->t, 0);
}

TEST(MakeSoftwareItemFromCSVLine, TheFourthFieldIsIgnored)
{
    const RecordPtr record(MakeSoftwareItemFromCSVLine("bash,5.2,x86_64,\"apt, dpkg\"", 4));
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(CsvOf<void>(HubSoftwareToCSV, record.get()), "bash,5.2,x86_64\r\n");
}

TEST(MakeSoftwareItemFromCSVLine, AnEmptyFieldIsAbsentAndOtherBytesAreKept)
{
    const RecordPtr record(MakeSoftwareItemFromCSVLine(",\"5,2\",\xFF\xE9", 3));
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(record->name, nullptr);
    EXPECT_STREQ(record->version, "5,2");
    EXPECT_STREQ(record->arch, "\xFF\xE9");
}

TEST(MakeSoftwareItemFromCSVLine, ALineThatDoesNotSplitIsAWarning)
{
    for (const char *line : {"ba\"sh,5.2,x86_64", "\"bash,5.2,x86_64", "\"bash\"x,5.2,x86_64"}) {
        LogCapture log;
        EXPECT_EQ(MakeSoftwareItemFromCSVLine(line, 3), nullptr);
        EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_WARNING,
                                                "Failed to parse cached packages entry '" + std::string(line) + "'")));
    }
}

TEST(MakeSoftwareItemFromCSVLine, AnotherNumberOfFieldsIsAWarning)
{
    for (const auto &[line, count] : {std::pair{"bash,5.2", 3u},
                                      {"bash,5.2,x86_64,apt", 3u},
                                      {"", 3u},
                                      {"bash,5.2,x86_64", 4u},
                                      {"bash,5.2,x86_64,apt,", 4u}}) {
        LogCapture log;
        EXPECT_EQ(MakeSoftwareItemFromCSVLine(line, count), nullptr);
        EXPECT_THAT(log.lines,
                    ElementsAre(Pair(LOG_LEVEL_WARNING, "Invalid number of elements in cached packages entry '" +
                                                            std::string(line) + "'")));
    }
}

// --- MakePackagesSeqFromMap ---

TEST(MakePackagesSeqFromMap, HasThePresentValuesInTheOrderOfTheMap)
{
    MapPtr map(MapNew(StringHashUntyped, StringEqualUntyped, free, HubSoftwareDelete));
    MapInsert(map.get(), xstrdup("z"), HubSoftwareNew(nullptr, "zsh", "1", "x", 0));
    MapInsert(map.get(), xstrdup("absent"), nullptr);
    MapInsert(map.get(), xstrdup("a"), HubSoftwareNew(nullptr, "ash", "2", "x", 0));

    const SeqPtr packages(MakePackagesSeqFromMap(map.get()));
    MapSoftDestroy(map.release());

    EXPECT_THAT(Packages(packages.get()), ElementsAre("zsh,1,x", "ash,2,x"));
}

TEST(MakePackagesSeqFromMap, AnEmptyMapIsAnEmptySequence)
{
    const MapPtr map(MapNew(StringHashUntyped, StringEqualUntyped, free, HubSoftwareDelete));
    const SeqPtr packages(MakePackagesSeqFromMap(map.get()));
    ASSERT_NE(packages, nullptr);
    EXPECT_EQ(SeqLength(packages.get()), 0u);
}

// --- GetSoftwareListFromDB ---

TEST(GetSoftwareListFromDB, EachLineIsAPackageAndTheSameLineTwiceIsOne)
{
    const WorkDirectory work;
    Store("apt", "bash,5.2,x86_64\nzsh,5.9,x86_64\nbash,5.2,x86_64\nbash,5.1,x86_64\n");
    LogCapture log;
    EXPECT_THAT(PackagesOf({"apt"}), ElementsAre("bash,5.2,x86_64", "zsh,5.9,x86_64", "bash,5.1,x86_64"));
    EXPECT_THAT(log.lines, IsEmpty());
}

TEST(GetSoftwareListFromDB, TheModulesOfTheListAreReadInItsOrder)
{
    const WorkDirectory work;
    Store("apt", "bash,5.2,x86_64\nshared,1,all\n");
    Store("snap", "shared,1,all\nlxd,5.0,x86_64\n");
    Store("pip", "six,1.16,all\n");
    EXPECT_THAT(PackagesOf({"snap", "apt"}), ElementsAre("shared,1,all", "lxd,5.0,x86_64", "bash,5.2,x86_64"));
    EXPECT_THAT(PackagesOf({}), IsEmpty());
}

TEST(GetSoftwareListFromDB, InstalledPackagesAndUpdatesAreTwoDatabases)
{
    const WorkDirectory work;
    Store("apt", "bash,5.2,x86_64\n", dbid_packages_installed);
    Store("apt", "bash,5.3,x86_64\n", dbid_packages_updates);
    const SeqPtr updates(GetSoftwareListFromDB(dbid_packages_updates, RlistOf({"apt"}).get()));
    EXPECT_THAT(Packages(updates.get()), ElementsAre("bash,5.3,x86_64"));
}

TEST(GetSoftwareListFromDB, OneMissingDatabaseVoidsTheWholeReportSilently)
{
    const WorkDirectory work;
    Store("apt", "bash,5.2,x86_64\n");
    LogCapture log;
    EXPECT_THAT(PackagesOf({"apt", "snap"}), ElementsAre("(no state)"));
    EXPECT_THAT(PackagesOf({"snap", "apt"}), ElementsAre("(no state)"));
    EXPECT_THAT(log.lines, IsEmpty());
}

TEST(GetSoftwareListFromDB, AModuleWithoutAnInventoryHasNoPackages)
{
    const WorkDirectory work;
    DBHandle *opened = nullptr;
    ASSERT_TRUE(CreateSubDB(&opened, dbid_packages_installed, "empty"));
    CloseDB(opened);
    Store("apt", "bash,5.2,x86_64\n");
    LogCapture log;
    EXPECT_THAT(PackagesOf({"empty", "apt"}), ElementsAre("bash,5.2,x86_64"));
    EXPECT_THAT(log.lines, IsEmpty());
}

TEST(GetSoftwareListFromDB, AnInventoryOfNoByteOrOneIsEmpty)
{
    for (const std::string &bytes : {std::string(), std::string(1, '\0'), std::string("x")}) {
        const WorkDirectory work;
        StoreBytes("apt", bytes);
        LogCapture log;
        EXPECT_THAT(PackagesOf({"apt"}), IsEmpty());
        EXPECT_THAT(log.lines, IsEmpty());
    }
}

TEST(GetSoftwareListFromDB, AnInventoryOfTwoBytesIsRead)
{
    const WorkDirectory work;
    StoreBytes("apt", std::string("x\0", 2));
    LogCapture log;
    EXPECT_THAT(PackagesOf({"apt"}), IsEmpty());
    EXPECT_THAT(log.lines,
                ElementsAre(Pair(LOG_LEVEL_WARNING, "Invalid number of elements in cached packages entry 'x'")));
}

TEST(GetSoftwareListFromDB, AnInventoryWithoutItsZeroIsReadWhole)
{
    const WorkDirectory work;
    StoreBytes("apt", "bash,5.2,x86_64\nzsh,5.9,x86_64");
    EXPECT_THAT(PackagesOf({"apt"}), ElementsAre("bash,5.2,x86_64", "zsh,5.9,x86_64"));
}

TEST(GetSoftwareListFromDB, EachBadLineIsAWarningAndTheRestIsRead)
{
    const WorkDirectory work;
    Store("apt", "bash,5.2,x86_64\n\nb\"a\"d,1,x\nzsh,5.9\nzsh,5.9,x86_64,apt\n\xFF,\xFE,\xFD\n");
    LogCapture log;
    EXPECT_THAT(PackagesOf({"apt"}), ElementsAre("bash,5.2,x86_64", "\xFF,\xFE,\xFD"));
    EXPECT_THAT(log.lines,
                ElementsAre(Pair(LOG_LEVEL_WARNING, "Invalid number of elements in cached packages entry ''"),
                            Pair(LOG_LEVEL_WARNING, "Failed to parse cached packages entry 'b\"a\"d,1,x'"),
                            Pair(LOG_LEVEL_WARNING, "Invalid number of elements in cached packages entry 'zsh,5.9'"),
                            Pair(LOG_LEVEL_WARNING,
                                 "Invalid number of elements in cached packages entry 'zsh,5.9,x86_64,apt'")));
}

TEST(GetSoftwareListFromDB, AnInventoryThatCannotBeReadIsAnErrorAndTheNextModuleIsRead)
{
    const WorkDirectory work;
    Store("apt", "bash,5.2,x86_64\n");
    Store("snap", "lxd,5.0,x86_64\n");
    LogCapture log;
    {
        const Failing failing(&reads_fail);
        EXPECT_THAT(PackagesOf({"apt", "snap"}), IsEmpty());
    }
    EXPECT_THAT(
        log.lines,
        ElementsAre(Pair(LOG_LEVEL_ERR, "Can not read installed packages database for 'apt' package module."),
                    Pair(LOG_LEVEL_ERR, "Can not read installed packages database for 'snap' package module.")));
    EXPECT_THAT(PackagesOf({"apt", "snap"}), ElementsAre("bash,5.2,x86_64", "lxd,5.0,x86_64"));
}

TEST(GetSoftwareListFromDB, AnInventoryThatCannotBeSplitIsAnError)
{
    const WorkDirectory work;
    Store("apt", "bash,5.2,x86_64\n");
    LogCapture log;
    {
        const Failing failing(&splitting_fails);
        EXPECT_THAT(PackagesOf({"apt"}), IsEmpty());
    }
    EXPECT_THAT(log.lines,
                ElementsAre(Pair(LOG_LEVEL_ERR, "Can not parse packages database for 'apt' package module.")));
}

TEST(GetSoftwareListFromDB, APackageWithoutAnythingIsStillOneItem)
{
    const WorkDirectory work;
    Store("apt", ",,\n,,\n");
    EXPECT_THAT(PackagesOf({"apt"}), ElementsAre(",,"));
}

// --- GetSoftwareList ---

TEST(GetSoftwareList, ReadsLinesOfFourFields)
{
    const WorkDirectory work;
    WriteFile(LegacyFile(), "bash,5.2,x86_64,apt\nzsh,5.9,x86_64,\nbash,5.2,x86_64,other\nlast,1,all,apt");
    LogCapture log;
    const SeqPtr packages(GetSoftwareList(LegacyFile().c_str()));
    ASSERT_NE(packages, nullptr);
    EXPECT_THAT(Packages(packages.get()), ElementsAre("bash,5.2,x86_64", "zsh,5.9,x86_64", "last,1,all"));
    EXPECT_THAT(log.lines, IsEmpty());
}

TEST(GetSoftwareList, ALineOfThreeFieldsIsRejected)
{
    const WorkDirectory work;
    WriteFile(LegacyFile(), "bash,5.2,x86_64\nzsh,5.9,x86_64,apt\n");
    LogCapture log;
    const SeqPtr packages(GetSoftwareList(LegacyFile().c_str()));
    EXPECT_THAT(Packages(packages.get()), ElementsAre("zsh,5.9,x86_64"));
    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_WARNING,
                                            "Invalid number of elements in cached packages entry 'bash,5.2,x86_64'")));
}

TEST(GetSoftwareList, ALineLongerThanTheFirstRoomIsReadWhole)
{
    const WorkDirectory work;
    const std::string version(10000, '5');
    WriteFile(LegacyFile(), "bash," + version + ",x86_64,apt\n");
    const SeqPtr packages(GetSoftwareList(LegacyFile().c_str()));
    EXPECT_THAT(Packages(packages.get()), ElementsAre("bash," + version + ",x86_64"));
}

TEST(GetSoftwareList, AnEmptyFileIsAnEmptyInventory)
{
    const WorkDirectory work;
    WriteFile(LegacyFile(), "");
    const SeqPtr packages(GetSoftwareList(LegacyFile().c_str()));
    ASSERT_NE(packages, nullptr);
    EXPECT_EQ(SeqLength(packages.get()), 0u);
}

TEST(GetSoftwareList, AFileThatIsMissingOrCannotBeReadIsNoState)
{
    const WorkDirectory work;
    for (const bool is_directory : {false, true}) {
        if (is_directory) {
            std::filesystem::create_directory(LegacyFile());
        }
        LogCapture log;
        EXPECT_EQ(GetSoftwareList(LegacyFile().c_str()), nullptr);
        EXPECT_THAT(log.lines,
                    ElementsAre(Pair(LOG_LEVEL_VERBOSE, "Could not read cached state: '" + LegacyFile() + "'")));
    }
}

// --- The two reports ---

TEST(SoftwareReport, WithoutADefaultInventoryTheLegacyFilesAreRead)
{
    const WorkDirectory work;
    Store("apt", "bash,5.2,x86_64\n");
    WriteFile(LegacyFile(), "old,1,all,apt\n");
    WriteFile(LegacyFile(GetSoftwarePatchesFilename), "old,2,all,apt\n");
    const EvalContextPtr ctx(EvalContextNew());

    const SeqPtr software(GetCurrentHubSoftwareList(ctx.get()));
    const SeqPtr patches(GetCurrentHubSoftwarePatchList(ctx.get()));

    EXPECT_THAT(Packages(software.get()), ElementsAre("old,1,all"));
    EXPECT_THAT(Packages(patches.get()), ElementsAre("old,2,all"));
}

TEST(SoftwareReport, WithADefaultInventoryTheModulesAreRead)
{
    const WorkDirectory work;
    WriteFile(LegacyFile(), "old,1,all,apt\n");
    Store("apt", "bash,5.2,x86_64\n", dbid_packages_installed);
    Store("apt", "bash,5.3,x86_64\n", dbid_packages_updates);
    const EvalContextPtr ctx = ContextWithInventory("apt");

    const SeqPtr software(GetCurrentHubSoftwareList(ctx.get()));
    const SeqPtr patches(GetCurrentHubSoftwarePatchList(ctx.get()));

    EXPECT_THAT(Packages(software.get()), ElementsAre("bash,5.2,x86_64"));
    EXPECT_THAT(Packages(patches.get()), ElementsAre("bash,5.3,x86_64"));
}

TEST(SoftwareReport, AMissingLegacyFileIsNoReportThisRun)
{
    const WorkDirectory work;
    const EvalContextPtr ctx(EvalContextNew());
    LogCapture log;

    EXPECT_FALSE(DiffReportGenerate(report_type_software, 1000, ctx.get()));

    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_VERBOSE, "Could not read cached state: '" + LegacyFile() + "'"),
                                       Pair(LOG_LEVEL_VERBOSE,
                                            "Failed to access current state for report: 'software' "
                                            "(skipping report)")));
    EXPECT_FALSE(std::filesystem::exists(CachePath(work, "software")));
}

TEST(SoftwareReport, AMissingModuleLeavesTheCachedStateAsItWas)
{
    const WorkDirectory work;
    Store("apt", "bash,5.2,x86_64\n");
    ASSERT_TRUE(DiffReportGenerate(report_type_software, 1000, ContextWithInventory("apt").get()));
    EXPECT_FALSE(DiffReportGenerate(report_type_software, 2000, ContextWithInventory("apt,snap").get()));
    EXPECT_EQ(ReadFile(CachePath(work, "software")), "bash,5.2,x86_64\r\n");
    EXPECT_EQ(ReadFile(DiffPath(work, "software")), "1000,1,bash,5.2,x86_64\r\n");
}

TEST(SoftwareReport, ANewVersionIsARemovalAndAnAddition)
{
    const WorkDirectory work;
    const EvalContextPtr ctx = ContextWithInventory("apt");
    Store("apt", "bash,5.2,x86_64\nzsh,5.9,x86_64\n");
    ASSERT_TRUE(DiffReportGenerate(report_type_software, 1000, ctx.get()));
    std::filesystem::remove(DiffPath(work, "software"));
    Store("apt", "bash,5.3,x86_64\nzsh,5.9,x86_64\n");

    EXPECT_TRUE(DiffReportGenerate(report_type_software, 2000, ctx.get()));

    EXPECT_EQ(ReadFile(DiffPath(work, "software")), "2000,2,bash,5.2,x86_64\r\n2000,1,bash,5.3,x86_64\r\n");
}

TEST(SoftwareReport, CachesAndDifferenceFilesHaveTheirGoldenBytes)
{
    const WorkDirectory work;
    const EvalContextPtr ctx = ContextWithInventory("apt,pip");
    for (const dbid id : {dbid_packages_installed, dbid_packages_updates}) {
        Store("apt", "bash,5.2,x86_64\nzsh,5.9,x86_64\n", id);
        Store("pip", "\"odd, name\",\"1 \"\"rc\"\"\",all\n", id);
    }
    EXPECT_TRUE(DiffReportGenerate(report_type_software, 1000, ctx.get()));
    EXPECT_TRUE(DiffReportGenerate(report_type_software_patch, 1000, ctx.get()));
    for (const dbid id : {dbid_packages_installed, dbid_packages_updates}) {
        Store("apt", "bash,5.3,x86_64\nzsh,5.9,x86_64\nacl,2.3,\n", id);
    }
    EXPECT_TRUE(DiffReportGenerate(report_type_software, 2000, ctx.get()));
    EXPECT_TRUE(DiffReportGenerate(report_type_software_patch, 2000, ctx.get()));

    for (const char *type : {"software", "patch"}) {
        const std::string name = std::string("state/") + type;
        ExpectGolden(name + ".cache", ReadFile(CachePath(work, type)));
        ExpectGolden(name + ".diff", ReadFile(DiffPath(work, type)));
    }
}

}  // namespace
