// Any bytes as a package module's inventory and as the file of an older host: each package is there once, and is the
// same when it is cached.
//
// The inventory stands before the host's database, which brings every write to the disk.
#include <algorithm>
#include <cstring>
#include <set>
#include <string>

#include <veltrane/dbm_api.h>
#include <veltrane/owned.h>

#include "fuzz/fuzz_support.h"
#include "fuzz/record_rows.h"
#include "libvtenterprise/diff_software.h"

namespace {

std::string inventory;

void RequireGoodState(const Seq *state)
{
    Require(state != nullptr);
    const std::vector<std::string> rows = RowsOf(report_type_software, state);
    (void)RowsOf(report_type_software_patch, state);
    std::set<std::string> keys;
    for (size_t i = 0; i < SeqLength(state); i++) {
        const veltrane::TextPtr key(HubSoftwareGetUniqKey(static_cast<const HubSoftware *>(SeqAt(state, i))));
        Require(keys.insert(key.get()).second);
    }
}

Rlist *ModuleList()
{
    static const veltrane::RlistPtr modules([] {
        DBHandle *db = nullptr;
        Require(CreateSubDB(&db, dbid_packages_installed, "fuzz"));
        CloseDB(db);
        Rlist *list = nullptr;
        RlistAppendScalar(&list, "fuzz");
        return list;
    }());
    return modules.get();
}

}  // namespace

extern "C" int ValueSizeDB(DBHandle *, const char *, int) { return static_cast<int>(inventory.size()); }

extern "C" bool ReadDB(DBHandle *, const char *, void *buffer, int size)
{
    memcpy(buffer, inventory.data(), std::min(inventory.size(), static_cast<size_t>(size)));
    return true;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string &path = InputAsFile(data, size);
    const veltrane::SeqPtr of_file(GetSoftwareList(path.c_str()));
    RequireGoodState(of_file.get());

    inventory.assign(reinterpret_cast<const char *>(data), size);
    const veltrane::SeqPtr of_module(GetSoftwareListFromDB(dbid_packages_installed, ModuleList()));
    RequireGoodState(of_module.get());
    return 0;
}
