// Selecting processes from the one table of a program.
#include <veltrane/processes.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <pwd.h>
#include <unistd.h>

#include <memory>

#include <veltrane/owned.h>

#include "libveltrane/process_table.h"
#include "support/log_capture.h"
#include "support/work_dir.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::SizeIs;

namespace {

using ItemPtr = std::unique_ptr<Item, veltrane::Destroyer<DeleteItemList>>;

class Processes : public testing::Test {
  protected:
    Processes()
    {
        Make("10", "/usr/bin/vt-agent -v", 0);
        Make("11", "/usr/bin/vt-agent -v", 4294967294u);
        Make("12", "vi /etc/vt-agent.conf", 0);
        Make("13", "/usr/sbin/cron", 4294967294u);
        Make("14", "", 0);
        ProcessTableSetSource(tree.path.c_str());
        EXPECT_TRUE(LoadProcessTable());
    }
    ~Processes() override { ProcessTableSetSource(nullptr); }

    void Make(const std::string &pid, const std::string &command_line, unsigned uid)
    {
        std::filesystem::create_directory(tree.path / pid);
        WriteFile(tree.path / pid / "cmdline", command_line);
        WriteFile(tree.path / pid / "status",
                  "PPid:\t1\nUid:\t" + std::to_string(uid) + "\t" + std::to_string(uid) + "\t0\t0\n");
    }

    // The numbers of the processes that are selected.
    static std::vector<std::string> Select(const char *name, const ProcessSelect &selection, bool attrselect = true)
    {
        const ItemPtr list(SelectProcesses(name, &selection, attrselect));
        std::vector<std::string> numbers;
        for (const Item *item = list.get(); item != nullptr; item = item->next) {
            const std::string line = item->name;
            const size_t blank = line.find(' ');
            numbers.push_back(line.substr(blank + 1, line.find(' ', blank + 1) - blank - 1));
        }
        return numbers;
    }

    static ProcessSelect Where(const char *command, const char *owner = nullptr, const char *pid = nullptr,
                               const char *result = nullptr)
    {
        ProcessSelect selection{};
        selection.command = command;
        selection.owner = owner;
        selection.pid = pid;
        selection.process_result = result;
        return selection;
    }

    TemporaryDirectory tree;
};

}  // namespace

TEST_F(Processes, AreFoundByANameAnywhereInTheirCommandLine)
{
    EXPECT_THAT(Select("vt-agent", {}, false), ElementsAre("10", "11", "12"));
    EXPECT_THAT(Select("^/usr/s?bin/", {}, false), ElementsAre("10", "11", "13"));
    EXPECT_THAT(Select("nobody", {}, false), IsEmpty());
}

TEST_F(Processes, WithoutACommandLineNeverMatch)
{
    EXPECT_THAT(Select("", {}, false), ElementsAre("10", "11", "12", "13"));
    EXPECT_THAT(Select(".*", Where(".*")), ElementsAre("10", "11", "12", "13"));
    EXPECT_THAT(Select("", Where(nullptr, nullptr, "14")), IsEmpty());
}

TEST_F(Processes, AreSelectedByWholeColumns)
{
    EXPECT_THAT(Select("vt-agent", Where("^[^ ]*vt-agent.*", nullptr, nullptr, "command")), ElementsAre("10", "11"));
    EXPECT_THAT(Select("vt-agent", Where("vt-agent")), IsEmpty());
    EXPECT_THAT(Select("", Where(nullptr, "4294967294")), ElementsAre("11", "13"));
    EXPECT_THAT(Select("", Where(nullptr, nullptr, "1[12]")), ElementsAre("11", "12"));
    EXPECT_THAT(Select("", Where(nullptr, nullptr, "1")), IsEmpty());
}

TEST_F(Processes, MustMatchEveryColumnThatIsSetUnlessAResultSaysOtherwise)
{
    const char *agent = "[^ ]*vt-agent.*";
    EXPECT_THAT(Select("", Where(agent, "4294967294")), ElementsAre("11"));
    EXPECT_THAT(Select("", Where(agent, "4294967294", nullptr, "command|owner")), ElementsAre("10", "11", "13"));
    EXPECT_THAT(Select("", Where(agent, "4294967294", nullptr, "owner.!command")), ElementsAre("13"));
    EXPECT_THAT(Select("", Where(agent, "4294967294", "10", "(command & pid) | (owner & !command)")),
                ElementsAre("10", "13"));
}

TEST_F(Processes, DoNotMatchAColumnThatIsNotSetOrIsNone)
{
    EXPECT_THAT(Select("", Where(".*", nullptr, nullptr, "owner")), IsEmpty());
    EXPECT_THAT(Select("", Where(".*", nullptr, nullptr, "command.!owner")), SizeIs(4));
    EXPECT_THAT(Select("", Where(".*", nullptr, nullptr, "vsize")), IsEmpty());
}

TEST_F(Processes, AreNotSelectedByAnExpressionThatIsNone)
{
    LogCapture log;
    EXPECT_THAT(Select("", Where(".*", nullptr, nullptr, "command.(")), IsEmpty());
    EXPECT_THAT(log.lines,
                ElementsAre(Pair(LOG_LEVEL_ERR, "'command.(' is no class expression over the columns of a process")));
}

TEST_F(Processes, IgnoreTheSelectionUnlessAskedToUseIt)
{
    EXPECT_THAT(Select("cron", Where("nothing"), false), ElementsAre("13"));
    const ItemPtr list(SelectProcesses("cron", nullptr, false));
    EXPECT_NE(list, nullptr);
}

TEST_F(Processes, ShowOwnerNumberAndCommandInTheirLine)
{
    const ItemPtr list(SelectProcesses("cron", nullptr, false));
    ASSERT_NE(list, nullptr);
    EXPECT_STREQ(list->name, "4294967294 13 /usr/sbin/cron");
    EXPECT_EQ(list->next, nullptr);
}

TEST_F(Processes, AreReadOnceUntilTheTableIsDropped)
{
    Make("15", "late", 0);
    EXPECT_TRUE(LoadProcessTable());
    EXPECT_THAT(Select("late", {}, false), IsEmpty());

    ClearProcessTable();
    EXPECT_THAT(Select("", {}, false), IsEmpty()) << "nothing is selected from no table";
    EXPECT_TRUE(LoadProcessTable());
    EXPECT_THAT(Select("late", {}, false), ElementsAre("15"));
}

TEST_F(Processes, ThatCannotBeReadLeaveNoTable)
{
    ProcessTableSetSource("/nonexistent");
    LogCapture log;
    EXPECT_FALSE(LoadProcessTable());
    EXPECT_THAT(log.UpTo(LOG_LEVEL_ERR), SizeIs(1));
    EXPECT_THAT(Select("", {}, false), IsEmpty());
    EXPECT_THAT(veltrane::LoadedProcesses(), IsEmpty());
}

TEST_F(Processes, OfThisMachineIncludeTheCaller)
{
    ProcessTableSetSource(nullptr);
    ASSERT_TRUE(LoadProcessTable());
    ProcessSelect selection{};
    const std::string pid = std::to_string(getpid());
    selection.pid = pid.c_str();
    EXPECT_THAT(Select("processes_test", selection), ElementsAre(pid));
}
