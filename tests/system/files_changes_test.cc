// Promises of type "files" that watch for changes, kept by real runs of vt-agent, without and with the plug-in.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <ctime>
#include <filesystem>
#include <regex>
#include <sstream>

#include "support/agent.h"
#include "support/places.h"

namespace {

namespace fs = std::filesystem;

using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;

class FilesChanges : public Agent {
  protected:
    FilesChanges() { fs::create_directory(Made("site")); }

    std::string At(const std::string &name) { return Made("site/" + name); }

    // One promise about a path below the site, and how it was judged as what it prints.
    ProcessResult Keep(const std::string &name, const std::vector<std::string> &attributes, const char *level = "-I")
    {
        std::string text = "      - files: \"" + At(name) + "\"\n";
        for (const std::string &attribute : attributes) { text += "        " + attribute + "\n"; }
        return RunPolicy(text +
                             "        classes: {kept: is_kept, repaired: is_repaired, failed: is_failed}\n"
                             "      - reports: kept\n        if: is_kept\n"
                             "      - reports: repaired\n        if: is_repaired\n"
                             "      - reports: failed\n        if: is_failed\n",
                         {level});
    }
    ProcessResult Watch(const std::string &name) { return Keep(name, {"changes: {}"}); }

    // The lines of the log, their times left out once they are seen to be times of this test.
    std::vector<std::string> Changes()
    {
        std::istringstream log(ReadFile(work / "state/file_changes.log"));
        std::vector<std::string> changes;
        for (std::string line; std::getline(log, line);) {
            const long t = std::atol(line.c_str());
            EXPECT_GE(t, start);
            EXPECT_LE(t, time(nullptr));
            changes.push_back(line.substr(line.find(',') + 1));
        }
        return changes;
    }

    // The log of differences, each time of it as "T".
    std::string Differences()
    {
        return std::regex_replace(ReadFile(work / "state/vesk_diff.log"), std::regex("(^|\n)[0-9]+;"), "$1T;");
    }

    const time_t start = time(nullptr);
};

}  // namespace

TEST_F(FilesChanges, AFileIsAddedAtItsFirstSightAndKeptAfterwards)
{
    WriteFile(At("motd"), "hello\n");
    const ProcessResult first = Watch("motd");
    EXPECT_EQ(first.out, "R: repaired\n");
    EXPECT_EQ(first.err, "    info: File '" + At("motd") + "' is repaired: watched from now on\n");
    const ProcessResult second = Watch("motd");
    EXPECT_EQ(second.out, "R: kept\n");
    EXPECT_EQ(second.err, "");
    EXPECT_THAT(Changes(), ElementsAre(At("motd") + ",A,added"));
    EXPECT_EQ(ModeOf(work / "state/file_changes.log"), 0600u);
    EXPECT_EQ(ReadFile(At("motd")), "hello\n");
}

TEST_F(FilesChanges, ContentAndPermissionsThatSomebodyChangedAreNoted)
{
    WriteFile(At("motd"), "hello\n");
    ASSERT_EQ(chmod(At("motd").c_str(), 0644), 0);
    Watch("motd");
    WriteFile(At("motd"), "hallo\n");
    ASSERT_EQ(chmod(At("motd").c_str(), 0600), 0);
    const ProcessResult result = Watch("motd");
    EXPECT_EQ(result.out, "R: repaired\n");
    EXPECT_EQ(result.err, "    info: File '" + At("motd") +
                              "' is repaired: change of content noted and change of permissions noted\n");
    EXPECT_THAT(Changes(), ElementsAre(At("motd") + ",A,added", At("motd") + ",M,content changed",
                                       At("motd") + ",P,mode 0644 changed to 0600"));
    EXPECT_EQ(Watch("motd").out, "R: kept\n");
}

TEST_F(FilesChanges, AFileThatDisappearedIsToldOnceAndMissedAsBefore)
{
    WriteFile(At("motd"), "hello\n");
    Watch("motd");
    fs::remove(At("motd"));
    const std::string missed = " warning: File '" + At("motd") + "' is not there and is not to be created\n";
    const ProcessResult result = Watch("motd");
    EXPECT_EQ(result.out, "R: failed\n");
    EXPECT_EQ(result.err, "    info: File '" + At("motd") + "' is repaired in part: disappearance noted\n" + missed);
    EXPECT_EQ(Watch("motd").err, missed);
    EXPECT_THAT(Changes(), ElementsAre(At("motd") + ",A,added", At("motd") + ",D,no longer there"));
}

TEST_F(FilesChanges, WhatThePromiseItselfDoesIsAChangeAsWell)
{
    EXPECT_EQ(Keep("motd", {"content: one", "changes: {}"}).err,
              "    info: File '" + At("motd") + "' is repaired: created with its content and watched from now on\n");
    EXPECT_EQ(Keep("motd", {"content: two", "changes: {}"}).err,
              "    info: File '" + At("motd") + "' is repaired: content written and change of content noted\n");
    EXPECT_EQ(Keep("motd", {"delete: true", "changes: {}"}).err,
              "    info: File '" + At("motd") + "' is repaired: deleted and disappearance noted\n");
    EXPECT_EQ(Keep("motd", {"delete: true", "changes: {}"}).out, "R: kept\n");
    EXPECT_THAT(Changes(), ElementsAre(At("motd") + ",A,added", At("motd") + ",M,content changed",
                                       At("motd") + ",D,no longer there"));
}

TEST_F(FilesChanges, WhatThePromiseHasMadeGoodAgainIsNone)
{
    Keep("motd", {"content: one", "changes: {}"});
    WriteFile(At("motd"), "tampered");
    EXPECT_EQ(Keep("motd", {"content: one", "changes: {}"}).err,
              "    info: File '" + At("motd") + "' is repaired: content written\n");
    EXPECT_THAT(Changes(), ElementsAre(At("motd") + ",A,added"));
}

TEST_F(FilesChanges, AWholeTreeIsWatchedFileByFile)
{
    for (const char *name : {"tree", "tree/sub"}) { fs::create_directory(At(name)); }
    for (const char *name : {"tree/b", "tree/a", "tree/sub/c"}) { WriteFile(At(name), name); }
    fs::create_symlink("a", At("tree/link"));
    const std::vector<std::string> attributes = {"depth_search: true", "changes: {}"};
    EXPECT_THAT(Keep("tree", attributes).err,
                HasSubstr("File '" + At("tree") + "' is repaired: 3 entries of the tree"));
    EXPECT_THAT(Changes(),
                ElementsAre(At("tree/a") + ",A,added", At("tree/b") + ",A,added", At("tree/sub/c") + ",A,added"));
    EXPECT_EQ(Keep("tree", attributes).out, "R: kept\n");

    WriteFile(At("tree/a"), "changed");
    fs::remove_all(At("tree/sub"));
    const ProcessResult result = Keep("tree", attributes);
    EXPECT_EQ(result.err, "    info: File '" + At("tree/a") + "' is repaired: change of content noted\n" +
                              "    info: File '" + At("tree/sub/c") + "' is repaired: disappearance noted\n" +
                              "    info: File '" + At("tree") + "' is repaired: 2 entries of the tree\n");
    fs::remove_all(At("tree"));
    EXPECT_EQ(Keep("tree", attributes).out, "R: failed\n");
    EXPECT_THAT(Changes(), testing::Contains(At("tree/b") + ",D,no longer there"));
}

TEST_F(FilesChanges, WhatLiesDeeperThanIsSearchedIsNotGone)
{
    fs::create_directories(At("tree/sub"));
    WriteFile(At("tree/sub/c"), "x");
    Keep("tree", {"depth_search: true", "changes: {}"});
    EXPECT_EQ(Keep("tree", {"depth_search: {depth: 1}", "changes: {}"}).out, "R: kept\n");
    EXPECT_THAT(Changes(), ElementsAre(At("tree/sub/c") + ",A,added"));
}

TEST_F(FilesChanges, AnOwnLinkIsFollowedAndAForeignOneIsNotWatched)
{
    WriteFile(At("motd"), "x");
    fs::create_symlink("motd", At("link"));
    EXPECT_EQ(Watch("link").out, "R: repaired\n");
    WriteFile(At("motd"), "y");
    EXPECT_THAT(Watch("link").err, HasSubstr("change of content noted"));
    EXPECT_THAT(Changes(), ElementsAre(At("link") + ",A,added", At("link") + ",M,content changed"));
    if (GiveAway(At("link"))) {
        const ProcessResult result = Watch("link");
        EXPECT_EQ(result.out, "R: failed\n");
        EXPECT_THAT(result.err, HasSubstr("' is a symbolic link of user 12345"));
    }
    EXPECT_EQ(Changes().size(), 2u);
}

TEST_F(FilesChanges, ADatabaseThatIsNoneLeavesThePromiseNotKeptAndTheRunGoesOn)
{
    WriteFile(At("motd"), "x");
    Watch("motd");
    WriteFile(work / "state/watched_files.lmdb", std::string(50'000, 'g'));
    const ProcessResult result = Watch("motd");
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "R: failed\n");
    EXPECT_THAT(result.err, MatchesRegex("   error: File '.*/motd' is not kept: could not open "
                                         "'.*/watched_files.lmdb' \\(OpenDB: .*\\)\n"));
}

TEST_F(FilesChanges, AChangeThatCannotBeLoggedIsSeenAgain)
{
    WriteFile(At("motd"), "x");
    fs::create_directories(work / "state/file_changes.log");
    EXPECT_EQ(Watch("motd").out, "R: failed\n");
    fs::remove(work / "state/file_changes.log");
    EXPECT_EQ(Watch("motd").out, "R: repaired\n");
    EXPECT_THAT(Changes(), ElementsAre(At("motd") + ",A,added"));
}

TEST_F(FilesChanges, ALineThatAKilledRunLeftUnfinishedIsCutOffFirst)
{
    WriteFile(At("motd"), "x");
    Watch("motd");
    WriteFile(work / "state/file_changes.log", ReadFile(work / "state/file_changes.log") + "170000");
    WriteFile(At("motd"), "y");
    EXPECT_THAT(Watch("motd").err, HasSubstr(" warning: Cut off an unfinished record at the end of"));
    EXPECT_THAT(Changes(), ElementsAre(At("motd") + ",A,added", At("motd") + ",M,content changed"));
}

TEST_F(FilesChanges, ARepositoryIsAnAbsolutePath)
{
    WriteFile(At("motd"), "x");
    EXPECT_EQ(Keep("motd", {"changes: {repository: here}"}).err,
              "   error: File '" + At("motd") + "' is not kept: its repository 'here' is no absolute path\n");
    EXPECT_THAT(Keep("motd", {"changes: {report_diffs: perhaps}"}).err, HasSubstr("report_diffs"));
    EXPECT_FALSE(fs::exists(work / "state/file_changes.log"));
}

TEST_F(FilesChanges, WithoutThePlugInThereAreNoLinesAndItIsSaidInDetail)
{
    WriteFile(At("motd"), "x");
    EXPECT_THAT(Keep("motd", {"changes: {report_diffs: true}"}, "-v").err,
                HasSubstr(" verbose: Line differences of '" + At("motd") + "' need the enterprise plug-in\n"));
    EXPECT_THAT(NamesIn(Made("site")), ElementsAre("motd"));
    EXPECT_THAT(Changes(), ElementsAre(At("motd") + ",A,added"));
}

TEST_F(FilesChanges, WithThePlugInTheLinesThatChangedAreLogged)
{
    InstallPlugIn();
    const std::vector<std::string> attributes = {"handle: the_motd", "changes: {report_diffs: true}"};
    WriteFile(At("motd"), "one\ntwo\nthree\n");
    ProcessResult result = Keep("motd", attributes);
    EXPECT_EQ(result.out, "R: repaired\n");
    EXPECT_EQ(ReadFile(At("motd_vtchanges")), "one\ntwo\nthree\n");
    EXPECT_EQ(Differences(), "");

    WriteFile(At("motd"), "one\n2\nthree\n");
    result = Keep("motd", attributes);
    EXPECT_EQ(result.out, "R: repaired\n");
    EXPECT_THAT(result.err, HasSubstr("    info: Reported on file changes to '" + At("motd") + "'\n"));
    EXPECT_EQ(Differences(), "CHANGE " + At("motd") +
                                 "\npromise handle: the_motd\n"
                                 "T;File changed size from 14 to 12, first difference at byte position 5/14 of old\n"
                                 "-,2,two\n+,2,2\nEND\n");
    EXPECT_EQ(ReadFile(At("motd_vtchanges")), "one\n2\nthree\n");
    EXPECT_EQ(ReadFile(At("motd_vtchanges.before")), "one\ntwo\nthree\n") << "the copy routine saves what it replaces";
    EXPECT_EQ(Keep("motd", attributes).out, "R: kept\n");
    EXPECT_THAT(Changes(), ElementsAre(At("motd") + ",A,added", At("motd") + ",M,content changed"));
}

TEST_F(FilesChanges, WithARepositoryNothingIsPutBesideTheFile)
{
    InstallPlugIn();
    const std::vector<std::string> attributes = {
        "changes: {report_diffs: true, repository: \"$(sys.workdir)/copies\"}"};
    WriteFile(At("motd"), "one\n");
    EXPECT_EQ(Keep("motd", attributes).out, "R: repaired\n");
    WriteFile(At("motd"), "one\ntwo\n");
    EXPECT_EQ(Keep("motd", attributes).out, "R: repaired\n");
    EXPECT_THAT(Differences(), HasSubstr("+,2,two\nEND\n"));
    EXPECT_THAT(NamesIn(Made("site")), ElementsAre("motd"));
    std::string name = At("motd");
    std::replace_if(
        name.begin(), name.end(), [](char c) { return isalnum(static_cast<unsigned char>(c)) == 0 && c != '_'; }, '_');
    EXPECT_EQ(ReadFile(work / "copies" / name), "one\ntwo\n");
}

TEST_F(FilesChanges, ABinaryFileHasNoLinesAndIsNotKept)
{
    InstallPlugIn();
    WriteFile(At("motd"), std::string("a\0b", 3));
    const ProcessResult result = Keep("motd", {"changes: {report_diffs: true}"});
    EXPECT_THAT(result.out, HasSubstr("R: failed\n"));
    EXPECT_THAT(result.err, HasSubstr("   error: File '" + At("motd") + "' contains binary data -- skipping\n"));
    EXPECT_THAT(Changes(), ElementsAre(At("motd") + ",A,added")) << "the change itself is noted";
    EXPECT_FALSE(fs::exists(work / "state/vesk_diff.log"));
    const ProcessResult again = Keep("motd", {"changes: {report_diffs: true}"});
    EXPECT_EQ(again.out, "R: failed\n") << "and it is not said to be kept";
}

TEST_F(FilesChanges, LinesOfATreeAreRefusedOnceAndItsFilesAreWatched)
{
    InstallPlugIn();
    fs::create_directory(At("tree"));
    WriteFile(At("tree/a"), "a\n");
    WriteFile(At("tree/b"), "b\n");
    const ProcessResult result = Keep("tree", {"depth_search: true", "changes: {report_diffs: true}"});
    const std::string refusal = "   error: Change detail logging cannot be used on depth searches\n";
    ASSERT_THAT(result.err, HasSubstr(refusal));
    EXPECT_EQ(result.err.find(refusal, result.err.find(refusal) + 1), std::string::npos);
    EXPECT_THAT(Changes(), ElementsAre(At("tree/a") + ",A,added", At("tree/b") + ",A,added"));
    EXPECT_THAT(NamesIn(At("tree")), ElementsAre("a", "b"));
}

TEST_F(FilesChanges, WithThePlugInAnotherDigestIsTheBestAndThatIsNoChange)
{
    WriteFile(At("motd"), "x");
    Watch("motd");
    InstallPlugIn();
    EXPECT_EQ(Watch("motd").out, "R: kept\n");
    EXPECT_EQ(Watch("motd").out, "R: kept\n");
    WriteFile(At("motd"), "y");
    EXPECT_EQ(Watch("motd").out, "R: repaired\n");
    EXPECT_THAT(Changes(), ElementsAre(At("motd") + ",A,added", At("motd") + ",M,content changed"));
}
