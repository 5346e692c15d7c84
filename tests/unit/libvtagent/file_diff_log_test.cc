// Watched files: when they are compared, what the change log then holds, and what becomes of the reference copy.
#include "libvtagent/file_diff_log.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <veltrane/item_lib.h>
#include <veltrane/rlist.h>

#include "libveltrane/copy_file.h"
#include "libvtagent/file_lines.h"
#include "libvtenterprise/datapack_file_diffs.h"
#include "libvtenterprise/entry_points_real.h"
#include "support/file_size_limit.h"
#include "support/golden.h"
#include "support/log_capture.h"
#include "support/places.h"
#include "support/promise_site.h"
#include "support/record_text.h"
#include "support/work_dir.h"

namespace {

namespace fs = std::filesystem;

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::StartsWith;

// What the copy routine was called with, and what it does.
struct Copies {
    std::vector<std::string> calls;  // "<source> to <destination>"
    Attributes attr{};
    off_t source_size = -1;
    bool began_with_nothing = false;
    int deleted = 0;
    PromiseResult leaves = PROMISE_RESULT_CHANGE;
};
Copies *copies = nullptr;
char inode_cache_of_test;

CompressedArray *InodeCacheOfTest() { return reinterpret_cast<CompressedArray *>(&inode_cache_of_test); }

extern "C" bool NoteCopy(EvalContext *, const char *source, const char *destination, const struct stat *source_stat,
                         const Attributes *attr, const Promise *, CompressedArray **inode_cache, AgentConnection *conn,
                         PromiseResult *result)
{
    copies->calls.push_back(std::string(source) + " to " + destination);
    copies->attr = *attr;
    copies->source_size = source_stat->st_size;
    copies->began_with_nothing = *inode_cache == nullptr && conn == nullptr && *result == PROMISE_RESULT_NOOP;
    *inode_cache = InodeCacheOfTest();
    *result = copies->leaves;
    return true;
}

extern "C" void NoteDeletion(CompressedArray *array)
{
    EXPECT_EQ(array, InodeCacheOfTest());
    copies->deleted++;
}

class FileDiffLog : public testing::Test {
  protected:
    FileDiffLog() { copies = &copies_; }

    std::string At(const std::string &name) const { return directory_.path / name; }
    std::string File() const { return At("watched"); }
    std::string Reference() const { return File() + "_vtchanges"; }
    std::string LogPath() const { return work_.State("vesk_diff.log"); }

    // With the copy routine of the test: the reference copy stays as the test made it.
    PromiseResult Watch(bool change = true, const char *destination = "")
    {
        return LogFileChange__real(site_.ctx(), File().c_str(), change, &attr_, site_.promise(), NoteCopy, destination,
                                   NoteDeletion);
    }

    // With the agent's own.
    PromiseResult WatchAndCopy(bool change = true, const std::string &destination = "")
    {
        return LogFileChange__real(site_.ctx(), File().c_str(), change, &attr_, site_.promise(), CopyRegularFile,
                                   destination.c_str(), DeleteCompressedArray);
    }

    // The log, with the time of its size lines, which must be of now, as "now".
    std::string LogText() const
    {
        std::string text;
        std::istringstream lines(ReadFile(LogPath()));
        for (std::string line; std::getline(lines, line);) {
            const size_t size_text = line.find(";File changed size");
            if (size_text != std::string::npos) {
                const long t = std::stol(line.substr(0, size_text));
                EXPECT_LE(t, time(nullptr));
                EXPECT_GT(t, time(nullptr) - 600);
                line.replace(0, size_text, "now");
            }
            text += line + "\n";
        }
        return text;
    }

    // The lines between the size line and the end when the old text has become the new one.
    std::string Difference(const std::string &old_text, const std::string &new_text)
    {
        fs::remove(LogPath());
        WriteFile(Reference(), old_text);
        WriteFile(File(), new_text);
        EXPECT_EQ(Watch(), PROMISE_RESULT_CHANGE);
        const std::string text = LogText();
        const std::string end = "END\n";
        EXPECT_TRUE(text.ends_with(end)) << text;
        const size_t lines = text.find('\n', text.find("now;")) + 1;
        return text.substr(lines, text.size() - end.size() - lines);
    }

    LogCapture::Line Failed() const { return {LOG_LEVEL_ERR, "Failed to report on file changes to '" + File() + "'"}; }

    static constexpr off_t kTooLarge = off_t{kMaxComparedFileSize} + 1;

    WorkDirectory work_;
    TemporaryDirectory directory_;
    PromiseSite site_;
    Attributes attr_{};
    Copies copies_;
    LogCapture log_;
};

std::string SizeLine(size_t old_size, size_t new_size, size_t position)
{
    return "now;File changed size from " + std::to_string(old_size) + " to " + std::to_string(new_size) +
           ", first difference at byte position " + std::to_string(position) + "/" + std::to_string(old_size) +
           " of old\n";
}

size_t FirstChange(const std::string &new_text, const std::string &old_text)
{
    return Vesk_GetFirstChangePosition(new_text.data(), new_text.size(), old_text.data(), old_text.size());
}

bool IsBinary(const std::string &bytes) { return IsFileBinary(bytes.data(), bytes.size()); }

}  // namespace

// --- The entry -------------------------------------------------------------------------------------------------------

TEST_F(FileDiffLog, AnEntryIsTheGoldenLog)
{
    site_.Scalar("handle", "motd_is_watched");
    const std::string old_text = "one\ntwo, and\tmore\nthree\n\nfour\n";
    WriteFile(Reference(), old_text);
    WriteFile(File(), "one\ntwo, and\tless\nthree\n   \nfour\nfive\n");
    Watch();
    WriteFile(Reference(), std::string("\0binary", 7));
    Watch();

    std::string bytes = LogText();
    for (const auto &[from, to] : {std::pair<std::string, std::string>{"now;", "1700000000;"}, {File(), "/etc/motd"}}) {
        for (size_t at = bytes.find(from); at != std::string::npos; at = bytes.find(from, at + to.size())) {
            bytes.replace(at, from.size(), to);
        }
    }
    ExpectGolden("state/vesk_diff.log", bytes);
}

TEST_F(FileDiffLog, AnAppendedLineIsAddedAndThePositionIsBehindTheOldEnd)
{
    WriteFile(Reference(), "a\nb\nc\n");
    WriteFile(File(), "a\nb\nc\nx\n");
    EXPECT_EQ(Watch(), PROMISE_RESULT_CHANGE);
    EXPECT_EQ(LogText(), "CHANGE " + File() + "\n" + SizeLine(6, 8, 7) + "+,4,x\nEND\n");
    EXPECT_THAT(log_.lines, ElementsAre(Pair(LOG_LEVEL_VERBOSE, "Updating the difference engine with '" + File() + "'"),
                                        Pair(LOG_LEVEL_VERBOSE, "Vesk Analysis of changes on file " + File()),
                                        Pair(LOG_LEVEL_INFO, "Reported on file changes to '" + File() + "'"),
                                        Pair(LOG_LEVEL_VERBOSE, "Cached change-file " + File() +
                                                                    " to repository location " + Reference())));
}

TEST_F(FileDiffLog, AChangedLineIsRemovedThenAdded)
{
    EXPECT_EQ(Difference("a\nb\nc\n", "a\nB\nc\n"), "-,2,b\n+,2,B\n");
}

TEST_F(FileDiffLog, AllRemovedLinesComeBeforeAllAddedOnes)
{
    EXPECT_EQ(Difference("a\nb\nc\nd\ne\n", "A\nb\nC\nd\nE\n"), "-,1,a\n-,3,c\n-,5,e\n+,1,A\n+,3,C\n+,5,E\n");
}

TEST_F(FileDiffLog, ALineThatShowsNothingIsSaidToBeBlank)
{
    EXPECT_EQ(Difference("a\nb\n", "a\n\nb\n"), "+,2,(blanks/space)\n");
    EXPECT_EQ(Difference("a\n \t\nb\n", "a\nb\n"), "-,2,(blanks/space)\n");
}

TEST_F(FileDiffLog, LinesAreWrittenRaw)
{
    EXPECT_EQ(Difference("a\n", "END,\"x\", y\r\na\n"), "+,1,END,\"x\", y\r\n");
    EXPECT_EQ(Difference("", std::string(1024, '\t') + "x\n"), "+,1," + std::string(1024, '\t') + "x\n");
    EXPECT_EQ(Difference("", "\xE4\xF6\n"), "+,1,\xE4\xF6\n");
}

TEST_F(FileDiffLog, OneEmptyTextIsAllLinesOfTheOther)
{
    EXPECT_EQ(Difference("", "a\nb"), "+,1,a\n+,2,b\n");
    EXPECT_EQ(Difference("a\nb", ""), "-,1,a\n-,2,b\n");
}

TEST_F(FileDiffLog, AMissingLastLineFeedAloneIsNoLine) { EXPECT_EQ(Difference("a\nb", "a\nb\n"), ""); }

TEST_F(FileDiffLog, TwoEmptyTextsEndTheEntryOnce)
{
    WriteFile(Reference(), "");
    WriteFile(File(), "");
    EXPECT_EQ(Watch(), PROMISE_RESULT_CHANGE);
    EXPECT_EQ(LogText(), "CHANGE " + File() + "\n" + SizeLine(0, 0, 1) + "END\n");
    EXPECT_TRUE(log_.Has(LOG_LEVEL_INFO, "Unable to find reference files for doing diff"));
    EXPECT_TRUE(log_.Has(LOG_LEVEL_INFO, "Reported on file changes to '" + File() + "'"));
}

TEST_F(FileDiffLog, AHandleStandsBehindTheHeader)
{
    site_.Scalar("handle", "watch me");
    WriteFile(Reference(), "a\n");
    WriteFile(File(), "b\n");
    Watch();
    EXPECT_EQ(LogText(),
              "CHANGE " + File() + "\npromise handle: watch me\n" + SizeLine(2, 2, 1) + "-,1,a\n+,1,b\nEND\n");
}

TEST_F(FileDiffLog, EntriesFollowEachOther)
{
    WriteFile(LogPath(), "CHANGE /etc/other\nEND\n");
    WriteFile(Reference(), "a\n");
    WriteFile(File(), "b\n");
    Watch();
    EXPECT_THAT(LogText(), StartsWith("CHANGE /etc/other\nEND\nCHANGE " + File() + "\n"));
}

TEST_F(FileDiffLog, ANewLogIsOurs)
{
    Difference("a\n", "b\n");
    EXPECT_EQ(ModeOf(LogPath()), 0600u);
}

TEST_F(FileDiffLog, ThePackerReadsWhatWasWritten)
{
    site_.Scalar("handle", "watch");
    Difference("a\n\tb\nc\n", "a\n\tB\nc\nd,e\n");
    const veltrane::SeqPtr reply(SeqNew(1, free));
    Vesk_PackDiffs(reply.get(), 0);
    ASSERT_EQ(SeqLength(reply.get()), 2u);
    EXPECT_THAT(static_cast<const char *>(SeqAt(reply.get(), 1)),
                testing::EndsWith("," + File() + ",watch,\"-,2,(TAB)b\a+,2,(TAB)B\a+,4,d,e\"\r\n"));
}

// --- When nothing is compared ----------------------------------------------------------------------------------------

TEST_F(FileDiffLog, AMissingFileIsSkipped)
{
    EXPECT_EQ(Watch(), PROMISE_RESULT_NOOP);
    EXPECT_THAT(log_.lines, ElementsAre(Pair(LOG_LEVEL_VERBOSE, "Updating the difference engine with '" + File() + "'"),
                                        Pair(LOG_LEVEL_VERBOSE, "Cannot stat file '" + File() + "' - skipping")));
    EXPECT_THAT(copies_.calls, IsEmpty());
}

TEST_F(FileDiffLog, AFileBeyondTheLimitIsRefused)
{
    WriteFile(File(), "");
    fs::resize_file(File(), static_cast<uintmax_t>(kTooLarge));
    EXPECT_EQ(Watch(), PROMISE_RESULT_FAIL);
    EXPECT_THAT(log_.UpTo(LOG_LEVEL_ERR),
                ElementsAre(Pair(LOG_LEVEL_ERR, "File '" + File() + "' is too large for report_diffs -- skipping")));
    EXPECT_THAT(copies_.calls, IsEmpty());
}

TEST_F(FileDiffLog, AFileWithAZeroByteIsRefusedAndNothingIsLogged)
{
    WriteFile(Reference(), "a\n");
    WriteFile(File(), std::string("a\0b", 3));
    EXPECT_EQ(Watch(), PROMISE_RESULT_FAIL);
    EXPECT_THAT(log_.UpTo(LOG_LEVEL_ERR),
                ElementsAre(Pair(LOG_LEVEL_ERR, "File '" + File() + "' contains binary data -- skipping")));
    EXPECT_FALSE(fs::exists(LogPath()));
    EXPECT_THAT(copies_.calls, IsEmpty());
}

TEST_F(FileDiffLog, WhatIsNoRegularFileIsRefused)
{
    fs::create_directory(File());
    EXPECT_EQ(Watch(), PROMISE_RESULT_FAIL);
    fs::remove(File());
    ASSERT_EQ(mkfifo(File().c_str(), 0600), 0);
    EXPECT_EQ(Watch(), PROMISE_RESULT_FAIL) << "and nobody waits for a writer";
    EXPECT_THAT(
        log_.UpTo(LOG_LEVEL_ERR),
        ElementsAre(Pair(LOG_LEVEL_ERR, "File '" + File() + "' not possible to open (Is a directory) -- skipping"),
                    Pair(LOG_LEVEL_ERR, "File '" + File() + "' not possible to open (Invalid argument) -- skipping")));
}

TEST_F(FileDiffLog, AForeignLinkIsNotFollowed)
{
    WriteFile(At("secret"), "a\n");
    fs::create_symlink(At("secret"), File());
    if (!GiveAway(File())) {
        EXPECT_EQ(errno, EPERM);  // only root can make one; the owner of the link is all that matters
        return;
    }
    EXPECT_EQ(Watch(), PROMISE_RESULT_FAIL);
    EXPECT_THAT(log_.UpTo(LOG_LEVEL_ERR),
                ElementsAre(Pair(LOG_LEVEL_ERR,
                                 "File '" + File() + "' not possible to open (Link has been severed) -- skipping")));
}

TEST_F(FileDiffLog, ALinkOfOursIsFollowed)
{
    WriteFile(At("target"), "b\n");
    fs::create_symlink(At("target"), File());
    WriteFile(Reference(), "a\n");
    EXPECT_EQ(Watch(), PROMISE_RESULT_CHANGE);
    EXPECT_EQ(LogText(), "CHANGE " + File() + "\n" + SizeLine(2, 2, 1) + "-,1,a\n+,1,b\nEND\n");
}

TEST_F(FileDiffLog, ADepthSearchIsAFailureWithoutAResult)
{
    attr_.havedepthsearch = true;
    WriteFile(Reference(), "a\n");
    WriteFile(File(), "b\n");
    EXPECT_EQ(Watch(), PROMISE_RESULT_NOOP);
    const auto errors = log_.UpTo(LOG_LEVEL_ERR);
    ASSERT_GE(errors.size(), 2u);
    EXPECT_EQ(errors[0].second, "Change detail logging cannot be used on depth searches");
    EXPECT_THAT(errors[1].second, testing::HasSubstr("/etc/motd")) << "where the promise stands";
    EXPECT_FALSE(fs::exists(LogPath()));
    EXPECT_THAT(copies_.calls, IsEmpty());
}

TEST_F(FileDiffLog, WithoutAChangeAnExistingReferenceIsLeftAlone)
{
    WriteFile(Reference(), "a\n");
    WriteFile(File(), "b\n");
    EXPECT_EQ(Watch(false), PROMISE_RESULT_NOOP);
    EXPECT_FALSE(fs::exists(LogPath()));
    EXPECT_THAT(copies_.calls, IsEmpty());
    EXPECT_EQ(copies_.deleted, 0);
}

TEST_F(FileDiffLog, WithoutAReferenceItIsOnlyMade)
{
    WriteFile(File(), "b\n");
    for (const bool change : {false, true}) {
        copies_ = {};
        EXPECT_EQ(Watch(change), PROMISE_RESULT_CHANGE);
        EXPECT_THAT(copies_.calls, ElementsAre(File() + " to " + Reference()));
        EXPECT_FALSE(fs::exists(LogPath()));
    }
}

TEST_F(FileDiffLog, AReferenceBeyondTheLimitIsWarnedOfAndMadeAnew)
{
    WriteFile(File(), "b\n");
    WriteFile(Reference(), "");
    fs::resize_file(Reference(), static_cast<uintmax_t>(kTooLarge));
    EXPECT_EQ(Watch(), PROMISE_RESULT_CHANGE);
    EXPECT_THAT(
        log_.UpTo(LOG_LEVEL_INFO),
        ElementsAre(Pair(LOG_LEVEL_WARNING, "File '" + Reference() + "' is too large for report_diffs -- skipping")));
    EXPECT_FALSE(fs::exists(LogPath()));
    EXPECT_EQ(copies_.calls.size(), 1u);
}

// --- When it cannot be told ------------------------------------------------------------------------------------------

TEST_F(FileDiffLog, ABinaryReferenceIsSaidInPlaceOfTheLinesAndMadeAnew)
{
    WriteFile(Reference(), std::string("a\0b\n", 4));
    WriteFile(File(), "b\n");
    EXPECT_EQ(Watch(), PROMISE_RESULT_CHANGE);
    EXPECT_EQ(LogText(), "CHANGE " + File() + "\n" + SizeLine(4, 2, 1) + "+,0,(binary file)\nEND\n");
    EXPECT_THAT(
        log_.UpTo(LOG_LEVEL_ERR),
        ElementsAre(Pair(LOG_LEVEL_ERR, "File '" + Reference() + "' contains binary data -- skipping"), Failed()));
    EXPECT_THAT(copies_.calls, ElementsAre(File() + " to " + Reference()));
}

TEST_F(FileDiffLog, AReferenceThatCannotBeOpenedLeavesAnEntryOfNothing)
{
    fs::create_directory(Reference());
    WriteFile(File(), "b\n");
    EXPECT_EQ(Watch(), PROMISE_RESULT_CHANGE);
    EXPECT_EQ(LogText(), "CHANGE " + File() + "\nEND\n");
    EXPECT_THAT(
        log_.UpTo(LOG_LEVEL_ERR),
        ElementsAre(Pair(LOG_LEVEL_ERR, "File '" + Reference() + "' not possible to open (Is a directory) -- skipping"),
                    Failed()));
    EXPECT_EQ(copies_.calls.size(), 1u);
}

TEST_F(FileDiffLog, ALogThatCannotBeOpenedIsAFailureAndTheReferenceIsMadeAnew)
{
    fs::create_directory(LogPath());
    WriteFile(Reference(), "a\n");
    WriteFile(File(), "b\n");
    EXPECT_EQ(Watch(), PROMISE_RESULT_CHANGE);
    EXPECT_THAT(log_.UpTo(LOG_LEVEL_ERR), ElementsAre(Pair(LOG_LEVEL_ERR, "Unable to open change log '" + LogPath() +
                                                                              "'. (fopen: Is a directory)"),
                                                      Failed()));
    EXPECT_EQ(copies_.calls.size(), 1u);
}

TEST_F(FileDiffLog, AnEntryThatDoesNotFitOnTheDiskIsTakenBack)
{
    WriteFile(LogPath(), "CHANGE /etc/other\nEND\n");
    WriteFile(Reference(), "a\n");
    WriteFile(File(), std::string(1000, 'b') + "\n");
    const uintmax_t before = fs::file_size(LogPath());
    {
        const FileSizeLimit limit(before + 200);
        Watch();
    }
    EXPECT_EQ(fs::file_size(LogPath()), before);
    EXPECT_THAT(log_.UpTo(LOG_LEVEL_INFO), ElementsAre(Pair(LOG_LEVEL_ERR, "Unable to write change log '" + LogPath() +
                                                                               "'. (write: File too large)"),
                                                       Failed()));
    EXPECT_EQ(copies_.calls.size(), 1u);
}

TEST_F(FileDiffLog, TooManyDifferentLinesAreNotCompared)
{
    std::string old_text;
    std::string new_text;
    for (int i = 0; i < 5000; i++) {
        old_text += "old " + std::to_string(i) + "\n";
        new_text += "new " + std::to_string(i) + "\n";
    }
    EXPECT_EQ(Difference(old_text, new_text), "");
    EXPECT_TRUE(log_.Has(LOG_LEVEL_INFO, "Memory table exceeded maximum size 83886080 during diff generation"));
    EXPECT_TRUE(log_.Has(LOG_LEVEL_INFO, "Reported on file changes to '" + File() + "'"));
}

// --- The reference copy ----------------------------------------------------------------------------------------------

TEST_F(FileDiffLog, TheCopyRoutineGetsACopyOfTheAttributesWithACopyOfItsOwnKind)
{
    Rlist server{};
    attr_.move_obstructions = true;
    attr_.copy = {&server, BACKUP_OPTION_TIMESTAMP, true, true};
    copies_.leaves = PROMISE_RESULT_WARN;
    WriteFile(File(), "four");
    EXPECT_EQ(Watch(), PROMISE_RESULT_WARN) << "the result is what the routine left";
    EXPECT_TRUE(copies_.began_with_nothing);
    EXPECT_EQ(copies_.source_size, 4);
    EXPECT_EQ(copies_.attr.copy.servers, nullptr);
    EXPECT_EQ(copies_.attr.copy.backup, BACKUP_OPTION_BACKUP);
    EXPECT_FALSE(copies_.attr.copy.stealth);
    EXPECT_FALSE(copies_.attr.copy.verify);
    EXPECT_TRUE(copies_.attr.move_obstructions);
    EXPECT_EQ(copies_.deleted, 1);
    EXPECT_EQ(attr_.copy.servers, &server) << "the promise's own stay";
}

TEST_F(FileDiffLog, WithADestinationItLiesThereUnderTheCanonifiedName)
{
    WriteFile(File(), "b\n");
    const std::string repository = At("deep/repository");
    Watch(true, repository.c_str());
    const std::string copy = repository + "/" + CanonifyName(File().c_str());
    EXPECT_THAT(copies_.calls, ElementsAre(File() + " to " + copy));
    EXPECT_TRUE(fs::is_directory(repository));

    copies_ = {};
    Watch(true, (repository + "/").c_str());
    EXPECT_THAT(copies_.calls, ElementsAre(File() + " to " + copy)) << "a slash is not doubled";
}

TEST_F(FileDiffLog, WithoutADestinationItLiesBesideTheFile)
{
    WriteFile(File(), "b\n");
    Watch(true, nullptr);
    Watch(true, "");
    EXPECT_THAT(copies_.calls,
                ElementsAre(File() + " to " + File() + "_vtchanges", File() + " to " + File() + "_vtchanges"));
}

TEST_F(FileDiffLog, ADestinationTooLongForItsNameIsAFailure)
{
    WriteFile(File(), "b\n");
    const std::string name = CanonifyName(File().c_str());
    const size_t room = 4096 - 1 - 1 - name.size();  // slash and zero
    for (const size_t length : {room + 1, size_t{4095}, size_t{5000}}) {
        log_.lines.clear();
        const std::string destination(length, 'd');
        EXPECT_EQ(Watch(true, destination.c_str()), PROMISE_RESULT_FAIL);
        EXPECT_THAT(log_.UpTo(LOG_LEVEL_ERR),
                    ElementsAre(Pair(LOG_LEVEL_ERR, "Internal limit reached in LogFileChange(), path too long: '" +
                                                        destination.substr(0, 4095) + "' + '" + name + "'")));
    }
    EXPECT_THAT(copies_.calls, IsEmpty());
}

TEST_F(FileDiffLog, ADestinationThatJustFitsIsTaken)
{
    WriteFile(File(), "b\n");
    const std::string name = CanonifyName(File().c_str());
    // Directories of such a length cannot all be made; the routine is asked all the same, and says so.
    const std::string destination(4096 - 1 - 1 - name.size(), 'd');
    Watch(true, destination.c_str());
    EXPECT_THAT(copies_.calls, ElementsAre(File() + " to " + destination + "/" + name));
}

TEST_F(FileDiffLog, WhatStandsInTheDirectorysWayIsMovedOnlyWhenItMayBe)
{
    WriteFile(File(), "b\n");
    WriteFile(At("repository"), "in the way");
    Watch(true, At("repository").c_str());
    EXPECT_TRUE(fs::is_regular_file(At("repository")));

    attr_.move_obstructions = true;
    Watch(true, At("repository").c_str());
    EXPECT_TRUE(fs::is_directory(At("repository")));
    EXPECT_EQ(ReadFile(At("repository.moved-aside")), "in the way");
}

TEST_F(FileDiffLog, EachChangeIsComparedWithTheContentSeenLast)
{
    const std::string repository = At("repository");
    const std::string copy = repository + "/" + CanonifyName(File().c_str());
    WriteFile(File(), "a\n");
    EXPECT_EQ(WatchAndCopy(false, repository), PROMISE_RESULT_CHANGE);
    EXPECT_EQ(ReadFile(copy), "a\n");
    WriteFile(File(), "b\n");
    EXPECT_EQ(WatchAndCopy(true, repository), PROMISE_RESULT_CHANGE);
    EXPECT_EQ(ReadFile(copy), "b\n");
    WriteFile(File(), "b\nc\n");
    EXPECT_EQ(WatchAndCopy(true, repository), PROMISE_RESULT_CHANGE);

    const std::string head = "CHANGE " + File() + "\n";
    EXPECT_EQ(LogText(), head + SizeLine(2, 2, 1) + "-,1,a\n+,1,b\nEND\n" + head + SizeLine(2, 4, 3) + "+,2,c\nEND\n");
    EXPECT_EQ(WatchAndCopy(false, repository), PROMISE_RESULT_NOOP) << "nothing changed, nothing to do";
}

TEST_F(FileDiffLog, AnUnwritableReferenceIsTheResultOfTheCopy)
{
    WriteFile(At("repository"), "in the way");
    WriteFile(File(), "a\n");
    EXPECT_EQ(WatchAndCopy(true, At("repository")), PROMISE_RESULT_FAIL);
}

// --- The parts -------------------------------------------------------------------------------------------------------

TEST(IsFileBinary, ControlCharactersAreBinaryButTabAndLineEnds)
{
    for (int byte = 0; byte < 256; byte++) {
        const bool binary = byte == 0x7F || (byte < 0x20 && byte != '\t' && byte != '\n' && byte != '\r');
        EXPECT_EQ(IsBinary(std::string("text") + static_cast<char>(byte)), binary) << byte;
    }
    EXPECT_FALSE(IsBinary(""));
}

TEST(FirstChangePosition, IsThatOfTheFirstByteThatDiffers)
{
    EXPECT_EQ(FirstChange("abc", "xbc"), 1u);
    EXPECT_EQ(FirstChange("abc", "abx"), 3u);
    EXPECT_EQ(FirstChange("abcd", "abc"), 4u) << "behind the old end";
    EXPECT_EQ(FirstChange("abc", "abcd"), 4u) << "behind the new end";
    EXPECT_EQ(FirstChange("abc", "abc"), 4u);
    EXPECT_EQ(FirstChange("", "abc"), 1u);
    EXPECT_EQ(FirstChange("abc", ""), 1u);
    EXPECT_EQ(FirstChange("", ""), 1u);
}

TEST(CheckDiffFile, ReadsAtMostWhatItMay)
{
    const TemporaryDirectory directory;
    const std::string path = directory.path / "file";
    WriteFile(path, "abcdef");
    size_t length = 0;
    bool unable_to_open = false;
    char *message = nullptr;
    EXPECT_EQ(Taken(CheckDiffFile(path.c_str(), 4, &length, &unable_to_open, &message)), "abcd");
    EXPECT_EQ(length, 4u);
    EXPECT_FALSE(unable_to_open);
    EXPECT_EQ(message, nullptr);
}

TEST(CheckDiffFile, TellsAFileThatCannotBeOpenedFromABinaryOne)
{
    const TemporaryDirectory directory;
    const std::string path = directory.path / "file";
    size_t length = 7;
    bool unable_to_open = false;
    char *message = nullptr;
    EXPECT_EQ(CheckDiffFile(path.c_str(), 100, &length, &unable_to_open, &message), nullptr);
    EXPECT_TRUE(unable_to_open);
    EXPECT_EQ(Taken(message), "File '" + path + "' not possible to open (No such file or directory) -- skipping");

    WriteFile(path, "\x1b[0m");
    unable_to_open = false;
    EXPECT_EQ(CheckDiffFile(path.c_str(), 100, &length, &unable_to_open, &message), nullptr);
    EXPECT_FALSE(unable_to_open);
    EXPECT_EQ(Taken(message), "File '" + path + "' contains binary data -- skipping");
    EXPECT_EQ(length, 7u);
}
