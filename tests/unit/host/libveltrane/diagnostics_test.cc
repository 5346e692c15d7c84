#include <veltrane/diagnostics.h>

#include <gtest/gtest.h>

#include <string>

#include <veltrane/alloc.h>
#include <veltrane/owned.h>
#include <veltrane/writer.h>

namespace {

std::string asked_about;

AgentDiagnosticsResult Works(const char *workdir)
{
    asked_about += workdir;
    return AgentDiagnosticsResultNew(true, xstrdup("all is well"));
}

AgentDiagnosticsResult Fails(const char *) { return AgentDiagnosticsResultNew(false, xstrdup("it is broken")); }

AgentDiagnosticsResult FailsSilently(const char *) { return AgentDiagnosticsResultNew(false, nullptr); }

std::string OutputOf(const AgentDiagnosticCheck checks[])
{
    Writer *writer = StringWriter();
    AgentDiagnosticsRun("/work", checks, writer);
    return veltrane::TextPtr(StringWriterClose(writer)).get();
}

TEST(Diagnostics, AResultTakesItsMessageOver)
{
    char *message = xstrdup("why");

    const AgentDiagnosticsResult result = AgentDiagnosticsResultNew(false, message);

    EXPECT_FALSE(result.success);
    EXPECT_EQ(result.message, message);
    free(result.message);
}

TEST(Diagnostics, EveryCheckIsALineAndOnlyAFailureSaysWhy)
{
    const AgentDiagnosticCheck checks[] = {{"First", Works}, {"Second", Fails}, {"Third", Works}, {nullptr, nullptr}};

    EXPECT_EQ(OutputOf(checks), "[ YES ] First\n[ NO  ] Second: it is broken\n[ YES ] Third\n");
}

TEST(Diagnostics, AFailureWithoutAMessageIsStillALine)
{
    const AgentDiagnosticCheck checks[] = {{"First", FailsSilently}, {nullptr, nullptr}};

    EXPECT_EQ(OutputOf(checks), "[ NO  ] First: \n");
}

TEST(Diagnostics, AnEmptyTableIsNoOutput)
{
    const AgentDiagnosticCheck checks[] = {{nullptr, nullptr}};

    EXPECT_EQ(OutputOf(checks), "");
}

TEST(Diagnostics, ACheckIsToldTheWorkDirectory)
{
    asked_about.clear();
    const AgentDiagnosticCheck checks[] = {{"First", Works}, {nullptr, nullptr}};

    OutputOf(checks);

    EXPECT_EQ(asked_about, "/work");
}

}  // namespace
