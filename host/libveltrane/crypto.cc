// Digests, and the ciphers of the classic protocol.
//
// A classic message is a random initialisation vector of one cipher block, then the text in CBC mode with PKCS #7
// padding, so nothing tells a tampered message from a whole one beyond its padding: this protocol is spoken in-process
// only. The letter of a connection says cipher and key size; what a letter means is asked of the entry points.
#include <veltrane/crypto.h>

#include <fcntl.h>
#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/provider.h>
#include <openssl/rand.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <vector>

#include <veltrane/entry_points.h>
#include <veltrane/file_lib.h>
#include <veltrane/owned.h>

#include "libveltrane/hash_descriptor.h"

namespace {

using veltrane::Destroyer;
using CipherContextPtr = std::unique_ptr<EVP_CIPHER_CTX, Destroyer<EVP_CIPHER_CTX_free>>;
using DigestContextPtr = std::unique_ptr<EVP_MD_CTX, Destroyer<EVP_MD_CTX_free>>;

// NULL when this OpenSSL has none of that name.
const EVP_MD *Fetch(const char *name) { return EVP_MD_fetch(nullptr, name, nullptr); }

// Each is looked up once a process, and kept: EVP_sha256() and the like would be looked up anew for every digest, which
// takes longer than the digest of a short text. NULL when it cannot be had.
const EVP_MD *DigestOf(HashMethod type)
{
    switch (type) {
        case HASH_METHOD_MD5: {
            static const EVP_MD *const md5 = Fetch("MD5");
            return md5;
        }
        case HASH_METHOD_SHA224: {
            static const EVP_MD *const sha224 = Fetch("SHA224");
            return sha224;
        }
        case HASH_METHOD_SHA256: {
            static const EVP_MD *const sha256 = Fetch("SHA256");
            return sha256;
        }
        case HASH_METHOD_SHA384: {
            static const EVP_MD *const sha384 = Fetch("SHA384");
            return sha384;
        }
        case HASH_METHOD_SHA512:
        case HASH_METHOD_BEST: {
            static const EVP_MD *const sha512 = Fetch("SHA512");
            return sha512;
        }
        case HASH_METHOD_SHA1:
        case HASH_METHOD_SHA: {
            static const EVP_MD *const sha1 = Fetch("SHA1");
            return sha1;
        }
        case HASH_METHOD_CRYPT:
        case HASH_METHOD_NONE:
            break;
    }
    return nullptr;
}

// Blowfish lives in OpenSSL's legacy provider. Loading that one alone would switch the default provider off, so it is
// tried with the fall-backs kept. Once a process.
void LoadLegacyCiphersOnce()
{
    // Where it cannot be loaded, the cipher's own start fails. Given back at exit, before OpenSSL cleans up.
    static const std::unique_ptr<OSSL_PROVIDER, Destroyer<OSSL_PROVIDER_unload>> legacy(
        OSSL_PROVIDER_try_load(nullptr, "legacy", 1));
}

// A context with the letter's cipher and key size set, but no key yet; NULL when the cipher cannot be had.
CipherContextPtr CipherContext(char type, bool encrypt)
{
    const EVP_CIPHER *cipher = VeltraneCipher(type);
    if (cipher == nullptr) {
        return nullptr;
    }
    if (EVP_CIPHER_get_nid(cipher) == NID_bf_cbc) {
        LoadLegacyCiphersOnce();
    }
    CipherContextPtr context(EVP_CIPHER_CTX_new());
    if (context == nullptr ||
        EVP_CipherInit_ex(context.get(), cipher, nullptr, nullptr, nullptr, encrypt ? 1 : 0) != 1 ||
        EVP_CIPHER_CTX_set_key_length(context.get(), VtSessionKeySize(type)) != 1) {
        return nullptr;
    }
    return context;
}

// The whole message through a context; bytes written to out, -1 on failure. out has room for in_length and a block.
int RunCipher(EVP_CIPHER_CTX *context, const unsigned char *key, const unsigned char *iv, const unsigned char *in,
              int in_length, unsigned char *out)
{
    int written = 0;
    int last = 0;
    if (EVP_CipherInit_ex(context, nullptr, nullptr, key, iv, -1) != 1 ||
        EVP_CipherUpdate(context, out, &written, in, in_length) != 1 ||
        EVP_CipherFinal_ex(context, out + written, &last) != 1) {
        return -1;
    }
    return written + last;
}

const unsigned char *Bytes(const char *text) { return reinterpret_cast<const unsigned char *>(text); }
unsigned char *Bytes(char *text) { return reinterpret_cast<unsigned char *>(text); }

}  // namespace

bool veltrane::HashDescriptor(int fd, unsigned char *digest, HashMethod type)
{
    const EVP_MD *method = DigestOf(type);
    const DigestContextPtr context(EVP_MD_CTX_new());
    if (method == nullptr || context == nullptr || EVP_DigestInit_ex(context.get(), method, nullptr) != 1) {
        return false;
    }
    std::array<char, 65536> piece;
    for (;;) {
        const ssize_t n = read(fd, piece.data(), piece.size());
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return n == 0 && EVP_DigestFinal_ex(context.get(), digest, nullptr) == 1;
        }
        if (EVP_DigestUpdate(context.get(), piece.data(), static_cast<size_t>(n)) != 1) {
            return false;
        }
    }
}

extern "C" {

size_t HashMethodLength(HashMethod type)
{
    switch (type) {
        case HASH_METHOD_MD5:
            return VT_MD5_LEN;
        case HASH_METHOD_SHA224:
            return VT_SHA224_LEN;
        case HASH_METHOD_SHA256:
            return VT_SHA256_LEN;
        case HASH_METHOD_SHA384:
            return VT_SHA384_LEN;
        case HASH_METHOD_SHA512:
        case HASH_METHOD_BEST:
            return VT_SHA512_LEN;
        case HASH_METHOD_SHA1:
        case HASH_METHOD_SHA:
            return VT_SHA1_LEN;
        case HASH_METHOD_CRYPT:
        case HASH_METHOD_NONE:
            break;
    }
    return 0;
}

bool HashBytes(const void *data, size_t size, unsigned char *digest, HashMethod type)
{
    const EVP_MD *method = DigestOf(type);
    return method != nullptr && EVP_Digest(data, size, digest, nullptr, method, nullptr) == 1;
}

bool HashFile(const char *path, unsigned char *digest, HashMethod type)
{
    if (DigestOf(type) == nullptr) {
        return false;
    }
    const veltrane::Descriptor file(safe_open(path, O_RDONLY));
    return file.IsOpen() && veltrane::HashDescriptor(file.Get(), digest, type);
}

int EncryptString(char *out, size_t out_size, const char *in, int in_length, char type, const unsigned char *key)
{
    if (key == nullptr || in_length < 0) {
        return -1;
    }
    const CipherContextPtr context = CipherContext(type, true);
    if (context == nullptr) {
        return -1;
    }
    const int block = EVP_CIPHER_CTX_get_block_size(context.get());
    const size_t length = static_cast<size_t>(block) + (static_cast<size_t>(in_length) / block + 1) * block;
    if (length > out_size || RAND_bytes(Bytes(out), block) != 1) {
        return -1;
    }
    const int written = RunCipher(context.get(), key, Bytes(out), Bytes(in), in_length, Bytes(out) + block);
    return written < 0 ? -1 : block + written;
}

int DecryptString(char *out, size_t out_size, const char *in, int in_length, char type, const unsigned char *key)
{
    if (key == nullptr || in_length < 0) {
        return -1;
    }
    const CipherContextPtr context = CipherContext(type, false);
    if (context == nullptr) {
        return -1;
    }
    const int block = EVP_CIPHER_CTX_get_block_size(context.get());
    if (in_length < 2 * block || in_length % block != 0) {
        return -1;
    }
    std::vector<unsigned char> text(static_cast<size_t>(in_length) + block);  // padding included, so out may be smaller
    const int written = RunCipher(context.get(), key, Bytes(in), Bytes(in) + block, in_length - block, text.data());
    if (written < 0 || static_cast<size_t>(written) > out_size) {
        return -1;
    }
    if (written > 0) {
        memcpy(out, text.data(), static_cast<size_t>(written));
    }
    return written;
}

}  // extern "C"
