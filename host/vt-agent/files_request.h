// What a promise of type "files" asks for, understood and checked: the attributes after their variables and functions
// have been replaced, so texts that the reading of the policy could not judge are judged here.
#ifndef HOST_VT_AGENT_FILES_REQUEST_H
#define HOST_VT_AGENT_FILES_REQUEST_H

#include <optional>
#include <string>

#include <veltrane/attributes.h>
#include <veltrane/owned.h>
#include <veltrane/policy.h>

#include "libveltrane/file_perms.h"
#include "libveltrane/tree_walk.h"
#include "libveltrane/trouble.h"

namespace veltrane {

struct FilesRequest {
    std::string path;              // the promiser
    bool wants_directory = false;  // it ends in '/', or is searched below
    std::optional<std::string> content{};
    std::optional<std::string> source{};  // of a copy
    std::optional<bool> create{};         // absent: content and copy_from create, nothing else does
    bool remove = false;
    PermsWish perms{};
    std::optional<TreeBounds> depth_search{};
    bool watches_changes = false;
    bool report_diffs = false;  // of what is watched: the lines that changed
    std::string repository{};   // directory of the copies that lines are compared with; "" = beside the file
    Attributes attr{};          // as the Record functions and the copy routine take them
    RlistPtr servers;           // what attr.copy lends

    bool MayCreate() const { return create.value_or(content.has_value() || source.has_value()); }
};

// The words that say what cannot be understood, or what contradicts itself; nothing when *ret_request is whole, which
// borrows from the promise.
Trouble UnderstandFiles(const Promise *expanded, FilesRequest *ret_request);

}  // namespace veltrane

#endif
