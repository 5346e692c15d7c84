// Which cipher, key size and digest the enterprise side chooses. A connection's type is one letter: 'N' between
// enterprise hosts, 'c' from a community-level client; any other is illegal, which is logged but not refused here.
#include <veltrane/logging.h>

#include "libvtenterprise/entry_points_real.h"

namespace {

constexpr char kEnterpriseConnection = 'N';
constexpr char kCommunityConnection = 'c';
constexpr int kAesKeySize = 32;
constexpr int kBlowfishKeySize = 16;

}  // namespace

char VtEnterpriseOptions__real() noexcept { return kEnterpriseConnection; }

const EVP_CIPHER *VeltraneCipher__real(char type) noexcept
{
    return type == kEnterpriseConnection ? EVP_aes_256_cbc() : EVP_bf_cbc();
}

int VtSessionKeySize__real(char c) noexcept
{
    switch (c) {
        case kEnterpriseConnection:
            Log(LOG_LEVEL_VERBOSE, "Selecting FIPS compliant encryption option");
            return kAesKeySize;
        case kCommunityConnection:
            Log(LOG_LEVEL_VERBOSE, "Community level client connection to enterprise server");
            return kBlowfishKeySize;
        default:
            Log(LOG_LEVEL_ERR, "Illegal client protocol connection type");
            Log(LOG_LEVEL_INFO, "Illegal client connection to enterprise server");
            return kBlowfishKeySize;
    }
}

void GenericAgentSetDefaultDigest__real(HashMethod *digest, int *digest_len) noexcept
{
    *digest = HASH_METHOD_SHA256;
    *digest_len = VT_SHA256_LEN;
}

HashMethod GetBestFileChangeHashMethod__real() noexcept { return HASH_METHOD_SHA512; }
