// The copy routine; see copy_file.h.
#include "libveltrane/copy_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <map>
#include <memory>
#include <utility>

#include <veltrane/outcome.h>

#include "libveltrane/file_bytes.h"
#include "libveltrane/replace_file.h"

// Where the first name of each source went that has several.
struct CompressedArray_ {
    std::map<std::pair<dev_t, ino_t>, std::string> copies;
};

namespace veltrane {

namespace {

// How far a source may outgrow what it was when the copying began. Files that the kernel makes up have size 0.
constexpr off_t kMostGrowth = off_t{16} * 1024 * 1024;

std::pair<dev_t, ino_t> Identity(const struct stat &st) { return {st.st_dev, st.st_ino}; }

bool SameTime(const struct timespec &a, const struct timespec &b)
{
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

// One copy on its way.
class Copying {
  public:
    Copying(const Place &from, const Handle &source, const Place &to, const std::optional<Handle> &destination,
            const CopyOrder &order, std::vector<std::string> *done)
        : from_(from), source_(source), to_(to), destination_(destination), order_(order), done_(done)
    {
    }

    // Make the destination another name of the copy that the first name of the source led to. *ret_linked: it is one.
    Trouble LinkTo(const std::string &first_copy, bool *ret_linked)
    {
        const FoundPlace first = FindPlace(first_copy, LastLink::kKept);
        std::optional<Handle> handle;
        if (!first.place.has_value() || LookAt(*first.place, &handle).has_value() || !handle.has_value()) {
            return std::nullopt;  // then it is copied once more
        }
        if (destination_.has_value() && Identity(destination_->st) == Identity(handle->st)) {
            *ret_linked = true;
            return std::nullopt;
        }
        if (Trouble trouble = SaveDestination()) {
            return trouble;
        }
        *ret_linked = LinkOver(*first.place, to_);
        if (*ret_linked) {
            done_->push_back("made another name of '" + first_copy + "'");
        }
        return std::nullopt;
    }

    Trouble Run()
    {
        const AccessTime access_time = order_.stealth ? AccessTime::kStays : AccessTime::kMoves;
        if (Trouble trouble = OpenRegular(source_, from_.path, &source_fd_, access_time)) {
            return trouble;
        }
        if (!destination_.has_value()) {
            return Write();
        }
        Descriptor old;
        if (Trouble trouble = OpenRegular(*destination_, to_.path, &old)) {
            return trouble;
        }
        bool same = false;
        if (Trouble trouble = SameBytes(source_fd_.Get(), from_.path, old.Get(), to_.path, &same)) {
            return trouble;
        }
        return same ? ApplyPerms(to_, *destination_, order_.perms, done_) : Write();
    }

  private:
    Trouble Write()
    {
        struct stat before {};
        if (fstat(source_fd_.Get(), &before) != 0) {
            return CouldNot("look at", from_.path, "stat");
        }
        Replacement replacement(to_);
        Trouble trouble = replacement.Begin();
        if (!trouble.has_value()) {
            trouble = CopyBytes(source_fd_.Get(), from_.path, replacement.Fd(), to_.path,
                                static_cast<size_t>(before.st_size + kMostGrowth));
        }
        if (!trouble.has_value()) {
            trouble = CheckSource(before);
        }
        if (!trouble.has_value() && order_.verify) {
            trouble = Verify(replacement.Fd());
        }
        if (!trouble.has_value()) {
            trouble = SaveDestination();
        }
        const PermsWish perms = destination_.has_value() ? PermsAfter(destination_->st, order_.perms)
                                                         : PermsOfNew(before.st_mode, order_.perms);
        if (!trouble.has_value()) {
            trouble = replacement.Commit(perms);
        }
        if (!trouble.has_value()) {
            done_->push_back("copied from '" + from_.path + "'");
            if (destination_.has_value()) {
                DescribeChange(destination_->st, perms, done_);
            }
        }
        return trouble;
    }

    // What was copied while it was written to is a copy of nothing.
    Trouble CheckSource(const struct stat &before) const
    {
        struct stat after {};
        const bool unchanged = fstat(source_fd_.Get(), &after) == 0 && after.st_size == before.st_size &&
                               SameTime(after.st_mtim, before.st_mtim);
        return unchanged ? std::nullopt : Trouble("'" + from_.path + "' changed while it was copied");
    }

    Trouble Verify(int copy) const
    {
        bool same = false;
        if (Trouble trouble = SameBytes(source_fd_.Get(), from_.path, copy, to_.path, &same)) {
            return trouble;
        }
        return same ? std::nullopt : Trouble("the copy of '" + from_.path + "' reads otherwise than what was written");
    }

    // Keep what the destination is now, under another name.
    Trouble SaveDestination()
    {
        if (!destination_.has_value() || order_.backup == BACKUP_OPTION_NONE || saved_) {
            return std::nullopt;
        }
        std::string suffix = ".before";
        if (order_.backup == BACKUP_OPTION_TIMESTAMP) {
            suffix += "-" + std::to_string(time(nullptr));
        }
        const FoundPlace backup = FindPlace(to_.path + suffix, LastLink::kKept);
        if (!backup.place.has_value()) {
            return backup.trouble.value_or("'" + backup.path + "' has no directory");
        }
        std::optional<Handle> older;
        if (Trouble trouble = LookAt(*backup.place, &older)) {
            return trouble;
        }
        if (older.has_value() && Identity(older->st) == Identity(source_.st)) {
            return "saving '" + to_.path + "' would overwrite the source '" + from_.path + "'";
        }
        Trouble trouble = SaveBytes(*backup.place);
        if (!trouble.has_value()) {
            saved_ = true;
            done_->push_back("saved as '" + backup.place->path + "'");
        }
        return trouble;
    }

    // A file of its own, for what is replaced may have further names, under which it is changed later.
    Trouble SaveBytes(const Place &backup) const
    {
        Descriptor old;
        if (Trouble trouble = OpenRegular(*destination_, to_.path, &old)) {
            return trouble;
        }
        Replacement replacement(backup);
        Trouble trouble = replacement.Begin();
        if (!trouble.has_value()) {
            trouble = CopyBytes(old.Get(), to_.path, replacement.Fd(), backup.path,
                                static_cast<size_t>(destination_->st.st_size + kMostGrowth));
        }
        return trouble.has_value() ? trouble : replacement.Commit(PermsAfter(destination_->st, {}));
    }

    const Place &from_;
    const Handle &source_;
    const Place &to_;
    const std::optional<Handle> &destination_;
    const CopyOrder &order_;
    std::vector<std::string> *done_;
    Descriptor source_fd_;
    bool saved_ = false;
};

// What the routine of the contract does, in words instead of records.
Trouble CopyByPath(const char *source, const char *destination, const Attributes &attr, CompressedArray **inode_cache,
                   std::vector<std::string> *done)
{
    const FoundPlace from = FindPlace(source, LastLink::kFollowed);
    if (!from.place.has_value()) {
        return from.trouble.value_or("'" + from.path + "' is not there");
    }
    std::optional<Handle> source_handle;
    if (Trouble trouble = LookAt(*from.place, &source_handle)) {
        return trouble;
    }
    if (!source_handle.has_value()) {
        return "'" + from.path + "' is not there";
    }
    const FoundPlace to = FindPlace(destination, LastLink::kFollowed);
    if (!to.place.has_value()) {
        return to.trouble.value_or("'" + to.path + "' has no directory");
    }
    std::optional<Handle> old;
    if (Trouble trouble = LookAt(*to.place, &old)) {
        return trouble;
    }
    if (old.has_value() && !S_ISREG(old->st.st_mode)) {
        if (!attr.move_obstructions) {
            return "'" + to.path + "' is " + KindOf(old->st) + ", not a file";
        }
        std::string aside;
        if (Trouble trouble = MoveAside(*to.place, &aside)) {
            return trouble;
        }
        done->push_back("what stood in the way moved to '" + aside + "'");
        old.reset();
    }
    const CopyOrder order{attr.copy.backup, attr.copy.stealth, attr.copy.verify};
    return CopyFile(*from.place, *source_handle, *to.place, old, order, inode_cache, done);
}

}  // namespace

Trouble CopyFile(const Place &from, const Handle &source, const Place &to, const std::optional<Handle> &destination,
                 const CopyOrder &order, CompressedArray **inode_cache, std::vector<std::string> *done)
{
    if (!S_ISREG(source.st.st_mode)) {
        return "'" + from.path + "' is " + KindOf(source.st) + ", not a file";
    }
    Copying copying(from, source, to, destination, order, done);
    const bool has_names = inode_cache != nullptr && source.st.st_nlink > 1;
    if (has_names && *inode_cache != nullptr) {
        const auto known = (*inode_cache)->copies.find(Identity(source.st));
        bool linked = false;
        if (known != (*inode_cache)->copies.end()) {
            if (Trouble trouble = copying.LinkTo(known->second, &linked)) {
                return trouble;
            }
        }
        if (linked) {
            return std::nullopt;
        }
    }
    Trouble trouble = copying.Run();
    if (!trouble.has_value() && has_names) {
        if (*inode_cache == nullptr) {
            *inode_cache = std::make_unique<CompressedArray>().release();
        }
        (*inode_cache)->copies.emplace(Identity(source.st), to.path);
    }
    return trouble;
}

}  // namespace veltrane

bool CopyRegularFile(EvalContext *ctx, const char *source, const char *destination, const struct stat *source_stat,
                     const Attributes *attr, const Promise *pp, CompressedArray **inode_cache, AgentConnection *conn,
                     PromiseResult *result) noexcept
{
    std::vector<std::string> done;
    veltrane::Trouble trouble;
    if (conn != nullptr || attr->copy.servers != nullptr) {
        trouble = "files of other hosts are not fetched";
    } else if (!S_ISREG(source_stat->st_mode)) {
        trouble = "'" + std::string(source) + "' is " + veltrane::KindOf(*source_stat) + ", not a file";
    } else {
        trouble = veltrane::CopyByPath(source, destination, *attr, inode_cache, &done);
    }
    PromiseResult outcome = PROMISE_RESULT_NOOP;
    if (trouble.has_value()) {
        RecordFailure(ctx, pp, attr, "Could not copy '%s' to '%s': %s", source, destination, trouble->c_str());
        outcome = PROMISE_RESULT_FAIL;
    } else if (!done.empty()) {
        RecordChange(ctx, pp, attr, "Copied '%s' to '%s'", source, destination);
        outcome = PROMISE_RESULT_CHANGE;
    } else {
        RecordNoChange(ctx, pp, attr, "'%s' is a copy of '%s'", destination, source);
    }
    *result = PromiseResultUpdate(*result, outcome);
    return !trouble.has_value();
}

void DeleteCompressedArray(CompressedArray *array) noexcept
{
    const std::unique_ptr<CompressedArray> owned(array);  // NULL is fine
}
