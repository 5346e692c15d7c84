// Working on whole trees; see files_tree.h.
#include "vt-agent/files_tree.h"

#include <unistd.h>

#include <climits>
#include <cstdio>
#include <memory>
#include <utility>

#include <veltrane/logging.h>

#include "libveltrane/replace_file.h"

namespace veltrane {

namespace {

constexpr size_t kMostLines = 100;  // of one kind, for one promise; the others are counted
constexpr mode_t kPermissionBits = 0777;
constexpr mode_t kOwnerBits = 0700;

// Judges each entry as it comes.
class JudgingVisitor : public TreeVisitor {
  public:
    explicit JudgingVisitor(TreeTally *tally) : tally_(tally) {}

    void Failed(const std::string &path, const std::string &why) override { Judge(path, {}, why); }

  protected:
    void Judge(const std::string &path, const Done &done, const Trouble &trouble)
    {
        JudgeEntry(path, done, trouble, tally_);
    }

    size_t Failures() const { return tally_->failed; }

  private:
    TreeTally *tally_;
};

class PermsVisitor : public JudgingVisitor {
  public:
    PermsVisitor(const PermsWish &wish, TreeTally *tally)
        : JudgingVisitor(tally), for_files_(wish), for_directories_(wish)
    {
        if (wish.mode.has_value()) {
            for_directories_.mode = ModeForDirectory(*wish.mode);
        }
    }

    bool Enter(const TreeEntry &directory) override
    {
        Apply(directory, for_directories_);
        return true;
    }
    void Leave(const TreeEntry &) override {}
    void Visit(const TreeEntry &entry) override
    {
        if (!S_ISLNK(entry.handle.st.st_mode)) {
            Apply(entry, for_files_);
        }
    }

  private:
    void Apply(const TreeEntry &entry, const PermsWish &wish)
    {
        Done done;
        const Trouble trouble = ApplyPerms(entry.place, entry.handle, wish, &done);
        Judge(entry.place.path, done, trouble);
    }

    PermsWish for_files_;
    PermsWish for_directories_;
};

class DeletingVisitor : public JudgingVisitor {
  public:
    explicit DeletingVisitor(TreeTally *tally) : JudgingVisitor(tally) {}

    bool Enter(const TreeEntry &) override
    {
        failures_at_entry_.push_back(Failures());
        return true;
    }
    void Leave(const TreeEntry &directory) override
    {
        const bool emptied = failures_at_entry_.back() == Failures();
        failures_at_entry_.pop_back();
        if (emptied) {  // else it is said what keeps it from being empty
            Visit(directory);
        }
    }
    void Visit(const TreeEntry &entry) override
    {
        const Trouble trouble = Remove(entry.place, entry.handle);
        Judge(entry.place.path, trouble.has_value() ? Done() : Done{"deleted"}, trouble);
    }

  private:
    std::vector<size_t> failures_at_entry_;
};

class CopyingVisitor : public JudgingVisitor {
  public:
    CopyingVisitor(const Spot &root, const FilesRequest &request, TreeTally *tally)
        : JudgingVisitor(tally), root_(root), request_(request), order_(OrderOf(request))
    {
    }

    bool Enter(const TreeEntry &directory) override
    {
        const struct stat &target = root_.handle->st;
        if (directory.handle.st.st_dev == target.st_dev && directory.handle.st.st_ino == target.st_ino) {
            Failed(directory.place.path, "a copy cannot hold itself");
            return false;
        }
        if (directory.below.empty()) {
            return true;
        }
        Done done;
        const std::string path = Target(directory);
        const Trouble trouble = EnterTarget(path, directory.handle, &done);
        Judge(path, done, trouble);
        return !trouble.has_value();
    }
    void Leave(const TreeEntry &) override {}
    void Visit(const TreeEntry &entry) override
    {
        const mode_t type = entry.handle.st.st_mode & S_IFMT;
        if (type != S_IFREG && type != S_IFLNK) {
            Log(LOG_LEVEL_VERBOSE, "'%s' is not copied: it is %s", entry.place.path.c_str(),
                KindOf(entry.handle.st).c_str());
            return;
        }
        Done done;
        const std::string path = Target(entry);
        std::optional<Spot> spot;
        Trouble trouble = FindTarget(path, &spot);
        if (!trouble.has_value()) {
            trouble = type == S_IFREG ? CopyTheFile(entry, &*spot, &done) : CopyLink(entry, &*spot, &done);
        }
        Judge(path, done, trouble);
    }

  private:
    std::string Target(const TreeEntry &entry) const
    {
        return (root_.place.path == "/" ? "" : root_.place.path) + "/" + entry.below;
    }

    // Links in the tree that is written to are not followed, whoever made them.
    static Trouble FindTarget(const std::string &path, std::optional<Spot> *ret_spot)
    {
        FoundPlace found = FindPlace(path, LastLink::kKept);
        if (!found.place.has_value()) {
            return found.trouble.value_or("its directory has vanished");
        }
        Spot spot{std::move(*found.place)};
        if (Trouble trouble = LookAt(spot.place, &spot.handle)) {
            return trouble;
        }
        *ret_spot = std::move(spot);
        return std::nullopt;
    }

    Trouble EnterTarget(const std::string &path, const Handle &source, Done *done) const
    {
        std::optional<Spot> spot;
        if (Trouble trouble = FindTarget(path, &spot)) {
            return trouble;
        }
        if (Trouble trouble = ClearTheWay(&*spot, Kind::kDirectory, request_.attr.move_obstructions, done)) {
            return trouble;
        }
        if (spot->handle.has_value()) {
            return std::nullopt;
        }
        if (Trouble trouble = MakeDirectory(&*spot, done)) {
            return trouble;
        }
        Done ignored;  // it is new
        return ApplyPerms(spot->place, *spot->handle, {(source.st.st_mode & kPermissionBits) | kOwnerBits}, &ignored);
    }

    Trouble CopyTheFile(const TreeEntry &entry, Spot *spot, Done *done)
    {
        if (Trouble trouble = ClearTheWay(spot, Kind::kFile, request_.attr.move_obstructions, done)) {
            return trouble;
        }
        CompressedArray *cache = inode_cache_.release();
        Trouble trouble = CopyFile(entry.place, entry.handle, spot->place, spot->handle, order_, &cache, done);
        inode_cache_.reset(cache);
        return trouble;
    }

    static Trouble ReadLink(const Handle &link, const std::string &path, std::string *ret_target)
    {
        char target[PATH_MAX];
        const ssize_t length = readlinkat(link.fd.Get(), "", target, sizeof(target));
        if (length <= 0 || static_cast<size_t>(length) == sizeof(target)) {
            return CouldNot("read the symbolic link", path, "readlink");
        }
        ret_target->assign(target, static_cast<size_t>(length));
        return std::nullopt;
    }

    // A link of another user would be one of ours when copied, and be followed.
    Trouble CopyLink(const TreeEntry &entry, Spot *spot, Done *done) const
    {
        const uid_t owner = entry.handle.st.st_uid;
        if (owner != 0 && owner != geteuid()) {
            return "'" + entry.place.path + "' is " + KindOf(entry.handle.st) + ", which is not copied";
        }
        std::string target;
        if (Trouble trouble = ReadLink(entry.handle, entry.place.path, &target)) {
            return trouble;
        }
        std::string old;
        if (spot->handle.has_value() && S_ISLNK(spot->handle->st.st_mode)) {
            if (Trouble trouble = ReadLink(*spot->handle, spot->place.path, &old)) {
                return trouble;
            }
        } else if (Trouble trouble = ClearForLink(spot, done)) {
            return trouble;
        }
        if (old == target) {
            return std::nullopt;
        }
        Trouble trouble = LinkTextOver(target, spot->place);
        if (!trouble.has_value()) {
            done->push_back("made a symbolic link to '" + target + "'");
        }
        return trouble;
    }

    Trouble ClearForLink(Spot *spot, Done *done) const
    {
        if (!spot->handle.has_value()) {
            return std::nullopt;
        }
        const Kind other = S_ISREG(spot->handle->st.st_mode) ? Kind::kDirectory : Kind::kFile;
        return request_.attr.move_obstructions
                   ? ClearTheWay(spot, other, true, done)
                   : Trouble("'" + spot->place.path + "' is " + KindOf(spot->handle->st) + ", not a symbolic link");
    }

    const Spot &root_;
    const FilesRequest &request_;
    CopyOrder order_;
    std::unique_ptr<CompressedArray, Destroyer<DeleteCompressedArray>> inode_cache_;
};

class WatchingVisitor : public JudgingVisitor {
  public:
    WatchingVisitor(const WatchEntry &watch, TreeTally *tally) : JudgingVisitor(tally), watch_(watch) {}

    bool Enter(const TreeEntry &) override { return true; }
    void Leave(const TreeEntry &) override {}
    void Visit(const TreeEntry &entry) override
    {
        if (S_ISREG(entry.handle.st.st_mode)) {
            Done done;
            const Trouble trouble = watch_(entry.place.path, entry.handle, &done);
            Judge(entry.place.path, done, trouble);
        }
    }

  private:
    const WatchEntry &watch_;
};

}  // namespace

void JudgeEntry(const std::string &path, const Done &done, const Trouble &trouble, TreeTally *tally)
{
    if (!done.empty() && tally->repaired++ < kMostLines) {
        Log(LOG_LEVEL_INFO, "File '%s' is repaired: %s", path.c_str(), Listed(done).c_str());
    }
    if (trouble.has_value() && tally->failed++ < kMostLines) {
        Log(LOG_LEVEL_ERR, "File '%s' is not kept: %s", path.c_str(), trouble->c_str());
    }
}

void SetPermsBelow(const Spot &root, const FilesRequest &request, TreeTally *tally)
{
    PermsVisitor visitor(request.perms, tally);
    WalkTree(root.place, *root.handle, *request.depth_search, &visitor);
}

void DeleteBelow(const Spot &root, const FilesRequest &request, TreeTally *tally)
{
    DeletingVisitor visitor(tally);
    WalkTree(root.place, *root.handle, *request.depth_search, &visitor);
}

void CopyBelow(const Spot &source, const Spot &root, const FilesRequest &request, TreeTally *tally)
{
    CopyingVisitor visitor(root, request, tally);
    WalkTree(source.place, *source.handle, *request.depth_search, &visitor);
}

void WatchBelow(const Spot &root, const FilesRequest &request, const WatchEntry &watch, TreeTally *tally)
{
    WatchingVisitor visitor(watch, tally);
    WalkTree(root.place, *root.handle, *request.depth_search, &visitor);
}

}  // namespace veltrane
