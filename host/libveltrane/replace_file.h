// A file that takes the place of another: written whole beside it and renamed over it, so that a reader, a crash or a
// full disk sees the old one or the new one, never half of one.
#ifndef HOST_LIBVELTRANE_REPLACE_FILE_H
#define HOST_LIBVELTRANE_REPLACE_FILE_H

#include <string>
#include <string_view>

#include "libveltrane/file_perms.h"
#include "libveltrane/file_place.h"

namespace veltrane {

// The new file while it is made, under a working name, 0600 and ours. What was not committed goes with it.
class Replacement {
  public:
    explicit Replacement(const Place &place);  // which outlives it
    ~Replacement();
    Replacement(const Replacement &) = delete;
    Replacement &operator=(const Replacement &) = delete;

    Trouble Begin();
    int Fd() const { return file_.Get(); }

    // Give it its owner and mode, bring it to the disk, and rename it over what stands at the place.
    Trouble Commit(const PermsWish &perms);

  private:
    bool IsStillThere() const;

    const Place &place_;
    const std::string name_;
    Descriptor file_;
    bool made_ = false;
};

// Put a file with these bytes and this mode at the end of a path, in the stead of what stands there.
Trouble ReplaceFile(const std::string &path, std::string_view bytes, mode_t mode);

// Put a second name of the file at one place into another place, in the stead of what stands there. false with errno,
// and nothing changed.
bool LinkOver(const Place &from, const Place &to);

// Put a symbolic link with this text into a place, in the stead of what stands there.
Trouble LinkTextOver(const std::string &text, const Place &to);

}  // namespace veltrane

#endif
