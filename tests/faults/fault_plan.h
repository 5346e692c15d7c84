// What a test and the fault injection library tell each other, through a file that both map.
//
// The program under test runs with
//
//   LD_PRELOAD         libfault_injection.so
//   VT_FAULT_PLAN      the file, of exactly sizeof(FaultPlan) bytes; without it nothing is counted and nothing fails
//   VT_FAULT_BELOW     the directory whose files count; calls on other files pass uncounted
//
// Calls are counted from main() on while `armed` says so, so a daemon can be taken through many faults in one life.
// Memory that the dynamic loader asks for while a library is opened is not counted, and neither is any process that the
// program starts: the plan belongs to the first process that comes to its main().
#ifndef TESTS_FAULTS_FAULT_PLAN_H
#define TESTS_FAULTS_FAULT_PLAN_H

#include <atomic>
#include <cstdint>

// What can fail, and with which error.
enum FaultCall : uint32_t {
    fault_open = 0,    // open, openat, openat2, fopen, and duplicating a descriptor: EMFILE
    fault_write = 1,   // write, pwrite, writev, and what a stream writes underneath: ENOSPC
    fault_sync = 2,    // fsync, fdatasync: EIO
    fault_rename = 3,  // rename, renameat: EIO
    fault_close = 4,   // close, fclose: EIO, and the descriptor is gone all the same
    fault_memory = 5,  // malloc, calloc, realloc: ENOMEM
    fault_calls = 6,
};

enum FaultMode : uint32_t {
    fault_once = 0,  // the call `at` alone
    fault_on = 1,    // this one and all after it
    fault_torn = 2,  // for writes: this one takes half of its bytes, all after it fail
};

enum FaultArmed : uint32_t {
    fault_off = 0,
    fault_counting = 1,
    fault_waiting = 2,  // for a path that ends in `begin` to be opened, with which counting begins
};

struct FaultPlan {
    std::atomic<uint32_t> armed;  // FaultArmed
    std::atomic<int32_t> owner;   // process id; 0 = nobody has come to its main() yet
    std::atomic<uint32_t> call;   // FaultCall
    std::atomic<uint32_t> mode;   // FaultMode
    std::atomic<uint64_t> at;     // 1 = the first call; 0 = nothing fails, calls are only counted
    char begin[64];

    // Written by the library.
    std::atomic<uint64_t> made[fault_calls];
    std::atomic<uint64_t> failed;
    std::atomic<int64_t> open;  // descriptors open just now on files that count and on accepted connections
    char path[512];             // the file of the first call that failed; "" for memory
};

static_assert(std::atomic<uint64_t>::is_always_lock_free && std::atomic<uint32_t>::is_always_lock_free);

#endif
