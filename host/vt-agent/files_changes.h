// Watching files for changes, as promises with "changes" ask: after a promise's own work is done, what is there is
// compared with what was there at the end of the run before.
//
// A change is written to state/file_changes.log and, with report_diffs, handed to the plug-in for its lines; then it is
// known. With "depth_search" each regular file of the tree is watched, without its lines.
#ifndef HOST_VT_AGENT_FILES_CHANGES_H
#define HOST_VT_AGENT_FILES_CHANGES_H

#include <set>
#include <string>

#include <veltrane/eval_context.h>
#include <veltrane/outcome.h>
#include <veltrane/policy.h>

#include "libveltrane/watched_files.h"
#include "vt-agent/files_steps.h"
#include "vt-agent/files_tree.h"

namespace veltrane {

// What became of it. Noting a change is a repair.
struct WatchResult {
    Done done{};
    Trouble trouble{};
    TreeTally tally{};                               // of the files of a tree
    PromiseResult details = PROMISE_RESULT_SKIPPED;  // of the plug-in, which has said itself what it is
};

// Lives as long as the run of a policy, whose files are then opened once.
class ChangeWatch {
  public:
    WatchResult Watch(EvalContext *ctx, const Promise *expanded, const FilesRequest &request);

  private:
    struct Order;  // who asks, and what for

    void WatchFile(const Order &order, const std::string &path, const Handle *handle, WatchResult *result);
    void WatchTree(const Order &order, const Spot &root, WatchResult *result);
    void WatchGone(const Order &order, const std::string &directory, const std::set<std::string> &met,
                   WatchResult *result);

    WatchedFiles files_;
};

}  // namespace veltrane

#endif
