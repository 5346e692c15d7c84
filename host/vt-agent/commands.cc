// Promises of type "commands".
#include "vt-agent/commands.h"

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include <veltrane/string_lib.h>

#include "libveltrane/child_process.h"
#include "libveltrane/promise_attributes.h"

namespace veltrane {

namespace {

// What the attributes ask for; a reason instead of a command when they cannot be understood.
struct Request {
    Command command;
    std::string trouble;
};

void TakeTimeout(const char *text, Request *request)
{
    long seconds = 0;
    if (text == nullptr) {
        return;
    }
    if (!StringIsNumeric(text) || StringToLong(text, &seconds) != 0 || seconds > INT32_MAX) {
        request->trouble = std::string("its timeout '") + text + "' is no number of seconds";
        return;
    }
    request->command.timeout_seconds = static_cast<int>(seconds);
}

void TakeEnvironment(const Promise *expanded, Request *request)
{
    for (const std::string &setting : AttributeSettings(expanded, "env")) {
        const size_t equals = setting.find('=');
        if (equals == 0 || equals == std::string::npos) {
            request->trouble = "'" + setting + "' of its environment is no NAME=value";
            return;
        }
        request->command.environment[setting.substr(0, equals)] = setting.substr(equals + 1);
    }
}

Request Understand(const Promise *expanded)
{
    Request request;
    std::vector<std::string> &words = request.command.words;
    if (AttributeIsTrue(expanded, "shell")) {
        words = {"/bin/sh", "-c", expanded->promiser, "sh"};
    } else {
        const auto split = SplitWords(expanded->promiser);
        if (!split.has_value() || split->empty()) {
            request.trouble = split.has_value() ? "it is empty" : "a quote stays open";
            return request;
        }
        words = *split;
    }
    for (const std::string &word : AttributeTexts(expanded, "args")) { words.push_back(word); }
    const char *directory = AttributeText(expanded, "cwd");
    request.command.directory = directory != nullptr ? directory : "";
    TakeTimeout(AttributeText(expanded, "timeout"), &request);
    TakeEnvironment(expanded, &request);
    return request;
}

void LogLines(LogLevel level, const char *command, const char *stream, std::string_view text)
{
    while (!text.empty()) {
        const size_t end = std::min(text.find('\n'), text.size());
        Log(level, "Command '%s' %s: %s", command, stream, std::string(text.substr(0, end)).c_str());
        text.remove_prefix(std::min(end + 1, text.size()));
    }
}

}  // namespace

PromiseResult KeepCommandsPromise(EvalContext *ctx, const Promise *expanded)
{
    const Attributes attr = CommonAttributes(expanded);
    const char *line = expanded->promiser;
    const Request request = Understand(expanded);
    if (!request.trouble.empty()) {
        RecordFailure(ctx, expanded, &attr, "Command '%s' is not run: %s", line, request.trouble.c_str());
        return PROMISE_RESULT_FAIL;
    }
    const CommandResult result = RunCommand(request.command);
    LogLines(LOG_LEVEL_INFO, line, "output", result.output);
    LogLines(LOG_LEVEL_NOTICE, line, "error output", result.errors);
    if (result.Succeeded()) {
        RecordChange(ctx, expanded, &attr, "Command '%s' succeeded", line);
        return PROMISE_RESULT_CHANGE;
    }
    RecordFailure(ctx, expanded, &attr, "Command '%s' failed: %s", line, result.Describe().c_str());
    return result.end == CommandResult::End::kTimedOut ? PROMISE_RESULT_TIMEOUT : PROMISE_RESULT_FAIL;
}

}  // namespace veltrane
