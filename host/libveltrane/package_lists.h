// Lists of packages.h: built from packages, and ended.
#ifndef HOST_LIBVELTRANE_PACKAGE_LISTS_H
#define HOST_LIBVELTRANE_PACKAGE_LISTS_H

#include <memory>
#include <string>
#include <vector>

#include <veltrane/owned.h>
#include <veltrane/packages.h>

#include "libveltrane/package_inventory.h"

namespace veltrane {

// A new list in the order of the packages; no promise asked for them. NULL for none.
PackageItem *NewPackageItems(const std::vector<Package> &packages);

// A new manager, in front of a list that it takes over; its own lists are empty.
PackageManager *NewPackageManager(const std::string &command, PackageManager *next);

// The managers of a list with all their packages; NULL is fine.
void DestroyPackageManagers(PackageManager *managers);

using PackageManagersPtr = std::unique_ptr<PackageManager, Destroyer<DestroyPackageManagers>>;

}  // namespace veltrane

#endif
