#include "libveltrane/watched_files.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>

#include <veltrane/dbm_api.h>
#include <veltrane/entry_points.h>

#include "libveltrane/hash_descriptor.h"

namespace veltrane {

namespace {

constexpr mode_t kPermissionBits = 07777;

bool IsRegular(const WatchedState &state) { return (state.mode & S_IFMT) == S_IFREG; }

std::string Octal(uint32_t mode)
{
    char text[16];
    snprintf(text, sizeof(text), "%04o", mode & kPermissionBits);
    return text;
}

// "mode 0644 changed to 0600, owner 0 to 1000"; "" when nothing differs.
std::string PermsChange(const WatchedState &old, const WatchedState &now)
{
    std::string text;
    const auto add = [&text](const char *what, const std::string &before, const std::string &after) {
        if (before != after) {
            text += (text.empty() ? "" : ", ") + std::string(what) + " " + before +
                    (text.empty() ? " changed to " : " to ") + after;
        }
    };
    add("mode", Octal(old.mode), Octal(now.mode));
    add("owner", std::to_string(old.owner), std::to_string(now.owner));
    add("group", std::to_string(old.group), std::to_string(now.group));
    return text;
}

// What an open regular file, or anything else, is now, with its digest by this method.
Trouble StateOf(const Handle &handle, const std::string &path, HashMethod method, WatchedState *ret_state)
{
    ret_state->mode = handle.st.st_mode;
    ret_state->owner = handle.st.st_uid;
    ret_state->group = handle.st.st_gid;
    ret_state->method = HASH_METHOD_NONE;
    if (!S_ISREG(handle.st.st_mode)) {
        return std::nullopt;
    }
    Descriptor fd;
    if (Trouble trouble = OpenRegular(handle, path, &fd)) {
        return trouble;
    }
    ret_state->digest.fill(0);  // a digest may be shorter
    if (!HashDescriptor(fd.Get(), ret_state->digest.data(), method)) {
        return CouldNot("read", path, "read");
    }
    ret_state->method = method;
    return std::nullopt;
}

void FindChanges(const WatchedState &old, const WatchedState &now, const struct stat &st, Sighting *sighting)
{
    if ((old.mode & S_IFMT) != (now.mode & S_IFMT)) {
        sighting->changes.push_back({FileChange::kModified, "it is " + KindOf(st) + " now"});
    } else if (old.digest != now.digest) {
        sighting->changes.push_back({FileChange::kModified, "content changed"});
    }
    const std::string perms = PermsChange(old, now);
    if (!perms.empty()) {
        sighting->changes.push_back({FileChange::kPermissions, perms});
    }
}

bool IsDigestMethod(int32_t method)
{
    const bool known = method >= HASH_METHOD_MD5 && method <= HASH_METHOD_NONE;
    const size_t length = known ? HashMethodLength(static_cast<HashMethod>(method)) : 0;
    return length > 0 && length <= VT_SHA512_LEN;
}

}  // namespace

bool Sighting::ContentChanged() const
{
    for (const WatchedChange &found : changes) {
        if (found.change == FileChange::kAdded || found.change == FileChange::kModified) {
            return true;
        }
    }
    return false;
}

bool Sighting::IsFile() const { return now.has_value() && IsRegular(*now); }

Trouble WatchedFiles::Open()
{
    DBHandle *database = nullptr;
    if (database_ == nullptr && !OpenDB(&database, dbid_watched_files)) {
        const TextPtr path(DBIdToPath(dbid_watched_files));
        return CouldNot("open", path.get(), "OpenDB");
    }
    if (database_ == nullptr) {
        database_.reset(database);
    }
    return std::nullopt;
}

// A value of another size is none of ours.
Trouble WatchedFiles::Known(const std::string &path, std::optional<WatchedState> *ret_state)
{
    if (Trouble trouble = Open()) {
        return trouble;
    }
    WatchedState state;
    const int size = ValueSizeDB(database_.get(), path.c_str(), static_cast<int>(path.size()) + 1);
    ret_state->reset();
    if (size == sizeof(state) && ReadDB(database_.get(), path.c_str(), &state, sizeof(state))) {
        *ret_state = state;
    }
    return std::nullopt;
}

Trouble WatchedFiles::Look(const std::string &path, const Handle *handle, Sighting *ret_sighting)
{
    std::optional<WatchedState> old;
    if (Trouble trouble = Known(path, &old)) {
        return trouble;
    }
    Sighting sighting{path};
    if (handle == nullptr) {
        if (old.has_value()) {
            sighting.changes.push_back({FileChange::kDeleted, "no longer there"});
        }
        sighting.remembered = !old.has_value();
        *ret_sighting = std::move(sighting);
        return std::nullopt;
    }
    if (S_ISLNK(handle->st.st_mode)) {
        return "'" + path + "' is " + KindOf(handle->st) + ", which is not watched";
    }
    const HashMethod best = GetBestFileChangeHashMethod();
    const bool comparable = old.has_value() && IsDigestMethod(old->method);
    WatchedState now;
    // Compared by the method that it is known by, even when another is the best by now.
    const HashMethod method = comparable ? static_cast<HashMethod>(old->method) : best;
    if (Trouble trouble = StateOf(*handle, path, method, &now)) {
        return trouble;
    }
    if (old.has_value()) {
        FindChanges(*old, now, handle->st, &sighting);
    } else {
        sighting.changes.push_back({FileChange::kAdded, "added"});
    }
    sighting.remembered = sighting.changes.empty();
    if (method != best && now.method != HASH_METHOD_NONE) {
        sighting.remembered = false;
        if (Trouble trouble = StateOf(*handle, path, best, &now)) {
            return trouble;
        }
    }
    sighting.now = now;
    *ret_sighting = std::move(sighting);
    return std::nullopt;
}

Trouble WatchedFiles::Log(const Sighting &sighting, time_t t)
{
    std::string lines;
    for (const WatchedChange &found : sighting.changes) {
        lines += FileChangeLine(t, sighting.path, found.change, found.text);
    }
    return lines.empty() ? std::nullopt : AppendFileChanges(lines);
}

Trouble WatchedFiles::Remember(const Sighting &sighting)
{
    if (sighting.remembered) {
        return std::nullopt;
    }
    if (Trouble trouble = Open()) {
        return trouble;
    }
    const char *const path = sighting.path.c_str();
    const bool done = sighting.now.has_value() ? WriteDB(database_.get(), path, &*sighting.now, sizeof(*sighting.now))
                                               : DeleteDB(database_.get(), path);
    const TextPtr file(DBIdToPath(dbid_watched_files));
    return done ? std::nullopt : CouldNot("write", file.get(), "WriteDB");
}

Trouble WatchedFiles::KnownBelow(const std::string &beginning, std::vector<std::string> *ret_paths)
{
    if (Trouble trouble = Open()) {
        return trouble;
    }
    DBCursor *made = nullptr;
    if (!NewDBCursor(database_.get(), &made)) {
        const TextPtr file(DBIdToPath(dbid_watched_files));
        return CouldNot("read", file.get(), "NewDBCursor");
    }
    const DBCursorPtr cursor(made);
    char *key = nullptr;
    int key_size = 0;
    void *value = nullptr;
    int value_size = 0;
    ret_paths->clear();
    while (NextDB(cursor.get(), &key, &key_size, &value, &value_size)) {
        const std::string path(key);
        if (path.starts_with(beginning)) {
            ret_paths->push_back(path);
        }
    }
    return std::nullopt;
}

}  // namespace veltrane
