#include "libveltrane/monitor_record.h"

#include <sys/stat.h>

#include <algorithm>
#include <cmath>

#include <veltrane/file_lib.h>
#include <veltrane/known_dirs.h>
#include <veltrane/owned.h>

#include "libveltrane/file_bytes.h"
#include "libveltrane/monitor_histograms.h"
#include "libveltrane/monitor_slots.h"
#include "libveltrane/replace_file.h"

namespace veltrane {

namespace {

constexpr mode_t kPrivateFile = 0600;
constexpr size_t kLargestFile = size_t{16} << 20;

std::string PathOf(const char *name) { return std::string(GetStateDir()) + "/" + name; }

// What a file holds; nothing when it is not there, or is none.
std::optional<std::string> BytesOf(const std::string &path)
{
    Handle handle;
    Descriptor fd;
    std::string bytes;
    bool cut = false;
    if (OpenHandle(path, &handle).has_value() || OpenRegular(handle, path, &fd).has_value() ||
        ReadUpTo(fd.Get(), path, kLargestFile, &bytes, &cut).has_value()) {
        return std::nullopt;
    }
    return bytes;
}

// One round on its way.
class Round {
  public:
    Round(const MachineReading &reading, time_t t) : reading_(reading), t_(t) {}

    RoundResult Run()
    {
        KeepNames();
        const std::optional<MonitorSample> before = ReadSampleAt(t_);
        const MonitorSample sample = NextSample(before, t_, TakeValues());
        result_.measured = static_cast<size_t>(std::count_if(std::begin(sample.Q), std::end(sample.Q), IsMeasured));
        const Trouble trouble = WriteSample(sample);
        Note(trouble);
        if (!trouble.has_value()) {
            KeepWeek();
            KeepHistograms(sample, before);
        }
        return std::move(result_);
    }

  private:
    void Note(const Trouble &trouble)
    {
        if (trouble.has_value()) {
            result_.troubles.push_back(*trouble);
        }
    }

    void KeepNames()
    {
        const std::string path = PathOf(kMonitorSlotsName);
        if (BytesOf(path) != MonitorSlotsText()) {
            Note(ReplaceFile(path, MonitorSlotsText(), kPrivateFile));
        }
    }

    SlotValues TakeValues()
    {
        const std::string path = PathOf(kCountersName);
        const std::optional<std::string> text = BytesOf(path);
        const std::optional<MachineCounters> before = text.has_value() ? ParseCounters(*text) : std::nullopt;
        Note(ReplaceFile(path, CountersText(reading_.counters), kPrivateFile));
        return ValuesOf(reading_, before);
    }

    void KeepWeek()
    {
        const time_t week = WeekOf(t_);
        const std::vector<MonitorSample> samples = ReadSamples(week, t_ + 1);
        const std::vector<MonitorSample> weeks = ReadWeeks(week - 1);
        const bool follows = !weeks.empty() && weeks.back().t == week - kWeekSeconds;
        if (!samples.empty()) {
            Note(WriteWeek(SumUpWeek(samples, follows ? std::optional(weeks.back()) : std::nullopt)));
        }
    }

    void KeepHistograms(const MonitorSample &sample, const std::optional<MonitorSample> &before)
    {
        const std::string path = PathOf(kHistogramsName);
        const std::optional<std::string> text = BytesOf(path);
        std::optional<Histograms> histograms = text.has_value() ? Histograms::Parse(*text) : Histograms();
        result_.histograms_damaged = !histograms.has_value();
        if (!histograms.has_value()) {
            histograms.emplace();
        }
        histograms->Count(sample, before);
        Note(ReplaceFile(path, histograms->Text(), kPrivateFile));
    }

    const MachineReading &reading_;
    const time_t t_;
    RoundResult result_{};
};

}  // namespace

RoundResult RecordReading(const MachineReading &reading, time_t t) { return Round(reading, t).Run(); }

}  // namespace veltrane
