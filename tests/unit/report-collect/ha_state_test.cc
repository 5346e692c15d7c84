// What a process makes of the hub's configuration.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <string>

#include <veltrane/class.h>
#include <veltrane/eval_context.h>
#include <veltrane/owned.h>
#include <veltrane/set.h>

#include "report-collect/hub_functions.h"
#include "support/log_capture.h"
#include "support/work_dir.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

namespace {

class HaState : public testing::Test {
  protected:
    HaState() { Vesk_ReloadHAConfig__real(); }  // whatever an earlier test left

    void Configure(const std::string &text) { WriteFile(work.path / "hub_config.json", text); }

    // The hard classes of the context, with the number of their tags.
    std::map<std::string, size_t> Classes() const
    {
        std::map<std::string, size_t> classes;
        const veltrane::ClassTableIteratorPtr all(
            EvalContextClassTableIteratorNewGlobal(ctx.get(), nullptr, true, false));
        while (const Class *one = ClassTableIteratorNext(all.get())) {
            classes[one->name] = StringSetContains(one->tags, "inventory") &&
                                         StringSetContains(one->tags, "attribute_name=none") &&
                                         StringSetContains(one->tags, "source=agent")
                                     ? StringSetSize(one->tags)
                                     : 0;
        }
        return classes;
    }

    void Check() { Vesk_CheckAndSetHAState__real(work.path.c_str(), ctx.get()); }

    WorkDirectory work;
    veltrane::EvalContextPtr ctx{EvalContextNew()};
};

TEST_F(HaState, WithoutAFileThereIsNoHighAvailability)
{
    LogCapture log;
    Check();
    EXPECT_THAT(Classes(), IsEmpty());
    EXPECT_EQ(VeskGetMaxVtHubProcesses__real(), 4u);
    EXPECT_THAT(log.lines, IsEmpty());
}

TEST_F(HaState, TheRoleBecomesTaggedHardClasses)
{
    Configure("{\"high_availability\": {\"role\": \"active\"}}");
    Check();
    EXPECT_THAT(Classes(), ElementsAre(Pair("ha_active", 3u), Pair("ha_enabled", 3u)));
}

TEST_F(HaState, AChangeOfRoleTakesTheClassesOfTheOldOneAway)
{
    Configure("{\"high_availability\": {\"role\": \"active\"}}");
    Check();
    Configure("{\"high_availability\": {\"role\": \"passive\"}}");
    Check();
    EXPECT_THAT(Classes(), ElementsAre(Pair("ha_enabled", 3u), Pair("ha_passive", 3u)));
    std::filesystem::remove(work.path / "hub_config.json");
    Check();
    EXPECT_THAT(Classes(), IsEmpty());
}

TEST_F(HaState, TheWorkDirectoryIsTheOneThatTheCallerNames)
{
    const TemporaryDirectory other;
    WriteFile(other.path / "hub_config.json", "{\"high_availability\": {\"role\": \"passive\"}}");
    Vesk_CheckAndSetHAState__real(other.path.c_str(), ctx.get());
    EXPECT_THAT(Classes(), ElementsAre(Pair("ha_enabled", 3u), Pair("ha_passive", 3u)));
}

TEST_F(HaState, TheNumberOfHubProcessesChangesWithAReload)
{
    Configure("{\"max_hub_processes\": 9}");
    EXPECT_EQ(VeskGetMaxVtHubProcesses__real(), 4u);
    Vesk_ReloadHAConfig__real();
    EXPECT_EQ(VeskGetMaxVtHubProcesses__real(), 9u);
    std::filesystem::remove(work.path / "hub_config.json");
    Vesk_ReloadHAConfig__real();
    EXPECT_EQ(VeskGetMaxVtHubProcesses__real(), 4u);
}

TEST_F(HaState, AMalformedFileIsOneErrorAndTheStateBeforeStays)
{
    Configure("{\"max_hub_processes\": 9, \"high_availability\": {\"role\": \"active\"}}");
    Vesk_ReloadHAConfig__real();
    Configure("{\"max_hub_processes\": 1, \"high_availability\": {\"role\": \"boss\"}}");
    LogCapture log;
    Vesk_ReloadHAConfig__real();
    EXPECT_THAT(log.lines,
                ElementsAre(Pair(LOG_LEVEL_ERR, "The hub's configuration '" + (work.path / "hub_config.json").string() +
                                                    "' is refused: 'high_availability' is not {\"role\": \"active\"} "
                                                    "or \"passive\"")));
    EXPECT_EQ(VeskGetMaxVtHubProcesses__real(), 9u);
    EXPECT_EQ(log.lines.size(), 1u) << "asking for the number reads nothing again";
    Check();
    EXPECT_THAT(Classes(), ElementsAre(Pair("ha_active", 3u), Pair("ha_enabled", 3u)));
}

}  // namespace
