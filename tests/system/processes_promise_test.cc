// Promises about processes as an operator meets them: a real agent, and real processes that it counts and signals.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <memory>

#include "support/agent_host.h"
#include "support/peers.h"

using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

class ProcessesPromise : public testing::Test {
  protected:
    // A process whose command line ends in the marker; it prints "usr1" and "usr2" for the signals of these names, and
    // does not mind being told to terminate. No shell: it would have children, which for a moment have its command
    // line.
    std::unique_ptr<BackgroundProcess> Start()
    {
        ProcessOptions options;
        options.arguments = {"-e",
                             "$| = 1; $SIG{USR1} = sub { print \"usr1\\n\" }; $SIG{USR2} = sub { print \"usr2\\n\" };"
                             "$SIG{TERM} = 'IGNORE'; print \"started\\n\"; sleep 1000 while 1;",
                             marker};
        auto process = std::make_unique<BackgroundProcess>("/usr/bin/perl", options);
        EXPECT_TRUE(process->WaitForLine("started"));
        return process;
    }

    ProcessResult Run(const std::string &attributes, std::vector<std::string> arguments = {"-I"})
    {
        host.WritePolicy("      - processes: \" " + marker + "$(const.dollar)\"\n" + attributes);
        return host.Run(std::move(arguments));
    }

    std::string Pattern() const { return " " + marker + "$"; }

    static char StateOf(pid_t pid)
    {
        std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
        std::string stat;
        std::getline(file, stat);
        const size_t name_end = stat.rfind(')');
        return name_end != std::string::npos && name_end + 2 < stat.size() ? stat[name_end + 2] : '?';
    }

    AgentHost host;
    std::string marker = "marked-" + std::to_string(getpid());  // no other test's process has it
};

}  // namespace

TEST_F(ProcessesPromise, IsKeptByARightNumberOfProcesses)
{
    const auto first = Start();
    const auto second = Start();
    for (const char *count : {"{min: 1}", "{min: 2, max: 2}", "{max: 2}", "{min: 0, max: 5}", "{}"}) {
        const ProcessResult result =
            Run(std::string("        count: ") + count +
                "\n        classes: {kept: right}\n      - reports: right\n        if: right\n");
        EXPECT_EQ(result.out, "R: right\n") << count;
        EXPECT_THAT(result.err, IsEmpty()) << count;
    }
    EXPECT_THAT(Run("", {"-v"}).err, HasSubstr(" verbose: 2 processes match '" + Pattern() + "'\n"));
}

TEST_F(ProcessesPromise, IsNotKeptByAWrongNumber)
{
    const auto process = Start();
    EXPECT_EQ(Run("        count: {min: 2}\n").err,
              "   error: 1 processes match '" + Pattern() + "': at least 2 must\n");
    EXPECT_EQ(Run("        count: {max: 0}\n").err, "   error: 1 processes match '" + Pattern() + "': at most 0 may\n");
    EXPECT_EQ(Run("        count: {min: 2}\n        signals: [usr1]\n").err,
              "   error: 1 processes match '" + Pattern() + "': at least 2 must\n")
        << "signals make no more of them";
    EXPECT_EQ(process->Out(), "started\n");
}

TEST_F(ProcessesPromise, ADeadProcessIsNone)
{
    ProcessOptions options;
    options.arguments = {"-c", "exit 0", "sh", marker};
    BackgroundProcess process("/bin/sh", options);  // and nobody has asked how it ended
    ASSERT_TRUE(Eventually([&process] { return StateOf(process.Pid()) == 'Z'; }));

    EXPECT_EQ(Run("        count: {min: 1}\n").err,
              "   error: 0 processes match '" + Pattern() + "': at least 1 must\n");
}

TEST_F(ProcessesPromise, DefinesAClassWhenNoProcessMatches)
{
    const std::string attributes =
        "        restart_class: start_it\n        classes: {repaired: seen}\n"
        "      - reports: start\n        if: start_it.seen\n";
    const ProcessResult without = Run(attributes);
    EXPECT_EQ(without.out, "R: start\n");
    EXPECT_EQ(without.err, "    info: No process matches '" + Pattern() + "': class 'start_it' is defined\n");

    const auto process = Start();
    const ProcessResult with = Run(attributes);
    EXPECT_EQ(with.out, "");
    EXPECT_THAT(with.err, IsEmpty());
}

TEST_F(ProcessesPromise, TheAgentItselfIsNoMatch)
{
    host.WritePolicy("      - processes: " + marker +
                     "\n        restart_class: none\n      - reports: none\n        if: none\n");
    ProcessOptions options = host.Options({"-D", "xx_" + marker});
    EXPECT_EQ(RunProcess(host.Program(), options).out, "R: none\n");
}

TEST_F(ProcessesPromise, WithoutACountEachMatchGetsTheSignals)
{
    const auto first = Start();
    const auto second = Start();

    const ProcessResult result =
        Run("        signals: [USR1]\n        classes: {repaired: sent}\n"
            "      - reports: sent\n        if: sent\n");

    EXPECT_EQ(result.out, "R: sent\n");
    EXPECT_EQ(result.err, "    info: Sent signals to 2 of 2 processes that match '" + Pattern() + "'\n");
    EXPECT_TRUE(first->WaitForLine("usr1"));
    EXPECT_TRUE(second->WaitForLine("usr1"));
}

TEST_F(ProcessesPromise, SignalsAreSentInTheirOrder)
{
    const auto process = Start();

    EXPECT_THAT(Run("        signals: [stop, cont, SIGUSR2]\n", {"-v"}).err,
                HasSubstr(" verbose: Sent signal 'stop' to process " + std::to_string(process->Pid()) +
                          "\n verbose: Sent signal 'cont' to process " + std::to_string(process->Pid()) +
                          "\n verbose: Sent signal 'SIGUSR2' to process " + std::to_string(process->Pid()) + "\n"));
    EXPECT_TRUE(process->WaitForLine("usr2")) << "it runs again";

    Run("        signals: [cont, stop]\n");
    EXPECT_TRUE(Eventually([&process] { return StateOf(process->Pid()) == 'T'; }));
}

TEST_F(ProcessesPromise, WithACountOnlyTooManyGetTheSignals)
{
    const auto first = Start();
    const auto second = Start();
    EXPECT_THAT(Run("        count: {min: 1, max: 2}\n        signals: [kill]\n").err, IsEmpty());

    EXPECT_EQ(Run("        count: {max: 0}\n        signals: [term, kill]\n").err,
              "    info: Sent signals to 2 of 2 processes that match '" + Pattern() + "'\n");
    EXPECT_EQ(first->Wait().status, 128 + SIGKILL) << "which it did mind";
    EXPECT_EQ(second->Wait().status, 128 + SIGKILL);
    EXPECT_THAT(Run("        count: {max: 0}\n        signals: [term, kill]\n").err, IsEmpty());
}

TEST_F(ProcessesPromise, WhatIsAboveTheAgentIsNeverSentASignal)
{
    host.WritePolicy("      - processes: " + marker +
                     "\n        count: {max: 0}\n        signals: [kill]\n"
                     "      - processes: " +
                     marker + "\n        signals: [kill]\n");
    ProcessOptions options = host.Options({"-v"});
    options.arguments.insert(options.arguments.begin(),
                             {"-c", "program=$1; shift; \"$program\" \"$@\"; echo survived", marker, host.Program()});

    const ProcessResult result = RunProcess("/bin/sh", options);

    EXPECT_EQ(result.out, "survived\n");
    EXPECT_THAT(
        result.err,
        AllOf(HasSubstr(" is above this agent, and is sent no signal\n"),
              HasSubstr("   error: 1 processes match '" + marker + "': at most 0 may, and none can be sent a signal\n"),
              HasSubstr(" verbose: No process that matches '" + marker + "' is to be sent a signal\n")));
}

TEST_F(ProcessesPromise, ThatCannotBeUnderstoodDoesNothing)
{
    const auto process = Start();
    const std::string start = "   error: Processes '" + Pattern() + "' are not looked for: ";
    EXPECT_EQ(Run("        signals: [usr1, boo]\n").err, start + "there is no signal 'boo'\n");
    EXPECT_EQ(Run("        signals: [\"10\"]\n").err, start + "there is no signal '10'\n");
    EXPECT_EQ(Run("        count: {min: 3, max: 2}\n        signals: [usr1]\n").err,
              start + "its count wants at least 3 processes and at most 2\n");
    EXPECT_EQ(Run("        count: {max: \"$(many)\"}\n      - vars: many\n        string: lots\n").err,
              start + "'max=lots' of its count is no number of processes\n");
    EXPECT_EQ(process->Out(), "started\n");

    host.WritePolicy(
        "      - processes: \"(\"\n        restart_class: restart\n      - reports: bad\n        if: restart\n");
    const ProcessResult result = host.Run();
    EXPECT_EQ(result.out, "") << "a typing error is no missing process";
    EXPECT_EQ(result.err, "   error: Processes '(' are not looked for: missing closing parenthesis (at byte 1)\n");
}

TEST_F(ProcessesPromise, SeesProcessesThatThisRunStarted)
{
    host.WritePolicy("      - processes: " + marker + "$(const.dollar)\n        restart_class: start\n" +
                     "      - commands: \"sh -c 'echo $$ >pid; read x <fifo' sh " + marker +
                     " >/dev/null 2>&1 & until [ -s pid ]; do sleep 0.01; done\"\n        shell: true\n        cwd: " +
                     host.directory.path.string() +
                     "\n        if: start\n        classes: {repaired: started}\n"
                     "      - processes: \"" +
                     marker +
                     "$(const.dollar)\"\n        count: {min: 1}\n        if: started\n        classes: {kept: seen}\n"
                     "        handle: second\n      - reports: seen\n        if: seen\n");
    ASSERT_EQ(mkfifo((host.directory.path / "fifo").c_str(), 0600), 0);

    const ProcessResult result = host.Run();

    EXPECT_EQ(result.out, "R: seen\n") << result.err;
    std::ofstream(host.directory.path / "fifo") << "end\n";  // and it goes
}
