// Lists of packages.h: plain C lists, whose texts come from malloc.
#include "libveltrane/package_lists.h"

#include <algorithm>
#include <cstdlib>

#include <veltrane/alloc.h>

namespace veltrane {

namespace {

void DestroyItems(PackageItem *item)
{
    while (item != nullptr) {
        PackageItem *const next = item->next;
        free(item->name);
        free(item->version);
        free(item->arch);
        free(item);
        item = next;
    }
}

}  // namespace

PackageItem *NewPackageItems(const std::vector<Package> &packages)
{
    PackageItem *first = nullptr;
    std::for_each(packages.rbegin(), packages.rend(), [&first](const Package &package) {
        auto *item = static_cast<PackageItem *>(xcalloc(1, sizeof(PackageItem)));
        item->name = xstrdup(package.name.c_str());
        item->version = xstrdup(package.version.c_str());
        item->arch = xstrdup(package.architecture.c_str());
        item->next = first;
        first = item;
    });
    return first;
}

PackageManager *NewPackageManager(const std::string &command, PackageManager *next)
{
    auto *manager = static_cast<PackageManager *>(xcalloc(1, sizeof(PackageManager)));
    manager->manager = xstrdup(command.c_str());
    manager->next = next;
    return manager;
}

void DestroyPackageManagers(PackageManager *managers)
{
    while (managers != nullptr) {
        PackageManager *const next = managers->next;
        DestroyItems(managers->pack_list);
        DestroyItems(managers->patch_list);
        DestroyItems(managers->patch_avail);
        free(managers->manager);
        free(managers);
        managers = next;
    }
}

}  // namespace veltrane
