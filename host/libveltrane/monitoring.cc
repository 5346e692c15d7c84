// Names of slots, and the public face of the recorded measurements.
//
// The file of names is foreign: a record of it that does not name a slot as ours are named is passed over. It is looked
// at once a call and read only when it is another one than before, so a daemon sees a new name without a restart.
#include <veltrane/monitoring.h>

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <ctime>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <veltrane/alloc.h>
#include <veltrane/csv.h>
#include <veltrane/file_lib.h>
#include <veltrane/known_dirs.h>
#include <veltrane/owned.h>
#include <veltrane/string_lib.h>

#include "libveltrane/file_bytes.h"
#include "libveltrane/monitor_rings.h"
#include "libveltrane/monitor_slots.h"

namespace veltrane {

namespace {

constexpr size_t kLongestName = 63;
constexpr off_t kLargestFile = off_t{1} << 20;
constexpr size_t kFields = 4;  // index, name, description, unit

struct Slot {
    std::string name{};
    std::string description{};
};
using SlotTable = std::array<std::optional<Slot>, VT_OBSERVABLES>;

struct SlotOfOurs {
    const char *name;
    const char *description;
    const char *unit;
};

constexpr SlotOfOurs kSlots[] = {
    {"users", "Users with running processes", "users"},
    {"processes_root", "Processes of root", "processes"},
    {"processes_other", "Processes of other users", "processes"},
    {"disk_free", "Free share of the root file system", "percent"},
    {"load_1m", "Load average of one minute", "processes"},
    {"cpu", "Processor time in use", "percent"},
    {"memory_total", "Memory", "MiB"},
    {"memory_free", "Memory that nothing uses", "MiB"},
    {"memory_cached", "Memory that caches use", "MiB"},
    {"swap_used", "Swap space in use", "MiB"},
    {"net_in", "Bytes received by network interfaces but loopback", "bytes per second"},
    {"net_out", "Bytes sent by network interfaces but loopback", "bytes per second"},
    {"sockets", "Sockets in use", "sockets"},
    {"io_reads", "Reads from disks", "reads per second"},
    {"io_writes", "Writes to disks", "writes per second"},
};
static_assert(std::size(kSlots) == kSlotsOfOurs);

SlotTable OurTable()
{
    SlotTable table;
    for (size_t i = 0; i < std::size(kSlots); ++i) { table[i] = Slot{kSlots[i].name, kSlots[i].description}; }
    return table;
}

bool IsName(const char *text)
{
    const size_t length = strlen(text);
    return length > 0 && length <= kLongestName && strcmp(CanonifyName(text), text) == 0;
}

void TakeRecord(const char *record, SlotTable *table)
{
    const SeqPtr fields(SeqParseCsvString(record));
    if (fields == nullptr || SeqLength(fields.get()) != kFields) {
        return;
    }
    const auto field = [&fields](size_t i) { return static_cast<const char *>(SeqAt(fields.get(), i)); };
    long index = -1;
    if (StringIsNumeric(field(0)) && StringToLong(field(0), &index) == 0 && index < VT_OBSERVABLES &&
        IsName(field(1))) {
        (*table)[static_cast<size_t>(index)] = Slot{field(1), field(2)};
    }
}

// What a look at the file must give again for its names to be known already.
using Stamp = std::tuple<dev_t, ino_t, off_t, time_t, long, time_t, long>;

Stamp StampOf(const struct stat &st)
{
    return {st.st_dev,          st.st_ino,         st.st_size,        st.st_mtim.tv_sec,
            st.st_mtim.tv_nsec, st.st_ctim.tv_sec, st.st_ctim.tv_nsec};
}

// The names in a file; our own when it is none that can be read.
SlotTable ReadTable(const std::string &path)
{
    Handle handle;
    Descriptor fd;
    if (OpenHandle(path, &handle).has_value() || handle.st.st_size > kLargestFile ||
        OpenRegular(handle, path, &fd).has_value()) {
        return OurTable();
    }
    const FilePtr file(fdopen(fd.Get(), "r"));
    if (file == nullptr) {
        return OurTable();
    }
    (void)fd.Release();  // the stream closes it
    SlotTable table;
    for (TextPtr record(GetCsvLineNext(file.get())); record != nullptr; record.reset(GetCsvLineNext(file.get()))) {
        TakeRecord(record.get(), &table);
    }
    return table;
}

// The table in force, for as long as the caller holds it.
std::shared_ptr<const SlotTable> Table()
{
    static std::mutex mutex;  // guards the three below
    static std::shared_ptr<const SlotTable> table;
    static std::string read_path;
    static std::optional<Stamp> read_stamp;

    const std::string path = std::string(GetStateDir()) + "/" + kMonitorSlotsName;
    struct stat st {};
    std::optional<Stamp> stamp;
    if (stat(path.c_str(), &st) == 0) {
        stamp = StampOf(st);
    }
    const std::lock_guard<std::mutex> lock(mutex);
    if (table == nullptr || read_path != path || read_stamp != stamp) {
        table = std::make_shared<const SlotTable>(stamp.has_value() ? ReadTable(path) : OurTable());
        read_path = path;
        read_stamp = stamp;
    }
    return table;
}

// A text of a slot, lent to this thread until it asks again.
const char *Lend(int index, std::string Slot::*text)
{
    thread_local std::string lent;
    const std::shared_ptr<const SlotTable> table = Table();
    const bool named = index >= 0 && index < VT_OBSERVABLES && (*table)[static_cast<size_t>(index)].has_value();
    lent = named ? *(*table)[static_cast<size_t>(index)].*text : "slot_" + std::to_string(index);
    return lent.c_str();
}

Seq *NewSeq(const std::vector<MonitorSample> &samples)
{
    if (samples.empty()) {
        return nullptr;
    }
    Seq *seq = SeqNew(samples.size(), free);
    for (const MonitorSample &sample : samples) { SeqAppend(seq, xmemdup(&sample, sizeof(sample))); }
    return seq;
}

}  // namespace

std::string MonitorSlotsText()
{
    const WriterPtr text(StringWriter());
    const CsvWriterPtr csv(CsvWriterOpen(text.get()));
    for (size_t i = 0; i < std::size(kSlots); ++i) {
        CsvWriterFieldF(csv.get(), "%zu", i);
        CsvWriterField(csv.get(), kSlots[i].name);
        CsvWriterField(csv.get(), kSlots[i].description);
        CsvWriterField(csv.get(), kSlots[i].unit);
        CsvWriterNewRecord(csv.get());
    }
    return {StringWriterData(text.get()), StringWriterLength(text.get())};
}

}  // namespace veltrane

bool VeskHasSlot(int index)
{
    return index >= 0 && index < VT_OBSERVABLES && (*veltrane::Table())[static_cast<size_t>(index)].has_value();
}

const char *VeskGetSlotName(int index) { return veltrane::Lend(index, &veltrane::Slot::name); }

const char *VeskGetSlotDescription(int index)
{
    thread_local std::string lent;  // beside the name, which the caller may still hold
    lent = veltrane::Lend(index, &veltrane::Slot::description);
    return lent.c_str();
}

Seq *MonitorGetSamples(time_t from, time_t to) { return veltrane::NewSeq(veltrane::ReadSamples(from, to)); }

Seq *MonitorGetWeeks(void) { return veltrane::NewSeq(veltrane::ReadWeeks(time(nullptr))); }
