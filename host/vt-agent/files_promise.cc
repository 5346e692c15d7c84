// Keeping files promises; see files_promise.h.
#include "vt-agent/files_promise.h"

#include <string>
#include <utility>

#include <veltrane/logging.h>

#include "vt-agent/files_request.h"
#include "vt-agent/files_steps.h"
#include "vt-agent/files_tree.h"

namespace veltrane {

namespace {

// How a promise has fared so far.
struct Verdict {
    Done done{};
    Trouble trouble{};
    bool missing = false;                            // it is not there, and may not be created
    TreeTally tally{};                               // of what is below it
    PromiseResult details = PROMISE_RESULT_SKIPPED;  // of the lines that changed; said already
};

bool WantsPerms(const PermsWish &wish)
{
    return wish.mode.has_value() || wish.owner.has_value() || wish.group.has_value();
}

// The spot that the promise is about, cleared for what it is to hold; false when the verdict says why there is none.
bool Prepare(const FilesRequest &request, std::optional<Spot> *ret_spot, Verdict *verdict)
{
    const bool makes = request.MayCreate();
    verdict->trouble = FindSpot(request.path, request, makes, ret_spot);
    if (verdict->trouble.has_value()) {
        return false;
    }
    const bool wants_file = request.content.has_value() || request.source.has_value() || makes;
    if (ret_spot->has_value() && (wants_file || request.wants_directory)) {
        const Kind kind = request.wants_directory ? Kind::kDirectory : Kind::kFile;
        const bool may_move = makes && request.attr.move_obstructions;
        verdict->trouble = ClearTheWay(&**ret_spot, kind, may_move, &verdict->done);
    }
    verdict->missing = !makes && (!ret_spot->has_value() || !(*ret_spot)->handle.has_value());
    if (!verdict->trouble.has_value() && !verdict->missing && !ret_spot->has_value()) {
        verdict->trouble = "a directory above it leads nowhere";
    }
    return !verdict->trouble.has_value() && !verdict->missing;
}

// The source of a copy: of this machine, and there.
Trouble FindSource(const FilesRequest &request, std::optional<Spot> *ret_source)
{
    if (request.attr.copy.servers != nullptr) {
        return "files of other hosts are not fetched";
    }
    if (Trouble trouble = FindSpot(*request.source, request, false, ret_source)) {
        return trouble;
    }
    return ret_source->has_value() && (*ret_source)->handle.has_value()
               ? std::nullopt
               : Trouble("its source '" + *request.source + "' is not there");
}

void Delete(const FilesRequest &request, Verdict *verdict)
{
    FoundPlace found = FindPlace(request.path, LastLink::kKept);
    verdict->trouble = found.trouble;
    if (!found.place.has_value()) {
        return;
    }
    if (found.place->name == ".") {  // before anything below it is
        verdict->trouble = "the root directory is never deleted";
        return;
    }
    Spot spot{std::move(*found.place)};
    verdict->trouble = LookAt(spot.place, &spot.handle);
    if (verdict->trouble.has_value() || !spot.handle.has_value()) {
        return;
    }
    if (request.depth_search.has_value() && S_ISDIR(spot.handle->st.st_mode)) {
        DeleteBelow(spot, request, &verdict->tally);
        return;
    }
    verdict->trouble = Remove(spot.place, *spot.handle);
    if (!verdict->trouble.has_value()) {
        verdict->done.emplace_back("deleted");
    }
}

void KeepDirectory(const FilesRequest &request, Verdict *verdict)
{
    std::optional<Spot> source;
    if (request.source.has_value()) {
        verdict->trouble = FindSource(request, &source);
        if (!verdict->trouble.has_value() && !S_ISDIR(source->handle->st.st_mode)) {
            verdict->trouble = "its source '" + *request.source + "' is no directory";
        }
    }
    std::optional<Spot> spot;
    if (verdict->trouble.has_value() || !Prepare(request, &spot, verdict)) {
        return;
    }
    verdict->trouble = MakeDirectory(&*spot, &verdict->done);
    if (verdict->trouble.has_value()) {
        return;
    }
    if (source.has_value()) {
        CopyBelow(*source, *spot, request, &verdict->tally);
    }
    if (!request.depth_search.has_value()) {
        verdict->trouble = ApplyPerms(spot->place, *spot->handle, request.perms, &verdict->done);
    } else if (WantsPerms(request.perms)) {
        SetPermsBelow(*spot, request, &verdict->tally);
    }
}

void CopyOne(const FilesRequest &request, const Spot &spot, Verdict *verdict)
{
    std::optional<Spot> source;
    verdict->trouble = FindSource(request, &source);
    if (!verdict->trouble.has_value() && S_ISDIR(source->handle->st.st_mode)) {
        verdict->trouble = "copying the directory '" + *request.source + "' needs 'depth_search'";
    }
    if (!verdict->trouble.has_value()) {
        verdict->trouble = CopyFile(source->place, *source->handle, spot.place, spot.handle, OrderOf(request), nullptr,
                                    &verdict->done);
    }
}

void KeepFile(const FilesRequest &request, Verdict *verdict)
{
    std::optional<Spot> spot;
    if (!Prepare(request, &spot, verdict)) {
        return;
    }
    if (request.content.has_value()) {
        verdict->trouble = WriteContent(*spot, *request.content, request.perms, &verdict->done);
    } else if (request.source.has_value()) {
        CopyOne(request, *spot, verdict);
    } else {
        verdict->trouble = MakeFile(*spot, request.perms, &verdict->done);
    }
}

void Watch(ChangeWatch *watch, EvalContext *ctx, const Promise *expanded, const FilesRequest &request, Verdict *verdict)
{
    WatchResult result = watch->Watch(ctx, expanded, request);
    verdict->done.insert(verdict->done.end(), result.done.begin(), result.done.end());
    verdict->tally.repaired += result.tally.repaired;
    verdict->tally.failed += result.tally.failed;
    verdict->details = result.details;
    if (!verdict->trouble.has_value()) {
        verdict->trouble = std::move(result.trouble);
    }
}

// The word on a promise's own work and watching. What was repaired before something failed is said by itself.
PromiseResult Judge(EvalContext *ctx, const Promise *expanded, const FilesRequest &request, const Verdict &verdict)
{
    const char *path = expanded->promiser;
    const Attributes *attr = &request.attr;
    const TreeTally &tally = verdict.tally;
    const bool failed = verdict.trouble.has_value() || verdict.missing || tally.failed > 0;
    if (failed && !verdict.done.empty()) {
        Log(LOG_LEVEL_INFO, "File '%s' is repaired in part: %s", path, Listed(verdict.done).c_str());
    }
    if (verdict.trouble.has_value()) {
        RecordFailure(ctx, expanded, attr, "File '%s' is not kept: %s", path, verdict.trouble->c_str());
        return PROMISE_RESULT_FAIL;
    }
    if (tally.failed > 0) {
        RecordFailure(ctx, expanded, attr, "Tree '%s' is not kept: %zu of its entries failed, %zu were repaired", path,
                      tally.failed, tally.repaired);
        return PROMISE_RESULT_FAIL;
    }
    if (verdict.missing) {
        RecordWarning(ctx, expanded, attr, "File '%s' is not there and is not to be created", path);
        return PROMISE_RESULT_WARN;
    }
    Done done = verdict.done;
    if (tally.repaired > 0) {
        done.push_back(std::to_string(tally.repaired) + " entries of the tree");
    }
    if (!done.empty()) {
        RecordChange(ctx, expanded, attr, "File '%s' is repaired: %s", path, Listed(done).c_str());
        return PROMISE_RESULT_CHANGE;
    }
    if (PromiseResultUpdate(PROMISE_RESULT_NOOP, verdict.details) != PROMISE_RESULT_NOOP) {
        return verdict.details;
    }
    RecordNoChange(ctx, expanded, attr, "File '%s' is as promised", path);
    return PROMISE_RESULT_NOOP;
}

}  // namespace

PromiseResult KeepFilesPromise(ChangeWatch *watch, EvalContext *ctx, const Promise *expanded)
{
    FilesRequest request;
    Verdict verdict;
    verdict.trouble = UnderstandFiles(expanded, &request);
    if (!verdict.trouble.has_value()) {
        if (request.remove) {
            Delete(request, &verdict);
        } else if (request.wants_directory) {
            KeepDirectory(request, &verdict);
        } else {
            KeepFile(request, &verdict);
        }
        if (request.watches_changes) {
            Watch(watch, ctx, expanded, request, &verdict);
        }
    }
    return PromiseResultUpdate(Judge(ctx, expanded, request, verdict), verdict.details);
}

}  // namespace veltrane
