// The digest of what an open file holds, for those who have looked at what they opened.
#ifndef HOST_LIBVELTRANE_HASH_DESCRIPTOR_H
#define HOST_LIBVELTRANE_HASH_DESCRIPTOR_H

#include <veltrane/crypto.h>

namespace veltrane {

// From where the descriptor stands to the end. false with errno when it cannot be read, or has no such digest.
[[nodiscard]] bool HashDescriptor(int fd, unsigned char *digest, HashMethod type);

}  // namespace veltrane

#endif
