// Packages, and what their managers have installed or have on offer.
#ifndef VELTRANE_PACKAGES_H
#define VELTRANE_PACKAGES_H

#include <veltrane/types.h>

VT_BEGIN_DECLS

typedef enum {
    PACKAGE_ACTION_NONE = 0,
    PACKAGE_ACTION_ADD = 1,
    PACKAGE_ACTION_REMOVE = 2,
    PACKAGE_ACTION_UPDATE = 3,
    PACKAGE_ACTION_PATCH = 4,
    PACKAGE_ACTION_VERIFY = 5
} PackageAction;

typedef enum { PACKAGE_POLICY_INDIVIDUAL = 0, PACKAGE_POLICY_BULK = 1 } PackageActionPolicy;

// One package of a list; the texts belong to whoever owns the list.
struct PackageItem_ {
    char *name;
    char *version;
    char *arch;
    Promise *pp;  // lent; NULL for an item that no promise asked for
    PackageItem *next;
};

// One package manager of a list; an empty list is NULL.
struct PackageManager_ {
    char *manager;  // command line of the package manager
    PackageAction action;
    PackageActionPolicy policy;
    PackageItem *pack_list;    // packages to act on
    PackageItem *patch_list;   // patches installed
    PackageItem *patch_avail;  // patches on offer
    PackageManager *next;
};

// new; the command itself, without leading NAME=value words, "env", and without arguments
char *RealPackageManager(const char *manager);

// Each writes the path of a legacy inventory file into buffer and returns it: state/software_inventory.csv, and
// state/software_patches_avail.csv, the file that ReportPatches writes.
char *GetSoftwareCacheFilename(char *buffer, size_t size);
char *GetSoftwarePatchesFilename(char *buffer, size_t size);

VT_END_DECLS

#endif
