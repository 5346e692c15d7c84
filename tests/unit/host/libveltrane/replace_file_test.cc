// Replacing files: the old one or the new one, never half, and no litter.
#include "libveltrane/replace_file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>

#include "support/child.h"
#include "support/file_size_limit.h"
#include "support/places.h"
#include "support/work_dir.h"

namespace {

namespace fs = std::filesystem;

using testing::ElementsAre;
using veltrane::PermsWish;
using veltrane::Place;
using veltrane::Replacement;

class ReplaceFile : public testing::Test {
  protected:
    std::string At(const std::string &name) const { return directory.path / name; }

    veltrane::Trouble Replace(const Place &place, const std::string &bytes, const PermsWish &perms = {0600})
    {
        Replacement replacement(place);
        veltrane::Trouble trouble = replacement.Begin();
        if (!trouble.has_value()) {
            trouble = veltrane::WriteAll(replacement.Fd(), bytes, place.path);
        }
        return trouble.has_value() ? trouble : replacement.Commit(perms);
    }

    TemporaryDirectory directory;
};

TEST_F(ReplaceFile, PutsANewFileInThePlaceOfAnOldOneOrOfNothing)
{
    const Place place = PlaceOf(At("file"));
    ASSERT_EQ(Replace(place, "one"), std::nullopt);
    EXPECT_EQ(ReadFile(At("file")), "one");
    EXPECT_EQ(ModeOf(At("file")), 0600u);

    ASSERT_EQ(Replace(place, "two", {0444}), std::nullopt);
    EXPECT_EQ(ReadFile(At("file")), "two");
    EXPECT_EQ(ModeOf(At("file")), 0444u);
    EXPECT_THAT(NamesIn(directory.path), ElementsAre("file"));
}

TEST_F(ReplaceFile, WorksUnderTheLongestName)
{
    const std::string name(255, 'x');
    ASSERT_EQ(Replace(PlaceOf(At(name)), "one"), std::nullopt);
    EXPECT_EQ(ReadFile(At(name)), "one");
}

TEST_F(ReplaceFile, WhatIsNotCommittedIsGoneAndTheOldFileStays)
{
    WriteFile(At("file"), "old");
    const Place place = PlaceOf(At("file"));
    {
        Replacement replacement(place);
        ASSERT_EQ(replacement.Begin(), std::nullopt);
        EXPECT_EQ(NamesIn(directory.path).size(), 2u);
    }
    EXPECT_THAT(NamesIn(directory.path), ElementsAre("file"));
    EXPECT_EQ(ReadFile(At("file")), "old");
}

TEST_F(ReplaceFile, NobodyElseReadsWhatIsBeingMade)
{
    const Place place = PlaceOf(At("file"));
    Replacement replacement(place);
    ASSERT_EQ(replacement.Begin(), std::nullopt);
    EXPECT_EQ(ModeOf(At(veltrane::WorkingName("file"))), 0600u);
}

TEST_F(ReplaceFile, AFullDiskLeavesTheOldFileAndNoLitter)
{
    WriteFile(At("file"), "old");
    veltrane::Trouble trouble;
    {
        const FileSizeLimit limit(1000);
        trouble = Replace(PlaceOf(At("file")), std::string(2000, 'x'));
    }
    EXPECT_EQ(trouble, "could not write '" + At("file") + "' (write: File too large)");
    EXPECT_EQ(ReadFile(At("file")), "old");
    EXPECT_THAT(NamesIn(directory.path), ElementsAre("file"));
}

TEST_F(ReplaceFile, WhatAKilledProcessLeftIsTakenAway)
{
    const Place place = PlaceOf(At("file"));
    EXPECT_EQ(Child([&place] {
                  Replacement replacement(place);
                  EXPECT_EQ(replacement.Begin(), std::nullopt);
                  kill(getpid(), SIGKILL);
              }).Wait(),
              -SIGKILL);
    EXPECT_THAT(NamesIn(directory.path), ElementsAre(veltrane::WorkingName("file")));

    ASSERT_EQ(Replace(place, "new"), std::nullopt);
    EXPECT_THAT(NamesIn(directory.path), ElementsAre("file"));
}

TEST_F(ReplaceFile, ALinkUnderTheWorkingNameIsNotWrittenThrough)
{
    WriteFile(At("secret"), "kept");
    fs::create_symlink("secret", At(veltrane::WorkingName("file")));

    ASSERT_EQ(Replace(PlaceOf(At("file")), "new"), std::nullopt);
    EXPECT_EQ(ReadFile(At("secret")), "kept");
    EXPECT_EQ(ReadFile(At("file")), "new");
}

TEST_F(ReplaceFile, ADirectoryUnderTheWorkingNameIsTrouble)
{
    fs::create_directory(At(veltrane::WorkingName("file")));
    EXPECT_EQ(Replace(PlaceOf(At("file")), "new"),
              "could not make a file beside '" + At("file") + "' (open: File exists)");
}

TEST_F(ReplaceFile, ADirectoryWhereTheFileShouldBeStays)
{
    fs::create_directory(At("file"));
    EXPECT_EQ(Replace(PlaceOf(At("file")), "new"), "could not replace '" + At("file") + "' (rename: Is a directory)");
    EXPECT_TRUE(fs::is_directory(At("file")));
    EXPECT_THAT(NamesIn(directory.path), ElementsAre("file"));
}

TEST_F(ReplaceFile, OfTwoThatWriteAtOnceOnlyTheSecondSucceeds)
{
    const Place place = PlaceOf(At("file"));
    Replacement first(place);
    Replacement second(place);
    ASSERT_EQ(first.Begin(), std::nullopt);
    ASSERT_EQ(second.Begin(), std::nullopt);
    ASSERT_EQ(veltrane::WriteAll(second.Fd(), "second", place.path), std::nullopt);

    EXPECT_EQ(first.Commit({0600}), "'" + At("file") + "' is being written by another process as well");
    EXPECT_EQ(second.Commit({0600}), std::nullopt);
    EXPECT_EQ(ReadFile(At("file")), "second");
}

TEST_F(ReplaceFile, WhatCannotBeGivenAwayDoesNotReplace)
{
    WriteFile(At("file"), "old");
    const veltrane::Trouble trouble = Replace(PlaceOf(At("file")), "new", {0600, kStranger, kStranger});
    if (geteuid() == 0) {
        EXPECT_EQ(trouble, std::nullopt);
        return;
    }
    EXPECT_EQ(trouble, "could not give away '" + At("file") + "' (chown: Operation not permitted)");
    EXPECT_EQ(ReadFile(At("file")), "old");
}

TEST_F(ReplaceFile, ASecondNameTakesAnotherFilesPlace)
{
    WriteFile(At("a"), "a");
    WriteFile(At("b"), "b");
    const Place from = PlaceOf(At("a"));
    const Place to = PlaceOf(At("b"));

    EXPECT_TRUE(veltrane::LinkOver(from, to));
    EXPECT_EQ(InodeOf(At("a")), InodeOf(At("b")));
    EXPECT_TRUE(veltrane::LinkOver(from, to)) << "and again, when it is one already";
    EXPECT_THAT(NamesIn(directory.path), ElementsAre("a", "b"));
}

TEST_F(ReplaceFile, ASecondNameThatCannotBeMadeChangesNothing)
{
    WriteFile(At("b"), "b");
    fs::create_directory(At("c"));
    EXPECT_FALSE(veltrane::LinkOver(PlaceOf(At("a")), PlaceOf(At("b"))));
    EXPECT_EQ(errno, ENOENT);
    EXPECT_FALSE(veltrane::LinkOver(PlaceOf(At("b")), PlaceOf(At("c"))));
    EXPECT_EQ(errno, EISDIR);
    EXPECT_EQ(ReadFile(At("b")), "b");
    EXPECT_THAT(NamesIn(directory.path), ElementsAre("b", "c"));
}

TEST_F(ReplaceFile, AWholeFileIsPutInPlaceAtOnce)
{
    ASSERT_EQ(veltrane::ReplaceFile(At("a"), "old", 0600), std::nullopt);
    ASSERT_EQ(veltrane::ReplaceFile(At("a"), "new", 0644), std::nullopt);
    EXPECT_EQ(ReadFile(At("a")), "new");
    EXPECT_EQ(fs::status(At("a")).permissions(), fs::perms(0644));
    EXPECT_THAT(NamesIn(directory.path), ElementsAre("a"));

    EXPECT_EQ(veltrane::ReplaceFile(At("none/a"), "x", 0600), "'" + At("none/a") + "' has no directory");
    fs::create_directory(At("c"));
    EXPECT_EQ(veltrane::ReplaceFile(At("c"), "x", 0600),
              "could not replace '" + At("c") + "' (rename: Is a directory)");
    EXPECT_THAT(NamesIn(directory.path), ElementsAre("a", "c"));
}

TEST_F(ReplaceFile, ASymbolicLinkTakesAnotherThingsPlace)
{
    WriteFile(At("a"), "a");
    ASSERT_EQ(veltrane::LinkTextOver("to/somewhere", PlaceOf(At("a"))), std::nullopt);
    EXPECT_EQ(fs::read_symlink(At("a")), "to/somewhere");
    EXPECT_THAT(NamesIn(directory.path), ElementsAre("a"));

    fs::create_directory(At("c"));
    EXPECT_EQ(veltrane::LinkTextOver("x", PlaceOf(At("c"))),
              "could not replace '" + At("c") + "' (rename: Is a directory)");
    EXPECT_THAT(NamesIn(directory.path), ElementsAre("a", "c"));
}

}  // namespace
