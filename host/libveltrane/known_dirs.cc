// The host's directories.
//
// Callers keep the texts that they are lent, so every set of directories that was ever in force lives to the end of the
// process; a program has one, a test program one a test.
#include <veltrane/known_dirs.h>

#include <sys/stat.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <mutex>
#include <string>

#include <veltrane/file_lib.h>

namespace {

struct Directories {
    explicit Directories(const std::string &path) : work(path)
    {
        while (work.size() > 1 && work.back() == '/') { work.pop_back(); }
        const std::string above = work == "/" ? "" : work;
        state = above + "/state";
        log = above + "/log";
        input = above + "/inputs";
    }

    std::string work, state, log, input;
    const Directories *older = nullptr;
};

std::atomic<const Directories *> in_force{nullptr};

void PutInForce(const std::string &path)
{
    auto *directories = new Directories(path);
    directories->older = in_force.load();
    while (!in_force.compare_exchange_weak(directories->older, directories)) {}
}

const Directories &Known()
{
    static std::once_flag first_use;
    if (in_force.load() == nullptr) {
        std::call_once(first_use, [] {
            if (in_force.load() == nullptr) {
                const char *const path = getenv("VELTRANE_WORKDIR");
                PutInForce(path != nullptr && path[0] != '\0' ? path : "/var/veltrane");
            }
        });
    }
    return *in_force.load();
}

bool MakeDirectory(const std::string &path)
{
    if (mkdir(path.c_str(), 0700) == 0) {
        return true;
    }
    if (errno != EEXIST) {
        return false;
    }
    if (!IsDir(path.c_str())) {
        errno = ENOTDIR;
        return false;
    }
    return true;
}

}  // namespace

void SetWorkDir(const char *path) { PutInForce(path); }

bool MakeWorkDirs(void)
{
    const Directories &known = Known();
    if (!MakeParentDirectory(known.work.c_str(), false) || !MakeDirectory(known.work) || !MakeDirectory(known.state)) {
        return false;
    }
    for (const char *name : {"/previous_state", "/diff", "/untracked", "/locks"}) {
        if (!MakeDirectory(known.state + name)) {
            return false;
        }
    }
    for (const char *name : {"/log", "/inputs", "/keys", "/lib", "/diagnostics"}) {
        if (!MakeDirectory(known.work + name)) {
            return false;
        }
    }
    return true;
}

const char *GetWorkDir(void) { return Known().work.c_str(); }
const char *GetStateDir(void) { return Known().state.c_str(); }
const char *GetLogDir(void) { return Known().log.c_str(); }
const char *GetInputDir(void) { return Known().input.c_str(); }
