// What the run of one policy knows about packages: it judges and keeps promises about them, and brings the inventories
// that the policy asks for up to date at its end.
//
// A promise is never repaired on an old view: what is installed is listed when the first promise asks, again before
// anything is changed and after it. An inventory that cannot be made stays as it was, and that is said.
#ifndef HOST_LIBVELTRANE_PACKAGE_KEEPER_H
#define HOST_LIBVELTRANE_PACKAGE_KEEPER_H

#include <optional>
#include <string>
#include <vector>

#include <veltrane/eval_context.h>
#include <veltrane/outcome.h>

#include "libveltrane/apt_module.h"
#include "libveltrane/package_lists.h"

namespace veltrane {

// What a promise says about a package; an empty version or architecture means any.
struct PackageWish {
    std::string name;
    std::string version;
    std::string architecture;
    bool present = true;
    std::string module;
};

struct PackageVerdict {
    PromiseResult result;  // kept, repaired or failed
    std::string message;
};

class PackageKeeper {
  public:
    explicit PackageKeeper(AptSettings apt = {}) : apt_(std::move(apt)) {}

    // Keep one promise; it is repaired with the module's manager when it must be.
    PackageVerdict Keep(const PackageWish &wish);

    // Bring the inventories that the policy names up to date, and list what ReportPatches is to report: the updates on
    // offer, and what this run updated. To be called when the promises are judged, before ReportPatches and
    // GenerateReports.
    PackageManagersPtr Report(const EvalContext *ctx);

  private:
    std::string List();
    std::string Repair(const PackageWish &wish, const std::vector<Package> &found);
    void ReportInstalled();
    std::vector<Package> ReportUpdates();

    AptModule apt_;
    std::optional<PackageListing> installed_;
    std::vector<Package> updated_;  // by this run
    bool changed_ = false;          // this run used the manager
};

}  // namespace veltrane

#endif
