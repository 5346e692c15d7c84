// Walking through trees: what is met, in which order, and where the walk stays out.
#include "libveltrane/tree_walk.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <filesystem>
#include <functional>
#include <set>

#include "support/log_capture.h"
#include "support/places.h"
#include "support/work_dir.h"

namespace {

namespace fs = std::filesystem;

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using veltrane::TreeBounds;
using veltrane::TreeEntry;

// Writes down what it meets: "+a" entered, "-a" left, "a" anything else, "!path: why".
class Notes : public veltrane::TreeVisitor {
  public:
    bool Enter(const TreeEntry &directory) override
    {
        lines.push_back("+" + directory.below);
        if (on_enter) {
            on_enter(directory);
        }
        return left_out.count(directory.below) == 0;
    }
    void Leave(const TreeEntry &directory) override { lines.push_back("-" + directory.below); }
    void Visit(const TreeEntry &entry) override
    {
        lines.push_back(entry.below);
        if (on_visit) {
            on_visit(entry);
        }
    }
    void Failed(const std::string &path, const std::string &why) override { lines.push_back("!" + path + ": " + why); }

    std::vector<std::string> lines;
    std::set<std::string> left_out;
    std::function<void(const TreeEntry &)> on_enter;
    std::function<void(const TreeEntry &)> on_visit;
};

class TreeWalk : public testing::Test {
  protected:
    std::string At(const std::string &name) const { return directory.path / name; }

    void Walk(const std::string &path, const TreeBounds &bounds = {})
    {
        const veltrane::Place place = PlaceOf(path);
        veltrane::WalkTree(place, *HandleOf(place), bounds, &notes);
    }

    TemporaryDirectory directory;
    Notes notes;
    LogCapture log;
};

TEST_F(TreeWalk, MeetsEverythingInByteOrderAndLeavesWhatItEntered)
{
    fs::create_directories(At("b/deep"));
    WriteFile(At("b/deep/z"), "");
    WriteFile(At("b/Y"), "");
    WriteFile(At("c"), "");
    ASSERT_EQ(mkfifo(At("a").c_str(), 0600), 0);

    Walk(directory.path);
    EXPECT_THAT(notes.lines, ElementsAre("+", "a", "+b", "b/Y", "+b/deep", "b/deep/z", "-b/deep", "-b", "c", "-"));
    EXPECT_THAT(log.lines, IsEmpty());
}

TEST_F(TreeWalk, DoesNotFollowLinks)
{
    fs::create_directory(At("a"));
    WriteFile(At("a/file"), "");
    fs::create_directory_symlink("a", At("b"));
    fs::create_directory_symlink("/", At("c"));

    Walk(directory.path);
    EXPECT_THAT(notes.lines, ElementsAre("+", "+a", "a/file", "-a", "b", "c", "-"));
}

TEST_F(TreeWalk, LeavesOutWhatTheVisitorDoesNotEnter)
{
    fs::create_directories(At("a/b"));
    fs::create_directories(At("c/d"));
    notes.left_out = {"a"};

    Walk(directory.path);
    EXPECT_THAT(notes.lines, ElementsAre("+", "+a", "+c", "+c/d", "-c/d", "-c", "-"));
}

TEST_F(TreeWalk, GoesAsDeepAsItIsAskedTo)
{
    fs::create_directories(At("a/b/c"));
    WriteFile(At("a/b/file"), "");

    Walk(directory.path, {1, false});
    EXPECT_THAT(notes.lines, ElementsAre("+", "+a", "-a", "-"));
    notes.lines.clear();
    Walk(directory.path, {2, true});
    EXPECT_THAT(notes.lines, ElementsAre("+", "+a", "+a/b", "!" + At("a/b") + ": it is more than 2 directories deep",
                                         "-a/b", "-a", "-"));
}

TEST_F(TreeWalk, NeverGoesDeeperThanItsBound)
{
    // Deeper than any path: it is made and taken away step by step.
    veltrane::Descriptor at(open(directory.path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    const std::string name(100, 'd');
    for (int i = 0; i < veltrane::kDeepestTree + 5; ++i) {
        ASSERT_EQ(mkdirat(at.Get(), name.c_str(), 0700), 0);
        at = veltrane::Descriptor(openat(at.Get(), name.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
        ASSERT_TRUE(at.IsOpen());
    }
    Walk(directory.path);
    ASSERT_EQ(notes.lines.size(), 2u * (veltrane::kDeepestTree + 1) + 1);
    EXPECT_THAT(notes.lines[veltrane::kDeepestTree + 1], HasSubstr(": it is more than 128 directories deep"));
}

TEST_F(TreeWalk, StaysOnItsFileSystemUnlessToldOtherwise)
{
    struct stat root {};
    struct stat proc {};
    ASSERT_EQ(stat("/", &root), 0);
    ASSERT_EQ(stat("/proc", &proc), 0);
    ASSERT_NE(root.st_dev, proc.st_dev);
    for (const auto &entry : fs::directory_iterator("/")) {
        if (entry.path() != "/proc") {
            notes.left_out.insert(entry.path().filename());
        }
    }
    Walk("/", {2, false});
    EXPECT_THAT(notes.lines, testing::Not(testing::Contains("+proc")));
    EXPECT_TRUE(log.Has(LOG_LEVEL_VERBOSE, "'/proc' is passed over: it is on another file system"));

    notes.lines.clear();
    Walk("/", {2, false, true});
    EXPECT_THAT(notes.lines, testing::Contains("+proc"));
    EXPECT_THAT(notes.lines, testing::Contains("proc/version"));
}

TEST_F(TreeWalk, WhatVanishesIsSaidAndTheWalkGoesOn)
{
    for (const char *name : {"a", "b", "c"}) { WriteFile(At(name), ""); }
    notes.on_visit = [this](const TreeEntry &entry) {
        if (entry.below == "a") {
            fs::remove(At("b"));
        }
    };
    Walk(directory.path);
    EXPECT_THAT(notes.lines, ElementsAre("+", "a", "!" + At("b") + ": it has vanished", "c", "-"));
}

TEST_F(TreeWalk, WhatIsMadeMeanwhileIsNotMet)
{
    WriteFile(At("a"), "");
    notes.on_visit = [this](const TreeEntry &) { WriteFile(At("z"), ""); };
    Walk(directory.path);
    EXPECT_THAT(notes.lines, ElementsAre("+", "a", "-"));
}

TEST_F(TreeWalk, StaysInsideWhenADirectoryIsSwappedForALink)
{
    fs::create_directory(At("a"));
    WriteFile(At("a/inside"), "");
    notes.on_enter = [this](const TreeEntry &entry) {
        if (entry.below == "a") {
            fs::rename(At("a"), At("gone"));
            fs::create_directory_symlink("/", At("a"));
        }
    };
    Walk(directory.path);
    EXPECT_THAT(notes.lines, ElementsAre("+", "+a", "a/inside", "-a", "-"));
}

TEST_F(TreeWalk, ADirectoryThatCannotBeListedIsSaid)
{
    fs::create_directory(At("a"));
    struct rlimit before {};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    notes.on_enter = [&before](const TreeEntry &entry) {
        if (entry.below == "a") {
            struct rlimit none = before;
            none.rlim_cur = 3;
            setrlimit(RLIMIT_NOFILE, &none);
        }
    };
    Walk(directory.path);
    setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_THAT(notes.lines,
                ElementsAre("+", "+a", "!" + At("a") + ": could not list '" + At("a") + "' (open: Too many open files)",
                            "-a", "-"));
}

TEST_F(TreeWalk, PathsBelowTheRootDirectoryHaveOneSlash)
{
    for (const auto &entry : fs::directory_iterator("/")) { notes.left_out.insert(entry.path().filename()); }
    std::vector<std::string> paths;
    notes.on_enter = [&paths](const TreeEntry &entry) { paths.push_back(entry.place.path); };
    Walk("/", {1, false});
    for (const std::string &path : paths) { EXPECT_THAT(path, testing::Not(testing::StartsWith("//"))); }
    EXPECT_GT(paths.size(), 1u);
}

}  // namespace
