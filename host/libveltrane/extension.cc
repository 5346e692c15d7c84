// Extension libraries, opened only when nobody else could have written them.
//
// Loading a library is running it, so its file and every directory above it must be safe from other users: then nothing
// can be swapped between the look and the load either. Links are resolved first; what is looked at is what is loaded.
// Nothing here makes a framed call.
#include <veltrane/extension.h>

#include <dlfcn.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstring>
#include <optional>
#include <string>

#include <veltrane/errors.h>
#include <veltrane/globals.h>
#include <veltrane/known_dirs.h>
#include <veltrane/logging.h>
#include <veltrane/owned.h>

#include "libveltrane/safe_path.h"

using veltrane::UnsafeStep;

namespace {

constexpr char kEnterpriseLibrary[] = "veltrane-enterprise.so";

void *Refuse(const std::string &path, const std::string &reason)
{
    Log(LOG_LEVEL_ERR, "Extension library '%s' is refused: %s", path.c_str(), reason.c_str());
    return nullptr;
}

// Why a library's resolved path is none that may be loaded; "" when it may.
std::string WhyUnfit(const std::string &resolved)
{
    struct stat status {};
    if (lstat(resolved.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) {
        return "'" + resolved + "' is not a regular file";
    }
    const std::optional<UnsafeStep> unsafe = veltrane::FindUnsafeStep(resolved);
    if (!unsafe.has_value()) {
        return "";
    }
    switch (unsafe->why) {
        case UnsafeStep::Why::kCannotLook:
            return "'" + unsafe->path + "' cannot be looked at. (lstat: " + unsafe->error + ")";
        case UnsafeStep::Why::kForeignOwner:
            return "'" + unsafe->path + "' is owned by user " + std::to_string(unsafe->owner) +
                   ", not by root or by this user";
        case UnsafeStep::Why::kOpen:
            break;
    }
    return "'" + unsafe->path + "' can be written by its group or by everybody";
}

// Why a loaded library does not belong to this host; "" when it does.
std::string WhyForeign(void *library, const char *name)
{
    const auto version = reinterpret_cast<const char *(*)()>(shlib_load(library, "GetExtensionLibraryVersion"));
    if (version == nullptr) {
        return strcmp(name, kEnterpriseLibrary) == 0 ? "it does not tell its version" : "";
    }
    const char *const text = version();
    if (text == nullptr || strcmp(text, Version()) != 0) {
        return std::string("its version is '") + (text != nullptr ? text : "") + "', this is '" + Version() + "'";
    }
    return "";
}

pthread_once_t enterprise_once = PTHREAD_ONCE_INIT;
void *enterprise_handle = nullptr;

void OpenEnterpriseLibrary() { enterprise_handle = extension_library_open(kEnterpriseLibrary); }

}  // namespace

void *extension_library_open(const char *name)
{
    const std::string path = std::string(GetWorkDir()) + "/lib/" + name;
    const veltrane::TextPtr resolved(realpath(path.c_str(), nullptr));
    if (resolved == nullptr && (errno == ENOENT || errno == ENOTDIR)) {
        Log(LOG_LEVEL_VERBOSE, "Extension library '%s' is not installed", path.c_str());
        return nullptr;
    }
    if (resolved == nullptr) {
        return Refuse(path, std::string("its path cannot be resolved. (realpath: ") + GetErrorStr() + ")");
    }
    const std::string unfit = WhyUnfit(resolved.get());
    if (!unfit.empty()) {
        return Refuse(path, unfit);
    }
    void *const library = dlopen(resolved.get(), RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        const char *const reason = dlerror();
        return Refuse(path, std::string("it does not load. (dlopen: ") + (reason != nullptr ? reason : "") + ")");
    }
    const std::string foreign = WhyForeign(library, name);
    if (!foreign.empty()) {
        dlclose(library);
        return Refuse(path, foreign);
    }
    return library;
}

void extension_library_close(void *handle)
{
    if (handle != nullptr) {
        dlclose(handle);
    }
}

void *enterprise_library(void)
{
    const int error = pthread_once(&enterprise_once, OpenEnterpriseLibrary);
    if (error != 0) {
        errno = error;
        ProgrammingError("The enterprise plug-in could not be opened. (pthread_once: %s)", GetErrorStr());
    }
    return enterprise_handle;
}

void *shlib_load(void *handle, const char *symbol)
{
    void *const address = dlsym(handle, symbol);
    if (address == nullptr) {
        (void)dlerror();  // taken away, so that a later failure does not find it
    }
    return address;
}
