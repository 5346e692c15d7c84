// How keys and values of any length that we allow fit into LMDB; see dbm_long_keys.h.
#include "libveltrane/dbm_long_keys.h"

#include <veltrane/crypto.h>
#include <veltrane/string_lib.h>

namespace veltrane {
namespace {

constexpr size_t kLongestPlainKey = 511;
constexpr size_t kKeptBytes = 440;  // of a long key: on disk, never change
constexpr size_t kDigestDigits = size_t{2} * VT_SHA256_LEN;

}  // namespace

DbmStoredKey::DbmStoredKey(std::string_view key) : key_(key)
{
    if (key.size() <= kLongestPlainKey || !valid()) {
        return;
    }
    unsigned char digest[VT_SHA256_LEN];
    char digits[kDigestDigits + 1] = "";
    HashBytes(key.data(), key.size(), digest, HASH_METHOD_SHA256);
    StringBytesToHex(digits, sizeof(digits), digest, sizeof(digest));
    stored_.assign(key.substr(0, kKeptBytes)).append(digits);
}

std::string_view DbmStoredKey::ValueToStore(std::string_view value, std::string *room) const
{
    if (!is_long()) {
        return value;
    }
    room->assign(key_).append(value);
    return *room;
}

bool DbmStoredKey::ValueOf(std::string_view stored_value, std::string_view *ret_value) const
{
    if (!is_long()) {
        *ret_value = stored_value;
        return true;
    }
    if (stored_value.substr(0, key_.size()) != key_) {
        return false;
    }
    *ret_value = stored_value.substr(key_.size());
    return true;
}

bool DbmEntryOf(std::string_view stored_key, std::string_view stored_value, std::string_view *ret_key,
                std::string_view *ret_value)
{
    if (!stored_key.empty() && stored_key.back() == '\0') {
        *ret_key = stored_key;
        *ret_value = stored_value;
        return true;
    }
    const size_t zero = stored_value.find('\0');
    if (zero == std::string_view::npos) {
        return false;
    }
    const std::string_view key = stored_value.substr(0, zero + 1);
    if (DbmStoredKey(key).bytes() != stored_key) {
        return false;
    }
    *ret_key = key;
    *ret_value = stored_value.substr(zero + 1);
    return true;
}

}  // namespace veltrane
