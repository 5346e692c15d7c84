// Watching files for changes; see files_changes.h.
#include "vt-agent/files_changes.h"

#include <ctime>
#include <utility>

#include <veltrane/entry_points.h>

#include "libveltrane/copy_file.h"

namespace veltrane {

namespace {

const char *Noted(FileChange change)
{
    switch (change) {
        case FileChange::kAdded:
            return "watched from now on";
        case FileChange::kModified:
            return "change of content noted";
        case FileChange::kPermissions:
            return "change of permissions noted";
        case FileChange::kDeleted:
            return "disappearance noted";
    }
    return "";
}

std::string WithoutSlashes(std::string path)
{
    while (path.size() > 1 && path.back() == '/') { path.pop_back(); }
    return path;
}

// Whether nothing is there any more; what cannot be looked at may still be.
bool IsGone(const std::string &path)
{
    const FoundPlace found = FindPlace(path, LastLink::kKept);
    std::optional<Handle> handle;
    if (!found.place.has_value()) {
        return !found.trouble.has_value();
    }
    return !LookAt(*found.place, &handle).has_value() && !handle.has_value();
}

}  // namespace

struct ChangeWatch::Order {
    EvalContext *ctx;
    const Promise *expanded;
    const FilesRequest &request;
    bool details;  // the plug-in is asked
};

void ChangeWatch::WatchFile(const Order &order, const std::string &path, const Handle *handle, WatchResult *result)
{
    Sighting sighting;
    Trouble trouble = files_.Look(path, handle, &sighting);
    if (!trouble.has_value()) {
        trouble = WatchedFiles::Log(sighting, time(nullptr));
    }
    if (!trouble.has_value() && order.details && sighting.IsFile()) {
        result->details = PromiseResultUpdate(
            result->details,
            LogFileChange(order.ctx, path.c_str(), sighting.ContentChanged(), &order.request.attr, order.expanded,
                          CopyRegularFile, order.request.repository.c_str(), DeleteCompressedArray));
    }
    if (!trouble.has_value()) {
        trouble = files_.Remember(sighting);
    }
    if (!trouble.has_value()) {
        for (const WatchedChange &found : sighting.changes) { result->done.emplace_back(Noted(found.change)); }
    }
    result->trouble = trouble;
}

void ChangeWatch::WatchTree(const Order &order, const Spot &root, WatchResult *result)
{
    std::set<std::string> met;
    Order each = order;
    const auto watch = [&](const std::string &path, const Handle &handle, Done *done) {
        WatchResult one;
        WatchFile(each, path, &handle, &one);
        met.insert(path);
        each.details = false;  // the plug-in refuses lines of a tree's files: it is enough to be told once
        result->details = PromiseResultUpdate(result->details, one.details);
        *done = one.done;
        return one.trouble;
    };
    WatchBelow(root, order.request, watch, &result->tally);
    WatchGone(order, root.place.path, met, result);
}

void ChangeWatch::WatchGone(const Order &order, const std::string &directory, const std::set<std::string> &met,
                            WatchResult *result)
{
    std::vector<std::string> known;
    result->trouble = files_.KnownBelow(directory == "/" ? directory : directory + "/", &known);
    for (const std::string &path : known) {
        if (met.count(path) == 0 && IsGone(path)) {
            WatchResult one;
            WatchFile(order, path, nullptr, &one);
            JudgeEntry(path, one.done, one.trouble, &result->tally);
        }
    }
}

WatchResult ChangeWatch::Watch(EvalContext *ctx, const Promise *expanded, const FilesRequest &request)
{
    WatchResult result;
    std::optional<Spot> spot;
    result.trouble = FindSpot(request.path, request, false, &spot);
    if (result.trouble.has_value()) {
        return result;
    }
    const Order order{ctx, expanded, request, request.report_diffs};
    const std::string path = WithoutSlashes(request.path);
    const Handle *const handle = spot.has_value() && spot->handle.has_value() ? &*spot->handle : nullptr;
    if (!request.depth_search.has_value()) {
        WatchFile(order, path, handle, &result);
    } else if (handle != nullptr && S_ISDIR(handle->st.st_mode)) {
        WatchTree(order, *spot, &result);
    } else {
        WatchGone(order, spot.has_value() ? spot->place.path : path, {}, &result);
    }
    return result;
}

}  // namespace veltrane
