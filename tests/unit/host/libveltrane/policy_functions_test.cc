// Tests of the functions that a value of the policy may call.
#include "libveltrane/policy_functions.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <veltrane/owned.h>

#include "support/log_capture.h"
#include "support/work_dir.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

namespace {

class PolicyFunctions : public testing::Test {
  protected:
    // The result, or "failed".
    std::string Call(const char *name, std::vector<std::string> arguments)
    {
        const veltrane::Answer answer = veltrane::CallPolicyFunction({ctx.get(), nullptr, name, std::move(arguments)});
        if (!answer.ok) {
            EXPECT_EQ(answer.value.Get().type, RVAL_TYPE_NONE);
            return "failed";
        }
        EXPECT_EQ(answer.value.Get().type, RVAL_TYPE_SCALAR);
        return RvalScalarValue(answer.value.Get());
    }

    // What the one error line of a call that fails says.
    std::string Complaint(const char *name, std::vector<std::string> arguments)
    {
        log.lines.clear();
        EXPECT_EQ(Call(name, std::move(arguments)), "failed");
        EXPECT_EQ(log.lines.size(), 1u);
        EXPECT_EQ(log.lines.at(0).first, LOG_LEVEL_ERR);
        return log.lines.at(0).second;
    }

    veltrane::EvalContextPtr ctx{EvalContextNew()};
    TemporaryDirectory directory;
    LogCapture log;
};

}  // namespace

TEST_F(PolicyFunctions, AreKnownByName)
{
    for (const char *name : {"execresult", "readfile", "canonify", "classmatch", "ldapvalue", "ldaplist", "ldaparray",
                             "regldap", "remotescalar", "hostswithclass"}) {
        EXPECT_TRUE(veltrane::IsPolicyFunction(name)) << name;
    }
    for (const char *name : {"", "exec", "ReadFile", "string"}) { EXPECT_FALSE(veltrane::IsPolicyFunction(name)); }
}

TEST_F(PolicyFunctions, RefuseAWrongNumberOfArguments)
{
    EXPECT_EQ(Complaint("canonify", {}), "Function 'canonify' failed: it does not take 0 arguments");
    EXPECT_EQ(Complaint("canonify", {"a", "b"}), "Function 'canonify' failed: it does not take 2 arguments");
    EXPECT_EQ(Complaint("execresult", {"true"}), "Function 'execresult' failed: it does not take 1 arguments");
}

TEST_F(PolicyFunctions, ExecresultGivesWhatACommandPrints)
{
    EXPECT_EQ(Call("execresult", {"printf 'a b\\n\\nc\\n\\n\\n'", "useshell"}), "a b\n\nc");
    EXPECT_EQ(Call("execresult", {"true", "noshell"}), "");
    EXPECT_THAT(log.lines, IsEmpty());
}

TEST_F(PolicyFunctions, ExecresultWithoutAShellInterpretsNothing)
{
    EXPECT_EQ(Call("execresult", {"echo \"$HOME\" ; * 'a  b'", "noshell"}), "$HOME ; * a  b");
}

TEST_F(PolicyFunctions, ExecresultFailsWithItsCommand)
{
    EXPECT_EQ(Complaint("execresult", {"echo x; exit 2", "useshell"}),
              "Function 'execresult' failed: 'echo x; exit 2': exit status 2");
    EXPECT_EQ(Complaint("execresult", {"/nonexistent/x", "noshell"}),
              "Function 'execresult' failed: '/nonexistent/x': could not be started: No such file or directory");
    EXPECT_EQ(Complaint("execresult", {"", "noshell"}),
              "Function 'execresult' failed: '': could not be started: Invalid argument");
    EXPECT_EQ(Complaint("execresult", {"echo 'x", "noshell"}),
              "Function 'execresult' failed: a quote stays open in 'echo 'x'");
    EXPECT_EQ(Complaint("execresult", {"echo x", "maybe"}),
              "Function 'execresult' failed: 'maybe' is neither noshell nor useshell");
}

TEST_F(PolicyFunctions, ExecresultRefusesWhatNoVariableCanHold)
{
    EXPECT_EQ(Complaint("execresult", {"printf 'a\\000b'", "useshell"}),
              "Function 'execresult' failed: 'printf 'a\\000b'' printed what no variable can hold");
}

TEST_F(PolicyFunctions, ExecresultCutsAtOneMebibyteAndSaysSo)
{
    const std::string fits = "head -c 1048576 /dev/zero | tr '\\0' x";
    const std::string cut = "head -c 1048577 /dev/zero | tr '\\0' x";

    EXPECT_EQ(Call("execresult", {fits, "useshell"}), std::string(1048576, 'x'));
    EXPECT_THAT(log.lines, IsEmpty());
    EXPECT_EQ(Call("execresult", {cut, "useshell"}), std::string(1048576, 'x'));
    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_WARNING, "Function 'execresult': the output of '" + cut +
                                                                   "' is cut at 1048576 bytes")));
}

TEST_F(PolicyFunctions, ExecresultCutsNothingOfAShortOutputBecauseOfManyErrors)
{
    EXPECT_EQ(Call("execresult", {"echo short; head -c 2000000 /dev/zero >&2", "useshell"}), "short");
    EXPECT_THAT(log.lines, IsEmpty());
}

TEST_F(PolicyFunctions, ExecresultCutsBeforeACharacterThatDoesNotFitWhole)
{
    EXPECT_EQ(Call("execresult", {"head -c 1048575 /dev/zero | tr '\\0' x; printf '\\303\\244'", "useshell"}),
              std::string(1048575, 'x'));
}

TEST_F(PolicyFunctions, ExecresultEndsACommandWhoseTimeIsOver)
{
    EXPECT_EQ(Complaint("execresult", {"/bin/sleep 1000", "noshell", "1"}),
              "Function 'execresult' failed: '/bin/sleep 1000': timed out");
    EXPECT_EQ(Call("execresult", {"echo quick", "noshell", "3600"}), "quick");
}

TEST_F(PolicyFunctions, ExecresultTakesSecondsWithinBounds)
{
    for (const char *seconds : {"0", "3601", "-1", "", "x", "99999999999999999999"}) {
        EXPECT_EQ(
            Complaint("execresult", {"true", "noshell", seconds}),
            "Function 'execresult' failed: '" + std::string(seconds) + "' is no number of seconds from 1 to 3600");
    }
}

TEST_F(PolicyFunctions, ReadfileGivesAFileAsItIs)
{
    const std::string path = directory.path / "file";
    WriteFile(path, "one\ntwo\n");

    EXPECT_EQ(Call("readfile", {path}), "one\ntwo\n");
    EXPECT_EQ(Call("readfile", {path, "5"}), "one\nt");
    EXPECT_EQ(Call("readfile", {path, "0"}), "");
    EXPECT_EQ(Call("readfile", {path, "1048576"}), "one\ntwo\n");
}

TEST_F(PolicyFunctions, ReadfileSaysWhyItCannotRead)
{
    const std::string path = directory.path / "file";
    EXPECT_EQ(Complaint("readfile", {path}),
              "Function 'readfile' failed: could not open '" + path + "' (open: No such file or directory)");
    WriteFile(path, std::string("a\0b", 3));
    EXPECT_EQ(Complaint("readfile", {path}),
              "Function 'readfile' failed: '" + path + "' is no text: it holds a zero byte");
    for (const char *size : {"-1", "x", "", "1048577", "99999999999999999999"}) {
        EXPECT_EQ(Complaint("readfile", {path, size}),
                  "Function 'readfile' failed: '" + std::string(size) + "' is no number of bytes up to 1048576");
    }
}

TEST_F(PolicyFunctions, ReadfileSaysWhereItCuts)
{
    const std::string path = directory.path / "file";
    WriteFile(path, std::string(1048576, 'x'));
    EXPECT_EQ(Call("readfile", {path}), std::string(1048576, 'x'));
    EXPECT_THAT(log.lines, IsEmpty());

    WriteFile(path, std::string(1048577, 'x'));
    EXPECT_EQ(Call("readfile", {path}), std::string(1048576, 'x'));
    EXPECT_THAT(log.lines,
                ElementsAre(Pair(LOG_LEVEL_WARNING, "Function 'readfile': '" + path + "' is cut at 1048576 bytes")));
    log.lines.clear();
    EXPECT_EQ(Call("readfile", {path, "7"}), "xxxxxxx");
    EXPECT_THAT(log.lines,
                ElementsAre(Pair(LOG_LEVEL_VERBOSE, "Function 'readfile': '" + path + "' is cut at 7 bytes")));
}

TEST_F(PolicyFunctions, ReadfileCutsBeforeACharacterThatDoesNotFitWhole)
{
    const std::string path = directory.path / "file";
    WriteFile(path, "na\xC3\xAFve");

    EXPECT_EQ(Call("readfile", {path, "3"}), "na");
    EXPECT_EQ(Call("readfile", {path, "4"}), "na\xC3\xAF");
}

TEST_F(PolicyFunctions, ReadfileReadsFilesOnlyAndNeverWaits)
{
    const std::string pipe = directory.path / "pipe";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);

    EXPECT_EQ(Complaint("readfile", {pipe}), "Function 'readfile' failed: '" + pipe + "' is a named pipe, not a file");
    EXPECT_EQ(Complaint("readfile", {directory.path}),
              "Function 'readfile' failed: '" + directory.path.string() + "' is a directory, not a file");
    EXPECT_EQ(Complaint("readfile", {"/dev/zero"}), "Function 'readfile' failed: '/dev/zero' is a device, not a file");
}

TEST_F(PolicyFunctions, ReadfileReadsFilesThatTheKernelMakesUp)
{
    EXPECT_THAT(Call("readfile", {"/proc/self/status"}), testing::HasSubstr("\nPid:\t"));
}

TEST_F(PolicyFunctions, CanonifyMakesTheNameOfAClass)
{
    EXPECT_EQ(Call("canonify", {"web-1.example.org"}), "web_1_example_org");
    EXPECT_EQ(Call("canonify", {""}), "");
    EXPECT_EQ(Call("canonify", {std::string(5000, '-')}), std::string(5000, '_'));
}

TEST_F(PolicyFunctions, ClassmatchLooksForAWholeName)
{
    EvalContextClassPutHard(ctx.get(), "debian_12", nullptr);
    EvalContextClassPutSoft(ctx.get(), "site:web", nullptr);

    EXPECT_EQ(Call("classmatch", {"debian_.*"}), "any");
    EXPECT_EQ(Call("classmatch", {"debian"}), "!any");
    EXPECT_EQ(Call("classmatch", {"site:w.b"}), "any");
    EXPECT_EQ(Call("classmatch", {"nothing"}), "!any");
}

TEST_F(PolicyFunctions, ClassmatchSaysOnceThatItsArgumentIsNoRegularExpression)
{
    EvalContextClassPutHard(ctx.get(), "one", nullptr);
    EvalContextClassPutHard(ctx.get(), "two", nullptr);

    EXPECT_EQ(Complaint("classmatch", {"(on"}),
              "Function 'classmatch' failed: '(on' is no regular expression: "
              "missing closing parenthesis (at byte 3)");
}
