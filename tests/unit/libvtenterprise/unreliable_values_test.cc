// The last good value of a caller and handle.
#include <filesystem>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <veltrane/net.h>
#include <veltrane/owned.h>

#include "libvtenterprise/entry_points_real.h"
#include "tests/support/log_capture.h"
#include "tests/support/work_dir.h"

namespace {

using ::testing::ElementsAre;
using ::testing::Pair;

class UnreliableValues : public ::testing::Test {
  protected:
    static void Keep(std::string caller, std::string handle, std::string value)
    {
        CacheUnreliableValue__real(caller.data(), handle.data(), value.data());
    }

    // The value that is remembered, and its length as it was told.
    static std::string Remembered(std::string caller, std::string handle)
    {
        std::string buffer(VT_BUFSIZE, 'x');
        const int length = RetrieveUnreliableValue__real(caller.data(), handle.data(), buffer.data());
        EXPECT_EQ(buffer.find_last_not_of('\0') + 1, static_cast<size_t>(length)) << "the rest is cleared";
        return buffer.substr(0, static_cast<size_t>(length));
    }

    // Put bytes under a key by hand.
    static void Write(const std::string &key, const std::string &bytes)
    {
        DBHandle *db = nullptr;
        ASSERT_TRUE(OpenDB(&db, dbid_cache));
        EXPECT_TRUE(WriteDB(db, key.c_str(), bytes.data(), static_cast<int>(bytes.size())));
        CloseDB(db);
    }

    WorkDirectory work_;
    LogCapture log_;
};

}  // namespace

TEST_F(UnreliableValues, AValueThatWasKeptComesBack)
{
    Keep("c", "h", "x");

    EXPECT_EQ(Remembered("c", "h"), "x");
    EXPECT_THAT(log_.lines, ElementsAre(Pair(LOG_LEVEL_VERBOSE, "Caching value \"x\" for fault tolerance"),
                                        Pair(LOG_LEVEL_VERBOSE, "Checking cache for last available value")));
}

TEST_F(UnreliableValues, AnotherHandleHasNone)
{
    Keep("c", "h", "x");

    EXPECT_EQ(Remembered("c", "h2"), "");
}

TEST_F(UnreliableValues, TheLaterValueReplacesTheEarlier)
{
    Keep("c", "h", "a longer value");
    Keep("c", "h", "x");

    EXPECT_EQ(Remembered("c", "h"), "x");
}

TEST_F(UnreliableValues, AnEmptyValueIsNoneToo)
{
    Keep("c", "h", "");

    EXPECT_EQ(Remembered("c", "h"), "");
}

TEST_F(UnreliableValues, KeysAreNotEscapedSoTwoPairsMayShareOne)
{
    Keep("a_b", "c", "shared");

    EXPECT_EQ(Remembered("a", "b_c"), "shared");
}

TEST_F(UnreliableValues, LongKeysAreCutAt4094Characters)
{
    Keep(std::string(4000, 'c'), std::string(93, 'h') + "one", "cut");

    EXPECT_EQ(Remembered(std::string(4000, 'c'), std::string(93, 'h') + "two"), "cut");
    EXPECT_EQ(Remembered(std::string(4000, 'c'), std::string(92, 'h') + "i"), "");
}

TEST_F(UnreliableValues, AValueIsReadUpTo4095Characters)
{
    Keep("c", "h", std::string(4095, 'v'));
    Keep("c", "long", std::string(5000, 'v'));

    EXPECT_EQ(Remembered("c", "h"), std::string(4095, 'v'));
    EXPECT_EQ(Remembered("c", "long"), std::string(4095, 'v'));
}

TEST_F(UnreliableValues, AValueWithoutItsZeroIsReadToItsEnd)
{
    Write("c_h", "no zero");

    EXPECT_EQ(Remembered("c", "h"), "no zero");
}

TEST_F(UnreliableValues, WithoutADatabaseThereIsNoValueAndNoFurtherWord)
{
    std::filesystem::create_directory(work_.State("cache.lmdb"));

    Keep("c", "h", "x");
    EXPECT_EQ(Remembered("c", "h"), "");

    EXPECT_THAT(log_.lines, ElementsAre(Pair(LOG_LEVEL_VERBOSE, "Caching value \"x\" for fault tolerance"),
                                        Pair(LOG_LEVEL_VERBOSE, "Checking cache for last available value")));
}
