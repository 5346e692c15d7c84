// One LMDB environment a database file, shared by all handles of the process.
//
// LMDB forbids to open a file twice in one process, to grow its map while a transaction is open, and to use anything
// across fork. All three are kept here: environments are counted in one table, a transaction lives no longer than one
// call of Read or Write, and a child starts with an empty table. The functions log nothing and set errno.
#ifndef LIBVELTRANE_DBM_ENVIRONMENT_H
#define LIBVELTRANE_DBM_ENVIRONMENT_H

#include <lmdb.h>

#include <atomic>
#include <functional>
#include <shared_mutex>
#include <string>

namespace veltrane {

class DbmEnvironment {
  public:
    // What is done within one transaction; returns an LMDB result. It may be run again from the start.
    using Operation = std::function<int(MDB_txn *, MDB_dbi)>;

    // The environment of a file, counted once more. make: an absent file is made, 0600; else ENOENT. lazy: commits are
    // flushed at Release. NULL with errno; EUCLEAN for a file that is no database, or that was cut off.
    static DbmEnvironment *Acquire(const std::string &path, bool make, bool lazy);
    void AddUser();
    static void Release(DbmEnvironment *environment);  // keeps errno

    // Both: 0, or an errno. Write commits when operation returns MDB_SUCCESS and leaves everything as it was else.
    int Read(const Operation &operation);
    int Write(const Operation &operation);

    // How large the map of an environment opened from now on is at first; for tests of growth.
    static void SetInitialMapSize(size_t bytes);

    ~DbmEnvironment();
    DbmEnvironment(const DbmEnvironment &) = delete;
    DbmEnvironment &operator=(const DbmEnvironment &) = delete;

  private:
    struct Table;
    friend struct Table;

    DbmEnvironment(const std::string &path, bool lazy) : path_(path), lazy_(lazy) {}
    int Open();
    int Transact(unsigned int flags, const Operation &operation, size_t *ret_map_size);
    int Run(unsigned int flags, const Operation &operation);
    int Resize(size_t full_size);
    int CoverUsedPages();
    bool LacksUsedPages(off_t *ret_needed) const;

    const std::string path_;
    const bool lazy_;
    int users_ = 1;           // guarded by the table's mutex
    bool inherited_ = false;  // of the process that this one was forked from: not to be touched
    MDB_env *env_ = nullptr;
    MDB_dbi database_ = 0;
    std::shared_mutex map_;  // shared by transactions; held alone while the map moves
    bool unmapped_ = false;  // guarded by map_: moving the map failed, and there is none any more
    std::atomic<bool> unflushed_{false};
};

}  // namespace veltrane

#endif
