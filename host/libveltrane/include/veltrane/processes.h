// The table of processes.
//
// It has processes, no threads; a zombie and a kernel thread have an empty command line and never match. The table is
// one for the process and belongs to one thread at a time.
#ifndef VELTRANE_PROCESSES_H
#define VELTRANE_PROCESSES_H

#include <veltrane/item_lib.h>
#include <veltrane/types.h>

VT_BEGIN_DECLS

// Which processes; zeroed = all. Regular expressions match a whole column. Callers make these themselves: no hidden
// fields.
struct ProcessSelect_ {
    const char *command;         // the command line, arguments separated by single blanks
    const char *process_result;  // class expression over the column names: "command", "owner", "pid"; NULL = all that
                                 // are set
    const char *owner;           // user name
    const char *pid;
};

// Reads the table once; a later call while it is loaded does nothing. False, and an error line, on failure.
bool LoadProcessTable(void);

// Drops it, so that the next load looks again.
void ClearProcessTable(void);

// new list (DeleteItemList), one item a process, its text the process's line of the table. process_name is found
// anywhere in the command line (unanchored); selection counts only when attrselect. The caller's own process is
// included.
Item *SelectProcesses(const char *process_name, const ProcessSelect *selection, bool attrselect);

// For tests: read another tree in the shape of /proc from the next load on; NULL = /proc.
void ProcessTableSetSource(const char *directory);

VT_END_DECLS

#endif
