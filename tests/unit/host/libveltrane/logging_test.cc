// Logging: which message reaches the hook, the output and the system log, and in what form.
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <veltrane/errors.h>
#include <veltrane/logging.h>
#include <veltrane/owned.h>

#include "support/child.h"
#include "support/log_capture.h"

using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;
using testing::Pair;
using testing::StartsWith;

namespace {

std::vector<std::pair<int, std::string>> system_log;

}  // namespace

// Stands in for the C library's: the test reads what would go to the system log.
extern "C" void syslog(int priority, const char *format, ...)
{
    char line[8192];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(line, sizeof(line), format, arguments);
    va_end(arguments);
    system_log.emplace_back(priority, line);
}

namespace {

// Takes the lines that would go to stderr, and puts level and output back.
class Output : public testing::Test {
  protected:
    Output() : stream_(tmpfile()) { LogSetOutput(stream_.get(), false); }
    ~Output() override
    {
        LogSetOutput(stderr, false);
        LogSetGlobalLevel(LOG_LEVEL_NOTICE);
        system_log.clear();
    }

    std::string Written()
    {
        std::string text;
        rewind(stream_.get());
        for (int c; (c = getc(stream_.get())) != EOF;) { text.push_back(static_cast<char>(c)); }
        return text;
    }

    veltrane::FilePtr stream_;
};

using Logging = Output;

LoggingPrivContext HookThat(void (*hook)(LoggingPrivContext *, LogLevel, const char *), LogLevel force)
{
    LoggingPrivContext context = {};
    context.log_hook = hook;
    context.force_hook_level = force;
    return context;
}

}  // namespace

TEST_F(Logging, ALineIsTheLevelAndTheMessage)
{
    Log(LOG_LEVEL_CRIT, "first %d", 1);
    Log(LOG_LEVEL_ERR, "second %s", "text");

    EXPECT_EQ(Written(), "critical: first 1\n   error: second text\n");
}

TEST_F(Logging, EveryLevelHasItsText)
{
    EXPECT_STREQ(LogLevelToString(LOG_LEVEL_CRIT), "critical");
    EXPECT_STREQ(LogLevelToString(LOG_LEVEL_ERR), "error");
    EXPECT_STREQ(LogLevelToString(LOG_LEVEL_WARNING), "warning");
    EXPECT_STREQ(LogLevelToString(LOG_LEVEL_NOTICE), "notice");
    EXPECT_STREQ(LogLevelToString(LOG_LEVEL_INFO), "info");
    EXPECT_STREQ(LogLevelToString(LOG_LEVEL_VERBOSE), "verbose");
    EXPECT_STREQ(LogLevelToString(LOG_LEVEL_DEBUG), "debug");
    EXPECT_STREQ(LogLevelToString(LOG_LEVEL_NOTHING), "");
}

TEST_F(Logging, TheLevelInForceStartsAtNotice)
{
    EXPECT_EQ(LogGetGlobalLevel(), LOG_LEVEL_NOTICE);

    Log(LOG_LEVEL_NOTICE, "said");
    Log(LOG_LEVEL_INFO, "not said");

    EXPECT_EQ(Written(), "  notice: said\n");
}

TEST_F(Logging, TheLevelInForceCanBeRaisedToEverythingAndLoweredToNothing)
{
    LogSetGlobalLevel(LOG_LEVEL_DEBUG);
    Log(LOG_LEVEL_DEBUG, "detail");
    LogSetGlobalLevel(LOG_LEVEL_NOTHING);
    Log(LOG_LEVEL_CRIT, "the end");

    EXPECT_EQ(Written(), "   debug: detail\n");
}

TEST_F(Logging, LevelNothingIsNeverWritten)
{
    LogCapture log;
    LogSetGlobalLevel(LOG_LEVEL_DEBUG);

    Log(LOG_LEVEL_NOTHING, "nothing");

    EXPECT_EQ(Written(), "");
    EXPECT_THAT(log.lines, IsEmpty());
}

TEST_F(Logging, AMessageBelowBothLevelsIsNotEvenFormatted)
{
    const char *const nowhere = reinterpret_cast<const char *>(uintptr_t{1});

    Log(LOG_LEVEL_DEBUG, "%s", nowhere);  // formatting it would end the process

    EXPECT_EQ(Written(), "");
}

TEST_F(Logging, AMessageMayHaveAnyLength)
{
    for (const size_t length : {1021, 1022, 1023, 1024, 1025, 4096, 100000}) {
        LogCapture log;
        const std::string text(length, 'x');

        Log(LOG_LEVEL_ERR, "%s", text.c_str());

        EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_ERR, text)));
        EXPECT_THAT(Written(), EndsWith("   error: " + text + "\n"));
    }
}

TEST_F(Logging, ALongMessageOfControlBytesIsEscapedWhole)
{
    const std::string bells(5000, '\a');

    Log(LOG_LEVEL_ERR, "%s", bells.c_str());

    const std::string written = Written();
    EXPECT_EQ(written.size(), strlen("   error: ") + 4 * bells.size() + 1);
    EXPECT_THAT(written, EndsWith("\\x07\n"));
}

TEST_F(Logging, ErrnoIsKept)
{
    LoggingPrivContext context =
        HookThat([](LoggingPrivContext *, LogLevel, const char *) { errno = EBADF; }, LOG_LEVEL_DEBUG);
    LoggingPrivSetContext(&context);
    errno = ENOTDIR;

    Log(LOG_LEVEL_ERR, "%s", std::string(5000, 'x').c_str());

    EXPECT_EQ(errno, ENOTDIR);
    LoggingPrivSetContext(nullptr);
}

TEST_F(Logging, ErrnoIsKeptWhenTheOutputIsFull)
{
    const veltrane::FilePtr full(fopen("/dev/full", "w"));
    LogSetOutput(full.get(), false);
    errno = ENOTDIR;

    Log(LOG_LEVEL_ERR, "lost");

    EXPECT_EQ(errno, ENOTDIR);
    LogSetOutput(stderr, false);
}

TEST_F(Logging, AMessagesOwnLineEndReachesTheHookAndIsNotDoubledOnTheOutput)
{
    LogCapture log;

    Log(LOG_LEVEL_WARNING, "text\n");

    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_WARNING, "text\n")));
    EXPECT_EQ(Written(), " warning: text\n");
}

TEST_F(Logging, ControlBytesReachTheHookButNeverTheOutput)
{
    LogCapture log;
    const char *const message = "a\x1b[2Jb\r\n   error: forged\tc\x7f";

    Log(LOG_LEVEL_ERR, "%s", message);

    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_ERR, message)));
    EXPECT_EQ(Written(), "   error: a\\x1b[2Jb\\r\\n   error: forged\\tc\\x7f\n");
}

TEST_F(Logging, TextInUtf8IsWrittenAsItIs)
{
    Log(LOG_LEVEL_ERR, "B\xc3\xa4r \xe2\x82\xac \xf0\x9f\x90\xbb");

    EXPECT_EQ(Written(), "   error: B\xc3\xa4r \xe2\x82\xac \xf0\x9f\x90\xbb\n");
}

TEST_F(Logging, BytesThatAreNoTextAreEscaped)
{
    Log(LOG_LEVEL_ERR, "\xff|\x9b|\xc2\x9b|\xe2\x82|\xc0\x80|\xc3");

    EXPECT_EQ(Written(), "   error: \\xff|\\x9b|\\xc2\\x9b|\\xe2\\x82|\\xc0\\x80|\\xc3\n");
}

TEST_F(Logging, ABackslashIsWrittenAsItIs)
{
    Log(LOG_LEVEL_ERR, "C:\\temp and \\d+");

    EXPECT_EQ(Written(), "   error: C:\\temp and \\d+\n");
}

TEST_F(Logging, EachLineIsOneWrite)
{
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_DIRECT), 0);  // a read returns what one write has put in
    const veltrane::FilePtr stream(fdopen(ends[1], "w"));
    LogSetOutput(stream.get(), false);
    const std::string text(3000, 'x');

    Log(LOG_LEVEL_ERR, "%s", text.c_str());
    Log(LOG_LEVEL_ERR, "short");

    char bytes[8192];
    EXPECT_EQ(std::string(bytes, static_cast<size_t>(read(ends[0], bytes, sizeof(bytes)))), "   error: " + text + "\n");
    EXPECT_EQ(std::string(bytes, static_cast<size_t>(read(ends[0], bytes, sizeof(bytes)))), "   error: short\n");
    LogSetOutput(stderr, false);
    close(ends[0]);
}

TEST_F(Logging, WhatTheProgramHasWrittenItselfStaysBeforeTheLine)
{
    fputs("buffered, ", stream_.get());

    Log(LOG_LEVEL_ERR, "logged");

    EXPECT_EQ(Written(), "buffered,    error: logged\n");
}

TEST_F(Logging, AStreamInMemoryWorksAsWell)
{
    char *text = nullptr;
    size_t size = 0;
    FILE *const stream = open_memstream(&text, &size);
    LogSetOutput(stream, false);

    Log(LOG_LEVEL_ERR, "one");
    Log(LOG_LEVEL_ERR, "two");

    LogSetOutput(stderr, false);
    fclose(stream);
    EXPECT_STREQ(text, "   error: one\n   error: two\n");
    free(text);
}

TEST_F(Logging, WithoutAStreamOnlyTheHookSeesAMessage)
{
    LogSetOutput(nullptr, false);
    LogCapture log;

    Log(LOG_LEVEL_ERR, "text");

    EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_ERR, "text")));
    EXPECT_EQ(Written(), "");
    EXPECT_THAT(system_log, IsEmpty());
}

TEST_F(Logging, TheSystemLogGetsTheMessageWithThePriorityOfItsLevel)
{
    LogSetOutput(nullptr, true);
    LogSetGlobalLevel(LOG_LEVEL_DEBUG);

    for (int level = LOG_LEVEL_CRIT; level <= LOG_LEVEL_DEBUG; level++) {
        Log(static_cast<LogLevel>(level), "100%% of\nlevel %d", level);
    }

    EXPECT_THAT(system_log, ElementsAre(Pair(LOG_CRIT, "100% of\\nlevel 0"), Pair(LOG_ERR, "100% of\\nlevel 1"),
                                        Pair(LOG_WARNING, "100% of\\nlevel 2"), Pair(LOG_NOTICE, "100% of\\nlevel 3"),
                                        Pair(LOG_INFO, "100% of\\nlevel 4"), Pair(LOG_DEBUG, "100% of\\nlevel 5"),
                                        Pair(LOG_DEBUG, "100% of\\nlevel 6")));
}

TEST_F(Logging, TheSystemLogFollowsTheLevelInForceToo)
{
    LogSetOutput(stream_.get(), true);

    Log(LOG_LEVEL_INFO, "quiet");
    Log(LOG_LEVEL_ERR, "loud");

    EXPECT_THAT(system_log, ElementsAre(Pair(LOG_ERR, "loud")));
    EXPECT_EQ(Written(), "   error: loud\n");
}

TEST_F(Logging, TheHookSeesMessagesUpToItsOwnLevelThatTheOutputDoesNot)
{
    std::vector<std::string> seen;
    LoggingPrivContext context = HookThat(
        [](LoggingPrivContext *log_ctx, LogLevel, const char *message) {
            static_cast<std::vector<std::string> *>(log_ctx->param)->push_back(message);
        },
        LOG_LEVEL_VERBOSE);
    context.param = &seen;
    LoggingPrivSetContext(&context);

    Log(LOG_LEVEL_VERBOSE, "for the hook");
    Log(LOG_LEVEL_DEBUG, "for nobody");
    Log(LOG_LEVEL_ERR, "for both");

    LoggingPrivSetContext(nullptr);
    EXPECT_THAT(seen, ElementsAre("for the hook", "for both"));
    EXPECT_EQ(Written(), "   error: for both\n");
}

TEST_F(Logging, AHookOfALowerLevelSeesAllThatTheOutputDoes)
{
    int seen = 0;
    LoggingPrivContext context =
        HookThat([](LoggingPrivContext *log_ctx, LogLevel, const char *) { ++*static_cast<int *>(log_ctx->param); },
                 LOG_LEVEL_NOTHING);
    context.param = &seen;
    LoggingPrivSetContext(&context);
    LogSetGlobalLevel(LOG_LEVEL_VERBOSE);

    Log(LOG_LEVEL_VERBOSE, "both");
    Log(LOG_LEVEL_DEBUG, "none");

    LoggingPrivSetContext(nullptr);
    EXPECT_EQ(seen, 1);
}

TEST_F(Logging, TheHookRunsBeforeTheLineIsWritten)
{
    LoggingPrivContext context = HookThat([](LoggingPrivContext *log_ctx, LogLevel,
                                             const char *) { fputs("hook\n", static_cast<FILE *>(log_ctx->param)); },
                                          LOG_LEVEL_NOTHING);
    context.param = stream_.get();
    LoggingPrivSetContext(&context);

    Log(LOG_LEVEL_ERR, "line");

    LoggingPrivSetContext(nullptr);
    EXPECT_EQ(Written(), "hook\n   error: line\n");
}

TEST_F(Logging, WhatTheHookLogsReachesTheOutputButNoHook)
{
    int calls = 0;
    LoggingPrivContext context = HookThat(
        [](LoggingPrivContext *log_ctx, LogLevel, const char *) {
            ++*static_cast<int *>(log_ctx->param);
            Log(LOG_LEVEL_ERR, "from the hook");
            Log(LOG_LEVEL_DEBUG, "quiet in the hook");
        },
        LOG_LEVEL_DEBUG);
    context.param = &calls;
    LoggingPrivSetContext(&context);

    Log(LOG_LEVEL_ERR, "one");
    Log(LOG_LEVEL_ERR, "two");

    LoggingPrivSetContext(nullptr);
    EXPECT_EQ(calls, 2);
    EXPECT_EQ(Written(), "   error: from the hook\n   error: one\n   error: from the hook\n   error: two\n");
}

TEST_F(Logging, AHookBelongsToItsThread)
{
    LogCapture log;

    std::thread([] {
        EXPECT_EQ(LoggingPrivGetContext(), nullptr);
        Log(LOG_LEVEL_ERR, "elsewhere");
    }).join();

    EXPECT_THAT(log.lines, IsEmpty());
    EXPECT_EQ(Written(), "   error: elsewhere\n");
}

TEST_F(Logging, BindingReplacesTheContextBeforeAndNullUnbinds)
{
    LoggingPrivContext first = {}, second = {};

    LoggingPrivSetContext(&first);
    LoggingPrivSetContext(&second);
    EXPECT_EQ(LoggingPrivGetContext(), &second);

    LoggingPrivSetContext(nullptr);
    EXPECT_EQ(LoggingPrivGetContext(), nullptr);
}

TEST_F(Logging, AContextWithoutAHookOnlyWrites)
{
    LoggingPrivContext context = HookThat(nullptr, LOG_LEVEL_DEBUG);
    LoggingPrivSetContext(&context);

    Log(LOG_LEVEL_ERR, "line");

    LoggingPrivSetContext(nullptr);
    EXPECT_EQ(Written(), "   error: line\n");
}

TEST_F(Logging, LinesOfManyThreadsStayWhole)
{
    constexpr int kThreads = 8, kLines = 300;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; t++) {
        threads.emplace_back([t] {
            const std::string text(200, static_cast<char>('a' + t));
            for (int i = 0; i < kLines; i++) { Log(LOG_LEVEL_ERR, "%s", text.c_str()); }
        });
    }
    for (std::thread &thread : threads) { thread.join(); }

    int counts[kThreads] = {};
    const std::string written = Written();
    for (size_t at = 0; at < written.size(); at += 211) {
        const std::string line = written.substr(at, 211);
        const char letter = line[10];
        ASSERT_EQ(line, "   error: " + std::string(200, letter) + "\n");
        counts[letter - 'a']++;
    }
    EXPECT_THAT(counts, testing::Each(kLines));
}

TEST_F(Logging, AChildMadeWhileAnotherThreadLogsCanLog)
{
    std::atomic<bool> stop{false};
    std::thread busy([&] {
        while (!stop) { Log(LOG_LEVEL_ERR, "busy"); }
    });
    for (int i = 0; i < 50; i++) {
        InChild([] { Log(LOG_LEVEL_ERR, "child"); });
    }
    stop = true;
    busy.join();

    const std::string written = Written();
    size_t children = 0;
    for (size_t at = 0; (at = written.find("   error: child\n", at)) != std::string::npos; at++) { children++; }
    EXPECT_EQ(children, 50u);
}
