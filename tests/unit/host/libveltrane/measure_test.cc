// Running averages, and the record of how long an event took.
#include <cmath>
#include <ctime>
#include <filesystem>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <veltrane/measure.h>
#include <veltrane/owned.h>

#include "support/log_capture.h"
#include "support/work_dir.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using veltrane::DBHandlePtr;

namespace {

DBHandlePtr Performance()
{
    DBHandle *db = nullptr;
    EXPECT_TRUE(OpenDB(&db, dbid_performance));
    return DBHandlePtr(db);
}

Event EventOf(const std::string &name)
{
    Event event = {};
    EXPECT_TRUE(ReadDB(Performance().get(), name.c_str(), &event, sizeof(event))) << name;
    return event;
}

struct timespec SecondsAgo(time_t seconds)
{
    struct timespec start = BeginMeasure();
    start.tv_sec -= seconds;
    return start;
}

}  // namespace

TEST(GAverage, WeighsTheNewAgainstTheOld)
{
    EXPECT_DOUBLE_EQ(GAverage(10, 20, 0.7), 0.7 * 10 + 0.3 * 20);
    EXPECT_DOUBLE_EQ(GAverage(10, 20, 1), 10);
    EXPECT_DOUBLE_EQ(GAverage(10, 20, 0), 20);
}

TEST(QAverage, FollowsValueAverageVarianceAndChange)
{
    const QPoint next = QAverage({4, 5, 2, 1}, 10, 0.7);
    EXPECT_DOUBLE_EQ(next.q, 10);
    EXPECT_DOUBLE_EQ(next.expect, 0.7 * 10 + 0.3 * 5);
    EXPECT_DOUBLE_EQ(next.var, 0.7 * 25 + 0.3 * 2);
    EXPECT_DOUBLE_EQ(next.dq, 6);
}

TEST(QAverage, TheFirstSightingStartsFromNothing)
{
    const QPoint next = QAverage({0, 0, 0, 0}, 2, 0.5);
    EXPECT_DOUBLE_EQ(next.expect, 1);
    EXPECT_DOUBLE_EQ(next.var, 2);
    EXPECT_DOUBLE_EQ(next.dq, 2);
}

TEST(BeginMeasure, IsTheTimeOfTheClock)
{
    const time_t before = time(nullptr);
    const struct timespec start = BeginMeasure();
    EXPECT_GE(start.tv_sec, before);
    EXPECT_LE(start.tv_sec, time(nullptr) + 1);
}

TEST(EndMeasure, TheFirstTimeKeepsTheDurationAlone)
{
    WorkDirectory work;
    LogCapture log;
    const time_t before = time(nullptr);

    EndMeasure("event", SecondsAgo(100));

    const Event event = EventOf("event");
    EXPECT_GE(event.t, before);
    EXPECT_GE(event.Q.q, 100);
    EXPECT_LT(event.Q.q, 200);
    EXPECT_EQ(event.Q.expect, event.Q.q);
    EXPECT_EQ(event.Q.var, 0);
    EXPECT_EQ(event.Q.dq, 0);
    EXPECT_THAT(log.lines, IsEmpty());
}

TEST(EndMeasure, LaterTimesAreAveragedWithTheFirst)
{
    WorkDirectory work;
    const Event old = {5, {40, 30, 20, 10}};
    ASSERT_TRUE(WriteDB(Performance().get(), "event", &old, sizeof(old)));

    EndMeasure("event", SecondsAgo(100));

    const Event event = EventOf("event");
    const QPoint expected = QAverage(old.Q, event.Q.q, 0.7);
    EXPECT_GT(event.t, old.t);
    EXPECT_GE(event.Q.q, 100);
    EXPECT_DOUBLE_EQ(event.Q.expect, expected.expect);
    EXPECT_DOUBLE_EQ(event.Q.var, expected.var);
    EXPECT_DOUBLE_EQ(event.Q.dq, event.Q.q - 40);
}

TEST(EndMeasure, FractionsOfASecondCount)
{
    WorkDirectory work;
    struct timespec start = SecondsAgo(10);
    start.tv_nsec = start.tv_nsec >= 500000000 ? start.tv_nsec - 500000000 : start.tv_nsec + 500000000;

    EndMeasure("event", start);

    const double duration = EventOf("event").Q.q;
    EXPECT_TRUE((duration >= 9.5 && duration < 10) || duration >= 10.5) << duration;
}

TEST(EndMeasure, AStartInTheFutureIsLeftOut)
{
    WorkDirectory work;
    LogCapture log;

    EndMeasure("event", SecondsAgo(-1000));

    EXPECT_EQ(ValueSizeDB(Performance().get(), "event", 6), -1);
    EXPECT_THAT(log.lines,
                ElementsAre(Pair(LOG_LEVEL_DEBUG, "The duration of 'event' is not kept: it began in the future")));
}

TEST(EndMeasure, ADatabaseThatDoesNotOpenIsLeftOut)
{
    WorkDirectory work;
    LogCapture log;
    std::filesystem::create_directory(work.State("performance.lmdb"));

    EndMeasure("event", SecondsAgo(1));

    EXPECT_THAT(log.lines,
                ElementsAre(Pair(LOG_LEVEL_DEBUG, "The duration of 'event' is not kept. (OpenDB: Is a directory)")));
}

TEST(EndMeasure, ALongNameIsCutAtTheLongestKey)
{
    WorkDirectory work;
    const std::string name(5000, 'n');

    EndMeasure(name.c_str(), SecondsAgo(1));

    EXPECT_GE(EventOf(name.substr(0, 4095)).Q.q, 1);
}

TEST(EndMeasure, NamesAroundTheLimitOfPlainKeysStayApart)
{
    WorkDirectory work;
    const std::string name(511, 'n');

    EndMeasure((name + "a").c_str(), SecondsAgo(100));
    EndMeasure((name + "ab").c_str(), SecondsAgo(300));

    EXPECT_LT(EventOf(name + "a").Q.q, 200);
    EXPECT_GE(EventOf(name + "ab").Q.q, 300);
}
