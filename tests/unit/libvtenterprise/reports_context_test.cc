#include "libvtenterprise/reports_context.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include <veltrane/owned.h>

#include "support/golden.h"
#include "support/log_capture.h"
#include "support/work_dir.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Pair;

namespace fs = std::filesystem;

namespace {

constexpr time_t kNow = 1700000000;

class ClassLog : public testing::Test {
  protected:
    ClassLog() : ctx_(EvalContextNew()) { EvalContextClassHistoryEnable(ctx_.get(), true); }

    void Put(const char *name) { EvalContextClassPutSoft(ctx_.get(), name, "some,tags"); }
    std::string Bytes() const { return ReadFile(work_.State("classes.jsonl")); }

    WorkDirectory work_;
    veltrane::EvalContextPtr ctx_;
};

}  // namespace

TEST_F(ClassLog, TheLogHasItsGoldenBytes)
{
    for (const char *name : {"linux", "Hr12", "web:proxy", "any", "debian_12"}) { Put(name); }

    EXPECT_TRUE(LogContexts(ctx_.get(), kNow, "classes.jsonl"));

    ExpectGolden("state/classes.jsonl", Bytes());
}

TEST_F(ClassLog, OneLineAClassAllWithTheSameTime)
{
    Put("linux");
    Put("debian");

    EXPECT_TRUE(LogContexts(ctx_.get(), 17, "classes.jsonl"));

    EXPECT_EQ(Bytes(), "{\"name\":\"linux\",\"timestamp\":17}\r\n{\"name\":\"debian\",\"timestamp\":17}\r\n");
}

TEST_F(ClassLog, ClassesThatAreNotWorthReportingAreLeftOut)
{
    for (const char *name : {"any", "Hr12", "Min05_10", "Q3", "Monday", "GMT_Hr1", "Lcycle_0"}) { Put(name); }

    EXPECT_TRUE(LogContexts(ctx_.get(), kNow, "classes.jsonl"));

    EXPECT_FALSE(fs::exists(work_.State("classes.jsonl")));
}

TEST_F(ClassLog, TwoRunsLeaveBothRunsRecords)
{
    Put("linux");

    EXPECT_TRUE(LogContexts(ctx_.get(), 1, "classes.jsonl"));
    EXPECT_TRUE(LogContexts(ctx_.get(), 2, "classes.jsonl"));

    EXPECT_EQ(Bytes(), "{\"name\":\"linux\",\"timestamp\":1}\r\n{\"name\":\"linux\",\"timestamp\":2}\r\n");
}

TEST_F(ClassLog, ATimeBeyond32BitsIsWrittenWithItsLowBits)
{
    Put("linux");
    EXPECT_TRUE(LogContexts(ctx_.get(), 2147483648, "classes.jsonl"));
    EXPECT_EQ(Bytes(), "{\"name\":\"linux\",\"timestamp\":-2147483648}\r\n");
}

TEST_F(ClassLog, WithoutAClassHistoryItFails)
{
    EvalContextClassHistoryEnable(ctx_.get(), false);
    Put("linux");
    LogCapture log;

    EXPECT_FALSE(LogContexts(ctx_.get(), kNow, "classes.jsonl"));

    EXPECT_FALSE(fs::exists(work_.State("classes.jsonl")));
    EXPECT_THAT(log.lines, IsEmpty());
}

TEST_F(ClassLog, RecordsThatCannotBeWrittenAreErrorLinesAndTheResultStaysTrue)
{
    Put("linux");
    Put("debian");
    fs::create_directory(work_.State("classes.jsonl"));
    LogCapture log;

    EXPECT_TRUE(LogContexts(ctx_.get(), kNow, "classes.jsonl"));

    const std::string line =
        "Could not create log file at '" + work_.State("classes.jsonl").string() + "', (open: Is a directory)";
    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_ERR, line), Pair(LOG_LEVEL_ERR, line)));
}
