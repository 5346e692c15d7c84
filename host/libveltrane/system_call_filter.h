// The list of system calls that a program in its sandbox may make.
#ifndef HOST_LIBVELTRANE_SYSTEM_CALL_FILTER_H
#define HOST_LIBVELTRANE_SYSTEM_CALL_FILTER_H

namespace veltrane {

// Whether this build has the filter at all.
bool HasSystemCallFilter();

// Let this process, all its threads, make only the listed calls from now on. 0, else an errno; 0 without effect in a
// build that has no filter.
[[nodiscard]] int FilterSystemCalls();

}  // namespace veltrane

#endif
