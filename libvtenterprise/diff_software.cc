// From the package modules' inventories to the records of the software and the patch report.
#include "libvtenterprise/diff_software.h"

#include <string>

#include <veltrane/alloc.h>
#include <veltrane/csv.h>
#include <veltrane/file_lib.h>
#include <veltrane/logging.h>
#include <veltrane/owned.h>
#include <veltrane/packages.h>

#include "libvtenterprise/map_values.h"
#include "libvtenterprise/record.h"

using veltrane::DBHandlePtr;
using veltrane::FilePtr;
using veltrane::MapPtr;
using veltrane::SeqPtr;
using veltrane::TextPtr;

namespace {

constexpr char kInventoryKey[] = "<inventory>";  // looked up with its zero
constexpr size_t kModuleFields = 3;
constexpr size_t kLegacyFields = 4;
constexpr size_t kFirstLineRoom = 4096;

MapPtr NewPackages() { return MapPtr(MapNew(StringHashUntyped, StringEqualUntyped, free, HubSoftwareDelete)); }

// Add the package of a line, in place of an equal one; a bad line has been told of.
void AddLine(Map *packages, const char *line, size_t field_count)
{
    HubSoftware *software = MakeSoftwareItemFromCSVLine(line, field_count);
    if (software != nullptr) {
        (void)MapInsert(packages, HubSoftwareGetUniqKey(software), software);  // new or not: it counts
    }
}

void AddInventory(Map *packages, DBHandle *db, const char *module)
{
    const int size = ValueSizeDB(db, kInventoryKey, sizeof(kInventoryKey));
    if (size < 2) {
        return;
    }
    std::string text(static_cast<size_t>(size), '\0');
    if (!ReadDB(db, kInventoryKey, text.data(), size)) {
        Log(LOG_LEVEL_ERR, "Can not read installed packages database for '%s' package module.", module);
        return;
    }
    const SeqPtr lines(SeqStringFromString(text.c_str(), '\n'));
    if (lines == nullptr) {
        Log(LOG_LEVEL_ERR, "Can not parse packages database for '%s' package module.", module);
        return;
    }
    for (size_t i = 0; i < SeqLength(lines.get()); i++) {
        AddLine(packages, static_cast<const char *>(SeqAt(lines.get(), i)), kModuleFields);
    }
}

// False when the file cannot be read to its end.
bool AddFile(Map *packages, FILE *file)
{
    size_t room = kFirstLineRoom;
    char *line = static_cast<char *>(xmalloc(room));
    while (VtReadLine(&line, &room, file) != -1) { AddLine(packages, line, kLegacyFields); }
    free(line);
    return ferror(file) == 0;
}

Seq *CurrentList(const EvalContext *ctx, dbid packages_db, char *(*legacy_file)(char *buffer, size_t size))
{
    Rlist *inventory = GetDefaultInventoryFromContext(ctx);
    if (inventory != nullptr) {
        return GetSoftwareListFromDB(packages_db, inventory);
    }
    char path[4096];
    return GetSoftwareList(legacy_file(path, sizeof(path)));
}

}  // namespace

Seq *GetCurrentHubSoftwareList(const EvalContext *ctx) noexcept
{
    return CurrentList(ctx, dbid_packages_installed, GetSoftwareCacheFilename);
}

Seq *GetCurrentHubSoftwarePatchList(const EvalContext *ctx) noexcept
{
    return CurrentList(ctx, dbid_packages_updates, GetSoftwarePatchesFilename);
}

Seq *GetSoftwareListFromDB(dbid packages_db, Rlist *default_inventory) noexcept
{
    MapPtr packages = NewPackages();
    for (const Rlist *node = default_inventory; node != nullptr; node = node->next) {
        const char *module = RlistScalarValue(node);
        DBHandle *opened = nullptr;
        if (!OpenSubDB(&opened, packages_db, module)) {
            return nullptr;
        }
        const DBHandlePtr db(opened);
        AddInventory(packages.get(), db.get(), module);
    }
    return TakeValues(std::move(packages), HubSoftwareDelete);
}

Seq *GetSoftwareList(const char *path) noexcept
{
    MapPtr packages = NewPackages();
    const FilePtr file(safe_fopen(path, "r"));
    if (file == nullptr || !AddFile(packages.get(), file.get())) {
        Log(LOG_LEVEL_VERBOSE, "Could not read cached state: '%s'", path);
        return nullptr;
    }
    return TakeValues(std::move(packages), HubSoftwareDelete);
}

HubSoftware *MakeSoftwareItemFromCSVLine(const char *line, size_t num_of_entries) noexcept
{
    const SeqPtr fields(SeqParseCsvString(line));
    if (fields == nullptr) {
        Log(LOG_LEVEL_WARNING, "Failed to parse cached packages entry '%s'", line);
        return nullptr;
    }
    if (SeqLength(fields.get()) != num_of_entries) {
        Log(LOG_LEVEL_WARNING, "Invalid number of elements in cached packages entry '%s'", line);
        return nullptr;
    }
    const TextPtr name(TextAt(fields.get(), 0));
    const TextPtr version(TextAt(fields.get(), 1));
    const TextPtr arch(TextAt(fields.get(), 2));
    return HubSoftwareNew(nullptr, name.get(), version.get(), arch.get(), 0);
}

Seq *MakePackagesSeqFromMap(Map *installed_packages) noexcept
{
    return ValuesOf(installed_packages, HubSoftwareDelete);
}
