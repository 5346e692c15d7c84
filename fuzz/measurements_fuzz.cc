// Any bytes in the files that vt-monitord reads again, and in what it reads of the kernel: what parses is written and
// read as the same, and the rings give only samples that lie where they belong.
#include <string>

#include <veltrane/monitoring.h>
#include <veltrane/owned.h>

#include "fuzz/fuzz_support.h"
#include "libveltrane/machine_measurements.h"
#include "libveltrane/monitor_histograms.h"
#include "libveltrane/monitor_record.h"
#include "libveltrane/monitor_slots.h"

namespace {

constexpr time_t kNow = 1'700'000'000;

void ReadTexts(const std::string &text)
{
    const std::optional<veltrane::Histograms> histograms = veltrane::Histograms::Parse(text);
    if (histograms.has_value()) {
        const std::string written = histograms->Text();
        const std::optional<veltrane::Histograms> again = veltrane::Histograms::Parse(written);
        Require(again.has_value() && again->Text() == written);
    }
    const std::optional<veltrane::MachineCounters> counters = veltrane::ParseCounters(text);
    if (counters.has_value()) {
        const std::string written = veltrane::CountersText(*counters);
        const std::optional<veltrane::MachineCounters> again = veltrane::ParseCounters(written);
        Require(again.has_value() && veltrane::CountersText(*again) == written);
    }
    veltrane::MachineCounters network;
    veltrane::TakeNetworkCounters(text, &network);
    (void)veltrane::SocketsIn(text);
}

// A round over these bytes in every file leaves files that the next one reads.
void MeasureOver(const uint8_t *data, size_t size)
{
    for (const char *name : {veltrane::kMonitorSlotsName, veltrane::kSamplesName, veltrane::kWeeksName,
                             veltrane::kHistogramsName, veltrane::kCountersName}) {
        InputAsStateFile(name, data, size);
    }
    for (int slot = -1; slot <= VT_OBSERVABLES; ++slot) { Require(std::string(VeskGetSlotName(slot)).size() < 64); }
    const veltrane::SeqPtr samples(MonitorGetSamples(0, kNow));
    for (size_t i = 0; samples != nullptr && i < SeqLength(samples.get()); ++i) {
        Require(static_cast<const MonitorSample *>(SeqAt(samples.get(), i))->t < kNow);
    }
    veltrane::MachineReading reading;
    reading.levels[veltrane::kSlotLoad] = 1;
    Require(veltrane::RecordReading(reading, kNow).troubles.empty());
    Require(!veltrane::RecordReading(reading, kNow + 300).histograms_damaged);
    const std::optional<MonitorSample> sample = veltrane::ReadSampleAt(kNow);
    Require(sample.has_value() && sample->t == kNow);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzWorkDirectory();
    ReadTexts(std::string(reinterpret_cast<const char *>(data), size));
    MeasureOver(data, size);
    return 0;
}
