// The steps of a files promise; see files_steps.h.
#include "vt-agent/files_steps.h"

#include <utility>

#include <veltrane/file_lib.h>

#include "libveltrane/replace_file.h"
#include "libveltrane/safe_path.h"

namespace veltrane {

namespace {

constexpr mode_t kPrivateFile = 0600;

Trouble HoldsContent(const Spot &spot, const std::string &content, bool *ret_holds)
{
    Descriptor fd;
    if (Trouble trouble = OpenRegular(*spot.handle, spot.place.path, &fd)) {
        return trouble;
    }
    std::string bytes;
    bool more = false;
    if (Trouble trouble = ReadUpTo(fd.Get(), spot.place.path, content.size(), &bytes, &more)) {
        return trouble;
    }
    *ret_holds = !more && bytes == content;
    return std::nullopt;
}

Trouble WriteWhole(const Spot &spot, const std::string &content, const PermsWish &perms)
{
    Replacement replacement(spot.place);
    if (Trouble trouble = replacement.Begin()) {
        return trouble;
    }
    if (Trouble trouble = WriteAll(replacement.Fd(), content, spot.place.path)) {
        return trouble;
    }
    return replacement.Commit(perms);
}

}  // namespace

Trouble FindSpot(const std::string &path, const FilesRequest &request, bool make_directories,
                 std::optional<Spot> *ret_spot)
{
    FoundPlace found = FindPlace(path, LastLink::kFollowed);
    if (!found.place.has_value() && !found.trouble.has_value() && make_directories) {
        if (!MakeParentDirectory(found.path.c_str(), request.attr.move_obstructions)) {
            return CouldNot("make the directory", DirectoryOf(found.path), "mkdir");
        }
        found = FindPlace(path, LastLink::kFollowed);
    }
    if (!found.place.has_value()) {
        ret_spot->reset();
        return found.trouble;
    }
    Spot spot{std::move(*found.place)};
    if (Trouble trouble = LookAt(spot.place, &spot.handle)) {
        return trouble;
    }
    *ret_spot = std::move(spot);
    return std::nullopt;
}

Trouble ClearTheWay(Spot *spot, Kind wanted, bool may_move, Done *done)
{
    const mode_t wanted_type = wanted == Kind::kFile ? S_IFREG : S_IFDIR;
    if (!spot->handle.has_value() || (spot->handle->st.st_mode & S_IFMT) == wanted_type) {
        return std::nullopt;
    }
    const std::string kind = KindOf(spot->handle->st);
    if (!may_move) {
        return "'" + spot->place.path + "' is " + kind + ", not a " + (wanted == Kind::kFile ? "file" : "directory");
    }
    std::string aside;
    if (Trouble trouble = MoveAside(spot->place, &aside)) {
        return trouble;
    }
    spot->handle.reset();
    done->push_back(kind + " moved aside to '" + aside + "'");
    return std::nullopt;
}

Trouble WriteContent(const Spot &spot, const std::string &content, const PermsWish &perms, Done *done)
{
    bool holds = false;
    if (spot.handle.has_value()) {
        if (Trouble trouble = HoldsContent(spot, content, &holds)) {
            return trouble;
        }
    }
    if (holds) {
        return ApplyPerms(spot.place, *spot.handle, perms, done);
    }
    const PermsWish after =
        spot.handle.has_value() ? PermsAfter(spot.handle->st, perms) : PermsOfNew(kPrivateFile, perms);
    Trouble trouble = WriteWhole(spot, content, after);
    if (!trouble.has_value()) {
        done->emplace_back(spot.handle.has_value() ? "content written" : "created with its content");
        if (spot.handle.has_value()) {
            DescribeChange(spot.handle->st, after, done);
        }
    }
    return trouble;
}

Trouble MakeFile(const Spot &spot, const PermsWish &perms, Done *done)
{
    if (spot.handle.has_value()) {
        return ApplyPerms(spot.place, *spot.handle, perms, done);
    }
    Trouble trouble = WriteWhole(spot, "", PermsOfNew(kPrivateFile, perms));
    if (!trouble.has_value()) {
        done->emplace_back("created");
    }
    return trouble;
}

Trouble MakeDirectory(Spot *spot, Done *done)
{
    if (spot->handle.has_value()) {
        return std::nullopt;
    }
    if (Trouble trouble = MakeDirectory(spot->place)) {
        return trouble;
    }
    done->emplace_back("created");
    if (Trouble trouble = LookAt(spot->place, &spot->handle)) {
        return trouble;
    }
    return spot->handle.has_value() && S_ISDIR(spot->handle->st.st_mode)
               ? std::nullopt
               : Trouble("'" + spot->place.path + "' has vanished");
}

CopyOrder OrderOf(const FilesRequest &request)
{
    return {request.attr.copy.backup, request.attr.copy.stealth, request.attr.copy.verify, request.perms};
}

std::string Listed(const Done &done)
{
    std::string text;
    for (size_t i = 0; i < done.size(); ++i) {
        text += i == 0 ? "" : i + 1 < done.size() ? ", " : " and ";
        text += done[i];
    }
    return text;
}

}  // namespace veltrane
