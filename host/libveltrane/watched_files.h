// What the agent last saw of each file whose changes a policy watches: kind, permissions, owner, and a digest of the
// content, in the database "watched_files" by path.
//
// Looking, logging and remembering are three steps, in this order: a run that ends between them sees the same change
// again, so a change may be logged twice, but never goes unlogged.
#ifndef HOST_LIBVELTRANE_WATCHED_FILES_H
#define HOST_LIBVELTRANE_WATCHED_FILES_H

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <veltrane/crypto.h>
#include <veltrane/owned.h>

#include "libveltrane/file_bytes.h"
#include "libveltrane/file_change_log.h"

namespace veltrane {

// As it lies in the database: never change.
struct WatchedState {
    int32_t method = HASH_METHOD_NONE;  // of the digest; HASH_METHOD_NONE for what is no regular file
    uint32_t mode = 0;                  // kind and permissions, as in struct stat
    uint32_t owner = 0;
    uint32_t group = 0;
    std::array<unsigned char, VT_SHA512_LEN> digest{};
};
static_assert(sizeof(WatchedState) == 80);

struct WatchedChange {
    FileChange change;
    std::string text;  // for the log
};

// What a look at one path found.
struct Sighting {
    std::string path;
    std::optional<WatchedState> now{};  // nothing: nothing is there
    std::vector<WatchedChange> changes{};
    bool remembered = true;  // what is known of it holds still

    bool ContentChanged() const;  // it is new, or its content is another
    bool IsFile() const;          // a regular file is there
};

class WatchedFiles {
  public:
    // The database is opened at the first use and kept open.
    WatchedFiles() = default;

    // Compare what stands at a path with what is known of it. handle: of what is there, NULL when nothing is. Symbolic
    // links are trouble.
    Trouble Look(const std::string &path, const Handle *handle, Sighting *ret_sighting);

    // Append its changes to the log; nothing for one without.
    static Trouble Log(const Sighting &sighting, time_t t);

    // Know it as it was found.
    Trouble Remember(const Sighting &sighting);

    // The known paths that begin with a text, in byte order.
    Trouble KnownBelow(const std::string &beginning, std::vector<std::string> *ret_paths);

  private:
    Trouble Open();
    Trouble Known(const std::string &path, std::optional<WatchedState> *ret_state);

    DBHandlePtr database_;
};

}  // namespace veltrane

#endif
