// Places: where a path leads, which links are followed, and the steps that need no bytes.
#include "libveltrane/file_place.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>

#include "support/places.h"
#include "support/work_dir.h"

namespace {

namespace fs = std::filesystem;

using testing::ElementsAre;
using testing::MatchesRegex;
using veltrane::FindPlace;
using veltrane::FoundPlace;
using veltrane::LastLink;
using veltrane::Place;

class FilePlace : public testing::Test {
  protected:
    std::string At(const std::string &name) const { return directory.path / name; }

    // The path that is found, the trouble in parentheses, or "(no directory)".
    static std::string Found(const std::string &path, LastLink last_link)
    {
        const FoundPlace found = FindPlace(path, last_link);
        EXPECT_FALSE(found.place.has_value() && found.trouble.has_value());
        return found.place.has_value()     ? found.place->path
               : found.trouble.has_value() ? "(" + *found.trouble + ")"
                                           : "(no directory)";
    }

    TemporaryDirectory directory;
};

TEST_F(FilePlace, IsANameInItsDirectoryWhetherItIsThereOrNot)
{
    const FoundPlace found = FindPlace(At("none"), LastLink::kFollowed);
    ASSERT_TRUE(found.place.has_value());
    EXPECT_EQ(found.place->name, "none");
    EXPECT_EQ(found.place->path, At("none"));
    EXPECT_FALSE(HandleOf(*found.place).has_value());

    WriteFile(At("none"), "x");
    ASSERT_TRUE(HandleOf(*found.place).has_value());
    EXPECT_TRUE(S_ISREG(HandleOf(*found.place)->st.st_mode));
}

TEST_F(FilePlace, SlashesAtTheEndDoNotCountAndTheRootIsAPlace)
{
    EXPECT_EQ(Found(At("a") + "//", LastLink::kKept), At("a"));
    EXPECT_EQ(Found("///", LastLink::kFollowed), "/");
    EXPECT_TRUE(S_ISDIR(HandleOf(PlaceOf("/"))->st.st_mode));
}

TEST_F(FilePlace, DotsNameNoFile)
{
    for (const std::string &path : {At("."), At("a/.."), std::string("/..")}) {
        EXPECT_EQ(Found(path, LastLink::kFollowed), "('" + path + "' names no file)");
    }
}

TEST_F(FilePlace, NamesMayHoldBlanksAndAnyBytes)
{
    for (const std::string name : {"with blank", "gr\xC3\xBC\xC3\x9F", "\xFF\xFE", "new\nline", "'quoted'", "-rf"}) {
        WriteFile(At(name), "x");
        EXPECT_TRUE(HandleOf(PlaceOf(At(name))).has_value()) << name;
    }
}

TEST_F(FilePlace, AMissingDirectoryIsNoTroubleAndAFileInItsPlaceCountsAsOne)
{
    WriteFile(At("file"), "x");
    EXPECT_EQ(Found(At("none/a"), LastLink::kFollowed), "(no directory)");
    EXPECT_EQ(Found(At("file/a"), LastLink::kFollowed), "(no directory)");
    EXPECT_EQ(FindPlace(At("none/a"), LastLink::kFollowed).path, At("none/a"));
}

TEST_F(FilePlace, TooLongANameOrPathIsTrouble)
{
    const Place longest = PlaceOf(At(std::string(255, 'x')));
    WriteFile(longest.path, "x");
    EXPECT_TRUE(HandleOf(longest).has_value());

    const std::string name(256, 'x');
    std::optional<veltrane::Handle> handle;
    EXPECT_EQ(veltrane::LookAt(PlaceOf(At(name)), &handle),
              "could not look at '" + At(name) + "' (open: File name too long)");

    std::string path = directory.path;
    while (path.size() < 5000) { path += "/" + std::string(200, 'x'); }
    EXPECT_THAT(Found(path, LastLink::kFollowed),
                MatchesRegex("\\(could not open '.*' \\(open: File name too long\\)\\)"));
}

TEST_F(FilePlace, OurLinksAtTheEndAreFollowedWhenAskedTo)
{
    fs::create_directory(At("real"));
    fs::create_symlink("real/file", At("first"));
    fs::create_symlink(At("first"), At("second"));
    fs::create_symlink("nowhere/file", At("dangling"));

    EXPECT_EQ(Found(At("second"), LastLink::kFollowed), At("real/file")) << "though it is not there yet";
    EXPECT_EQ(Found(At("second"), LastLink::kKept), At("second"));
    EXPECT_EQ(Found(At("dangling"), LastLink::kFollowed), "(no directory)");
    EXPECT_EQ(FindPlace(At("dangling"), LastLink::kFollowed).path, At("nowhere/file"));
}

TEST_F(FilePlace, ACircleOfLinksIsTrouble)
{
    fs::create_symlink("b", At("a"));
    fs::create_symlink("a", At("b"));
    EXPECT_EQ(Found(At("a"), LastLink::kFollowed), "('" + At("a") + "' leads through too many symbolic links)");
}

TEST_F(FilePlace, AForeignLinkAtTheEndIsItselfThePlace)
{
    WriteFile(At("file"), "x");
    fs::create_symlink("file", At("link"));
    if (!GiveAway(At("link"))) {
        EXPECT_EQ(errno, EPERM);  // nobody but root can give a link away
        return;
    }
    const Place place = PlaceOf(At("link"), LastLink::kFollowed);
    EXPECT_EQ(place.path, At("link"));
    EXPECT_EQ(veltrane::KindOf(HandleOf(place)->st), "a symbolic link of user 12345");
}

TEST_F(FilePlace, AForeignLinkOnTheWayIsTrouble)
{
    fs::create_directory(At("real"));
    fs::create_symlink("real", At("link"));
    if (!GiveAway(At("link"))) {
        EXPECT_EQ(errno, EPERM);  // nobody but root can give a link away
        return;
    }
    EXPECT_EQ(Found(At("link/file"), LastLink::kFollowed),
              "(could not open '" + At("link") + "' (open: a symbolic link of another user is not followed))");
}

TEST_F(FilePlace, StaysWithItsDirectoryWhenThatIsMoved)
{
    fs::create_directory(At("a"));
    const Place place = PlaceOf(At("a/new"));
    fs::rename(At("a"), At("b"));
    fs::create_symlink("/", At("a"));

    ASSERT_EQ(veltrane::MakeDirectory(place), std::nullopt);
    EXPECT_TRUE(fs::is_directory(At("b/new")));
}

TEST_F(FilePlace, WhatIsMovedAsideKeepsWhatItHolds)
{
    fs::create_directory(At("a"));
    WriteFile(At("a/file"), "kept");
    std::string aside;
    ASSERT_EQ(veltrane::MoveAside(PlaceOf(At("a")), &aside), std::nullopt);
    EXPECT_EQ(aside, At("a.moved-aside"));
    EXPECT_EQ(ReadFile(At("a.moved-aside/file")), "kept");
    EXPECT_FALSE(fs::exists(At("a")));
}

TEST_F(FilePlace, WhatWasMovedAsideBeforeIsNotOverwritten)
{
    WriteFile(At("a"), "new");
    WriteFile(At("a.moved-aside"), "old");
    std::string aside;
    EXPECT_EQ(veltrane::MoveAside(PlaceOf(At("a")), &aside),
              "could not move what stands in the way to '" + At("a.moved-aside") + "' (rename: File exists)");
    EXPECT_EQ(ReadFile(At("a")), "new");
    EXPECT_EQ(ReadFile(At("a.moved-aside")), "old");
}

TEST_F(FilePlace, ANewDirectoryIsPrivateAndAnOldOneIsNotMadeAgain)
{
    ASSERT_EQ(veltrane::MakeDirectory(PlaceOf(At("a"))), std::nullopt);
    EXPECT_EQ(ModeOf(At("a")), 0700u);
    EXPECT_EQ(veltrane::MakeDirectory(PlaceOf(At("a"))),
              "could not make the directory '" + At("a") + "' (mkdir: File exists)");
}

TEST_F(FilePlace, FilesLinksAndEmptyDirectoriesAreRemoved)
{
    WriteFile(At("file"), "x");
    fs::create_symlink("file", At("link"));
    fs::create_directory(At("empty"));
    fs::create_directory(At("full"));
    WriteFile(At("full/file"), "x");

    for (const char *name : {"link", "empty"}) {
        const Place place = PlaceOf(At(name));
        EXPECT_EQ(veltrane::Remove(place, *HandleOf(place)), std::nullopt) << name;
    }
    const Place full = PlaceOf(At("full"));
    EXPECT_EQ(veltrane::Remove(full, *HandleOf(full)),
              "could not delete '" + At("full") + "' (rmdir: Directory not empty)");
    EXPECT_THAT(NamesIn(directory.path), ElementsAre("file", "full")) << "and what the link led to is there";
}

TEST_F(FilePlace, WhatIsGoneAlreadyIsRemoved)
{
    WriteFile(At("file"), "x");
    const Place place = PlaceOf(At("file"));
    const auto handle = HandleOf(place);
    fs::remove(At("file"));
    EXPECT_EQ(veltrane::Remove(place, *handle), std::nullopt);
}

TEST_F(FilePlace, TheRootDirectoryIsNeverRemoved)
{
    const Place place = PlaceOf("/");
    EXPECT_EQ(veltrane::Remove(place, *HandleOf(place)), "the root directory is never deleted");
}

TEST_F(FilePlace, AWorkingNameIsShortAndBelongsToOneName)
{
    EXPECT_EQ(veltrane::WorkingName("motd"), veltrane::WorkingName("motd"));
    EXPECT_NE(veltrane::WorkingName("motd"), veltrane::WorkingName("motd2"));
    EXPECT_THAT(veltrane::WorkingName(std::string(255, 'x')), MatchesRegex("\\.vt-[0-9a-f]{16}\\.new"));
}

}  // namespace
