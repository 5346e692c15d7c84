// Changes of watched files, one CSV record each.
#include <memory>
#include <string>
#include <type_traits>

#include <gtest/gtest.h>

#include "libvtenterprise/enterprise_install.h"
#include "support/record_text.h"

namespace {

using FileDiffPtr = std::unique_ptr<HubFileDiffSerialized, veltrane::Destroyer<HubFileDiffSerializedDelete>>;

FileDiffPtr Changed(time_t t, const char *filename, const char *handle, const char *diff)
{
    return FileDiffPtr(HubFileDiffSerializedNew(t, filename, handle, diff));
}

FileDiffPtr Read(const char *csv) { return FileDiffPtr(HubFileDiffSerializedFromCSV(csv)); }

}  // namespace

TEST(HubFileDiff, ANewChangeCopiesItsTexts)
{
    std::string filename = "/etc/motd";
    const FileDiffPtr d = Changed(5, filename.c_str(), "watch", "+,1,hello");
    filename = "gone";
    EXPECT_EQ(d->t, 5);
    EXPECT_STREQ(d->filename, "/etc/motd");
    EXPECT_STREQ(d->hanlde, "watch");
    EXPECT_STREQ(d->diff, "+,1,hello");
}

TEST(HubFileDiff, NoneIsDeletedInPeaceAndHasNoText)
{
    HubFileDiffSerializedDelete(nullptr);
    EXPECT_EQ(HubFileDiffSerializedToCSV(nullptr), nullptr);
}

TEST(HubFileDiff, IsOneTerminatedRecordOfFourColumns)
{
    EXPECT_EQ(Taken(HubFileDiffSerializedToCSV(Changed(1513275477, "/etc/motd", "watch", "+,1,a\nb").get())),
              "1513275477,/etc/motd,watch,\"+,1,a\nb\"\r\n");
    EXPECT_EQ(Taken(HubFileDiffSerializedToCSV(Changed(0, nullptr, nullptr, nullptr).get())), "0,,,\r\n");
}

TEST(HubFileDiff, ReadsBackWhatWasWritten)
{
    const FileDiffPtr written = Changed(17, "/a,b", "h\"x", "line 1\nline 2\n");
    const veltrane::TextPtr csv(HubFileDiffSerializedToCSV(written.get()));
    const FileDiffPtr d = Read(csv.get());
    EXPECT_EQ(d->t, 17);
    EXPECT_STREQ(d->filename, "/a,b");
    EXPECT_STREQ(d->hanlde, "h\"x");
    EXPECT_STREQ(d->diff, "line 1\nline 2\n");
}

TEST(HubFileDiff, AnEmptyColumnReadsAsAbsent)
{
    const FileDiffPtr d = Read("17,,h,d");
    EXPECT_EQ(d->filename, nullptr);
    EXPECT_STREQ(d->hanlde, "h");
    const FileDiffPtr bare = Read(",,,");
    EXPECT_EQ(bare->t, 0);
    EXPECT_EQ(bare->hanlde, nullptr);
    EXPECT_EQ(bare->diff, nullptr);
}

TEST(HubFileDiff, TheTimeIsReadUnchecked)
{
    EXPECT_EQ(Read("12abc,f,h,d")->t, 12);
    EXPECT_EQ(Read("abc,f,h,d")->t, 0);
}

TEST(HubFileDiff, WhatIsNoRecordOfFourColumnsIsNone)
{
    for (const char *csv : {"17,f,h", "17,f,h,d,e", "", "17,f,h,\"d", "17,f,h,\"d\"x"}) {
        EXPECT_EQ(Read(csv), nullptr) << csv;
    }
    EXPECT_EQ(Read(nullptr), nullptr);
}
