// The inventories of package modules: what is installed, what is on offer, as reports read it.
//
// An inventory is one value in a database of the module's own, so a reader sees the old one or the new one, never half.
// docs/formats/package-inventory.md shows its bytes.
#ifndef HOST_LIBVELTRANE_PACKAGE_INVENTORY_H
#define HOST_LIBVELTRANE_PACKAGE_INVENTORY_H

#include <optional>
#include <string>
#include <vector>

#include <veltrane/dbm_api.h>

namespace veltrane {

// A package as a manager names it. No text holds a control character.
struct Package {
    std::string name;
    std::string version;
    std::string architecture;

    bool operator==(const Package &) const = default;
};

// Whether a text can be part of a package: not empty, at most 1024 bytes, and no control character, which would cut its
// line of the inventory.
bool IsPackageText(const std::string &text);

// The lines of an inventory: three CSV fields a package, each line ended by LF.
std::string InventoryText(const std::vector<Package> &packages);

// The inventory that a module left; nothing when there is none, or when it cannot be read or is none.
std::optional<std::vector<Package>> ReadInventory(dbid db, const std::string &module);

// Put an inventory in place of the one before; one that is the same is left alone. False with errno.
[[nodiscard]] bool StoreInventory(dbid db, const std::string &module, const std::vector<Package> &packages);

// What a module notes about its inventory, to know later whether it still holds; "" without a note. Writing one: false
// with errno.
std::string ReadInventoryNote(dbid db, const std::string &module);
[[nodiscard]] bool StoreInventoryNote(dbid db, const std::string &module, const std::string &note);

}  // namespace veltrane

#endif
