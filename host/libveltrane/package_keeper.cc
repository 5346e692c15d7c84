// Promises about packages, and the inventories of a policy's run.
#include "libveltrane/package_keeper.h"

#include <algorithm>
#include <set>

#include <veltrane/errors.h>
#include <veltrane/logging.h>
#include <veltrane/rlist.h>

namespace veltrane {

namespace {

constexpr char kApt[] = "apt";

bool Means(const PackageWish &wish, const Package &package, bool any_version)
{
    return package.name == wish.name && (any_version || wish.version.empty() || package.version == wish.version) &&
           (wish.architecture.empty() || package.architecture == wish.architecture || package.architecture == "all");
}

std::vector<Package> Find(const PackageWish &wish, const std::vector<Package> &packages, bool any_version = false)
{
    std::vector<Package> found;
    std::copy_if(packages.begin(), packages.end(), std::back_inserter(found),
                 [&](const Package &package) { return Means(wish, package, any_version); });
    return found;
}

bool Holds(const PackageWish &wish, const std::vector<Package> &packages)
{
    return Find(wish, packages).empty() != wish.present;
}

// As it stands in a message: "name", "name 1.2", "name (amd64)".
std::string Words(const PackageWish &wish)
{
    return "'" + wish.name + "'" + (wish.version.empty() ? "" : " " + wish.version) +
           (wish.architecture.empty() ? "" : " (" + wish.architecture + ")");
}

// Why a wish cannot be asked for; "" when it can.
std::string WhyMalformed(const PackageWish &wish)
{
    if (wish.module != kApt) {
        return "there is no package module '" + wish.module + "'";
    }
    if (!AptModule::IsPackageName(wish.name)) {
        return "this is no name of a package";
    }
    if (!wish.version.empty() && !AptModule::IsVersion(wish.version)) {
        return "'" + wish.version + "' is no version of a package";
    }
    if (!wish.architecture.empty() && !AptModule::IsArchitecture(wish.architecture)) {
        return "'" + wish.architecture + "' is no architecture";
    }
    return "";
}

PackageVerdict NotKept(const PackageWish &wish, const std::string &why)
{
    return {PROMISE_RESULT_FAIL,
            "Package " + Words(wish) + " is not " + (wish.present ? "installed: " : "removed: ") + why};
}

// The packages that both listings have, with another version in the second.
std::vector<Package> Updated(const std::vector<Package> &before, const std::vector<Package> &after)
{
    std::set<std::pair<std::string, std::string>> names;
    std::set<std::pair<std::string, std::string>> unchanged;
    for (const Package &package : before) {
        names.emplace(package.name, package.architecture);
        unchanged.emplace(package.name + "=" + package.version, package.architecture);
    }
    std::vector<Package> updated;
    std::copy_if(after.begin(), after.end(), std::back_inserter(updated), [&](const Package &package) {
        return names.count({package.name, package.architecture}) != 0 &&
               unchanged.count({package.name + "=" + package.version, package.architecture}) == 0;
    });
    return updated;
}

bool Store(dbid db, const std::vector<Package> &packages)
{
    if (!StoreInventory(db, kApt, packages)) {
        const TextPtr path(DBIdToSubPath(db, kApt));
        Log(LOG_LEVEL_ERR, "Could not store the inventory of package module '%s' in '%s'. (write: %s)", kApt,
            path.get(), GetErrorStr());
        return false;
    }
    return true;
}

}  // namespace

// List what is installed; the result is why that failed, or "".
std::string PackageKeeper::List()
{
    installed_ = apt_.Installed();
    return installed_->trouble;
}

// Have the manager do it, and look at what became of it; the result is why it failed, or "".
std::string PackageKeeper::Repair(const PackageWish &wish, const std::vector<Package> &found)
{
    const std::vector<Package> before = installed_->packages;
    changed_ = true;
    std::string trouble;
    if (wish.present) {
        trouble = apt_.Install({wish.name, wish.version, wish.architecture});
    } else {
        for (size_t i = 0; i < found.size() && trouble.empty(); ++i) { trouble = apt_.Remove(found[i]); }
    }
    const std::string unknown = List();  // also after a failure: it may have done half of it
    if (!unknown.empty()) {
        return trouble.empty() ? unknown : trouble;
    }
    const std::vector<Package> updated = Updated(before, installed_->packages);
    updated_.insert(updated_.end(), updated.begin(), updated.end());
    if (trouble.empty() && !Holds(wish, installed_->packages)) {
        return std::string("the package manager ended well, and it is still ") +
               (wish.present ? "not there" : "installed");
    }
    return trouble;
}

PackageVerdict PackageKeeper::Keep(const PackageWish &wish)
{
    const std::string malformed = WhyMalformed(wish);
    if (!malformed.empty()) {
        return NotKept(wish, malformed);
    }
    const bool listed_before = installed_.has_value() && installed_->Good();
    std::string unknown = listed_before ? "" : List();
    if (unknown.empty() && listed_before && !Holds(wish, installed_->packages)) {
        unknown = List();
    }
    if (!unknown.empty()) {
        return {PROMISE_RESULT_FAIL, "Package " + Words(wish) + ": what is installed cannot be listed: " + unknown};
    }
    if (Holds(wish, installed_->packages)) {
        return {PROMISE_RESULT_NOOP, "Package " + Words(wish) + (wish.present ? " is installed" : " is not installed")};
    }
    const bool update = wish.present && !Find(wish, installed_->packages, true).empty();
    const std::string trouble = Repair(wish, Find(wish, installed_->packages));
    if (!trouble.empty()) {
        return NotKept(wish, trouble);
    }
    return {PROMISE_RESULT_CHANGE,
            "Package " + Words(wish) + (wish.present ? (update ? " was updated" : " was installed") : " was removed")};
}

void PackageKeeper::ReportInstalled()
{
    // Whatever ran since the last listing may have changed it.
    const std::string trouble = List();
    if (!trouble.empty()) {
        Log(LOG_LEVEL_ERR, "Package module '%s' could not list what is installed: %s; its inventory stays as it was",
            kApt, trouble.c_str());
        return;
    }
    Log(LOG_LEVEL_VERBOSE, "Package module '%s' lists %zu installed packages", kApt, installed_->packages.size());
    (void)Store(dbid_packages_installed, installed_->packages);  // it has said what went wrong
}

// The updates on offer; those known before when they cannot be listed.
std::vector<Package> PackageKeeper::ReportUpdates()
{
    const std::optional<std::vector<Package>> known = ReadInventory(dbid_packages_updates, kApt);
    const std::string state = apt_.UpdatesState();
    PackageListing updates;
    if (known.has_value() && ReadInventoryNote(dbid_packages_updates, kApt) == state) {
        updates.packages = *known;  // working them out takes seconds, and nothing that they depend on has changed
    } else {
        updates = apt_.Updates();
        if (!updates.Good()) {
            Log(LOG_LEVEL_ERR, "Package module '%s' could not list the updates: %s; its inventory stays as it was",
                kApt, updates.trouble.c_str());
            return known.value_or(std::vector<Package>());
        }
        if (Store(dbid_packages_updates, updates.packages)) {
            (void)StoreInventoryNote(dbid_packages_updates, kApt, state);  // without it the next run lists them again
        }
    }
    if (updates.packages.empty() && !apt_.HasPackageLists()) {
        Log(LOG_LEVEL_VERBOSE, "Package module '%s' has no package lists, so no updates are known", kApt);
    } else {
        Log(LOG_LEVEL_VERBOSE, "Package module '%s' lists %zu updates", kApt, updates.packages.size());
    }
    return updates.packages;
}

PackageManagersPtr PackageKeeper::Report(const EvalContext *ctx)
{
    std::vector<Package> updates;
    std::set<std::string> modules;
    for (const Rlist *node = GetDefaultInventoryFromContext(ctx); node != nullptr; node = node->next) {
        const char *const module = RlistScalarValue(node);
        if (!modules.insert(module).second) {
            continue;
        }
        if (std::string(module) != kApt) {
            Log(LOG_LEVEL_ERR, "There is no package module '%s': it has no inventory", module);
            continue;
        }
        ReportInstalled();
        updates = ReportUpdates();
    }
    PackageManagersPtr managers;
    if (modules.count(kApt) != 0 || changed_) {
        managers.reset(NewPackageManager(apt_.ManagerProgram(), nullptr));
        managers->patch_list = NewPackageItems(updated_);
        managers->patch_avail = NewPackageItems(updates);
    }
    return managers;
}

}  // namespace veltrane
