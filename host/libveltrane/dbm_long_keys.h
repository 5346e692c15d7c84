// How keys and values of any length that we allow fit into LMDB, which takes keys of 1 to 511 bytes.
//
//   key of 1 to 511 bytes       stored as it is; its last byte is its zero
//   key of 512 to 4096 bytes    stored as its first 440 bytes and 64 hex digits of its SHA-256, without a zero at the
//                               end, so that it cannot be taken for a short one; the whole key, its zero included,
//                               stands in front of the value
#ifndef LIBVELTRANE_DBM_LONG_KEYS_H
#define LIBVELTRANE_DBM_LONG_KEYS_H

#include <string>
#include <string_view>

namespace veltrane {

constexpr size_t kLongestKey = 4096;  // with its zero; longer ones are refused

// Keys are bytes with their zero.
class DbmStoredKey {
  public:
    explicit DbmStoredKey(std::string_view key);

    bool valid() const { return !key_.empty() && key_.size() <= kLongestKey; }
    std::string_view bytes() const { return is_long() ? std::string_view(stored_) : key_; }

    // The value as it is stored under this key; room holds it when it is not value itself.
    std::string_view ValueToStore(std::string_view value, std::string *room) const;

    // The value within what is stored under this key. false: what is stored belongs to another key.
    bool ValueOf(std::string_view stored_value, std::string_view *ret_value) const;

  private:
    bool is_long() const { return !stored_.empty(); }

    std::string_view key_;  // lent
    std::string stored_;    // empty for a short key
};

// The key and the value that a stored entry stands for, within the bytes given. false for an entry that no key of ours
// has made.
bool DbmEntryOf(std::string_view stored_key, std::string_view stored_value, std::string_view *ret_key,
                std::string_view *ret_value);

}  // namespace veltrane

#endif
