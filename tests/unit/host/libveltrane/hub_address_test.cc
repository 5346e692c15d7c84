// Where the hub is: the file, and what it makes of this host.
#include "libveltrane/hub_address.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <string>

#include <veltrane/class.h>
#include <veltrane/eval_context.h>
#include <veltrane/globals.h>
#include <veltrane/owned.h>

#include "support/work_dir.h"

namespace {

using veltrane::HubAddress;

class HubFile : public testing::Test {
  protected:
    // "host" or "host port" of a file with these bytes; "(none)" when it says nothing.
    std::string Read(const std::string &bytes) const
    {
        WriteFile(Path(), bytes);
        const std::optional<HubAddress> hub = veltrane::ReadHubAddress();
        return hub.has_value() ? hub->host + (hub->port.empty() ? "" : " " + hub->port) : "(none)";
    }

    std::filesystem::path Path() const { return work.path / "hub_address"; }

    WorkDirectory work;
};

TEST_F(HubFile, ItsFirstLineIsTheAddressAndItsSecondThePort)
{
    EXPECT_FALSE(veltrane::ReadHubAddress().has_value()) << "no file";
    EXPECT_EQ(Read("hub.example.org"), "hub.example.org");
    EXPECT_EQ(Read("hub.example.org\n6128\n"), "hub.example.org 6128");
    EXPECT_EQ(Read(" \t::1 \r\n 6128\t\r\nmore\n"), "::1 6128");
    EXPECT_EQ(Read(""), "(none)");
    EXPECT_EQ(Read("\n6128\n"), "(none)");
}

TEST_F(HubFile, ASecondLineThatIsNoPortCountsForNothing)
{
    for (const char *port : {"", "0", "65536", "-1", "61x", "000006127", "6127 6128"}) {
        EXPECT_EQ(Read(std::string("hub\n") + port + "\n"), "hub") << port;
    }
    EXPECT_EQ(Read("hub\n65535"), "hub 65535");
}

TEST_F(HubFile, WhatIsWrittenReadsBackAndTakesThePlaceOfTheOldOne)
{
    ASSERT_EQ(veltrane::WriteHubAddress({"hub.example.org", "6128"}), std::nullopt);
    EXPECT_EQ(ReadFile(Path()), "hub.example.org\n6128\n");
    ASSERT_EQ(veltrane::WriteHubAddress({"10.0.0.1", ""}), std::nullopt);
    EXPECT_EQ(ReadFile(Path()), "10.0.0.1\n");
    EXPECT_EQ(std::filesystem::status(Path()).permissions(), std::filesystem::perms(0600));
}

TEST_F(HubFile, WhatCannotBeWrittenIsSaid)
{
    std::filesystem::create_directory(Path());
    EXPECT_EQ(veltrane::WriteHubAddress({"hub", ""}),
              "could not replace '" + Path().string() + "' (rename: Is a directory)");
}

TEST_F(HubFile, OnlyLocalhostMakesThisHostTheHub)
{
    const veltrane::EvalContextPtr ctx(EvalContextNew());
    EXPECT_FALSE(veltrane::IsHub());
    WriteFile(Path(), "127.0.0.1\n");
    veltrane::PutHubClasses(ctx.get());
    EXPECT_EQ(CheckClassExpression(ctx.get(), "am_policy_hub|policy_server"), EXPRESSION_VALUE_FALSE);

    WriteFile(Path(), "localhost\n");
    EXPECT_TRUE(veltrane::IsHub());
    veltrane::PutHubClasses(ctx.get());
    EXPECT_EQ(CheckClassExpression(ctx.get(), "am_policy_hub.policy_server"), EXPRESSION_VALUE_TRUE);
    const veltrane::ClassTableIteratorPtr hard(EvalContextClassTableIteratorNewGlobal(ctx.get(), nullptr, true, false));
    EXPECT_STREQ(ClassTableIteratorNext(hard.get())->name, "am_policy_hub");
    EXPECT_STREQ(ClassTableIteratorNext(hard.get())->name, "policy_server");
}

TEST_F(HubFile, ThePortOfTheHubIsTheOneToConnectTo)
{
    const std::string before = VELTRANE_PORT_STR;
    veltrane::UsePortOfHub();
    WriteFile(Path(), "hub\n");
    veltrane::UsePortOfHub();
    EXPECT_EQ(VELTRANE_PORT_STR, before);
    WriteFile(Path(), "hub\n7001\n");
    veltrane::UsePortOfHub();
    EXPECT_STREQ(VELTRANE_PORT_STR, "7001");
    strcpy(VELTRANE_PORT_STR, before.c_str());
}

}  // namespace
