// The host's key pair and the keys it trusts: who a peer is, and whether it is let in at all.
//
// A host makes its P-256 key pair once: keys/host.priv (PEM, 0600) and keys/host.pub. An identity is "SHA=" and the 64
// lower-case hex digits of the SHA-256 of the public key in DER form (SubjectPublicKeyInfo); a peer is known by it and
// by nothing else. Trusted are the own key and each keys/SHA=....pub whose content has the digest of its name, so a
// file under a wrong name trusts nobody. Public keys of refused peers are kept in keys/seen, at most kSeenKeys of them,
// so that trust can be given by naming the identity that the log shows.
//
// Nothing here logs. Functions may run in any thread and in several programs at once.
#ifndef HOST_LIBVELTRANE_KEYS_H
#define HOST_LIBVELTRANE_KEYS_H

#include <openssl/evp.h>

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <veltrane/owned.h>

namespace veltrane {

using KeyPtr = std::unique_ptr<EVP_PKEY, Destroyer<EVP_PKEY_free>>;

// Most public keys of strangers that are remembered; the oldest goes first.
constexpr size_t kSeenKeys = 64;

// "SHA=" and exactly 64 lower-case hex digits.
bool IsIdentity(std::string_view text);

// The identity of a key, private or public; "" when it cannot be written in DER form.
std::string KeyIdentity(EVP_PKEY *key);

// The host's own private key, made with its public file when there is none.
//
// Result  NULL, with ret_error set, when it cannot be made or read, and when group or others may read keys/host.priv.
[[nodiscard]] KeyPtr OwnKey(std::string *ret_error);

// Path of keys/host.pub; the file is there once OwnKey succeeded.
std::string OwnPublicKeyPath();

// The public key of a PEM file; NULL, with ret_error set, when it cannot be read or holds none.
[[nodiscard]] KeyPtr ReadPublicKey(const std::string &path, std::string *ret_error);

// Whether this key is trusted at this moment; false for what is no identity.
bool IsTrusted(const std::string &identity);

// Trust a key from now on; nothing happens when it is trusted already. "" when done, else why not.
[[nodiscard]] std::string TrustKey(EVP_PKEY *key);

// Trust the key of source: an identity, when that key has been seen or is trusted already, else the path of a public
// key file in PEM form.
//
// expected      the identity that the key must have; "" = any
// ret_identity  the identity that is trusted now
// Result        "" when done, else why not; nothing has changed then.
[[nodiscard]] std::string TrustAdd(const std::string &source, const std::string &expected, std::string *ret_identity);

// Take the trust in a key back. "" when done, else why not: it was not there, or it is the own key.
[[nodiscard]] std::string TrustRemove(const std::string &identity);

// The trusted keys beside the own one, ascending.
std::vector<std::string> TrustedIdentities();

// Keep the public key of a peer that was refused, for a later TrustAdd by identity. A failure is of no consequence.
void RememberSeenKey(EVP_PKEY *key);

}  // namespace veltrane

#endif
