// Places of files for the tests of those who work on them, and files of other users.
#ifndef TESTS_SUPPORT_PLACES_H
#define TESTS_SUPPORT_PLACES_H

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "libveltrane/file_place.h"

constexpr uid_t kStranger = 12345;

// Give a file, directory or link to another user; false, with errno EPERM, when we are not root.
inline bool GiveAway(const std::filesystem::path &path) { return lchown(path.c_str(), kStranger, kStranger) == 0; }

inline veltrane::Place PlaceOf(const std::filesystem::path &path,
                               veltrane::LastLink last_link = veltrane::LastLink::kKept)
{
    veltrane::FoundPlace found = veltrane::FindPlace(path, last_link);
    if (!found.place.has_value()) {
        throw std::runtime_error("no place '" + path.string() + "'");
    }
    return std::move(*found.place);
}

// What stands at a place; nothing when nothing does.
inline std::optional<veltrane::Handle> HandleOf(const veltrane::Place &place)
{
    std::optional<veltrane::Handle> handle;
    if (const veltrane::Trouble trouble = veltrane::LookAt(place, &handle)) {
        throw std::runtime_error(*trouble);
    }
    return handle;
}

// Permission bits, of a link itself.
inline unsigned ModeOf(const std::filesystem::path &path)
{
    struct stat st {};
    return lstat(path.c_str(), &st) == 0 ? st.st_mode & 07777 : ~0U;
}

inline ino_t InodeOf(const std::filesystem::path &path)
{
    struct stat st {};
    return lstat(path.c_str(), &st) == 0 ? st.st_ino : 0;
}

// The names in a directory, sorted.
inline std::vector<std::string> NamesIn(const std::filesystem::path &directory)
{
    std::vector<std::string> names;
    for (const auto &entry : std::filesystem::directory_iterator(directory)) {
        names.push_back(entry.path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
}

#endif
