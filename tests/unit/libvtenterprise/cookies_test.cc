#include "libvtenterprise/cookies.h"

#include <cctype>
#include <filesystem>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <veltrane/owned.h>

#include "libvtenterprise/entry_points_real.h"
#include "tests/support/log_capture.h"
#include "tests/support/served_connection.h"
#include "tests/support/work_dir.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::Pair;
using veltrane::TextPtr;

class Cookies : public ::testing::Test {
  protected:
    // The cookies of one answer: before and fresh.
    static std::pair<std::string, std::string> Answer()
    {
        Connection connection;
        EXPECT_TRUE(ReturnCookies__real(connection.get()));
        const auto &received = connection.Received();
        EXPECT_THAT(received, ElementsAre(Pair('t', MatchesRegex("COOKIES [0-9]+ [0-9]+"))));
        const std::string text = received.empty() ? "COOKIES ? ?" : received[0].second;
        const size_t blank = text.rfind(' ');
        return {text.substr(8, blank - 8), text.substr(blank + 1)};
    }

    static void Write(const std::string &host, const std::string &bytes)
    {
        DBHandle *db = nullptr;
        ASSERT_TRUE(OpenDB(&db, dbid_cookies));
        EXPECT_TRUE(WriteDB(db, host.c_str(), bytes.data(), static_cast<int>(bytes.size())));
        CloseDB(db);
    }

    static std::string Get(const std::string &host) { return TextPtr(GetCookie(host.c_str())).get(); }

    // A directory stands in the database's way.
    void MakeUnopenable() const { std::filesystem::create_directory(work_.State("cookies.lmdb")); }

    std::string Database() const { return work_.State("cookies.lmdb"); }

    WorkDirectory work_;
    LogCapture log_;
};

}  // namespace

TEST_F(Cookies, TheFirstAnswerTellsTheDefaultAndTheSecondWhatTheFirstIssued)
{
    const auto first = Answer();
    const auto second = Answer();

    EXPECT_EQ(first.first, "0");
    EXPECT_EQ(second.first, first.second);
    EXPECT_NE(second.second, second.first) << "two numbers of rand in a row";
    EXPECT_THAT(log_.lines, ElementsAre(Pair(LOG_LEVEL_VERBOSE,
                                             "Could not find host 'localhost' in cookie database, "
                                             "using default cookie (0)")));
}

TEST_F(Cookies, AnAnswerIsFormattedAsTheTextAlone)
{
    Write("localhost", std::string("12\0", 3));
    Connection connection;

    EXPECT_TRUE(ReturnCookies__real(connection.get()));

    ASSERT_EQ(connection.Received().size(), 1U);
    EXPECT_EQ(connection.Received()[0].second, "COOKIES 12 " + Get("localhost"));
}

TEST_F(Cookies, AnUnwritableDatabaseKeepsTheDefaultAndSaysSoEachTime)
{
    MakeUnopenable();

    EXPECT_EQ(Answer().first, "0");
    EXPECT_EQ(Answer().first, "0");

    const LogCapture::Line failure(LOG_LEVEL_ERR, "Failed to open local cookies database: '" + Database() + "'");
    EXPECT_THAT(log_.lines, ElementsAre(failure, failure));
}

TEST_F(Cookies, ReadingFromADatabaseThatDoesNotOpenIsSilent)
{
    MakeUnopenable();

    EXPECT_EQ(Get("localhost"), "0");
    EXPECT_THAT(log_.lines, IsEmpty());
}

TEST_F(Cookies, ACookieThatCannotBeWrittenIsAnError)
{
    const std::string too_long(5000, 'h');  // no key

    PutCookie(too_long.c_str(), "7");

    EXPECT_THAT(log_.lines,
                ElementsAre(Pair(LOG_LEVEL_ERR, "Failed writing to local cookies database: '" + Database() + "'")));
}

TEST_F(Cookies, EachHostHasItsOwn)
{
    PutCookie("a", "1");
    PutCookie("b", "2");
    PutCookie("a", "3");

    EXPECT_EQ(Get("a"), "3");
    EXPECT_EQ(Get("b"), "2");
    EXPECT_THAT(log_.lines, IsEmpty());
    EXPECT_EQ(Get("c"), "0");
    EXPECT_THAT(log_.lines, ElementsAre(Pair(LOG_LEVEL_VERBOSE,
                                             "Could not find host 'c' in cookie database, using "
                                             "default cookie (0)")));
}

TEST_F(Cookies, AFreshCookieIsANumberWithoutASignAndIsRemembered)
{
    for (int i = 0; i < 100; ++i) {
        const TextPtr cookie(NewCookie());
        const std::string text = cookie.get();
        EXPECT_THAT(text, MatchesRegex("[0-9]+"));
        EXPECT_EQ(Get("localhost"), text);
    }
}

TEST_F(Cookies, ACookieIsStoredWithItsZero)
{
    PutCookie("a", "123");

    char bytes[8] = "xxxxxxx";
    DBHandle *db = nullptr;
    ASSERT_TRUE(OpenDB(&db, dbid_cookies));
    EXPECT_EQ(ValueSizeDB(db, "a", 2), 4);
    EXPECT_TRUE(ReadDB(db, "a", bytes, sizeof(bytes)));
    CloseDB(db);
    EXPECT_STREQ(bytes, "123");
}

TEST_F(Cookies, AtMost65BytesOfAForeignCookieAreRead)
{
    Write("localhost", std::string(200, '9'));

    EXPECT_EQ(Get("localhost"), std::string(65, '9'));
    EXPECT_EQ(Answer().first, std::string(65, '9'));
}

TEST_F(Cookies, AFailedSendIsFalseWithoutAWordAndTheFreshCookieStays)
{
    Write("localhost", std::string("12\0", 3));
    Connection connection;
    connection.Shut();

    EXPECT_FALSE(ReturnCookies__real(connection.get()));

    EXPECT_THAT(log_.lines, IsEmpty());
    EXPECT_NE(Get("localhost"), "12");
}
