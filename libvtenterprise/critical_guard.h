// Holds one of the host's named critical sections for the length of a block.
#ifndef LIBVTENTERPRISE_CRITICAL_GUARD_H
#define LIBVTENTERPRISE_CRITICAL_GUARD_H

#include <veltrane/critical_section.h>

// Inside the section from construction to destruction. Sections do not nest: a thread holds one at a time.
class CriticalGuard {
  public:
    // name  a literal: it is kept, not copied.
    explicit CriticalGuard(const char *name) : name_(name)
    {
        // When only the lock file cannot be made the host has logged it, and the threads of this process are still shut
        // out: going on risks less than losing the report.
        (void)WaitForCriticalSection(name_);
    }
    ~CriticalGuard() { ReleaseCriticalSection(name_); }
    CriticalGuard(const CriticalGuard &) = delete;
    CriticalGuard &operator=(const CriticalGuard &) = delete;

  private:
    const char *name_;
};

#endif
