// Critical sections: a mutex of the process for its threads, and a kernel lock on a file for other processes.
//
// The lock belongs to an open file description that each entry makes afresh. So it neither is lost when some other code
// of the process closes the same file, nor goes stale when its holder dies. A child made by fork drops its copy at
// once and starts with no section entered, so that it can wait for its parent like any other process.
#include <veltrane/critical_section.h>

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include <veltrane/errors.h>
#include <veltrane/file_lib.h>
#include <veltrane/known_dirs.h>
#include <veltrane/logging.h>
#include <veltrane/string_lib.h>

namespace {

struct Section {
    pthread_mutex_t mutex = PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP;
    int fd = -1;  // the lock, for whoever holds the mutex; -1: only threads are shut out
};

// All sections by their canonified names. Never destroyed: threads may run while the process ends.
struct Table {
    std::mutex mutex;  // guards the map, not what is in it
    std::map<std::string, std::unique_ptr<Section>> sections;
};

Table &Sections()
{
    static Table *const table = new Table;
    return *table;
}

void BeforeFork() { Sections().mutex.lock(); }
void AfterForkInParent() { Sections().mutex.unlock(); }

void AfterForkInChild()
{
    for (auto &[name, section] : Sections().sections) {
        if (section->fd >= 0) {
            close(section->fd);
        }
        *section = Section();
    }
    Sections().mutex.unlock();
}

[[maybe_unused]] const int fork_handlers = pthread_atfork(BeforeFork, AfterForkInParent, AfterForkInChild);

Section *SectionOf(const std::string &canonified)
{
    const std::lock_guard guard(Sections().mutex);
    std::unique_ptr<Section> &section = Sections().sections[canonified];
    if (section == nullptr) {
        section = std::make_unique<Section>();
    }
    return section.get();
}

bool LockFile(int fd)
{
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;  // from 0, length 0: the whole file
    int result;
    do {
        result = fcntl(fd, F_OFD_SETLKW, &lock);
    } while (result != 0 && errno == EINTR);
    return result == 0;
}

// A child that is between fork and exec shares the description: closing alone would leave the lock with it.
void UnlockFile(int fd)
{
    struct flock lock = {};
    lock.l_type = F_UNLCK;
    lock.l_whence = SEEK_SET;
    (void)fcntl(fd, F_OFD_SETLK, &lock);  // cannot fail for a lock that is held; closing drops it else
    close(fd);
}

// Wait for the kernel lock; its descriptor, or -1 after an error line.
int EnterAgainstProcesses(const char *name, const std::string &canonified)
{
    const std::string path = std::string(GetStateDir()) + "/locks/" + canonified + ".lock";
    const char *failed = "mkdir";
    if (MakeParentDirectory(path.c_str(), false)) {
        const int fd = safe_open(path.c_str(), O_RDWR | O_CREAT);
        failed = "open";
        if (fd >= 0) {
            if (LockFile(fd)) {
                return fd;
            }
            failed = "fcntl";
            const int saved_errno = errno;
            close(fd);
            errno = saved_errno;
        }
    }
    Log(LOG_LEVEL_ERR, "Could not lock '%s': other processes are not kept out of critical section '%s'. (%s: %s)",
        path.c_str(), name, failed, GetErrorStr());
    return -1;
}

}  // namespace

bool WaitForCriticalSection(const char *name)
{
    const std::string canonified = CanonifyName(name);
    Section *const section = SectionOf(canonified);
    const int error = pthread_mutex_lock(&section->mutex);
    if (error != 0) {
        errno = error;
        ProgrammingError("Critical section '%s' could not be entered. (pthread_mutex_lock: %s)", name, GetErrorStr());
    }
    section->fd = EnterAgainstProcesses(name, canonified);
    return section->fd >= 0;
}

void ReleaseCriticalSection(const char *name)
{
    Section *const section = SectionOf(CanonifyName(name));
    const int fd = section->fd;
    section->fd = -1;
    if (fd >= 0) {
        UnlockFile(fd);
    }
    const int error = pthread_mutex_unlock(&section->mutex);
    if (error != 0) {
        errno = error;
        ProgrammingError("Critical section '%s' could not be left. (pthread_mutex_unlock: %s)", name, GetErrorStr());
    }
}
