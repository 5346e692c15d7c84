// Running averages and the duration of events. A measurement that cannot be kept is no failure of what was measured:
// it is told at debug level and left out.
#include <veltrane/measure.h>

#include <cstring>
#include <string>

#include <veltrane/dbm_api.h>
#include <veltrane/errors.h>
#include <veltrane/logging.h>
#include <veltrane/owned.h>

namespace {

constexpr double kWeightOfNewDuration = 0.7;
constexpr size_t kLongestEventName = 4095;

double SecondsBetween(struct timespec from, struct timespec to)
{
    return static_cast<double>(to.tv_sec - from.tv_sec) + static_cast<double>(to.tv_nsec - from.tv_nsec) / 1e9;
}

veltrane::DBHandlePtr OpenPerformance()
{
    DBHandle *db = nullptr;
    return veltrane::DBHandlePtr(OpenDB(&db, dbid_performance) ? db : nullptr);
}

}  // namespace

double GAverage(double new_value, double old_value, double p) { return p * new_value + (1 - p) * old_value; }

QPoint QAverage(QPoint old, double q, double p)
{
    const double distance = q - old.expect;
    QPoint average;
    average.q = q;
    average.expect = GAverage(q, old.expect, p);
    average.var = GAverage(distance * distance, old.var, p);
    average.dq = q - old.q;
    return average;
}

struct timespec BeginMeasure(void)
{
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return now;
}

void EndMeasure(const char *event_name, struct timespec start)
{
    const std::string name(event_name, strnlen(event_name, kLongestEventName));
    const struct timespec now = BeginMeasure();
    const double duration = SecondsBetween(start, now);
    if (duration < 0) {
        Log(LOG_LEVEL_DEBUG, "The duration of '%s' is not kept: it began in the future", name.c_str());
        return;
    }
    const veltrane::DBHandlePtr db = OpenPerformance();
    if (db == nullptr) {
        Log(LOG_LEVEL_DEBUG, "The duration of '%s' is not kept. (OpenDB: %s)", name.c_str(), GetErrorStr());
        return;
    }
    Event event = {now.tv_sec, {duration, duration, 0, 0}};
    Event old = {};
    if (ReadDB(db.get(), name.c_str(), &old, sizeof(old))) {
        event.Q = QAverage(old.Q, duration, kWeightOfNewDuration);
    }
    if (!WriteDB(db.get(), name.c_str(), &event, sizeof(event))) {
        Log(LOG_LEVEL_DEBUG, "The duration of '%s' is not kept. (WriteDB: %s)", name.c_str(), GetErrorStr());
    }
}
