// The host's directories.
#ifndef VELTRANE_KNOWN_DIRS_H
#define VELTRANE_KNOWN_DIRS_H

#include <veltrane/types.h>

VT_BEGIN_DECLS

// for option --workdir; again only while no database is open (tests)
void SetWorkDir(const char *path);

// what a program calls at start: workdir, state/{previous_state,diff,untracked,locks}, log, inputs, keys, lib,
// diagnostics, each 0700 when missing; false with errno
bool MakeWorkDirs(void);

// static: SetWorkDir, else environment VELTRANE_WORKDIR at the first call, else "/var/veltrane"
const char *GetWorkDir(void);

// static: <workdir>/state
const char *GetStateDir(void);

// static: <workdir>/log
const char *GetLogDir(void);

// static: <workdir>/inputs
const char *GetInputDir(void);

// No trailing slash; the four are safe in any thread. Whoever writes a file in a directory of its own makes that
// directory itself.

VT_END_DECLS

#endif
