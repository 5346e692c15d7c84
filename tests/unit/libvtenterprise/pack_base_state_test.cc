// A base state of which nothing is hidden takes a way of its own; a filter that admits everything takes the general
// one. Both must come to the same reply, files and messages.
#include <filesystem>
#include <string>
#include <tuple>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <veltrane/owned.h>

#include "libvtenterprise/datapack_state.h"
#include "tests/support/log_capture.h"
#include "tests/support/texts.h"
#include "tests/support/work_dir.h"
#include "tests/unit/libvtenterprise/state_rows.h"

namespace {

using ::testing::ElementsAre;
using veltrane::SeqPtr;

class PackBaseStateTest : public ::testing::Test {
  protected:
    struct Outcome {
        Texts reply;
        std::string index;
        bool history_is_gone;
        std::vector<LogCapture::Line> log;

        bool operator==(const Outcome &) const = default;
    };

    Outcome Pack(const ReportFilter *filter, ReportType type, ProtocolVersion version)
    {
        WriteFile(work_.State("diff/" + Name(type) + ".diff"), "");
        const LogCapture log;
        const SeqPtr reply(SeqNew(10, free));
        PackBaseState(reply.get(), "CLD", 500, filter, type, version);
        const bool history_is_gone = !std::filesystem::exists(work_.State("diff/" + Name(type) + ".diff"));
        return {SeqTexts(reply.get()), ReadFile(IndexPath(type)), history_is_gone, log.lines};
    }

    void ExpectSame(const std::string &cache, ReportType type)
    {
        const ReportFilterPtr everything = Including({".*"});
        for (const ProtocolVersion version : {VT_PROTOCOL_TLS, VT_PROTOCOL_COOKIE}) {
            WriteFile(work_.State("previous_state/" + Name(type) + ".cache"), cache);
            std::filesystem::remove(IndexPath(type));
            const Outcome general = Pack(everything.get(), type, version);
            std::filesystem::remove(IndexPath(type));
            EXPECT_EQ(Pack(nullptr, type, version), general) << Name(type) << " " << cache.substr(0, 200);
            EXPECT_TRUE(general.history_is_gone);
        }
    }

    static std::string Name(ReportType type) { return ReportTypeToString(type); }
    std::filesystem::path IndexPath(ReportType type) { return work_.State("untracked/" + Name(type) + ".idx"); }

    WorkDirectory work_;
};

TEST_F(PackBaseStateTest, WithoutAFilterEveryReportPacksAsThroughOneThatAdmitsEverything)
{
    ExpectSame("web,inventory\r\ndb,\r\n\"a,b\",\"c,d\"\r\n", report_type_classes);
    ExpectSame("default,sys,host,0,\"two\nlines\",inventory\r\n,sys,empty,0,,\r\n", report_type_variables);
    ExpectSame("43,SHA=00,192.0.2.1,1.000000,90\r\n45,SHA=00,,0.500000,91\r\n", report_type_lastseen);
    ExpectSame("bash,5.2,x\r\nzlib,,\r\n", report_type_software);
    ExpectSame("bash,5.2,x,0\r\nbash,5.3,x,9\r\n", report_type_software_patch);
    ExpectSame("hash,p.vt,,99,default,main,files,/a,/,my_handle,,,7,,\r\nhash2,p.vt,,99,default,main,files,/a,/,,,\r\n",
               report_type_execution_log);
}

TEST_F(PackBaseStateTest, BadAndOverlongRecordsAreToldInTheSameWordsAndOrder)
{
    const std::string overlong(4100, 'c');
    ExpectSame("web,a\r\nb\"a\"d,1\r\n" + overlong + ",\r\none_column\r\ndb,\r\n" + overlong + ",x\r\n",
               report_type_classes);
    ExpectSame("default,sys,host,99,x,\r\ndefault,sys,host,1,x,\r\n", report_type_variables);
    ExpectSame(overlong + ",\r\n", report_type_classes);
}

TEST_F(PackBaseStateTest, AnEmptyStateWritesNoChapter)
{
    ExpectSame("", report_type_classes);
    EXPECT_THAT(Pack(nullptr, report_type_classes, VT_PROTOCOL_COOKIE).reply, ::testing::IsEmpty());
}

TEST_F(PackBaseStateTest, WhatWasHiddenComesBackToAnUnfilteredState)
{
    WriteFile(work_.State("previous_state/classes.cache"), "web,\r\ncfg,secret\r\n");
    std::filesystem::create_directories(IndexPath(report_type_classes).parent_path());
    WriteFile(IndexPath(report_type_classes), "cfg,\"400,1,cfg,secret\"\r\nold,\"400,1,old,secret\"\r\n");

    const Outcome outcome = Pack(nullptr, report_type_classes, VT_PROTOCOL_COOKIE);

    EXPECT_THAT(outcome.reply, ElementsAre("CLD", "500,1,web,", "500,1,cfg,secret", "500,1,old,secret"));
    EXPECT_EQ(outcome.index, "");
}

}  // namespace
