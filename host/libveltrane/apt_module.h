// The package module "apt": Debian's packages, through its own programs.
//
// The programs run as children without a shell, in the C locale, and each has its time. What they print is foreign: a
// listing is taken whole, or refused with the first thing in it that is wrong. Nothing here is logged.
#ifndef HOST_LIBVELTRANE_APT_MODULE_H
#define HOST_LIBVELTRANE_APT_MODULE_H

#include <string>
#include <vector>

#include "libveltrane/child_process.h"
#include "libveltrane/package_inventory.h"

namespace veltrane {

// The defaults are the machine's own; a test brings others.
struct AptSettings {
    std::string dpkg_query = "dpkg-query";  // a program without '/' is looked up in PATH
    std::string apt_get = "apt-get";
    std::string package_lists = "/var/lib/apt/lists";  // what the archives offer, as last fetched
    std::string package_status = "/var/lib/dpkg/status";
    int list_seconds = 120;     // what listing may take
    int change_seconds = 1800;  // what installing or removing may take
};

struct PackageListing {
    std::vector<Package> packages;
    std::string trouble{};  // why there is no listing; "" when there is one

    bool Good() const { return trouble.empty(); }
};

class AptModule {
  public:
    explicit AptModule(AptSettings settings = {}) : settings_(std::move(settings)) {}

    // Packages that are installed and configured, as the package database has them.
    PackageListing Installed() const;

    // The packages of PackageManager::patch_avail: newer versions of what is installed, from the package lists that are
    // there. The network is not asked.
    PackageListing Updates() const;

    // Whether the machine has package lists at all.
    bool HasPackageLists() const;

    // What Updates() depends on, in a short text: while it stays the same, so do they.
    std::string UpdatesState() const;

    // Install or update a package; an empty version or architecture leaves the choice to the manager. What is installed
    // is replaced by an older version only by hand. The result is "", or why it failed: the manager's last line.
    std::string Install(const Package &wanted) const;

    // Remove an installed package; its configuration stays. The same result.
    std::string Remove(const Package &installed) const;

    // The manager's program, for PackageManager::manager.
    std::string ManagerProgram() const;

    // Whether a text can be asked for as a package, and is no word with which apt-get means something else.
    static bool IsPackageName(const std::string &text);
    static bool IsVersion(const std::string &text);
    static bool IsArchitecture(const std::string &text);

  private:
    CommandResult Run(const std::string &program, std::vector<std::string> arguments, int seconds,
                      std::string *ret_trouble) const;
    std::string Change(std::vector<std::string> arguments) const;

    AptSettings settings_;
};

}  // namespace veltrane

#endif
