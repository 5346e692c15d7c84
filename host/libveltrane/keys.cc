#include "libveltrane/keys.h"

#include <fcntl.h>
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <utility>

#include <veltrane/crypto.h>
#include <veltrane/errors.h>
#include <veltrane/file_lib.h>
#include <veltrane/known_dirs.h>
#include <veltrane/string_lib.h>

namespace veltrane {

namespace {

using BioPtr = std::unique_ptr<BIO, Destroyer<BIO_free>>;

constexpr std::string_view kIdentityPrefix = "SHA=";
constexpr std::string_view kPublicSuffix = ".pub";
constexpr size_t kMaxKeyFile = size_t{64} * 1024;  // a key file is a page at most; what is larger is something else

std::string KeysDirectory() { return std::string(GetWorkDir()) + "/keys"; }
std::string SeenDirectory() { return KeysDirectory() + "/seen"; }
std::string OwnPrivateKeyPath() { return KeysDirectory() + "/host.priv"; }
std::string TrustedKeyPath(const std::string &identity) { return KeysDirectory() + "/" + identity + ".pub"; }
std::string SeenKeyPath(const std::string &identity) { return SeenDirectory() + "/" + identity + ".pub"; }

std::string SystemError(const char *what, const std::string &path)
{
    return std::string("Could not ") + what + " '" + path + "': " + GetErrorStr();
}

bool WriteAll(int fd, std::string_view bytes)
{
    while (!bytes.empty()) {
        const ssize_t n = write(fd, bytes.data(), bytes.size());
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            return false;
        }
        bytes.remove_prefix(static_cast<size_t>(n));
    }
    return true;
}

// A new file with these bytes beside path, on disk; its name, or "" with errno.
std::string WriteBeside(const std::string &path, std::string_view bytes, mode_t perms)
{
    static std::atomic<unsigned> count{0};  // several threads may remember a key at once
    std::string name = path + "." + std::to_string(getpid()) + "." + std::to_string(count++) + ".new";
    const int fd = safe_open_create_perms(name.c_str(), O_WRONLY | O_CREAT | O_EXCL, perms);
    if (fd < 0) {
        return "";
    }
    const bool written = WriteAll(fd, bytes) && fsync(fd) == 0;
    const int error = errno;
    if (close(fd) != 0 || !written) {
        unlink(name.c_str());
        errno = written ? errno : error;
        return "";
    }
    return name;
}

// Put a file in place whole, over what may be there. false with errno.
bool ReplaceFile(const std::string &path, std::string_view bytes, mode_t perms)
{
    const std::string name = WriteBeside(path, bytes, perms);
    if (name.empty()) {
        return false;
    }
    if (rename(name.c_str(), path.c_str()) != 0) {
        const int error = errno;
        unlink(name.c_str());
        errno = error;
        return false;
    }
    return true;
}

// Put a file in place whole unless another process was quicker; its file then stands. false with errno.
bool CreateFileOnce(const std::string &path, std::string_view bytes, mode_t perms)
{
    const std::string name = WriteBeside(path, bytes, perms);
    if (name.empty()) {
        return false;
    }
    const bool linked = link(name.c_str(), path.c_str()) == 0 || errno == EEXIST;
    const int error = errno;
    unlink(name.c_str());
    errno = error;
    return linked;
}

// What OpenSSL wrote into a memory BIO.
std::string Contents(BIO *bio)
{
    char *data = nullptr;
    const long length = BIO_get_mem_data(bio, &data);
    return length > 0 ? std::string(data, static_cast<size_t>(length)) : std::string();
}

std::string PublicPem(EVP_PKEY *key)
{
    const BioPtr bio(BIO_new(BIO_s_mem()));
    return bio != nullptr && PEM_write_bio_PUBKEY(bio.get(), key) == 1 ? Contents(bio.get()) : std::string();
}

std::string PrivatePem(EVP_PKEY *key)
{
    const BioPtr bio(BIO_new(BIO_s_secmem()));
    return bio != nullptr && PEM_write_bio_PrivateKey(bio.get(), key, nullptr, nullptr, 0, nullptr, nullptr) == 1
               ? Contents(bio.get())
               : std::string();
}

// A key that is locked with a pass phrase is refused; nobody is asked on a terminal.
int NoPassPhrase(char *, int, int, void *) { return -1; }

KeyPtr ReadPrivateKey(const std::string &path, std::string *ret_error)
{
    const FilePtr file(safe_fopen(path.c_str(), "r"));
    struct stat facts {};
    if (file == nullptr || fstat(fileno(file.get()), &facts) != 0) {
        *ret_error = SystemError("read", path);
        return nullptr;
    }
    if ((facts.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
        *ret_error = "The private key '" + path + "' is open to others: its permissions must be 0600";
        return nullptr;
    }
    KeyPtr key(PEM_read_PrivateKey(file.get(), nullptr, NoPassPhrase, nullptr));
    if (key == nullptr) {
        ERR_clear_error();
        *ret_error = "'" + path + "' holds no private key in PEM form";
    }
    return key;
}

bool MakeOwnKey(std::string *ret_error)
{
    const KeyPtr key(EVP_EC_gen("P-256"));
    const std::string pem = key != nullptr ? PrivatePem(key.get()) : std::string();
    if (pem.empty()) {
        ERR_clear_error();
        *ret_error = "Could not make a key pair";
        return false;
    }
    if (!CreateFileOnce(OwnPrivateKeyPath(), pem, 0600)) {
        *ret_error = SystemError("write", OwnPrivateKeyPath());
        return false;
    }
    return true;
}

// Whether path holds the public key of this identity.
bool HoldsKey(const std::string &path, const std::string &identity)
{
    std::string ignored;  // a file that cannot be read holds no key
    const KeyPtr key = ReadPublicKey(path, &ignored);
    return key != nullptr && KeyIdentity(key.get()) == identity;
}

// The identity of a public key in DER form; "" when it cannot be had.
std::string IdentityOfDer(const unsigned char *der, size_t length)
{
    unsigned char digest[VT_SHA256_LEN];
    char hex[2 * VT_SHA256_LEN + 1];
    if (!HashBytes(der, length, digest, HASH_METHOD_SHA256) ||
        StringBytesToHex(hex, sizeof(hex), digest, sizeof(digest)) == 0) {
        return "";
    }
    return std::string(kIdentityPrefix) + hex;
}

// The text of a key file, "" when it is too large for one; NULL with errno.
WriterPtr ReadKeyFile(const std::string &path)
{
    bool truncated = false;
    WriterPtr text(FileRead(path.c_str(), kMaxKeyFile, &truncated));
    if (truncated) {
        text.reset(StringWriter());
    }
    return text;
}

BioPtr BioOf(const WriterPtr &text)
{
    return BioPtr(BIO_new_mem_buf(StringWriterData(text.get()), static_cast<int>(StringWriterLength(text.get()))));
}

// Whether the bytes of a file are those that an identity is the digest of. Then there is nothing to understand in them,
// which takes OpenSSL longer than a handshake; this is asked for every connection. A key written in another way than
// ours is not found so, but by HoldsKey.
bool HoldsBytesOf(const std::string &path, const std::string &identity)
{
    const WriterPtr text = ReadKeyFile(path);
    const BioPtr bio = text != nullptr ? BioOf(text) : nullptr;
    unsigned char *der = nullptr;
    long length = 0;
    if (bio == nullptr ||
        PEM_bytes_read_bio(&der, &length, nullptr, PEM_STRING_PUBLIC, bio.get(), NoPassPhrase, nullptr) != 1) {
        ERR_clear_error();
        return false;
    }
    const bool same = IdentityOfDer(der, static_cast<size_t>(length)) == identity;
    OPENSSL_free(der);
    return same;
}

// The identities that the file names of a directory promise, ascending. The content is not looked at.
std::vector<std::string> NamedIdentities(const std::string &directory)
{
    std::vector<std::string> identities;
    const DirPtr dir(DirOpen(directory.c_str()));
    if (dir == nullptr) {
        return identities;
    }
    while (const dirent *entry = DirRead(dir.get())) {
        std::string_view name = entry->d_name;
        if (name.size() <= kPublicSuffix.size() || !name.ends_with(kPublicSuffix)) {
            continue;
        }
        name.remove_suffix(kPublicSuffix.size());
        if (IsIdentity(name)) {
            identities.emplace_back(name);
        }
    }
    std::sort(identities.begin(), identities.end());
    return identities;
}

// Make room for one more seen key. Two threads may both drop one; nothing depends on the exact number.
void DropOldestSeenKeys()
{
    std::vector<std::pair<timespec, std::string>> seen;
    for (const std::string &identity : NamedIdentities(SeenDirectory())) {
        struct stat facts {};
        const std::string path = SeenKeyPath(identity);
        if (lstat(path.c_str(), &facts) == 0) {
            seen.emplace_back(facts.st_mtim, path);
        }
    }
    const auto older = [](const auto &a, const auto &b) {
        return std::pair(a.first.tv_sec, a.first.tv_nsec) < std::pair(b.first.tv_sec, b.first.tv_nsec);
    };
    std::sort(seen.begin(), seen.end(), older);
    for (size_t i = 0; i + kSeenKeys <= seen.size(); ++i) { unlink(seen[i].second.c_str()); }
}

}  // namespace

bool IsIdentity(std::string_view text)
{
    if (text.size() != kIdentityPrefix.size() + size_t{2} * VT_SHA256_LEN || !text.starts_with(kIdentityPrefix)) {
        return false;
    }
    text.remove_prefix(kIdentityPrefix.size());
    return text.find_first_not_of("0123456789abcdef") == std::string_view::npos;
}

std::string KeyIdentity(EVP_PKEY *key)
{
    unsigned char *der = nullptr;
    const int length = i2d_PUBKEY(key, &der);
    if (length <= 0) {
        ERR_clear_error();
        return "";
    }
    std::string identity = IdentityOfDer(der, static_cast<size_t>(length));
    OPENSSL_free(der);
    return identity;
}

std::string OwnPublicKeyPath() { return KeysDirectory() + "/host.pub"; }

KeyPtr OwnKey(std::string *ret_error)
{
    if (access(OwnPrivateKeyPath().c_str(), F_OK) != 0) {
        if (errno != ENOENT) {
            *ret_error = SystemError("read", OwnPrivateKeyPath());
            return nullptr;
        }
        if (!MakeOwnKey(ret_error)) {
            return nullptr;
        }
    }
    KeyPtr key = ReadPrivateKey(OwnPrivateKeyPath(), ret_error);
    if (key == nullptr) {
        return nullptr;
    }
    // The public file follows from the private one, so it is mended wherever it differs.
    if (!HoldsKey(OwnPublicKeyPath(), KeyIdentity(key.get())) &&
        !ReplaceFile(OwnPublicKeyPath(), PublicPem(key.get()), 0644)) {
        *ret_error = SystemError("write", OwnPublicKeyPath());
        return nullptr;
    }
    return key;
}

KeyPtr ReadPublicKey(const std::string &path, std::string *ret_error)
{
    const WriterPtr text = ReadKeyFile(path);
    if (text == nullptr) {
        *ret_error = SystemError("read", path);
        return nullptr;
    }
    const BioPtr bio = BioOf(text);
    KeyPtr key(bio != nullptr ? PEM_read_bio_PUBKEY(bio.get(), nullptr, NoPassPhrase, nullptr) : nullptr);
    if (key == nullptr) {
        ERR_clear_error();
        *ret_error = "'" + path + "' holds no public key in PEM form";
    }
    return key;
}

bool IsTrusted(const std::string &identity)
{
    if (!IsIdentity(identity)) {
        return false;
    }
    const std::string own = OwnPublicKeyPath();
    const std::string trusted = TrustedKeyPath(identity);
    return HoldsBytesOf(own, identity) || HoldsBytesOf(trusted, identity) || HoldsKey(own, identity) ||
           HoldsKey(trusted, identity);
}

std::string TrustKey(EVP_PKEY *key)
{
    const std::string identity = KeyIdentity(key);
    const std::string pem = PublicPem(key);
    if (identity.empty() || pem.empty()) {
        ERR_clear_error();
        return "The key cannot be written in PEM form";
    }
    if (!IsTrusted(identity)) {
        if (!ReplaceFile(TrustedKeyPath(identity), pem, 0644)) {
            return SystemError("write", TrustedKeyPath(identity));
        }
        unlink(SeenKeyPath(identity).c_str());  // no stranger any more
    }
    return "";
}

std::string TrustAdd(const std::string &source, const std::string &expected, std::string *ret_identity)
{
    if (!expected.empty() && !IsIdentity(expected)) {
        return "'" + expected + "' is no identity: that is SHA= and 64 lower-case hex digits";
    }
    std::string path = source;
    std::string wanted = expected;
    if (source.starts_with(kIdentityPrefix) && access(source.c_str(), F_OK) != 0) {
        if (!IsIdentity(source)) {
            return "'" + source + "' is no identity: that is SHA= and 64 lower-case hex digits";
        }
        if (!wanted.empty() && wanted != source) {
            return "'" + source + "' is not '" + wanted + "'";
        }
        wanted = source;
        if (IsTrusted(source)) {
            *ret_identity = source;
            return "";
        }
        path = SeenKeyPath(source);
        if (!HoldsKey(path, source)) {
            return "The key '" + source + "' has not been seen yet: add it by its public key file";
        }
    }
    std::string error;
    const KeyPtr key = ReadPublicKey(path, &error);
    if (key == nullptr) {
        return error;
    }
    const std::string identity = KeyIdentity(key.get());
    if (!wanted.empty() && identity != wanted) {
        return "'" + path + "' holds the key '" + identity + "', not '" + wanted + "'";
    }
    error = TrustKey(key.get());
    if (error.empty()) {
        *ret_identity = identity;
    }
    return error;
}

std::string TrustRemove(const std::string &identity)
{
    if (!IsIdentity(identity)) {
        return "'" + identity + "' is no identity: that is SHA= and 64 lower-case hex digits";
    }
    if (unlink(TrustedKeyPath(identity).c_str()) == 0) {
        return "";
    }
    if (errno != ENOENT) {
        return SystemError("remove", TrustedKeyPath(identity));
    }
    return HoldsKey(OwnPublicKeyPath(), identity) ? "'" + identity + "' is the host's own key: it is always trusted"
                                                  : "'" + identity + "' is not among the trusted keys";
}

std::vector<std::string> TrustedIdentities()
{
    std::vector<std::string> identities = NamedIdentities(KeysDirectory());
    std::erase_if(identities,
                  [](const std::string &identity) { return !HoldsKey(TrustedKeyPath(identity), identity); });
    return identities;
}

void RememberSeenKey(EVP_PKEY *key)
{
    const std::string identity = KeyIdentity(key);
    const std::string pem = PublicPem(key);
    if (identity.empty() || pem.empty() || access(SeenKeyPath(identity).c_str(), F_OK) == 0) {
        return;
    }
    if (mkdir(SeenDirectory().c_str(), 0700) != 0 && errno != EEXIST) {
        return;
    }
    DropOldestSeenKeys();
    (void)ReplaceFile(SeenKeyPath(identity), pem, 0600);  // of no consequence: the key file can be carried over instead
}

}  // namespace veltrane
