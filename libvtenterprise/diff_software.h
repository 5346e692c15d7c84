// The software and the patch report: the packages installed on this host, and the updates on offer.
//
// Package modules have gathered them; here they are only read. For each module of the default inventory there is a
// database with the whole inventory as text under one key, a line `name,version,architecture` a package. Without a
// default inventory two files of older hosts are read instead, whose lines have a fourth field that does not matter.
// Of packages that agree in name, version and architecture the last one counts.
#ifndef LIBVTENTERPRISE_DIFF_SOFTWARE_H
#define LIBVTENTERPRISE_DIFF_SOFTWARE_H

#include <stddef.h>

#include <veltrane/dbm_api.h>
#include <veltrane/eval_context.h>
#include <veltrane/map.h>
#include <veltrane/rlist.h>
#include <veltrane/seq.h>

#include "libvtenterprise/enterprise_install.h"
#include "libvtenterprise/export.h"

// The current state of either report: new Seq of HubSoftware; NULL when it cannot be had.
VT_EXPORT Seq *GetCurrentHubSoftwareList(const EvalContext *ctx) noexcept;
VT_EXPORT Seq *GetCurrentHubSoftwarePatchList(const EvalContext *ctx) noexcept;

// The inventories of all modules of the list (scalars), dbid_packages_installed or dbid_packages_updates: new Seq of
// HubSoftware, in the order in which they were first read.
//
// Errors  NULL, silently, when the database of one module cannot be opened: half an inventory would read as the removal
//         of the other half. An inventory that cannot be read is left out with an error, a bad line with a warning; one
//         without text is empty.
VT_EXPORT Seq *GetSoftwareListFromDB(dbid packages_db, Rlist *default_inventory) noexcept;

// A file of an older host: new Seq of HubSoftware; NULL, at verbose level, when it cannot be read. A bad line is
// skipped with a warning.
VT_EXPORT Seq *GetSoftwareList(const char *path) noexcept;

// New record (no host, time 0) from a line that must have so many fields, three at least; an empty field is absent.
// NULL, with a warning, for any other line.
VT_EXPORT HubSoftware *MakeSoftwareItemFromCSVLine(const char *line, size_t num_of_entries) noexcept;

// New Seq of the map's HubSoftware, without absent ones, in the order of the map. The map keeps owning them until it
// is released without its values.
VT_EXPORT Seq *MakePackagesSeqFromMap(Map *installed_packages) noexcept;

#endif
