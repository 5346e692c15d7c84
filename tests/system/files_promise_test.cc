// Promises of type "files", kept by real runs of vt-agent on real trees.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "support/agent.h"
#include "support/file_size_limit.h"
#include "support/places.h"

namespace {

namespace fs = std::filesystem;

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;

class FilesPromise : public Agent {
  protected:
    FilesPromise() { fs::create_directory(Made("site")); }

    std::string At(const std::string &name) { return Made("site/" + name); }

    // One promise about a path below the site, with these attributes, each on a line of its own.
    std::string Promise(const std::string &name, const std::vector<std::string> &attributes)
    {
        std::string text = "      - files: \"" + At(name) + "\"\n";
        for (const std::string &attribute : attributes) { text += "        " + attribute + "\n"; }
        return text;
    }

    // Keep it, and say how it was judged.
    ProcessResult Keep(const std::string &name, std::vector<std::string> attributes)
    {
        attributes.emplace_back("classes: {kept: is_kept, repaired: is_repaired, failed: is_failed}");
        return RunPolicy(Promise(name, attributes) +
                             "      - reports: kept\n        if: is_kept\n"
                             "      - reports: repaired\n        if: is_repaired\n"
                             "      - reports: failed\n        if: is_failed\n",
                         {"-I"});
    }

    void ExpectKept(const std::string &name, const std::vector<std::string> &attributes)
    {
        const ProcessResult result = Keep(name, attributes);
        EXPECT_EQ(result.out, "R: kept\n");
        EXPECT_EQ(result.err, "");
    }

    void ExpectRepaired(const std::string &name, const std::vector<std::string> &attributes, const std::string &what)
    {
        const ProcessResult result = Keep(name, attributes);
        EXPECT_EQ(result.out, "R: repaired\n");
        EXPECT_EQ(result.err, "    info: File '" + At(name) + "' is repaired: " + what + "\n");
    }

    void ExpectFailed(const std::string &name, const std::vector<std::string> &attributes, const std::string &why)
    {
        const ProcessResult result = Keep(name, attributes);
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.out, "R: failed\n") << "and the run goes on";
        EXPECT_EQ(result.err, "   error: File '" + At(name) + "' is not kept: " + why + "\n");
    }
};

}  // namespace

TEST_F(FilesPromise, ContentIsWrittenOnceAndThenKept)
{
    ExpectRepaired("a/b/motd", {"content: \"hello\\n\""}, "created with its content");
    EXPECT_EQ(ReadFile(At("a/b/motd")), "hello\n");
    EXPECT_EQ(ModeOf(At("a/b/motd")), 0600u);
    EXPECT_EQ(ModeOf(At("a/b")), 0700u) << "directories above it are made";

    const ino_t inode = InodeOf(At("a/b/motd"));
    ExpectKept("a/b/motd", {"content: \"hello\\n\""});
    EXPECT_EQ(InodeOf(At("a/b/motd")), inode);
}

TEST_F(FilesPromise, ContentThatDiffersIsReplacedWholeAndKeepsItsMode)
{
    WriteFile(At("motd"), "old and longer");
    ASSERT_EQ(chmod(At("motd").c_str(), 0664), 0);
    const ino_t inode = InodeOf(At("motd"));

    ExpectRepaired("motd", {"content: new"}, "content written");
    EXPECT_EQ(ReadFile(At("motd")), "new");
    EXPECT_EQ(ModeOf(At("motd")), 0664u);
    EXPECT_NE(InodeOf(At("motd")), inode) << "a reader of the old file goes on reading that";
    EXPECT_THAT(NamesIn(Made("site")), ElementsAre("motd"));
}

TEST_F(FilesPromise, ContentAndPermissionsAreOneJudgement)
{
    WriteFile(At("motd"), "old");
    ASSERT_EQ(chmod(At("motd").c_str(), 0600), 0);
    ExpectRepaired("motd", {"content: new", "perms: {mode: \"0644\"}"}, "content written and mode 0600 set to 0644");
    ExpectKept("motd", {"content: new", "perms: {mode: \"0644\"}"});
    ASSERT_EQ(chmod(At("motd").c_str(), 0666), 0);
    ExpectRepaired("motd", {"content: new", "perms: {mode: \"0644\"}"}, "mode 0666 set to 0644");
}

TEST_F(FilesPromise, EveryIterationIsCountedOnce)
{
    WriteFile(At("kept"), "x");
    const ProcessResult result =
        RunPolicy(Promise("kept", {"content: x"}) + Promise("made", {"content: x"}) + Promise("none/", {}), {"-v"});
    EXPECT_THAT(result.err, HasSubstr(" verbose: File '" + At("kept") + "' is as promised\n"));
    EXPECT_THAT(result.err, HasSubstr(": 1 kept, 1 repaired, 1 not kept\n"));
}

TEST_F(FilesPromise, AListMakesAPromiseOfEachItem)
{
    const ProcessResult result =
        RunPolicy("      - vars: names\n        slist: [one, two words, \"gr\xC3\xBC\xC3\x9F\"]\n" +
                  Promise("$(names)", {"content: \"$(names)\""}));
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(ReadFile(At("one")), "one");
    EXPECT_EQ(ReadFile(At("two words")), "two words");
    EXPECT_EQ(ReadFile(At("gr\xC3\xBC\xC3\x9F")), "gr\xC3\xBC\xC3\x9F");
}

TEST_F(FilesPromise, CreateMakesAnEmptyFileAndLeavesOneThatIsThere)
{
    ExpectRepaired("new", {"create: true", "perms: {mode: \"0640\"}"}, "created");
    EXPECT_EQ(ReadFile(At("new")), "");
    EXPECT_EQ(ModeOf(At("new")), 0640u);
    WriteFile(At("new"), "text");
    ExpectKept("new", {"create: true"});
    EXPECT_EQ(ReadFile(At("new")), "text");
}

TEST_F(FilesPromise, APromiserThatEndsInASlashIsADirectory)
{
    ExpectRepaired("a/b/", {"create: true", "perms: {mode: \"0750\"}"}, "created and mode 0700 set to 0750");
    EXPECT_EQ(ModeOf(At("a/b")), 0750u);
    ExpectKept("a/b/", {"create: true", "perms: {mode: \"0750\"}"});
    ExpectFailed("a/b/", {"content: x"}, "a directory has no 'content'");
    WriteFile(At("file"), "x");
    ExpectFailed("file/", {"create: true"}, "'" + At("file") + "' is a file, not a directory");
}

TEST_F(FilesPromise, WhatIsMissingAndMayNotBeCreatedIsAWarning)
{
    for (const std::vector<std::string> &attributes : {std::vector<std::string>{"perms: {mode: \"0644\"}"},
                                                       {"content: x", "create: false"},
                                                       {"create: false"},
                                                       {},
                                                       {"copy_from: /etc/passwd", "create: no"}}) {
        for (const char *name : {"none", "none/none"}) {
            const ProcessResult result = Keep(name, attributes);
            EXPECT_EQ(result.out, "R: failed\n");
            EXPECT_EQ(result.err, " warning: File '" + At(name) + "' is not there and is not to be created\n");
        }
    }
    EXPECT_THAT(NamesIn(Made("site")), IsEmpty());
}

TEST_F(FilesPromise, PermissionsAreSetOnWhateverStandsThere)
{
    fs::create_directory(At("dir"));
    ASSERT_EQ(chmod(At("dir").c_str(), 0700), 0);
    ExpectRepaired("dir", {"perms: {mode: \"2775\"}"}, "mode 0700 set to 2775");
}

TEST_F(FilesPromise, OwnersAreNamesOrNumbersAndUnknownOnesAreSaid)
{
    WriteFile(At("file"), "x");
    const std::string owner = std::to_string(geteuid());
    ExpectKept("file", {"perms: {owner: \"" + owner + "\", group: \"" + std::to_string(getegid()) + "\"}"});
    ExpectFailed("file", {"perms: {owner: no-such-user}"}, "there is no user 'no-such-user'");
    ExpectFailed("file", {"perms: {group: no-such-group}"}, "there is no group 'no-such-group'");
    if (geteuid() == 0) {
        ExpectRepaired("file", {"perms: {owner: \"12345\", group: \"12346\"}"},
                       "owner 0 set to 12345 and group 0 set to 12346");
        ExpectRepaired("file", {"content: y"}, "content written");
        struct stat st {};
        ASSERT_EQ(stat(At("file").c_str(), &st), 0);
        EXPECT_EQ(st.st_uid, 12345u) << "a new content changes no owner";
    } else {
        ExpectFailed("file", {"perms: {owner: root}"},
                     "could not give away '" + At("file") + "' (chown: Operation not permitted)");
    }
}

TEST_F(FilesPromise, DeleteTakesFilesLinksAndEmptyDirectoriesAway)
{
    WriteFile(At("file"), "x");
    fs::create_symlink("file", At("link"));
    fs::create_directory(At("dir"));
    ExpectRepaired("link", {"delete: true"}, "deleted");
    EXPECT_EQ(ReadFile(At("file")), "x") << "what the link led to stays";
    ExpectRepaired("file", {"delete: true"}, "deleted");
    ExpectRepaired("dir", {"delete: true"}, "deleted");
    ExpectKept("file", {"delete: true"});
    ExpectKept("no/such/directory", {"delete: true"});
    ExpectKept("none", {"delete: true", "depth_search: true"});
}

TEST_F(FilesPromise, ADirectoryThatHoldsSomethingIsDeletedOnlyWithItsTree)
{
    fs::create_directories(At("dir/sub"));
    WriteFile(At("dir/sub/file"), "x");
    WriteFile(At("outside"), "kept");
    fs::create_symlink("../outside", At("dir/link"));
    fs::create_directory_symlink("..", At("dir/up"));

    ExpectFailed("dir", {"delete: true"}, "could not delete '" + At("dir") + "' (rmdir: Directory not empty)");
    const ProcessResult result = Keep("dir", {"delete: true", "depth_search: true"});
    EXPECT_EQ(result.out, "R: repaired\n");
    EXPECT_THAT(result.err, AllOf(HasSubstr("File '" + At("dir/sub/file") + "' is repaired: deleted\n"),
                                  HasSubstr("File '" + At("dir") + "' is repaired: 5 entries of the tree\n")));
    EXPECT_THAT(NamesIn(Made("site")), ElementsAre("outside"));
    EXPECT_EQ(ReadFile(At("outside")), "kept");
}

TEST_F(FilesPromise, ALinkToATreeIsDeletedAndNotTheTree)
{
    fs::create_directory(At("dir"));
    WriteFile(At("dir/file"), "x");
    fs::create_directory_symlink("dir", At("link"));
    ExpectRepaired("link", {"delete: true", "depth_search: true"}, "deleted");
    EXPECT_EQ(ReadFile(At("dir/file")), "x");
}

TEST_F(FilesPromise, ACopyIsMadeOnceAndItsPredecessorSaved)
{
    WriteFile(At("from"), "new");
    ASSERT_EQ(chmod(At("from").c_str(), 0644), 0);
    ExpectRepaired("to", {"copy_from: " + At("from")}, "copied from '" + At("from") + "'");
    EXPECT_EQ(ModeOf(At("to")), 0644u);
    ExpectKept("to", {"copy_from: " + At("from")});

    WriteFile(At("from"), "newer");
    ExpectRepaired("to", {"copy_from: {source: " + At("from") + "}"},
                   "saved as '" + At("to.before") + "' and copied from '" + At("from") + "'");
    EXPECT_EQ(ReadFile(At("to")), "newer");
    EXPECT_EQ(ReadFile(At("to.before")), "new");

    WriteFile(At("from"), "newest");
    ExpectRepaired("to", {"copy_from: {source: " + At("from") + ", backup: \"false\", verify: true, stealth: true}"},
                   "copied from '" + At("from") + "'");
    EXPECT_EQ(ReadFile(At("to.before")), "new");
}

TEST_F(FilesPromise, ABackupCanHaveItsTime)
{
    WriteFile(At("from"), "new");
    WriteFile(At("to"), "old");
    const ProcessResult result = Keep("to", {"copy_from: {source: " + At("from") + ", backup: timestamp}"});
    EXPECT_EQ(result.out, "R: repaired\n");
    EXPECT_THAT(NamesIn(Made("site")), ElementsAre("from", "to", MatchesRegex("to\\.before-[0-9]+")));
}

TEST_F(FilesPromise, ACopyNeedsASourceOfThisMachineThatIsThere)
{
    ExpectFailed("to", {"copy_from: " + At("none")}, "its source '" + At("none") + "' is not there");
    ExpectFailed("to", {"copy_from: {source: /etc/passwd, servers: [hub]}"}, "files of other hosts are not fetched");
    ExpectFailed("to", {"copy_from: etc/passwd"}, "its source 'etc/passwd' is no absolute path");
    ExpectFailed("to", {"copy_from: " + Made("site")},
                 "copying the directory '" + Made("site") + "' needs 'depth_search'");
    ExpectFailed("to/", {"copy_from: " + Made("site")}, "copying a directory needs 'depth_search'");
    WriteFile(At("file"), "x");
    ExpectFailed("to", {"copy_from: " + At("file"), "depth_search: true"},
                 "its source '" + At("file") + "' is no directory");
    EXPECT_THAT(NamesIn(Made("site")), ElementsAre("file"));
}

TEST_F(FilesPromise, ASourceThatCannotBeReadIsSaid)
{
    ExpectFailed("to", {"copy_from: /proc/self/mem"},
                 "could not read '/proc/" + std::string("self/mem' (read: Input/output error)"));
    EXPECT_THAT(NamesIn(Made("site")), IsEmpty());
}

TEST_F(FilesPromise, ATreeIsCopiedWithItsLinksAndSecondNames)
{
    fs::create_directories(Made("from/sub/empty"));
    WriteFile(Made("from/file"), "1");
    WriteFile(Made("from/sub/file"), "2");
    fs::create_hard_link(Made("from/file"), Made("from/sub/same"));
    fs::create_symlink("file", Made("from/sub/link"));
    fs::create_symlink("/", Made("from/root"));
    ASSERT_EQ(mkfifo(Made("from/pipe").c_str(), 0600), 0);
    ASSERT_EQ(chmod(Made("from/sub/empty").c_str(), 0555), 0);
    fs::create_directory(At("to"));
    WriteFile(At("to/extra"), "stays");

    const std::vector<std::string> attributes{"copy_from: " + Made("from"), "depth_search: true"};
    const ProcessResult result = Keep("to", attributes);
    EXPECT_EQ(result.out, "R: repaired\n");
    EXPECT_THAT(result.err, HasSubstr("File '" + At("to") + "' is repaired: 7 entries of the tree\n"));
    EXPECT_EQ(ReadFile(At("to/file")), "1");
    EXPECT_EQ(ReadFile(At("to/sub/file")), "2");
    EXPECT_EQ(InodeOf(At("to/file")), InodeOf(At("to/sub/same")));
    EXPECT_EQ(fs::read_symlink(At("to/sub/link")), "file");
    EXPECT_EQ(fs::read_symlink(At("to/root")), "/");
    EXPECT_EQ(ModeOf(At("to/sub/empty")), 0755u) << "its owner may always write";
    EXPECT_FALSE(fs::exists(At("to/pipe")));
    EXPECT_EQ(ReadFile(At("to/extra")), "stays");
    ExpectKept("to", attributes);
}

TEST_F(FilesPromise, ACopiedTreeDoesNotLeaveItsPlaceThroughALink)
{
    fs::create_directories(Made("from/sub"));
    WriteFile(Made("from/sub/file"), "new");
    WriteFile(Made("from/other"), "new");
    fs::create_directories(Made("outside"));
    WriteFile(Made("outside/other"), "kept");
    fs::create_directory(At("to"));
    fs::create_directory_symlink(Made("outside"), At("to/sub"));
    fs::create_symlink(Made("outside/other"), At("to/other"));

    const ProcessResult result = Keep("to", {"copy_from: " + Made("from"), "depth_search: true"});
    EXPECT_EQ(result.out, "R: failed\n");
    const std::string user = std::to_string(geteuid());
    EXPECT_EQ(result.err, "   error: File '" + At("to/other") + "' is not kept: '" + At("to/other") +
                              "' is a symbolic link of user " + user + ", not a file\n   error: File '" + At("to/sub") +
                              "' is not kept: '" + At("to/sub") + "' is a symbolic link of user " + user +
                              ", not a directory\n   error: Tree '" + At("to") +
                              "' is not kept: 2 of its entries failed, 0 were repaired\n");
    EXPECT_THAT(NamesIn(Made("outside")), ElementsAre("other"));

    const ProcessResult moved =
        Keep("to", {"copy_from: " + Made("from"), "depth_search: true", "move_obstructions: true"});
    EXPECT_EQ(moved.out, "R: repaired\n");
    EXPECT_EQ(ReadFile(At("to/sub/file")), "new");
    EXPECT_TRUE(fs::is_symlink(At("to/sub.moved-aside")));
    EXPECT_EQ(ReadFile(Made("outside/other")), "kept");
    EXPECT_THAT(NamesIn(Made("outside")), ElementsAre("other"));
}

TEST_F(FilesPromise, ATreeIsNotCopiedIntoItself)
{
    fs::create_directories(At("from/to"));
    WriteFile(At("from/file"), "x");
    const ProcessResult result = Keep("from/to", {"copy_from: " + At("from"), "depth_search: true"});
    EXPECT_EQ(result.out, "R: failed\n");
    EXPECT_THAT(result.err, HasSubstr("File '" + At("from/to") + "' is not kept: a copy cannot hold itself\n"));
    EXPECT_THAT(NamesIn(At("from/to")), ElementsAre("file"));
}

TEST_F(FilesPromise, PermissionsOfATreeLetDirectoriesBeSearched)
{
    fs::create_directories(At("dir/sub"));
    WriteFile(At("dir/sub/file"), "x");
    WriteFile(Made("outside"), "x");
    ASSERT_EQ(chmod(Made("outside").c_str(), 0600), 0);
    fs::create_symlink(Made("outside"), At("dir/link"));
    for (const char *name : {"dir", "dir/sub", "dir/sub/file"}) { ASSERT_EQ(chmod(At(name).c_str(), 0700), 0); }

    const std::vector<std::string> attributes{"perms: {mode: \"0644\"}", "depth_search: true"};
    const ProcessResult result = Keep("dir", attributes);
    EXPECT_EQ(result.out, "R: repaired\n");
    EXPECT_EQ(ModeOf(At("dir")), 0755u);
    EXPECT_EQ(ModeOf(At("dir/sub")), 0755u);
    EXPECT_EQ(ModeOf(At("dir/sub/file")), 0644u);
    EXPECT_EQ(ModeOf(Made("outside")), 0600u);
    ExpectKept("dir", attributes);
}

TEST_F(FilesPromise, ASearchGoesAsDeepAsItIsTold)
{
    fs::create_directories(At("dir/a/b"));
    WriteFile(At("dir/a/file"), "x");
    for (const char *name : {"dir", "dir/a", "dir/a/b", "dir/a/file"}) { ASSERT_EQ(chmod(At(name).c_str(), 0700), 0); }
    EXPECT_EQ(Keep("dir", {"perms: {mode: \"0750\"}", "depth_search: {depth: 1}"}).out, "R: repaired\n");
    EXPECT_EQ(ModeOf(At("dir/a")), 0750u);
    EXPECT_EQ(ModeOf(At("dir/a/b")), 0700u);
    EXPECT_EQ(ModeOf(At("dir/a/file")), 0700u);
}

TEST_F(FilesPromise, OfAThousandFailuresAHundredAreSaidAndAllCounted)
{
    fs::create_directories(Made("from"));
    fs::create_directories(At("to"));
    for (int i = 0; i < 130; ++i) {
        WriteFile(Made("from/" + std::to_string(i)), "x");
        fs::create_directory(At("to/" + std::to_string(i)));
    }
    const ProcessResult result = Keep("to", {"copy_from: " + Made("from"), "depth_search: true"});
    EXPECT_THAT(result.err, HasSubstr("Tree '" + At("to") + "' is not kept: 130 of its entries failed, 0 were"));
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 101);
}

TEST_F(FilesPromise, WhatStandsInTheWayOfAFileIsMovedAsideWhenItMay)
{
    fs::create_directory(At("motd"));
    WriteFile(At("motd/inside"), "kept");
    ExpectFailed("motd", {"content: x"}, "'" + At("motd") + "' is a directory, not a file");
    ExpectRepaired("motd", {"content: x", "move_obstructions: true"},
                   "a directory moved aside to '" + At("motd.moved-aside") + "' and created with its content");
    EXPECT_EQ(ReadFile(At("motd.moved-aside/inside")), "kept");

    fs::remove(At("motd"));
    ASSERT_EQ(mkfifo(At("motd").c_str(), 0600), 0);
    ExpectFailed("motd", {"create: true", "move_obstructions: true"},
                 "could not move what stands in the way to '" + At("motd.moved-aside") + "' (rename: File exists)");
    ExpectFailed("motd", {"content: x"}, "'" + At("motd") + "' is a named pipe, not a file");
}

TEST_F(FilesPromise, NothingIsMovedAsideForAFileThatMayNotBeCreated)
{
    fs::create_directory(At("motd"));
    ExpectFailed("motd", {"content: x", "create: false", "move_obstructions: true"},
                 "'" + At("motd") + "' is a directory, not a file");
    EXPECT_TRUE(fs::is_directory(At("motd")));
}

TEST_F(FilesPromise, AFileInTheWayOfADirectoryIsMovedAsideWhenItMay)
{
    WriteFile(At("a"), "kept");
    ExpectFailed("a/b/motd", {"content: x"},
                 "could not make the directory '" + At("a/b") + "' (mkdir: Not a directory)");
    ExpectRepaired("a/b/motd", {"content: x", "move_obstructions: true"}, "created with its content");
    EXPECT_EQ(ReadFile(At("a.moved-aside")), "kept");
}

TEST_F(FilesPromise, OurLinksAreFollowedToTheFileTheyStandFor)
{
    fs::create_directory(At("real"));
    fs::create_symlink("real/motd", At("link"));
    ExpectRepaired("link", {"content: x"}, "created with its content");
    EXPECT_EQ(ReadFile(At("real/motd")), "x");
    EXPECT_TRUE(fs::is_symlink(At("link")));
    fs::create_symlink("no/where", At("dangling"));
    ExpectRepaired("dangling", {"content: x"}, "created with its content");
    EXPECT_EQ(ReadFile(At("no/where")), "x");
}

TEST_F(FilesPromise, LinksOfOtherUsersAreNotFollowed)
{
    WriteFile(Made("secret"), "kept");
    ASSERT_EQ(chmod(Made("secret").c_str(), 0600), 0);
    fs::create_directory(Made("real"));
    fs::create_symlink(Made("secret"), At("planted"));
    fs::create_directory_symlink(Made("real"), At("planted_dir"));
    if (!GiveAway(At("planted")) || !GiveAway(At("planted_dir"))) {
        EXPECT_EQ(errno, EPERM);  // nobody but root can give a link away
        return;
    }
    const std::string link = "'" + At("planted") + "' is a symbolic link of user 12345, ";
    ExpectFailed("planted", {"content: x"}, link + "not a file");
    ExpectFailed("planted", {"copy_from: /etc/passwd"}, link + "not a file");
    ExpectFailed("planted", {"perms: {mode: \"0666\"}"}, link + "which is not followed");
    ExpectFailed("to", {"copy_from: " + At("planted")}, link + "not a file");
    const std::string severed = "' (open: a symbolic link of another user is not followed)";
    ExpectFailed("planted_dir/file", {"content: x"}, "could not open '" + At("planted_dir") + severed);
    ExpectFailed("planted_dir/file", {"delete: true"}, "could not open '" + At("planted_dir") + severed);
    EXPECT_EQ(ReadFile(Made("secret")), "kept");
    EXPECT_EQ(ModeOf(Made("secret")), 0600u);
    EXPECT_THAT(NamesIn(Made("real")), IsEmpty());

    ExpectRepaired("planted", {"content: x", "move_obstructions: true"},
                   "a symbolic link of user 12345 moved aside to '" + At("planted.moved-aside") +
                       "' and created with its content");
    EXPECT_EQ(ReadFile(Made("secret")), "kept");
}

TEST_F(FilesPromise, ALinkThatAnotherUserPlantedInASourceIsNotCopied)
{
    fs::create_directory(Made("from"));
    fs::create_symlink("/etc/shadow", Made("from/planted"));
    if (!GiveAway(Made("from/planted"))) {
        EXPECT_EQ(errno, EPERM);  // nobody but root can give a link away
        return;
    }
    const ProcessResult result = Keep("to", {"copy_from: " + Made("from"), "depth_search: true"});
    EXPECT_EQ(result.out, "R: failed\n");
    EXPECT_THAT(result.err,
                HasSubstr("'" + Made("from/planted") + "' is a symbolic link of user 12345, which is not copied\n"));
    EXPECT_THAT(NamesIn(At("to")), IsEmpty());
}

TEST_F(FilesPromise, ASecondNameThatAnotherUserMayHavePlantedKeepsItsPermissions)
{
    WriteFile(Made("secret"), "x");
    ASSERT_EQ(chmod(Made("secret").c_str(), 0600), 0);
    fs::create_hard_link(Made("secret"), At("planted"));
    ASSERT_EQ(chmod(Made("site").c_str(), 0777), 0);
    ExpectFailed("planted", {"perms: {mode: \"0666\"}"},
                 "'" + At("planted") + "' has a second name, which another user may have made");
    EXPECT_EQ(ModeOf(Made("secret")), 0600u);
}

TEST_F(FilesPromise, NamesMayBeAsLongAsTheSystemTakes)
{
    const std::string longest(255, 'n');
    ExpectRepaired(longest, {"content: x"}, "created with its content");
    const std::string longer(256, 'n');
    ExpectFailed(longer, {"content: x"}, "could not look at '" + At(longer) + "' (open: File name too long)");
}

TEST_F(FilesPromise, PathsMayBeAsLongAsTheSystemTakes)
{
    std::string name;
    while (At(name).size() < 3900) { name += std::string(100, 'd') + "/"; }
    const std::string longest = name + std::string(4095 - At(name).size(), 'n');
    ASSERT_EQ(At(longest).size(), 4095u);
    ExpectRepaired(longest, {"content: x"}, "created with its content");
    EXPECT_EQ(ReadFile(At(longest)), "x");
    ExpectKept(longest, {"content: x"});

    std::string longer = At(name);
    while (longer.size() <= 4200) { longer += std::string(100, 'e') + "/"; }
    const ProcessResult result =
        RunPolicy("      - files: \"" + longer + "x\"\n        content: x\n      - reports: goes on\n");
    EXPECT_EQ(result.out, "R: goes on\n");
    EXPECT_THAT(result.err,
                MatchesRegex("   error: File '.*' is not kept: could not .* \\(.*: File name too long\\)\n"));
}

TEST_F(FilesPromise, AFullDiskLeavesWhatWasThere)
{
    WriteFile(Made("from"), std::string(300'000, 'n'));
    WriteFile(At("to"), "old");
    ProcessResult result;
    {
        const FileSizeLimit limit(200'000);
        result = RunPolicy(Promise("to", {"copy_from: " + Made("from")}) + "      - reports: goes on\n");
    }
    EXPECT_EQ(result.out, "R: goes on\n");
    EXPECT_EQ(result.err, "   error: File '" + At("to") + "' is not kept: could not write '" + At("to") +
                              "' (write: File too large)\n");
    EXPECT_EQ(ReadFile(At("to")), "old");
    EXPECT_THAT(NamesIn(Made("site")), ElementsAre("to"));
}

TEST_F(FilesPromise, ADirectoryThatTakesNoFilesIsSaid)
{
    const ProcessResult result =
        RunPolicy("      - files: /proc/sys/kernel/never\n        content: x\n      - reports: goes on\n");
    EXPECT_EQ(result.out, "R: goes on\n");
    EXPECT_THAT(result.err, MatchesRegex("   error: File '/proc/sys/kernel/never' is not kept: could not make a file "
                                         "beside '/proc/sys/kernel/never' \\(open: .*\\)\n"));
}

TEST_F(FilesPromise, WhatContradictsItselfIsNotKept)
{
    ExpectFailed("a", {"content: x", "copy_from: /etc/passwd"}, "'content' and 'copy_from' contradict each other");
    for (const char *attribute : {"content: x", "copy_from: /etc/passwd", "create: true"}) {
        ExpectFailed("a", {"delete: true", attribute}, "what is to be deleted cannot be made as well");
    }
    ExpectFailed("a", {"depth_search: true", "content: x"}, "a directory has no 'content'");
}

TEST_F(FilesPromise, WhatVariablesHoldIsJudgedToo)
{
    const std::string vars = "      - vars: x\n        string: maybe\n      - vars: list\n        slist: [a, b]\n";
    const struct {
        const char *promise;
        const char *line;
    } table[] = {
        {"files: \"$(x)\", create: true", "File 'maybe' is not kept: it is no absolute path"},
        {"files: /a, create: \"$(x)\"", "File '/a' is not kept: its 'create' is neither true nor false: 'maybe'"},
        {"files: /a, delete: \"$(x)\"", "File '/a' is not kept: its 'delete' is neither true nor false: 'maybe'"},
        {"files: /a, perms: {mode: \"$(x)\"}",
         "File '/a' is not kept: its mode 'maybe' is not one to four octal digits"},
        {"files: /a, perms: {owner: \"@(list)\"}", "File '/a' is not kept: 'owner' of its 'perms' is no text"},
        {"files: /a, content: \"@(list)\"", "File '/a' is not kept: its 'content' is no text"},
        {"files: /a, copy_from: \"@(list)\"", "File '/a' is not kept: its 'copy_from' is no text"},
        {"files: /a, depth_search: \"$(x)\"",
         "File '/a' is not kept: its 'depth_search' is neither true nor false: 'maybe'"},
        {"files: /a, depth_search: {depth: \"$(x)\"}",
         "File '/a' is not kept: its depth 'maybe' is no number from 1 to 128"},
        {"files: /a, copy_from: {source: /b, verify: \"$(x)\"}",
         "File '/a' is not kept: its 'verify' is neither true nor false: 'maybe'"},
    };
    for (const auto &row : table) {
        const ProcessResult result = RunPolicy(vars + "      - {" + row.promise + "}\n");
        EXPECT_EQ(result.err, "   error: " + std::string(row.line) + "\n") << row.promise;
    }
}

TEST_F(FilesPromise, AnUnknownSubKeyIsRefusedWhereItStandsAndNothingIsDone)
{
    const ProcessResult result =
        RunPolicy(Promise("made", {"content: x"}) + Promise("b", {"depth_search: {levels: 3}"}));
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("promises.vt:7:24: unknown attribute 'levels' of 'depth_search'\n"));
    EXPECT_FALSE(fs::exists(At("made")));
}

TEST_F(FilesPromise, ContentMayComeFromAFunctionAndOneThatFailsSkipsThePromiseAndSaysSoOnce)
{
    WriteFile(Made("name"), "reader\n");
    const ProcessResult result =
        RunPolicy(Promise("a", {"content: {readfile: [\"" + Made("name") + "\"]}"}) +
                  Promise("b", {"content: {execresult: [\"echo hello\", noshell]}"}) +
                  Promise("c", {"content: {readfile: [\"" + Made("none") + "\"]}"}) +
                  Promise("d", {"content: {execresult: [\"exit 3\", useshell]}"}) + "      - reports: goes on\n");
    EXPECT_EQ(result.out, "R: goes on\n");
    EXPECT_EQ(ReadFile(At("a")), "reader\n");
    EXPECT_EQ(ReadFile(At("b")), "hello");
    EXPECT_THAT(NamesIn(Made("site")), ElementsAre("a", "b"));
    EXPECT_EQ(result.err, "   error: Function 'readfile' failed: could not open '" + Made("none") +
                              "' (open: No such file or directory)\n"
                              "   error: Function 'execresult' failed: 'exit 3': exit status 3\n");
}

TEST_F(FilesPromise, TheExampleIsKeptAfterItsFirstRun)
{
    WriteInput("files.vt", ReadFile(fs::path(VT_TEST_SOURCE_DIR) / "../examples/policy/files.vt"));

    const ProcessResult first = Run({"-f", "files.vt"});
    EXPECT_EQ(first.status, 0);
    EXPECT_EQ(first.out, "R: the site has changed\n");
    EXPECT_EQ(first.err, "");
    EXPECT_THAT(NamesIn(work / "site"), ElementsAre("about.html", "contact.html", "index.html"));
    EXPECT_THAT(NamesIn(work / "mirror"), ElementsAre("about.html", "contact.html", "index.html"));
    EXPECT_EQ(ModeOf(work / "mirror"), 0750u);
    EXPECT_EQ(ModeOf(work / "mirror/index.html"), 0640u);

    const ProcessResult second = Run({"-f", "files.vt", "-I"});
    EXPECT_EQ(second.out, "");
    EXPECT_EQ(second.err, "");
}
