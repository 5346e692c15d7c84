// The choices of cipher, key size and digest.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "libvtenterprise/entry_points_real.h"
#include "support/log_capture.h"

using testing::ElementsAre;
using testing::Pair;

TEST(TransportCrypto, WeOfferTheEnterpriseLetter) { EXPECT_EQ(VtEnterpriseOptions__real(), 'N'); }

TEST(TransportCrypto, EnterpriseConnectionsUseAesAndAllOthersBlowfish)
{
    EXPECT_EQ(VeltraneCipher__real('N'), EVP_aes_256_cbc());
    for (const char type : {'c', 'x', 'n', '\0'}) { EXPECT_EQ(VeltraneCipher__real(type), EVP_bf_cbc()) << type; }
}

TEST(TransportCrypto, AnEnterpriseKeyIsAsLongAsItsCipherWants)
{
    LogCapture log;
    EXPECT_EQ(VtSessionKeySize__real('N'), 32);
    EXPECT_EQ(VtSessionKeySize__real('N'), EVP_CIPHER_get_key_length(VeltraneCipher__real('N')));
    EXPECT_THAT(log.lines.front(), Pair(LOG_LEVEL_VERBOSE, "Selecting FIPS compliant encryption option"));
    EXPECT_EQ(log.lines.size(), 2u);
}

TEST(TransportCrypto, ACommunityKeyIsShorter)
{
    LogCapture log;
    EXPECT_EQ(VtSessionKeySize__real('c'), 16);
    EXPECT_EQ(16, EVP_CIPHER_get_key_length(VeltraneCipher__real('c')));
    EXPECT_THAT(log.lines,
                ElementsAre(Pair(LOG_LEVEL_VERBOSE, "Community level client connection to enterprise server")));
}

TEST(TransportCrypto, AnIllegalLetterGetsItsKeyAndTwoMessages)
{
    LogCapture log;
    EXPECT_EQ(VtSessionKeySize__real('x'), 16);
    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_ERR, "Illegal client protocol connection type"),
                                       Pair(LOG_LEVEL_INFO, "Illegal client connection to enterprise server")));
}

TEST(TransportCrypto, TheDefaultDigestIsSha256)
{
    HashMethod digest = HASH_METHOD_NONE;
    int length = 0;
    GenericAgentSetDefaultDigest__real(&digest, &length);
    EXPECT_EQ(digest, HASH_METHOD_SHA256);
    EXPECT_EQ(length, 32);
}

TEST(TransportCrypto, FileChangesAreSeenWithSha512)
{
    EXPECT_EQ(GetBestFileChangeHashMethod__real(), HASH_METHOD_SHA512);
}
