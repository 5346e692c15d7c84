#include "libveltrane/monitor_rings.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>

#include <veltrane/file_lib.h>
#include <veltrane/known_dirs.h>
#include <veltrane/measure.h>
#include <veltrane/owned.h>

#include "libveltrane/file_bytes.h"

namespace veltrane {

namespace {

constexpr double kWeightOfNewSample = 0.3;
constexpr double kUnmeasured = std::numeric_limits<double>::quiet_NaN();
constexpr QPoint kNothing = {kUnmeasured, kUnmeasured, kUnmeasured, kUnmeasured};

struct Ring {
    const char *name;
    time_t places;
    time_t seconds;  // from one place to the next
};

constexpr Ring kSamples = {kSamplesName, kWeekSeconds / kSampleSeconds, kSampleSeconds};
constexpr Ring kWeeks = {kWeeksName, 157, kWeekSeconds};

// As it lies in the file: never change.
struct Record {
    int64_t time;
    QPoint quantities[VT_OBSERVABLES];
    uint64_t check;
};
constexpr size_t kWords = sizeof(Record) / sizeof(uint64_t);
static_assert(sizeof(Record) == 3216 && kWords == 402 && sizeof(QPoint) == 32);

uint64_t CheckOf(const Record &record)
{
    std::array<uint64_t, kWords> words{};
    memcpy(words.data(), &record, sizeof(record));
    uint64_t check = 0xcbf29ce484222325;
    for (size_t i = 0; i + 1 < kWords; ++i) { check = (check ^ words[i]) * 0x100000001b3; }
    return check;
}

bool HasPlace(time_t t) { return t >= kFirstMonday; }

time_t PlaceOf(const Ring &ring, time_t t) { return (t - kFirstMonday) / ring.seconds % ring.places; }

bool Counts(const Ring &ring, const Record &record, time_t place)
{
    return HasPlace(record.time) && PlaceOf(ring, record.time) == place && record.check == CheckOf(record);
}

MonitorSample SampleOf(const Record &record)
{
    MonitorSample sample;
    sample.t = record.time;
    std::copy(std::begin(record.quantities), std::end(record.quantities), std::begin(sample.Q));
    return sample;
}

std::string PathOf(const Ring &ring) { return std::string(GetStateDir()) + "/" + ring.name; }

// An open ring, or none when it cannot be read.
class OpenRing {
  public:
    explicit OpenRing(const Ring &ring) : ring_(ring)
    {
        Handle handle;
        if (!OpenHandle(PathOf(ring), &handle).has_value()) {
            (void)OpenRegular(handle, PathOf(ring), &file_);  // without one, nothing is there
        }
    }

    std::optional<MonitorSample> At(time_t place) const
    {
        Record record;
        const auto offset = static_cast<off_t>(place * static_cast<time_t>(sizeof(record)));
        // Once more where it does not count: it may have been under the writer's hands.
        for (int attempt = 0; attempt < 2 && file_.IsOpen(); ++attempt) {
            if (pread(file_.Get(), &record, sizeof(record), offset) != static_cast<ssize_t>(sizeof(record))) {
                break;
            }
            if (Counts(ring_, record, place)) {
                return SampleOf(record);
            }
        }
        return std::nullopt;
    }

    // All records, oldest first, that a condition holds for.
    template <typename Condition>
    std::vector<MonitorSample> All(Condition condition) const
    {
        std::vector<MonitorSample> samples;
        for (time_t place = 0; place < ring_.places && file_.IsOpen(); ++place) {
            const std::optional<MonitorSample> sample = At(place);
            if (sample.has_value() && condition(sample->t)) {
                samples.push_back(*sample);
            }
        }
        std::sort(samples.begin(), samples.end(),
                  [](const MonitorSample &a, const MonitorSample &b) { return a.t < b.t; });
        return samples;
    }

  private:
    const Ring &ring_;
    Descriptor file_;
};

Trouble WriteInto(const Ring &ring, const MonitorSample &sample)
{
    const std::string path = PathOf(ring);
    if (!HasPlace(sample.t)) {
        return "the clock of this machine says " + std::to_string(sample.t);
    }
    Descriptor file(safe_open(path.c_str(), O_RDWR | O_CREAT | O_NONBLOCK));  // a FIFO would hold us
    struct stat st {};
    if (!file.IsOpen() || fstat(file.Get(), &st) != 0) {
        return CouldNot("open", path, "open");
    }
    if (!S_ISREG(st.st_mode)) {
        return "'" + path + "' is " + KindOf(st) + ", not a file";
    }
    Record record{sample.t, {}, 0};
    std::copy(std::begin(sample.Q), std::end(sample.Q), std::begin(record.quantities));
    record.check = CheckOf(record);
    constexpr auto kRecord = static_cast<off_t>(sizeof(record));
    const off_t offset = PlaceOf(ring, sample.t) * kRecord;
    if (st.st_size > ring.places * kRecord && ftruncate(file.Get(), ring.places * kRecord) != 0) {
        return CouldNot("shorten", path, "ftruncate");
    }
    const ssize_t written = pwrite(file.Get(), &record, sizeof(record), offset);
    if (written != kRecord) {
        errno = written < 0 ? errno : ENOSPC;
        return CouldNot("write", path, "write");
    }
    return file.Close() ? std::nullopt : CouldNot("write", path, "close");
}

QPoint SumUp(const std::vector<MonitorSample> &samples, size_t slot, const std::optional<MonitorSample> &week_before)
{
    QPoint sum = {kUnmeasured, 0, 0, 0};
    double count = 0;
    for (const MonitorSample &sample : samples) {
        if (IsMeasured(sample.Q[slot])) {
            sum.q = sample.Q[slot].q;
            count++;
            const double distance = sum.q - sum.expect;  // a sum of squares would lose the small differences
            sum.expect += distance / count;
            sum.var += distance * (sum.q - sum.expect);
        }
    }
    if (count == 0) {
        return kNothing;
    }
    sum.var /= count;
    if (week_before.has_value() && IsMeasured(week_before->Q[slot])) {
        sum.dq = sum.expect - week_before->Q[slot].expect;
    }
    return sum;
}

}  // namespace

SlotValues NoValues()
{
    SlotValues values;
    values.fill(kUnmeasured);
    return values;
}

bool IsMeasured(const QPoint &quantity)
{
    return std::isfinite(quantity.q) && std::isfinite(quantity.expect) && std::isfinite(quantity.var) &&
           std::isfinite(quantity.dq);
}

MonitorSample NextSample(const std::optional<MonitorSample> &before, time_t t, const SlotValues &values)
{
    MonitorSample sample;
    sample.t = t;
    for (size_t slot = 0; slot < values.size(); ++slot) {
        const double value = values[slot];
        const bool known = before.has_value() && IsMeasured(before->Q[slot]);
        sample.Q[slot] = !std::isfinite(value) ? kNothing
                         : known               ? QAverage(before->Q[slot], value, kWeightOfNewSample)
                                               : QPoint{value, value, 0, 0};
    }
    return sample;
}

time_t WeekOf(time_t t) { return t - (t - kFirstMonday) % kWeekSeconds; }

MonitorSample SumUpWeek(const std::vector<MonitorSample> &samples, const std::optional<MonitorSample> &week_before)
{
    MonitorSample week;
    week.t = WeekOf(samples.back().t);
    for (size_t slot = 0; slot < VT_OBSERVABLES; ++slot) { week.Q[slot] = SumUp(samples, slot, week_before); }
    return week;
}

std::vector<MonitorSample> ReadSamples(time_t from, time_t to)
{
    std::vector<MonitorSample> samples = OpenRing(kSamples).All([from, to](time_t t) { return from <= t && t < to; });
    // Where no sample was taken since, one of an older week still stands.
    while (!samples.empty() && samples.front().t <= samples.back().t - kWeekSeconds) { samples.erase(samples.begin()); }
    return samples;
}

std::vector<MonitorSample> ReadWeeks(time_t now)
{
    const time_t after = now - kWeeks.places * kWeeks.seconds;
    return OpenRing(kWeeks).All([after, now](time_t t) { return after < t && t <= now; });
}

std::optional<MonitorSample> ReadSampleAt(time_t t)
{
    return HasPlace(t) ? OpenRing(kSamples).At(PlaceOf(kSamples, t)) : std::nullopt;
}

Trouble WriteSample(const MonitorSample &sample) { return WriteInto(kSamples, sample); }

Trouble WriteWeek(const MonitorSample &week) { return WriteInto(kWeeks, week); }

}  // namespace veltrane
