// vt-agent as an operator meets it: options, policies, commands, reports, exit status. Without the plug-in: what the
// agent does of its own; with it, that it is found and asked.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "support/agent.h"

using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;
using testing::StartsWith;

TEST_F(Agent, ReportsOnStandardOutput)
{
    const ProcessResult result = RunPolicy("      - reports: \"hello from $(sys.os)\"\n");

    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "R: hello from linux\n");
    EXPECT_THAT(result.err, IsEmpty());
}

TEST_F(Agent, ReportsToAFileWithNothingAddedAndAppends)
{
    const std::string promises = "      - reports: \"line one\"\n        to_file: " + Made("report") + "\n";

    EXPECT_EQ(RunPolicy(promises).status, 0);
    EXPECT_EQ(RunPolicy(promises).out, "");

    EXPECT_EQ(ReadFile(Made("report")), "line one\nline one\n");
    struct stat status {};
    ASSERT_EQ(stat(Made("report").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600u);
}

TEST_F(Agent, AReportThatCannotBeWrittenIsNotKept)
{
    const ProcessResult result = RunPolicy(
        "      - reports: text\n        to_file: /nonexistent/file\n        classes: {failed: bad}\n"
        "      - reports: noticed\n        if: bad\n");

    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "R: noticed\n");
    EXPECT_EQ(result.err, "   error: Could not report to '/nonexistent/file'. (write: No such file or directory)\n");
}

TEST_F(Agent, RunsCommandsWithoutAShell)
{
    const ProcessResult result = RunPolicy(
        "      - commands: \"/usr/bin/printf '%s|' $HOME * 'a b'\"\n"
        "        args: [\"c d\", \"$(sys.class)\"]\n",
        {"--inform"});

    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.err, HasSubstr(" output: $HOME|*|a b|c d|linux|\n"));
    EXPECT_THAT(result.err, HasSubstr("info: Command '/usr/bin/printf '%s|' $HOME * 'a b'' succeeded\n"));
}

TEST_F(Agent, RunsCommandsInAShellWhenAskedTo)
{
    const ProcessResult result = RunPolicy(
        "      - commands: \"echo $((40 + 2)) $1 $2\"\n        shell: true\n"
        "        args: [one, \"two three\"]\n",
        {"-I"});

    EXPECT_THAT(result.err, Not(HasSubstr(" output: 42"))) << "$( ) is a reference everywhere";

    EXPECT_THAT(RunPolicy("      - commands: \"echo `expr 40 + 2` $1 $2\"\n        shell: true\n"
                          "        args: [one, \"two three\"]\n",
                          {"-I"})
                    .err,
                HasSubstr(" output: 42 one two three\n"));
    EXPECT_THAT(RunPolicy("      - commands: \"echo $(const.dollar)(expr 40 + 2)\"\n        shell: yes\n", {"-I"}).err,
                HasSubstr(" output: 42\n"));
}

TEST_F(Agent, RunsCommandsInTheirDirectoryWithTheirEnvironment)
{
    const std::filesystem::path here = std::filesystem::canonical(directory.path);
    const ProcessResult result =
        RunPolicy("      - commands: \"echo $A in `pwd`\"\n        shell: true\n        cwd: " + here.string() +
                      "\n        env: {A: \"x y\"}\n"
                      "      - commands: \"echo $B\"\n        shell: true\n"
                      "        env: [\"B=$(sys.class)=\"]\n",
                  {"-I"});

    EXPECT_THAT(result.err, HasSubstr(" output: x y in " + here.string() + "\n"));
    EXPECT_THAT(result.err, HasSubstr(" output: linux=\n"));
}

TEST_F(Agent, ACommandThatRanIsARepairAndOneThatFailedIsNot)
{
    const ProcessResult result = RunPolicy(
        "      - commands: /bin/true\n        classes: {repaired: good}\n"
        "      - commands: /bin/false\n        classes: {failed: bad}\n"
        "      - commands: /nonexistent/x\n        classes: {failed: worse}\n"
        "      - commands: \"echo 'x\"\n"
        "      - reports: all\n        if: good.bad.worse\n",
        {"-v"});

    EXPECT_EQ(result.status, 0) << "promises that are not kept are no trouble of the run";
    EXPECT_EQ(result.out, "R: all\n");
    EXPECT_THAT(result.err, HasSubstr("   error: Command '/bin/false' failed: exit status 1\n"));
    EXPECT_THAT(
        result.err,
        HasSubstr("   error: Command '/nonexistent/x' failed: could not be started: No such file or directory\n"));
    EXPECT_THAT(result.err, HasSubstr("   error: Command 'echo 'x' is not run: a quote stays open\n"));
    EXPECT_THAT(result.err, HasSubstr(": 1 kept, 1 repaired, 3 not kept\n"));
}

TEST_F(Agent, WhatACommandPrintsIsToldLineByLine)
{
    const std::string promises = "      - commands: \"echo one; echo two; echo bad >&2\"\n        shell: true\n";
    const std::string command = "Command 'echo one; echo two; echo bad >&2' ";

    EXPECT_THAT(RunPolicy(promises, {"-I"}).err,
                AllOf(HasSubstr("    info: " + command + "output: one\n    info: " + command + "output: two\n"),
                      HasSubstr("  notice: " + command + "error output: bad\n")));
    EXPECT_EQ(RunPolicy(promises).err, "  notice: " + command + "error output: bad\n");
}

TEST_F(Agent, ACommandThatTakesTooLongIsKilled)
{
    const ProcessResult result = RunPolicy(
        "      - commands: \"/bin/sleep 1000\"\n        timeout: 1\n"
        "        classes: {failed: slow}\n"
        "      - reports: slow\n        if: slow\n");

    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "R: slow\n");
    EXPECT_THAT(result.err, HasSubstr("   error: Command '/bin/sleep 1000' failed: timed out\n"));
}

TEST_F(Agent, RunsTheUpdatePolicyFirst)
{
    WritePolicy("      - reports: update\n      - classes: of_update\n        expression: any\n", "update.vt");
    const ProcessResult result = RunPolicy("      - reports: main\n      - reports: never\n        if: of_update\n");

    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "R: update\nR: main\n") << "and each policy has a context of its own";
}

TEST_F(Agent, RunsTheFailsafePolicyWhenTheMainOneCannotBeRead)
{
    WritePolicy("      - reports: failsafe\n", "failsafe.vt");
    const ProcessResult missing = Run();
    EXPECT_EQ(missing.status, 1);
    EXPECT_EQ(missing.out, "R: failsafe\n");
    EXPECT_THAT(missing.err, HasSubstr("  notice: The main policy cannot be run: running '"));

    const ProcessResult good = RunPolicy("      - reports: main\n");
    EXPECT_EQ(good.status, 0);
    EXPECT_EQ(good.out, "R: main\n");
}

TEST_F(Agent, RefusesAMalformedPolicyAndChangesNothing)
{
    const ProcessResult result = RunPolicy("      - commands: \"/usr/bin/touch " + Made("made") +
                                           "\"\n      - reports: never\n        colour: red\n");

    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.out, IsEmpty());
    EXPECT_THAT(result.err, HasSubstr((work / "inputs/promises.vt").string() + ":6:9: unknown "));
    EXPECT_FALSE(std::filesystem::exists(Made("made")));
}

TEST_F(Agent, AMalformedUpdatePolicyDoesNotKeepTheMainOneFromRunning)
{
    WriteInput("update.vt", "bundles: 5\n");
    const ProcessResult result = RunPolicy("      - reports: main\n");

    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "R: main\n");
    EXPECT_THAT(result.err, HasSubstr("update.vt:1:"));
}

TEST_F(Agent, SaysThatThereIsNoPolicy)
{
    const ProcessResult result = Run();

    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, AllOf(HasSubstr("promises.vt"), HasSubstr("No such file or directory")));
}

TEST_F(Agent, SaysThatThePolicyHasNoMainBundle)
{
    WriteInput("promises.vt", "bundles:\n  - agent: other\n    promises:\n      - reports: never\n");
    const ProcessResult result = Run();

    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "   error: The policy has no agent bundle 'main'\n");
}

TEST_F(Agent, TakesAPolicyOfTheUsersChoice)
{
    WritePolicy("      - reports: update\n", "update.vt");
    WritePolicy("      - reports: failsafe\n", "failsafe.vt");
    WritePolicy("      - reports: chosen\n", "site.vt");
    std::filesystem::copy_file(work / "inputs/site.vt", directory.path / "here.vt");

    EXPECT_EQ(Run({"--file", "site.vt"}).out, "R: chosen\n");
    EXPECT_EQ(Run({"-f", (work / "inputs/site.vt").string()}).out, "R: chosen\n");
    EXPECT_EQ(Run({"-f", "./here.vt"}).out, "R: chosen\n");
    const ProcessResult missing = Run({"-f", "here.vt"});
    EXPECT_EQ(missing.status, 1) << "it is not below inputs";
    EXPECT_THAT(missing.out, IsEmpty());
}

TEST_F(Agent, RefusesAPolicyThatOthersMayWrite)
{
    WritePolicy("      - reports: never\n");
    const std::string path = std::filesystem::canonical(work / "inputs/promises.vt");
    ASSERT_EQ(chmod(path.c_str(), 0660), 0);

    const ProcessResult result = Run();

    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.out, IsEmpty());
    EXPECT_THAT(result.err, HasSubstr("/inputs/promises.vt: '" + path + "' is writable by other users\n"));
}

TEST_F(Agent, RefusesAnIncludedPolicyThatOthersMayWrite)
{
    WriteInput("more.vt", "bundles:\n  - common: more\n    promises:\n      - reports: never\n");
    WriteInput("promises.vt", "include: [more.vt]\nbundles:\n  - agent: main\n    promises:\n      - reports: never\n");
    const std::string path = std::filesystem::canonical(work / "inputs/more.vt");
    ASSERT_EQ(chmod(path.c_str(), 0602), 0);

    const ProcessResult result = Run();

    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.out, IsEmpty());
    EXPECT_THAT(result.err, HasSubstr("'" + path + "' is writable by other users\n"));
}

TEST_F(Agent, RefusesAWorkDirectoryThatOthersMayWrite)
{
    WritePolicy("      - reports: never\n");
    ASSERT_EQ(chmod(work.c_str(), 0777), 0);

    const ProcessResult result = Run();

    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.out, IsEmpty());
    EXPECT_THAT(result.err, StartsWith("   error: The work directory '" + work.string() + "' is refused: "));
}

TEST_F(Agent, OneAgentAtATimeWorksInAWorkDirectory)
{
    ASSERT_EQ(RunPolicy("      - reports: alone\n").status, 0);
    const int fd = open((work / "state/locks/agent.lock").c_str(), O_RDWR | O_CLOEXEC);
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    ASSERT_EQ(fcntl(fd, F_SETLK, &lock), 0) << "the agent before has let it go";

    const ProcessResult second = Run();
    close(fd);

    EXPECT_EQ(second.status, 1);
    EXPECT_THAT(second.out, IsEmpty());
    EXPECT_EQ(second.err, "  notice: Another agent is running in this work directory\n");
    EXPECT_EQ(Run().status, 0);
}

TEST_F(Agent, AnAgentThatIsKilledLeavesNoLock)
{
    WritePolicy("      - reports: started\n      - commands: /bin/sleep 1000\n");
    ProcessOptions options;
    options.arguments = {"--workdir", work.string()};
    BackgroundProcess first(std::string(VT_TEST_BIN_DIR) + "/vt-agent", options);
    ASSERT_TRUE(first.WaitForLine("R: started"));
    WritePolicy("      - reports: second\n");
    EXPECT_EQ(Run().status, 1);

    first.Kill();

    EXPECT_EQ(Run().out, "R: second\n");
}

TEST_F(Agent, DefinesTheClassesOfItsOption)
{
    const ProcessResult result =
        RunPolicy("      - reports: both\n        if: one.two_b.three\n", {"--define", "one,two-b", "-D", "three"});

    EXPECT_EQ(result.out, "R: both\n");
}

TEST_F(Agent, TellsAsMuchAsItIsAskedTo)
{
    const std::string promises = "      - commands: /bin/true\n      - vars: x\n        string: y\n";

    EXPECT_THAT(RunPolicy(promises).err, IsEmpty());
    EXPECT_EQ(RunPolicy(promises, {"-I"}).err, "    info: Command '/bin/true' succeeded\n");
    EXPECT_THAT(RunPolicy(promises, {"-v"}).err, HasSubstr(" verbose: Variable 'x' is defined\n"));
    EXPECT_THAT(RunPolicy(promises, {"--debug"}).err, HasSubstr(" verbose: Variable 'x' is defined\n"));
}

TEST_F(Agent, PrintsItsVersionWithoutTouchingTheWorkDirectory)
{
    for (const char *option : {"--version", "-V"}) {
        const ProcessResult result = Run({option});
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.out, "Veltrane Core 3.27.0\n");
        EXPECT_THAT(result.err, IsEmpty());
    }
    EXPECT_FALSE(std::filesystem::exists(work / "state"));
}

TEST_F(Agent, PrintsHelp)
{
    const ProcessResult result = Run({"--help"});

    EXPECT_EQ(result.status, 0);
    for (const char *option : {"--workdir", "--file", "--define", "--inform", "--verbose", "--debug", "--version",
                               "--log-classes", "--fips", "--port"}) {
        EXPECT_THAT(result.out, HasSubstr(option));
    }
}

TEST_F(Agent, WrongUsageEndsWithTwoAndSaysWhatIsRight)
{
    for (const std::vector<std::string> &arguments :
         {std::vector<std::string>{"--bogus"}, {"--file"}, {"stray"}, {"-D"}}) {
        const ProcessResult result = Run(arguments);
        EXPECT_EQ(result.status, 2) << arguments[0];
        EXPECT_THAT(result.out, IsEmpty());
        EXPECT_THAT(result.err, HasSubstr("Usage: vt-agent"));
    }
}

TEST_F(Agent, RefusesAPortThatIsNone)
{
    const ProcessResult result = Run({"--port", "http"});

    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("'http' is no port"));
}

TEST_F(Agent, IsTheSameUnderItsSecondName)
{
    WritePolicy("      - reports: twin\n");

    EXPECT_EQ(Run({}, "vt-twin").out, "R: twin\n");
}

TEST_F(Agent, RunsWithoutThePlugInAndSaysSoOnlyWhenAskedForDetails)
{
    const ProcessResult result = RunPolicy("      - reports: core\n        if: core_edition\n", {"-v"});

    EXPECT_EQ(result.out, "R: core\n");
    EXPECT_THAT(result.err, HasSubstr("veltrane-enterprise.so' is not installed\n"));
}

TEST_F(Agent, WithThePlugInBelongsToTheOtherEdition)
{
    InstallPlugIn();
    const ProcessResult result =
        RunPolicy("      - reports: \"$(sys.enterprise_version)\"\n        if: enterprise_edition.!core_edition\n");

    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "R: 3.27.0\n");
    EXPECT_TRUE(std::filesystem::exists(work / "state/vesk_agent_execution.lmdb")) << "the run was tracked";
}

TEST_F(Agent, PrintsTheVersionOfThePlugInAfterItsOwn)
{
    InstallPlugIn();

    EXPECT_EQ(Run({"-V"}).out, "Veltrane Core 3.27.0\nVeltrane Enterprise 3.27.0\n");
}

TEST_F(Agent, EndsAtOnceInFipsModeWithAPlugInThatHasNone)
{
    InstallPlugIn();
    const ProcessResult result = RunPolicy("      - reports: never\n", {"--fips"});

    EXPECT_EQ(result.status, 255);
    EXPECT_THAT(result.out, IsEmpty());
    EXPECT_EQ(result.err, "critical: This software version has not been built with FIPS mode support\n");
}

TEST_F(Agent, RunsInFipsModeWithoutThePlugIn)
{
    EXPECT_EQ(RunPolicy("      - reports: ran\n", {"--fips"}).out, "R: ran\n");
}
