// Records of the host's databases: their layout, and the writer of scalars.
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <ctime>
#include <string>

#include <gtest/gtest.h>

#include <veltrane/owned.h>
#include <veltrane/records.h>

#include "support/work_dir.h"

namespace {

PersistentScalar ScalarOf(const char *handle)
{
    DBHandle *db = nullptr;
    EXPECT_TRUE(OpenDB(&db, dbid_scalars));
    const veltrane::DBHandlePtr owned(db);
    PersistentScalar scalar;
    memset(&scalar, 'x', sizeof(scalar));
    EXPECT_EQ(ValueSizeDB(db, handle, static_cast<int>(strlen(handle)) + 1), static_cast<int>(sizeof(scalar)));
    EXPECT_TRUE(ReadDB(db, handle, &scalar, sizeof(scalar)));
    return scalar;
}

}  // namespace

TEST(Records, TheirLayoutIsOnDiskAndNeverChanges)
{
    EXPECT_EQ(sizeof(QPoint), 32u);
    EXPECT_EQ(sizeof(Event), 40u);
    EXPECT_EQ(offsetof(Event, Q), 8u);
    EXPECT_EQ(sizeof(KeyHostSeen), 48u);
    EXPECT_EQ(offsetof(KeyHostSeen, lastseen), 8u);
    EXPECT_EQ(offsetof(KeyHostSeen, Q), 16u);
    EXPECT_EQ(sizeof(PersistentScalar), 1032u);
    EXPECT_EQ(offsetof(PersistentScalar, time), 1024u);
}

TEST(PersistentScalarPut, KeepsTheValueWithThePresentTime)
{
    WorkDirectory work;
    const time_t before = time(nullptr);

    ASSERT_TRUE(PersistentScalarPut("handle", "value"));

    const PersistentScalar scalar = ScalarOf("handle");
    EXPECT_STREQ(scalar.rval, "value");
    EXPECT_EQ(std::string(scalar.rval + 5, 1019), std::string(1019, '\0'));
    EXPECT_GE(scalar.time, before);
    EXPECT_LE(scalar.time, time(nullptr));
}

TEST(PersistentScalarPut, ReplacesTheValueBefore)
{
    WorkDirectory work;
    ASSERT_TRUE(PersistentScalarPut("handle", "a longer value"));
    ASSERT_TRUE(PersistentScalarPut("handle", "short"));
    EXPECT_STREQ(ScalarOf("handle").rval, "short");
}

TEST(PersistentScalarPut, AValueIsCutToWhatTheRecordHolds)
{
    WorkDirectory work;
    ASSERT_TRUE(PersistentScalarPut("fits", std::string(1023, 'v').c_str()));
    ASSERT_TRUE(PersistentScalarPut("long", std::string(5000, 'v').c_str()));
    EXPECT_EQ(ScalarOf("fits").rval, std::string(1023, 'v'));
    EXPECT_EQ(ScalarOf("long").rval, std::string(1023, 'v'));
}

TEST(PersistentScalarPut, FailsWithErrno)
{
    WorkDirectory work;
    EXPECT_FALSE(PersistentScalarPut(std::string(5000, 'h').c_str(), "value"));
    EXPECT_EQ(errno, EINVAL);
    std::filesystem::remove(work.State("scalars.lmdb"));
    std::filesystem::create_directory(work.State("scalars.lmdb"));
    EXPECT_FALSE(PersistentScalarPut("handle", "value"));
    EXPECT_EQ(errno, EISDIR);
}
