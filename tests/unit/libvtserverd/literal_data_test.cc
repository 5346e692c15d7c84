#include "libvtserverd/literal_data.h"

#include <climits>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <functional>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <veltrane/net.h>
#include <veltrane/owned.h>
#include <veltrane/records.h>

#include "libvtenterprise/entry_points_real.h"
#include "tests/support/log_capture.h"
#include "tests/support/promise_site.h"
#include "tests/support/texts.h"
#include "tests/support/work_dir.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;
using veltrane::VarRefPtr;

constexpr char kNoScalar[] = "Persistent scalar was not found, so looking for default";

class LiteralData : public ::testing::Test {
  protected:
    LiteralData() : ctx_(EvalContextNew()) {}

    void Register(const std::string &handle, const std::string &value)
    {
        PromiseSettings settings;
        settings.type = "access";
        settings.promiser = value;
        const PromiseSite site(settings);
        RegisterLiteralServerData__real(ctx_.get(), handle.c_str(), site.promise());
    }

    // Whether there is a value, which is then in recv_.
    bool Ask(std::string handle)
    {
        recv_.assign(VT_BUFSIZE + 1, '\0');
        const int found = ReturnLiteralData__real(ctx_.get(), handle.data(), recv_.data());
        EXPECT_TRUE(found == 0 || found == 1);
        return found != 0;
    }

    std::string Received() const { return recv_.c_str(); }

    void Put(const std::string &handle, const void *value, DataType type)
    {
        const VarRefPtr ref(VarRefParseFromScope(handle.c_str(), "remote_access"));
        ASSERT_TRUE(EvalContextVariablePut(ctx_.get(), ref.get(), value, type, nullptr));
    }

    static void WriteRecord(const std::string &handle, const void *bytes, int size)
    {
        DBHandle *db = nullptr;
        ASSERT_TRUE(OpenDB(&db, dbid_scalars));
        EXPECT_TRUE(WriteDB(db, handle.c_str(), bytes, size));
        CloseDB(db);
    }

    static void Store(const std::string &handle, const std::string &value, time_t at)
    {
        PersistentScalar scalar = {};
        memcpy(scalar.rval, value.data(), value.size());
        scalar.time = at;
        WriteRecord(handle, &scalar, sizeof(scalar));
    }

    static bool IsStored(const std::string &handle)
    {
        DBHandle *db = nullptr;
        EXPECT_TRUE(OpenDB(&db, dbid_scalars));
        const int size = ValueSizeDB(db, handle.c_str(), static_cast<int>(handle.size() + 1));
        CloseDB(db);
        return size >= 0;
    }

    // Run what must happen within one second of the clock: again, when the second changed meanwhile.
    void WithinASecond(const std::function<void(time_t now)> &body)
    {
        time_t before;
        do {
            log_.lines.clear();
            before = time(nullptr);
            body(before);
        } while (time(nullptr) != before);
    }

    WorkDirectory work_;
    LogCapture log_;
    veltrane::EvalContextPtr ctx_;
    std::string recv_;
};

}  // namespace

TEST_F(LiteralData, ARegisteredLiteralIsReturned)
{
    Register("site_network", "10.2.0.1/24");

    EXPECT_TRUE(Ask("site_network"));
    EXPECT_EQ(Received(), "10.2.0.1/24");
    EXPECT_THAT(log_.lines, ElementsAre(Pair(LOG_LEVEL_VERBOSE, kNoScalar),
                                        Pair(LOG_LEVEL_VERBOSE,
                                             "Found a literal string with handle site_network authorized for "
                                             "remote access '10.2.0.1/24'")));
}

TEST_F(LiteralData, ALiteralIsAStringVariableOfItsOwnScopeWithTheProductsTags)
{
    Register("h", "value");

    const veltrane::VariableTableIteratorPtr variables(
        EvalContextVariableTableIteratorNew(ctx_.get(), nullptr, "remote_access", nullptr));
    const Variable *variable = VariableTableIteratorNext(variables.get());
    ASSERT_NE(variable, nullptr);
    EXPECT_STREQ(VariableGetRef(variable)->lval, "h");
    EXPECT_EQ(VariableGetType(variable), VT_DATA_TYPE_STRING);
    EXPECT_STREQ(RvalScalarValue(VariableGetRval(variable, false)), "value");
    EXPECT_TRUE(StringSetContains(VariableGetTags(variable), "vte_internal"));
    EXPECT_TRUE(StringSetContains(VariableGetTags(variable), "source=agent"));
    EXPECT_EQ(StringSetSize(VariableGetTags(variable)), 2U);
    EXPECT_EQ(VariableTableIteratorNext(variables.get()), nullptr);
}

TEST_F(LiteralData, AHandleRegisteredTwiceReturnsTheSecondPromiser)
{
    Register("h", "first");
    Register("h", "second");

    EXPECT_TRUE(Ask("h"));
    EXPECT_EQ(Received(), "second");
}

TEST_F(LiteralData, AHandleMayLookLikeAQualifiedName)
{
    Register("ns:bundle.name", "value");

    EXPECT_TRUE(Ask("ns:bundle.name"));
    EXPECT_EQ(Received(), "value");
    EXPECT_FALSE(Ask("name"));
}

TEST_F(LiteralData, AnUnknownHandleIsNotFoundAndNothingMoreIsSaid)
{
    EXPECT_FALSE(Ask("unknown"));
    EXPECT_EQ(Received(), "");
    EXPECT_THAT(log_.lines, ElementsAre(Pair(LOG_LEVEL_VERBOSE, kNoScalar)));
}

TEST_F(LiteralData, AVariableOfAnotherScopeIsNotPublished)
{
    const VarRefPtr ref(VarRefParse("main.secret"));
    ASSERT_TRUE(EvalContextVariablePut(ctx_.get(), ref.get(), "value", VT_DATA_TYPE_STRING, nullptr));

    EXPECT_FALSE(Ask("secret"));
    EXPECT_FALSE(Ask("main.secret"));
}

TEST_F(LiteralData, AListIsNothingToReturn)
{
    const veltrane::RlistPtr list = RlistOf({"a", "b"});
    Put("list", list.get(), VT_DATA_TYPE_STRING_LIST);
    Put("empty", nullptr, VT_DATA_TYPE_STRING_LIST);

    for (const std::string handle : {"list", "empty"}) {
        log_.lines.clear();
        EXPECT_FALSE(Ask(handle));
        EXPECT_EQ(Received(), "");
        EXPECT_THAT(log_.lines, ElementsAre(Pair(LOG_LEVEL_VERBOSE, kNoScalar),
                                            Pair(LOG_LEVEL_VERBOSE, "Found nothing with handle '" + handle +
                                                                        "' authorized for remote access")));
    }
}

TEST_F(LiteralData, ANumberIsReturnedAsItsText)
{
    Put("number", "42", VT_DATA_TYPE_INT);

    EXPECT_TRUE(Ask("number"));
    EXPECT_EQ(Received(), "42");
}

TEST_F(LiteralData, ALiteralIsCutAt4095CharactersAndOneThatLongGetsNoZero)
{
    for (const size_t length : {size_t{0}, size_t{4094}, size_t{4095}, size_t{5000}}) {
        const std::string value(length, 'v');
        Register("h", value);
        recv_.assign(VT_BUFSIZE, 'x');
        recv_.back() = '\0';
        char handle[] = "h";

        EXPECT_EQ(ReturnLiteralData__real(ctx_.get(), handle, recv_.data()), 1);

        EXPECT_EQ(Received(), value.substr(0, 4095));
    }
}

TEST_F(LiteralData, APersistentScalarGoesBeforeALiteral)
{
    Register("h", "literal");
    ASSERT_TRUE(PersistentScalarPut("h", "scalar"));

    EXPECT_TRUE(Ask("h"));
    EXPECT_EQ(Received(), "scalar");
    EXPECT_THAT(log_.lines, ElementsAre(Pair(LOG_LEVEL_VERBOSE,
                                             "Found a persistent scalar with handle 'h' authorized "
                                             "for remote access 'scalar'")));
}

TEST_F(LiteralData, AScalarOf900SecondsAgoIsStillReturned)
{
    WithinASecond([this](time_t now) {
        Store("h", "scalar", now - 900);
        EXPECT_TRUE(Ask("h"));
    });
    EXPECT_EQ(Received(), "scalar");
    EXPECT_TRUE(IsStored("h"));
}

TEST_F(LiteralData, AScalarOf901SecondsAgoIsDeletedAndTheLiteralReturned)
{
    Register("h", "literal");
    WithinASecond([this](time_t now) {
        Store("h", "scalar", now - 901);
        EXPECT_TRUE(Ask("h"));
    });
    EXPECT_EQ(Received(), "literal");
    EXPECT_FALSE(IsStored("h"));
    EXPECT_THAT(
        log_.lines,
        ElementsAre(
            Pair(LOG_LEVEL_VERBOSE, "Persistent scalar timed out (901 too late), so looking for default"),
            Pair(LOG_LEVEL_VERBOSE, "Found a literal string with handle h authorized for remote access 'literal'")));
}

TEST_F(LiteralData, AnOldScalarWithoutALiteralIsNothing)
{
    Store("h", "scalar", 0);

    EXPECT_FALSE(Ask("h"));
    EXPECT_EQ(Received(), "");
    EXPECT_FALSE(IsStored("h"));
}

TEST_F(LiteralData, AScalarOfAnyTimeDoesNoHarm)
{
    Store("future", "later", LONG_MAX);
    Store("past", "before", LONG_MIN);

    EXPECT_TRUE(Ask("future"));
    EXPECT_EQ(Received(), "later");
    log_.lines.clear();
    EXPECT_FALSE(Ask("past"));
    EXPECT_TRUE(log_.Has(LOG_LEVEL_VERBOSE, "Persistent scalar timed out (" + std::to_string(LONG_MAX) +
                                                " too late), so looking for default"));
}

TEST_F(LiteralData, AScalarThatFillsItsRecordHasNoZeroAndIsReturnedWhole)
{
    Store("h", std::string(1024, 's'), time(nullptr));

    EXPECT_TRUE(Ask("h"));
    EXPECT_EQ(Received(), std::string(1024, 's'));
}

TEST_F(LiteralData, ATornRecordHasNoTimeAndIsDropped)
{
    WriteRecord("h", "torn", 4);

    EXPECT_FALSE(Ask("h"));
    EXPECT_FALSE(IsStored("h"));
}

TEST_F(LiteralData, WithoutTheDatabaseOfScalarsTheLiteralIsReturned)
{
    Register("h", "literal");
    std::filesystem::create_directory(work_.State("scalars.lmdb"));

    EXPECT_TRUE(Ask("h"));
    EXPECT_EQ(Received(), "literal");
    EXPECT_EQ(log_.lines.front(),
              LogCapture::Line(LOG_LEVEL_VERBOSE, "Unable to open db while looking for persistent scalar"));
}

TEST_F(LiteralData, TheScalarAloneClearsTheBufferWhenThereIsNone)
{
    char buffer[VT_BUFSIZE] = "before";
    EXPECT_FALSE(Vesk_GetPersistentScalar("h", buffer));
    EXPECT_STREQ(buffer, "");

    ASSERT_TRUE(PersistentScalarPut("h", "scalar"));
    buffer[VT_BUFSIZE - 1] = 'x';
    EXPECT_TRUE(Vesk_GetPersistentScalar("h", buffer));
    EXPECT_STREQ(buffer, "scalar");
    EXPECT_EQ(buffer[VT_BUFSIZE - 1], '\0');
}
