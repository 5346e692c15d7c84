// One LMDB environment a database file, shared by all handles of the process; see dbm_environment.h.
#include "libveltrane/dbm_environment.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <map>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include <veltrane/file_lib.h>
#include <veltrane/owned.h>

namespace veltrane {
namespace {

constexpr off_t kReaderTableSize = 64 << 10;  // about a thousand transactions that read at once, all processes together
constexpr unsigned int kReaders = 900;        // fits the table
constexpr size_t kLargestMap = size_t{1} << 40;

std::atomic<size_t> initial_map_size{size_t{256} << 20};  // address space only: the file grows as it is filled

int ErrnoOf(int result)
{
    switch (result) {
        case MDB_NOTFOUND:
            return ENOENT;
        case MDB_INVALID:
        case MDB_VERSION_MISMATCH:
        case MDB_CORRUPTED:
        case MDB_PAGE_NOTFOUND:
            return EUCLEAN;
        case MDB_MAP_FULL:
        case MDB_TXN_FULL:
            return ENOSPC;
        case MDB_READERS_FULL:
            return EAGAIN;
        case MDB_BAD_VALSIZE:
            return EINVAL;
        default:
            return result >= 0 ? result : EIO;
    }
}

// 0, or why the file cannot be a database of ours. Looked at before LMDB opens it, by the rules for foreign links.
int CheckFile(const std::string &path, bool make)
{
    const Descriptor file(safe_open(path.c_str(), O_RDWR | (make ? O_CREAT : 0)));
    struct stat st;
    if (file.Get() < 0 || fstat(file.Get(), &st) != 0) {
        return errno;
    }
    if (!S_ISREG(st.st_mode)) {
        return EINVAL;
    }
    return !make && st.st_size == 0 ? ENOENT : 0;  // somebody is about to make it
}

// Give LMDB's table of readers its blocks, for it is written through a map: on a full disk that would be a bus error.
// 0 or an errno. Only while this process has no environment of the file: closing would drop LMDB's locks on it.
int ReserveReaders(const std::string &path)
{
    const Descriptor file(safe_open((path + "-lock").c_str(), O_RDWR | O_CREAT));
    struct stat st;
    if (file.Get() < 0 || fstat(file.Get(), &st) != 0) {
        return errno;
    }
    const off_t size = st.st_size > 0 ? st.st_size : kReaderTableSize;  // what others have mapped keeps its size
    if (fallocate(file.Get(), 0, 0, size) != 0 && errno != EOPNOTSUPP && errno != ENOSYS) {
        return errno;
    }
    return 0;
}

}  // namespace

// Never destroyed: threads may use databases while the process ends.
struct DbmEnvironment::Table {
    std::mutex mutex;
    std::map<std::string, std::unique_ptr<DbmEnvironment>> open;
    std::vector<std::unique_ptr<DbmEnvironment>> inherited;  // kept, for closing one would free the parent's locks

    static Table &Get()
    {
        static Table *const table = new Table;
        return *table;
    }

    static void BeforeFork() { Get().mutex.lock(); }
    static void AfterForkInParent() { Get().mutex.unlock(); }
    static void AfterForkInChild()
    {
        for (auto &[path, environment] : Get().open) {
            environment->inherited_ = true;
            Get().inherited.push_back(std::move(environment));
        }
        Get().open.clear();
        Get().mutex.unlock();
    }
    static inline const int fork_handlers = pthread_atfork(BeforeFork, AfterForkInParent, AfterForkInChild);
};

DbmEnvironment *DbmEnvironment::Acquire(const std::string &path, bool make, bool lazy)
{
    Table &table = Table::Get();
    const std::lock_guard guard(table.mutex);
    const auto known = table.open.find(path);
    if (known != table.open.end()) {
        known->second->users_++;
        (void)mdb_reader_check(known->second->env_, nullptr);  // without it the file would only grow
        return known->second.get();
    }
    int error = CheckFile(path, make);
    if (error == 0) {
        error = ReserveReaders(path);
    }
    std::unique_ptr<DbmEnvironment> environment(new DbmEnvironment(path, lazy));
    if (error == 0) {
        error = environment->Open();
    }
    if (error != 0) {
        environment.reset();
        errno = error;
        return nullptr;
    }
    return table.open.emplace(path, std::move(environment)).first->second.get();
}

void DbmEnvironment::AddUser()
{
    const std::lock_guard guard(Table::Get().mutex);
    users_++;
}

void DbmEnvironment::Release(DbmEnvironment *environment)
{
    if (environment->inherited_) {
        return;
    }
    const int saved_errno = errno;
    if (environment->lazy_ && environment->unflushed_.exchange(false)) {
        (void)mdb_env_sync(environment->env_, 1);  // nobody waits for these records to be durable
    }
    Table &table = Table::Get();
    const std::lock_guard guard(table.mutex);
    if (--environment->users_ == 0) {
        table.open.erase(environment->path_);
    }
    errno = saved_errno;
}

DbmEnvironment::~DbmEnvironment()
{
    if (env_ != nullptr) {
        mdb_env_close(env_);
    }
}

// An errno, or 0.
int DbmEnvironment::Open()
{
    int result = mdb_env_create(&env_);
    if (result != MDB_SUCCESS) {
        return ErrnoOf(result);
    }
    (void)mdb_env_set_mapsize(env_, initial_map_size.load());  // neither can fail before the environment is open
    (void)mdb_env_set_maxreaders(env_, kReaders);
    const unsigned int flags = MDB_NOSUBDIR | MDB_NOTLS | (lazy_ ? MDB_NOSYNC : 0);
    result = mdb_env_open(env_, path_.c_str(), flags, 0600);
    if (result != MDB_SUCCESS) {
        return ErrnoOf(result);
    }
    off_t needed = 0;
    if (LacksUsedPages(&needed)) {  // reading beyond the end of the file would be a bus error
        return EUCLEAN;
    }
    (void)mdb_reader_check(env_, nullptr);
    return Run(MDB_RDONLY,
               [this](MDB_txn *transaction, MDB_dbi) { return mdb_dbi_open(transaction, nullptr, 0, &database_); });
}

// Whether the file ends before its last used page, and the size that holds them all.
bool DbmEnvironment::LacksUsedPages(off_t *ret_needed) const
{
    MDB_envinfo info;
    MDB_stat statistics;
    mdb_filehandle_t fd = -1;
    struct stat st;
    if (mdb_env_info(env_, &info) != MDB_SUCCESS || mdb_env_stat(env_, &statistics) != MDB_SUCCESS ||
        mdb_env_get_fd(env_, &fd) != MDB_SUCCESS || fstat(fd, &st) != 0) {
        return false;
    }
    *ret_needed = static_cast<off_t>((info.me_last_pgno + 1) * statistics.ms_psize);
    return st.st_size < *ret_needed;
}

// A page that a transaction takes and gives back counts as used but may not have been written. Give the file its full
// size, or it would look cut off at the next opening. Under the writers' lock, so that no other writer's pages are
// lost.
int DbmEnvironment::CoverUsedPages()
{
    off_t needed = 0;
    if (!LacksUsedPages(&needed)) {
        return MDB_SUCCESS;
    }
    MDB_txn *transaction = nullptr;
    const int result = mdb_txn_begin(env_, nullptr, 0, &transaction);
    if (result != MDB_SUCCESS) {
        return result;
    }
    mdb_filehandle_t fd = -1;
    int error = MDB_SUCCESS;
    if (LacksUsedPages(&needed) && mdb_env_get_fd(env_, &fd) == MDB_SUCCESS && ftruncate(fd, needed) != 0) {
        error = errno;
    }
    mdb_txn_abort(transaction);
    return error;
}

// Run operation in one transaction. An LMDB result; *ret_map_size is the map's size that it was run in.
int DbmEnvironment::Transact(unsigned int flags, const Operation &operation, size_t *ret_map_size)
{
    const std::shared_lock guard(map_);
    if (unmapped_) {
        return ENOMEM;
    }
    MDB_envinfo info;
    (void)mdb_env_info(env_, &info);  // fails for no environment only
    *ret_map_size = info.me_mapsize;
    MDB_txn *transaction = nullptr;
    int result = mdb_txn_begin(env_, nullptr, flags, &transaction);
    if (result != MDB_SUCCESS) {
        return result;
    }
    result = operation(transaction, database_);
    if (result != MDB_SUCCESS || (flags & MDB_RDONLY) != 0) {
        mdb_txn_abort(transaction);
        return result;
    }
    result = mdb_txn_commit(transaction);
    if (result == MDB_SUCCESS) {
        unflushed_ = true;
        (void)CoverUsedPages();  // the entry is stored in any case
    }
    return result;
}

// Move the map: to twice full_size when that is what it still measures, or, for 0, to the size that another process has
// given the file. 0 or an errno.
int DbmEnvironment::Resize(size_t full_size)
{
    const std::unique_lock guard(map_);
    MDB_envinfo info;
    (void)mdb_env_info(env_, &info);
    if (unmapped_ || (full_size != 0 && info.me_mapsize != full_size)) {
        return 0;  // another thread was here; the caller tries again
    }
    if (full_size > kLargestMap / 2) {
        return ENOSPC;
    }
    const int result = mdb_env_set_mapsize(env_, full_size * 2);
    unmapped_ = result != MDB_SUCCESS;
    return ErrnoOf(result);
}

int DbmEnvironment::Run(unsigned int flags, const Operation &operation)
{
    if (inherited_) {
        return EBADF;
    }
    for (;;) {
        size_t map_size = 0;
        const int result = Transact(flags, operation, &map_size);
        if (result != MDB_MAP_FULL && result != MDB_MAP_RESIZED) {
            return ErrnoOf(result);
        }
        // The transaction is gone, deletions can need room as well: grow and do it all again.
        const int error = Resize(result == MDB_MAP_FULL ? map_size : 0);
        if (error != 0) {
            return error;
        }
    }
}

int DbmEnvironment::Read(const Operation &operation) { return Run(MDB_RDONLY, operation); }
int DbmEnvironment::Write(const Operation &operation) { return Run(0, operation); }

void DbmEnvironment::SetInitialMapSize(size_t bytes) { initial_map_size = bytes; }

}  // namespace veltrane
