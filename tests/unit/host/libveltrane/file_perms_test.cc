// Owner, group and mode: reading what is wanted, and making it so.
#include "libveltrane/file_perms.h"

#include <gmock/gmock.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "support/places.h"
#include "support/work_dir.h"

namespace {

namespace fs = std::filesystem;

using testing::ElementsAre;
using testing::IsEmpty;
using veltrane::PermsWish;
using veltrane::Place;

class FilePerms : public testing::Test {
  protected:
    FilePerms() { WriteFile(At("file"), "x"), chmod(At("file").c_str(), 0600); }

    std::string At(const std::string &name) const { return directory.path / name; }

    // What was done, or the trouble.
    std::vector<std::string> Apply(const std::string &name, const PermsWish &wish)
    {
        const Place place = PlaceOf(At(name));
        std::vector<std::string> done;
        const veltrane::Trouble trouble = veltrane::ApplyPerms(place, *HandleOf(place), wish, &done);
        if (trouble.has_value()) {
            EXPECT_THAT(done, IsEmpty());
            return {*trouble};
        }
        return done;
    }

    TemporaryDirectory directory;
};

TEST_F(FilePerms, AModeIsOneToFourOctalDigits)
{
    EXPECT_EQ(veltrane::ParseMode("0"), 0u);
    EXPECT_EQ(veltrane::ParseMode("644"), 0644u);
    EXPECT_EQ(veltrane::ParseMode("0644"), 0644u);
    EXPECT_EQ(veltrane::ParseMode("7777"), 07777u);
    for (const char *text : {"", "00644", "0888", "-644", "u+x", "6 4", "0x1"}) {
        EXPECT_EQ(veltrane::ParseMode(text), std::nullopt) << text;
    }
}

TEST_F(FilePerms, UsersAndGroupsAreNamesOrNumbers)
{
    uid_t user = 99;
    gid_t group = 99;
    EXPECT_EQ(veltrane::FindUser("root", &user), std::nullopt);
    EXPECT_EQ(user, 0u);
    EXPECT_EQ(veltrane::FindGroup("root", &group), std::nullopt);
    EXPECT_EQ(group, 0u);
    EXPECT_EQ(veltrane::FindUser("4294967294", &user), std::nullopt);
    EXPECT_EQ(user, 4294967294u);
    EXPECT_EQ(veltrane::FindGroup("7", &group), std::nullopt);
    EXPECT_EQ(group, 7u);
    for (const char *text : {"no-such-one", "", "-1", "4294967295", "99999999999999999999"}) {
        EXPECT_EQ(veltrane::FindUser(text, &user), "there is no user '" + std::string(text) + "'");
        EXPECT_EQ(veltrane::FindGroup(text, &group), "there is no group '" + std::string(text) + "'");
    }
}

TEST_F(FilePerms, WhoMayReadADirectoryMaySearchIt)
{
    EXPECT_EQ(veltrane::ModeForDirectory(0644), 0755u);
    EXPECT_EQ(veltrane::ModeForDirectory(0600), 0700u);
    EXPECT_EQ(veltrane::ModeForDirectory(0640), 0750u);
    EXPECT_EQ(veltrane::ModeForDirectory(02000), 02000u);
    EXPECT_EQ(veltrane::ModeForDirectory(0), 0u);
}

TEST_F(FilePerms, WhatIsAsWantedIsLeftAlone)
{
    EXPECT_THAT(Apply("file", {}), IsEmpty());
    EXPECT_THAT(Apply("file", {0600, geteuid(), getegid()}), IsEmpty());
}

TEST_F(FilePerms, AModeIsSetAndTheChangeIsSaid)
{
    EXPECT_THAT(Apply("file", {0640}), ElementsAre("mode 0600 set to 0640"));
    EXPECT_EQ(ModeOf(At("file")), 0640u);
    EXPECT_THAT(Apply("file", {04755}), ElementsAre("mode 0640 set to 4755"));
    EXPECT_EQ(ModeOf(At("file")), 04755u);
    EXPECT_THAT(Apply("file", {0}), ElementsAre("mode 4755 set to 0000"));
    EXPECT_THAT(Apply("file", {0600}), ElementsAre("mode 0000 set to 0600")) << "though it cannot be opened";
}

TEST_F(FilePerms, AFileThatChangesHandsKeepsItsSetUserBit)
{
    ASSERT_EQ(chmod(At("file").c_str(), 04711), 0);
    const std::vector<std::string> done = Apply("file", {std::nullopt, kStranger, kStranger + 1});
    if (geteuid() != 0) {
        EXPECT_THAT(done, ElementsAre("could not give away '" + At("file") + "' (chown: Operation not permitted)"));
        return;
    }
    EXPECT_THAT(done, ElementsAre("owner 0 set to 12345", "group 0 set to 12346"));
    EXPECT_EQ(ModeOf(At("file")), 04711u);
}

TEST_F(FilePerms, ALinkIsNeverFollowed)
{
    fs::create_symlink("file", At("link"));
    EXPECT_THAT(Apply("link", {0644}), ElementsAre("'" + At("link") + "' is a symbolic link of user " +
                                                   std::to_string(geteuid()) + ", which is not followed"));
    EXPECT_EQ(ModeOf(At("file")), 0600u);
}

TEST_F(FilePerms, GoToTheFileThatWasLookedAtWhateverStandsThereNow)
{
    WriteFile(At("secret"), "x");
    ASSERT_EQ(chmod(At("secret").c_str(), 0600), 0);
    const Place place = PlaceOf(At("file"));
    const auto handle = HandleOf(place);
    fs::rename(At("file"), At("elsewhere"));
    fs::create_symlink("secret", At("file"));

    std::vector<std::string> done;
    EXPECT_EQ(veltrane::ApplyPerms(place, *handle, {0666}, &done), std::nullopt);
    EXPECT_EQ(ModeOf(At("secret")), 0600u);
    EXPECT_EQ(ModeOf(At("elsewhere")), 0666u);
}

TEST_F(FilePerms, ASecondNameInADirectoryOfOthersIsLeftAlone)
{
    fs::create_directory(At("open"));
    fs::create_hard_link(At("file"), At("open/planted"));
    ASSERT_EQ(chmod(At("open").c_str(), 0700), 0);
    EXPECT_THAT(Apply("open/planted", {0640}), ElementsAre("mode 0600 set to 0640")) << "nobody else makes names here";

    for (const mode_t mode : {01777, 0770}) {
        ASSERT_EQ(chmod(At("open").c_str(), mode), 0);
        EXPECT_THAT(Apply("open/planted", {0666}),
                    ElementsAre("'" + At("open/planted") + "' has a second name, which another user may have made"));
    }
    ASSERT_EQ(chmod(At("open").c_str(), 0700), 0);
    if (GiveAway(At("open"))) {
        EXPECT_THAT(Apply("open/planted", {0666}),
                    ElementsAre("'" + At("open/planted") + "' has a second name, which another user may have made"));
    } else {
        EXPECT_EQ(errno, EPERM);  // nobody but root can give a directory away
    }
    EXPECT_EQ(ModeOf(At("file")), 0640u);
}

TEST_F(FilePerms, AReplacementTakesOverWhatIsNotWantedOtherwiseButNoSpecialBits)
{
    struct stat before {};
    before.st_mode = S_IFREG | 06755;
    before.st_uid = 5;
    before.st_gid = 6;
    const PermsWish kept = veltrane::PermsAfter(before, {});
    EXPECT_EQ(kept.mode, 0755u);
    EXPECT_EQ(kept.owner, 5u);
    EXPECT_EQ(kept.group, 6u);
    const PermsWish wanted = veltrane::PermsAfter(before, {04711, 7, 8});
    EXPECT_EQ(wanted.mode, 04711u);
    EXPECT_EQ(wanted.owner, 7u);
    EXPECT_EQ(wanted.group, 8u);
}

TEST_F(FilePerms, ANewFileHasItsModeAndItsMakersUnlessOthersAreWanted)
{
    const PermsWish plain = veltrane::PermsOfNew(S_IFREG | 04644, {});
    EXPECT_EQ(plain.mode, 0644u);
    EXPECT_EQ(plain.owner, std::nullopt);
    EXPECT_EQ(plain.group, std::nullopt);
    EXPECT_EQ(veltrane::PermsOfNew(0600, {0640, 1, 2}).owner, 1u);
}

}  // namespace
