#include <veltrane/crypto.h>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include <veltrane/net.h>
#include <veltrane/owned.h>
#include <veltrane/string_lib.h>

#include "libveltrane/hash_descriptor.h"
#include "support/work_dir.h"

namespace {

// Without the enterprise plug-in every letter means Blowfish with a key of 16 bytes: blocks of 8.
constexpr unsigned char kKey[] = "0123456789abcdef";
constexpr unsigned char kOtherKey[] = "fedcba9876543210";
constexpr int kBlock = 8;

std::string HexOf(const unsigned char *digest, size_t length)
{
    std::string hex(2 * length + 1, '\0');
    StringBytesToHex(hex.data(), hex.size(), digest, length);
    hex.pop_back();
    return hex;
}

std::string HexDigest(const std::string &text, HashMethod type)
{
    unsigned char digest[EVP_MAX_MD_SIZE] = {0};
    return HashBytes(text.data(), text.size(), digest, type) ? HexOf(digest, HashMethodLength(type)) : "";
}

struct Encrypted {
    int length;
    std::string bytes;
};

Encrypted Encrypt(const std::string &text, size_t room = VT_BUFSIZE)
{
    std::string out(room, '\0');
    const int length = EncryptString(out.data(), out.size(), text.data(), static_cast<int>(text.size()), 'c', kKey);
    return {length, length < 0 ? "" : out.substr(0, static_cast<size_t>(length))};
}

Encrypted Decrypt(const std::string &bytes, size_t room = VT_BUFSIZE, const unsigned char *key = kKey)
{
    std::string out(room, '\0');
    const int length = DecryptString(out.data(), out.size(), bytes.data(), static_cast<int>(bytes.size()), 'c', key);
    return {length, length < 0 ? "" : out.substr(0, static_cast<size_t>(length))};
}

TEST(Digest, LengthsAreThoseOfTheMethods)
{
    EXPECT_EQ(HashMethodLength(HASH_METHOD_MD5), 16u);
    EXPECT_EQ(HashMethodLength(HASH_METHOD_SHA224), 28u);
    EXPECT_EQ(HashMethodLength(HASH_METHOD_SHA256), 32u);
    EXPECT_EQ(HashMethodLength(HASH_METHOD_SHA384), 48u);
    EXPECT_EQ(HashMethodLength(HASH_METHOD_SHA512), 64u);
    EXPECT_EQ(HashMethodLength(HASH_METHOD_SHA1), 20u);
    EXPECT_EQ(HashMethodLength(HASH_METHOD_SHA), 20u);
    EXPECT_EQ(HashMethodLength(HASH_METHOD_BEST), 64u);
    EXPECT_EQ(HashMethodLength(HASH_METHOD_CRYPT), 0u);
    EXPECT_EQ(HashMethodLength(HASH_METHOD_NONE), 0u);
}

TEST(Digest, KnownTextsGiveTheKnownDigests)
{
    EXPECT_EQ(HexDigest("abc", HASH_METHOD_MD5), "900150983cd24fb0d6963f7d28e17f72");
    EXPECT_EQ(HexDigest("abc", HASH_METHOD_SHA1), "a9993e364706816aba3e25717850c26c9cd0d89d");
    EXPECT_EQ(HexDigest("abc", HASH_METHOD_SHA224), "23097d223405d8228642a477bda255b32aadbce4bda0b3f7e36c9da7");
    EXPECT_EQ(HexDigest("abc", HASH_METHOD_SHA256), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_EQ(HexDigest("", HASH_METHOD_SHA256), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
    EXPECT_EQ(HexDigest("abc", HASH_METHOD_SHA384),
              "cb00753f45a35e8bb5a03d699ac65007272c32ab0eded1631a8b605a43ff5bed"
              "8086072ba1e7cc2358baeca134c825a7");
    EXPECT_EQ(HexDigest("abc", HASH_METHOD_SHA512),
              "ddaf35a193617abacc417349ae20413112e6fa4e89a97ea20a9eeee64b55d39a"
              "2192992a274fc1a836ba3c23a3feebbd454d4423643ce80e2a9ac94fa54ca49f");
}

TEST(Digest, ShaIsReadAsSha1AndBestAsSha512)
{
    EXPECT_EQ(HexDigest("abc", HASH_METHOD_SHA), HexDigest("abc", HASH_METHOD_SHA1));
    EXPECT_EQ(HexDigest("abc", HASH_METHOD_BEST), HexDigest("abc", HASH_METHOD_SHA512));
}

TEST(Digest, CryptAndNoneGiveNoDigestAndLeaveTheBuffer)
{
    unsigned char digest[EVP_MAX_MD_SIZE];
    memset(digest, 'x', sizeof(digest));
    EXPECT_FALSE(HashBytes("abc", 3, digest, HASH_METHOD_CRYPT));
    EXPECT_FALSE(HashBytes("abc", 3, digest, HASH_METHOD_NONE));
    EXPECT_FALSE(HashFile("/dev/null", digest, HASH_METHOD_NONE));
    EXPECT_EQ(digest[0], 'x');
}

TEST(Digest, AFileHasTheDigestOfItsBytes)
{
    const TemporaryDirectory directory;
    const std::string bytes(200'000, 'v');  // more than one piece
    WriteFile(directory.path / "file", bytes);
    unsigned char digest[VT_SHA256_LEN];
    ASSERT_TRUE(HashFile((directory.path / "file").c_str(), digest, HASH_METHOD_SHA256));
    EXPECT_EQ(HexOf(digest, sizeof(digest)), HexDigest(bytes, HASH_METHOD_SHA256));
}

TEST(Digest, AMissingFileAndADirectoryHaveNone)
{
    const TemporaryDirectory directory;
    unsigned char digest[VT_SHA256_LEN];
    EXPECT_FALSE(HashFile((directory.path / "none").c_str(), digest, HASH_METHOD_SHA256));
    EXPECT_FALSE(HashFile(directory.path.c_str(), digest, HASH_METHOD_SHA256));
}

TEST(ClassicCipher, AMessageOfAnyLengthComesBack)
{
    for (size_t length = 0; length < 40; ++length) {
        const std::string text(length, 'q');
        const Encrypted message = Encrypt(text);
        ASSERT_GT(message.length, 0);
        const Encrypted back = Decrypt(message.bytes);
        EXPECT_EQ(back.length, static_cast<int>(length));
        EXPECT_EQ(back.bytes, text);
    }
}

TEST(ClassicCipher, TheMessageIsOneBlockAndThePaddedText)
{
    EXPECT_EQ(Encrypt("").length, 2 * kBlock);
    EXPECT_EQ(Encrypt("1234567").length, 2 * kBlock);
    EXPECT_EQ(Encrypt("12345678").length, 3 * kBlock);  // a full block is padded by another
}

TEST(ClassicCipher, TheSameTextNeverLooksTheSame) { EXPECT_NE(Encrypt("the same").bytes, Encrypt("the same").bytes); }

TEST(ClassicCipher, TheTextIsNotInTheMessage)
{
    EXPECT_THAT(Encrypt("a secret of some length").bytes, testing::Not(testing::HasSubstr("secret")));
}

TEST(ClassicCipher, BytesOfZeroTravel)
{
    const std::string text("a\0b\0", 4);
    EXPECT_EQ(Decrypt(Encrypt(text).bytes).bytes, text);
}

TEST(ClassicCipher, WhatDoesNotFitIsRefusedByOneByte)
{
    EXPECT_EQ(Encrypt("1234567", 2 * kBlock).length, 2 * kBlock);
    EXPECT_EQ(Encrypt("1234567", 2 * kBlock - 1).length, -1);
    const std::string message = Encrypt("1234567").bytes;
    EXPECT_EQ(Decrypt(message, 7).length, 7);
    EXPECT_EQ(Decrypt(message, 6).length, -1);
}

TEST(ClassicCipher, NoKeyAndANegativeLengthAreRefused)
{
    char out[64];
    EXPECT_EQ(EncryptString(out, sizeof(out), "x", 1, 'c', nullptr), -1);
    EXPECT_EQ(DecryptString(out, sizeof(out), Encrypt("x").bytes.data(), 2 * kBlock, 'c', nullptr), -1);
    EXPECT_EQ(EncryptString(out, sizeof(out), "x", -1, 'c', kKey), -1);
    EXPECT_EQ(DecryptString(out, sizeof(out), "x", -1, 'c', kKey), -1);
}

TEST(ClassicCipher, AMessageThatIsNoWholeNumberOfBlocksIsRefused)
{
    const std::string message = Encrypt("1234567890").bytes;
    for (size_t length = 0; length < message.size(); ++length) {
        if (length % kBlock != 0 || length < 2 * kBlock) {
            EXPECT_EQ(Decrypt(message.substr(0, length)).length, -1) << length;
        }
    }
}

TEST(ClassicCipher, BadPaddingIsRefused)
{
    // What the text's last byte was changed to by turning over bits of the block before it is no padding.
    std::string message = Encrypt("1234567").bytes;
    message[kBlock - 1] = static_cast<char>(message[kBlock - 1] ^ 0x7f);
    EXPECT_EQ(Decrypt(message).length, -1);
}

TEST(ClassicCipher, AnotherKeyNeverGivesTheText)
{
    EXPECT_NE(Decrypt(Encrypt("the text").bytes, VT_BUFSIZE, kOtherKey).bytes, "the text");
}

TEST(ClassicCipher, DigestsStillWorkOnceTheLegacyCiphersAreLoaded)
{
    ASSERT_GT(Encrypt("loads the legacy provider").length, 0);
    EXPECT_EQ(HexDigest("", HASH_METHOD_MD5), "d41d8cd98f00b204e9800998ecf8427e");
    EXPECT_EQ(HexDigest("abc", HASH_METHOD_SHA256), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
}

}  // namespace

TEST(Crypto, AnOpenFileIsDigestedFromWhereItStands)
{
    const TemporaryDirectory directory;
    const std::string bytes(200'000, 'x');
    WriteFile(directory.path / "file", "skipped" + bytes);
    const veltrane::Descriptor file(open((directory.path / "file").c_str(), O_RDONLY));
    ASSERT_EQ(lseek(file.Get(), 7, SEEK_SET), 7);
    unsigned char digest[VT_SHA512_LEN];
    unsigned char expected[VT_SHA512_LEN];
    ASSERT_TRUE(veltrane::HashDescriptor(file.Get(), digest, HASH_METHOD_SHA512));
    ASSERT_TRUE(HashBytes(bytes.data(), bytes.size(), expected, HASH_METHOD_SHA512));
    EXPECT_EQ(memcmp(digest, expected, sizeof(digest)), 0);
    EXPECT_FALSE(veltrane::HashDescriptor(file.Get(), digest, HASH_METHOD_NONE));
    EXPECT_FALSE(veltrane::HashDescriptor(-1, digest, HASH_METHOD_SHA512));
}
