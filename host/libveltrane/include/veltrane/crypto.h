// Digests, and the ciphers of the classic protocol.
#ifndef VELTRANE_CRYPTO_H
#define VELTRANE_CRYPTO_H

#include <veltrane/types.h>

VT_BEGIN_DECLS

typedef enum {
    HASH_METHOD_MD5 = 0,
    HASH_METHOD_SHA224 = 1,
    HASH_METHOD_SHA256 = 2,
    HASH_METHOD_SHA384 = 3,
    HASH_METHOD_SHA512 = 4,
    HASH_METHOD_SHA1 = 5,
    HASH_METHOD_SHA = 6,
    HASH_METHOD_BEST = 7,
    HASH_METHOD_CRYPT = 8,
    HASH_METHOD_NONE = 9
} HashMethod;  // SHA is read as SHA1, BEST as SHA512
enum {
    VT_MD5_LEN = 16,
    VT_SHA224_LEN = 28,
    VT_SHA256_LEN = 32,
    VT_SHA384_LEN = 48,
    VT_SHA512_LEN = 64,
    VT_SHA1_LEN = 20
};

// bytes of a digest; 0 for CRYPT and NONE
size_t HashMethodLength(HashMethod type);
bool HashBytes(const void *data, size_t size, unsigned char *digest, HashMethod type);
bool HashFile(const char *path, unsigned char *digest, HashMethod type);

// Classic protocol messages. The cipher and key size of a letter come from the entry points VeltraneCipher and
// VtSessionKeySize.
int EncryptString(char *out, size_t out_size, const char *in, int in_length, char type, const unsigned char *key);

// length written, -1 on failure (does not fit, bad padding, no key); out and in must not overlap
int DecryptString(char *out, size_t out_size, const char *in, int in_length, char type, const unsigned char *key);

VT_END_DECLS

#endif
