// The test daemon's answers.
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <veltrane/alloc.h>

#include "libvtenterprise/entry_points_real.h"
#include "tests/support/golden.h"
#include "tests/support/log_capture.h"
#include "tests/support/served_connection.h"
#include "tests/support/work_dir.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::Pair;
using ::testing::SizeIs;

class TestQuery : public ::testing::Test {
  protected:
    bool Ask(std::string menu) { return VTTestD_ReturnQueryData__real(connection_.get(), menu.data()); }

    // What was sent as lines of a file; every message but the completion has status 'm', each its zero.
    std::string Sent()
    {
        std::string lines;
        const auto &received = connection_.Received();
        for (size_t i = 0; i < received.size(); ++i) {
            const auto &[status, payload] = received[i];
            EXPECT_EQ(status, i + 1 < received.size() ? 'm' : 't');
            EXPECT_EQ(payload.back(), '\0');
            lines += payload.substr(0, payload.size() - 1) + '\n';
        }
        return lines;
    }

    WorkDirectory work_;
    Connection connection_;
    LogCapture log_;
};

constexpr char kTime[] = "[A-Z][a-z][a-z] [A-Z][a-z][a-z] [ 0-9]+ [0-9]+:[0-9]+:[0-9]+ [0-9]+\n";

}  // namespace

TEST_F(TestQuery, ADeltaIsAnsweredWithTheSyntheticDeltaOfAFixedTime)
{
    EXPECT_TRUE(Ask("delta 0 0"));

    EXPECT_EQ(Sent(), GoldenBytes("stream/test-delta.stream") + "QUERY complete\n");
    EXPECT_THAT(log_.lines,
                ElementsAre(Pair(LOG_LEVEL_DEBUG, "Enterprise function VTTestD_ReturnQueryData menu='delta 0 0'"),
                            Pair(LOG_LEVEL_VERBOSE, "REPORT_REQUEST_TYPE_DELTA, ts_diff=1513576541"),
                            Pair(LOG_LEVEL_VERBOSE, MatchesRegex(std::string("Assembled reply at ") + kTime))));
}

TEST_F(TestQuery, ARebaseIsAnsweredWithTheSyntheticRebaseOfAFixedTime)
{
    EXPECT_TRUE(Ask("rebase 1700000000 1700000100"));

    EXPECT_EQ(Sent(), GoldenBytes("stream/test-rebase.stream") + "QUERY complete\n");
    ASSERT_THAT(log_.lines, SizeIs(3));
    EXPECT_EQ(log_.lines[1], LogCapture::Line(LOG_LEVEL_VERBOSE, "REPORT_REQUEST_TYPE_REBASE, ts=1513276541"));
}

TEST_F(TestQuery, OnlyTheWordCounts)
{
    EXPECT_TRUE(Ask("delta"));

    EXPECT_EQ(Sent(), GoldenBytes("stream/test-delta.stream") + "QUERY complete\n");
}

TEST_F(TestQuery, AnUnknownWordIsNotAnswered)
{
    EXPECT_FALSE(Ask("weekly 0 0"));

    EXPECT_THAT(connection_.Received(), IsEmpty());
    EXPECT_THAT(log_.lines,
                ElementsAre(Pair(LOG_LEVEL_DEBUG, "Enterprise function VTTestD_ReturnQueryData menu='weekly 0 0'"),
                            Pair(LOG_LEVEL_VERBOSE, "Unknown menu type \"weekly\"")));
}

TEST_F(TestQuery, ANameIsReadUpTo255Characters)
{
    EXPECT_FALSE(Ask(std::string(300, 'w')));

    EXPECT_TRUE(log_.Has(LOG_LEVEL_VERBOSE, "Unknown menu type \"" + std::string(255, 'w') + "\""));
}

TEST_F(TestQuery, AFullReportEndsTheProcess)
{
    EXPECT_DEATH(
        {
            Connection connection;
            char menu[] = "full 0 0";
            VTTestD_ReturnQueryData__real(connection.get(), menu);
        },
        "Unhandled report request type in switch: 1");
}

TEST_F(TestQuery, ACollectCallEndsTheProcess)
{
    EXPECT_DEATH(
        {
            Connection connection;
            char menu[] = "collect_call 0 0";
            VTTestD_ReturnQueryData__real(connection.get(), menu);
        },
        "Unhandled report request type in switch: 2");
}

TEST_F(TestQuery, APeerThatIsGoneIsAFailureWithWhatTheSystemSaid)
{
    connection_.Shut();

    EXPECT_FALSE(Ask("delta 0 0"));

    EXPECT_THAT(log_.UpTo(LOG_LEVEL_ERR), ElementsAre(Pair(LOG_LEVEL_ERR, "Failed send. (send: Broken pipe)")));
}

TEST_F(TestQuery, NothingIsEncryptedOrDumped)
{
    const unsigned char key[] = "0123456789abcdef0123456789abcdef";
    connection_.get()->session_key = static_cast<unsigned char *>(xmemdup(key, sizeof(key)));
    connection_.get()->encryption_type = 'N';
    connection_.get()->dump_reports = true;

    EXPECT_TRUE(Ask("delta 0 0"));

    EXPECT_EQ(Sent(), GoldenBytes("stream/test-delta.stream") + "QUERY complete\n");
    EXPECT_FALSE(std::filesystem::exists(work_.path / "diagnostics" / "report_dumps"));
}

TEST_F(TestQuery, TheHostsOwnDifferenceFilesAreLeftAlone)
{
    WriteFile(work_.State("diff/classes.diff"), "1,1,old,\r\n");

    EXPECT_TRUE(Ask("delta 1700000000 1700000000"));

    EXPECT_EQ(ReadFile(work_.State("diff/classes.diff")), "1,1,old,\r\n");
}
