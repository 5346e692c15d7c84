// The hub's configuration file.
#include "report-collect/hub_config.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "support/work_dir.h"

using report_collect::HaRole;
using report_collect::HubConfig;
using report_collect::ParseHubConfig;
using report_collect::ReadHubConfig;

namespace {

std::string WhyRefused(const std::string &text)
{
    std::string error;
    EXPECT_FALSE(ParseHubConfig(text, &error).has_value()) << text;
    return error;
}

HubConfig Parsed(const std::string &text)
{
    std::string error;
    const std::optional<HubConfig> config = ParseHubConfig(text, &error);
    EXPECT_TRUE(config.has_value()) << text << ": " << error;
    return config.value_or(HubConfig{0, HaRole::none});
}

TEST(HubConfigText, WhatItDoesNotSayIsAsWithoutAFile)
{
    EXPECT_EQ(Parsed("{}").max_hub_processes, 4u);
    EXPECT_EQ(Parsed("{}").role, HaRole::none);
    EXPECT_EQ(Parsed("{\"max_hub_processes\": 9}").role, HaRole::none);
    EXPECT_EQ(Parsed("{\"high_availability\": {\"role\": \"active\"}}").max_hub_processes, 4u);
}

TEST(HubConfigText, GoodOnes)
{
    const HubConfig both = Parsed(" {\"max_hub_processes\":1,\n\"high_availability\": {\"role\":\"passive\"} } ");
    EXPECT_EQ(both.max_hub_processes, 1u);
    EXPECT_EQ(both.role, HaRole::passive);
    EXPECT_EQ(Parsed("{\"max_hub_processes\": 256}").max_hub_processes, 256u);
    EXPECT_EQ(Parsed("{\"high_availability\": {\"role\": \"active\"}}").role, HaRole::active);
}

TEST(HubConfigText, BadNumbers)
{
    for (const char *value : {"0", "-1", "257", "4.0", "\"4\"", "null", "true", "[4]", "{}", "9223372036854775807"}) {
        EXPECT_EQ(WhyRefused(std::string("{\"max_hub_processes\": ") + value + "}"),
                  "'max_hub_processes' is no number from 1 to 256");
    }
}

TEST(HubConfigText, BadRoles)
{
    for (const char *value :
         {"\"active\"", "null", "[]", "{}", "{\"role\": \"Active\"}", "{\"role\": \"\"}", "{\"role\": null}",
          "{\"role\": [\"active\"]}", "{\"rôle\": \"active\"}", "{\"role\": \"active\", \"peer\": \"hub2\"}"}) {
        EXPECT_EQ(WhyRefused(std::string("{\"high_availability\": ") + value + "}"),
                  "'high_availability' is not {\"role\": \"active\"} or \"passive\"");
    }
}

TEST(HubConfigText, WhatIsNotKnownIsRefused)
{
    EXPECT_EQ(WhyRefused("{\"max_hub_proceses\": 4}"),
              "it holds more than 'max_hub_processes' and 'high_availability'");
    EXPECT_EQ(WhyRefused("{\"max_hub_processes\": 4, \"\": 1}"),
              "it holds more than 'max_hub_processes' and 'high_availability'");
}

TEST(HubConfigText, WhatIsNoJsonOrNoObjectIsRefused)
{
    for (const char *text : {"[]", "4", "\"active\"", "null"}) { EXPECT_EQ(WhyRefused(text), "it is no object"); }
    for (const char *text : {"", "{", "{}}", "{\"max_hub_processes\": }", "\xff"}) {
        EXPECT_EQ(WhyRefused(text).rfind("it is no JSON: ", 0), 0u) << text;
    }
    EXPECT_EQ(WhyRefused(std::string("{}\0", 3)), "it holds a zero byte");
}

class HubConfigFile : public testing::Test {
  protected:
    std::string WhyRefusedHere()
    {
        std::string error;
        EXPECT_FALSE(ReadHubConfig(work.path.string(), &error).has_value());
        return error;
    }

    WorkDirectory work;
    std::string path = (work.path / "hub_config.json").string();
};

TEST_F(HubConfigFile, NoFileIsAConfiguration)
{
    std::string error;
    const std::optional<HubConfig> config = ReadHubConfig(work.path.string(), &error);
    ASSERT_TRUE(config.has_value()) << error;
    EXPECT_EQ(config->max_hub_processes, 4u);
    EXPECT_EQ(config->role, HaRole::none);
}

TEST_F(HubConfigFile, IsRead)
{
    WriteFile(path, "{\"max_hub_processes\": 17}\n");
    std::string error;
    const std::optional<HubConfig> config = ReadHubConfig(work.path.string(), &error);
    ASSERT_TRUE(config.has_value()) << error;
    EXPECT_EQ(config->max_hub_processes, 17u);
}

TEST_F(HubConfigFile, AMalformedOneIsNamed)
{
    WriteFile(path, "[]");
    EXPECT_EQ(WhyRefusedHere(), "'" + path + "' is refused: it is no object");
}

TEST_F(HubConfigFile, AnEndlessOneIsRefused)
{
    WriteFile(path, "{}" + std::string(65536, ' '));
    EXPECT_EQ(WhyRefusedHere(), "'" + path + "' is refused: it is larger than 65536 bytes");
}

TEST_F(HubConfigFile, OneThatCannotBeReadIsNotAbsent)
{
    std::filesystem::create_directory(path);
    EXPECT_EQ(WhyRefusedHere(), "'" + path + "' is refused: it cannot be read. (open: Is a directory)");
}

}  // namespace
