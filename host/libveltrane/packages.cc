// Names around packages: the real command of a package manager, and the legacy inventory files.
#include <veltrane/packages.h>

#include <cstdio>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <veltrane/alloc.h>
#include <veltrane/known_dirs.h>
#include <veltrane/string_lib.h>

#include "libveltrane/child_process.h"
#include "libveltrane/policy_schema.h"

namespace {

// "NAME=value", as a shell takes it before a command.
bool IsSetting(const std::string &word)
{
    const size_t equals = word.find('=');
    return equals != std::string::npos && veltrane::IsIdentifier(std::string_view(word).substr(0, equals));
}

char *StateFile(const char *name, char *buffer, size_t size)
{
    snprintf(buffer, size, "%s/%s", GetStateDir(), name);
    return buffer;
}

}  // namespace

char *RealPackageManager(const char *manager)
{
    const std::optional<std::vector<std::string>> words = veltrane::SplitWords(manager);
    if (!words.has_value()) {
        return xstrdup(manager);  // a quote stays open, so nobody can tell where the command ends
    }
    bool after_env = false;
    for (const std::string &word : *words) {
        const bool is_env = StringEqual(ReadLastNode(word.c_str()), "env");
        if (!is_env && !IsSetting(word) && !(after_env && word[0] == '-')) {
            return xstrdup(word.c_str());
        }
        after_env = after_env || is_env;
    }
    return xstrdup("");
}

char *GetSoftwareCacheFilename(char *buffer, size_t size) { return StateFile("software_inventory.csv", buffer, size); }

char *GetSoftwarePatchesFilename(char *buffer, size_t size)
{
    return StateFile("software_patches_avail.csv", buffer, size);
}
