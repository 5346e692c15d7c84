// The functions that a value of the policy may call.
#include "libveltrane/policy_functions.h"

#include <algorithm>
#include <atomic>
#include <cstring>

#include <veltrane/class.h>
#include <veltrane/logging.h>
#include <veltrane/owned.h>
#include <veltrane/string_lib.h>

#include "libveltrane/child_process.h"
#include "libveltrane/file_bytes.h"
#include "libveltrane/policy_functions_directory.h"
#include "libveltrane/policy_functions_remote.h"
#include "libveltrane/regex_check.h"
#include "libveltrane/server_connection.h"

namespace veltrane {

namespace {

constexpr long kCommandSeconds = 60;
constexpr long kMostCommandSeconds = 3600;

std::atomic<const char *> no_commands_because{nullptr};

// A text of digits that is a number from 0 to most.
bool IsNumberUpTo(const std::string &text, long most, long *ret_number)
{
    return StringIsNumeric(text.c_str()) && StringToLong(text.c_str(), ret_number) == 0 && *ret_number <= most;
}

// What a text is cut to may not end inside a character.
void CutAtCharacter(std::string *text) { text->resize(WholeCharacters(*text)); }

bool HoldsZero(const std::string &text) { return text.find('\0') != std::string::npos; }

Answer ExecResult(const FunctionCall &call)
{
    if (const char *why = no_commands_because; why != nullptr) {
        return Failed(why);
    }
    const std::string &line = call.arguments[0];
    Command command;
    long seconds = kCommandSeconds;
    if (call.arguments.size() > 2 &&
        (!IsNumberUpTo(call.arguments[2], kMostCommandSeconds, &seconds) || seconds == 0)) {
        return Failed("'" + call.arguments[2] + "' is no number of seconds from 1 to " +
                      std::to_string(kMostCommandSeconds));
    }
    command.timeout_seconds = static_cast<int>(seconds);
    command.output_limit = kLargestText;
    if (call.arguments[1] == "useshell") {
        command.words = {"/bin/sh", "-c", line};
    } else if (call.arguments[1] == "noshell") {
        const auto words = SplitWords(line);
        if (!words.has_value()) {
            return Failed("a quote stays open in '" + line + "'");
        }
        command.words = *words;
    } else {
        return Failed("'" + call.arguments[1] + "' is neither noshell nor useshell");
    }
    CommandResult result = RunCommand(command);
    if (!result.Succeeded()) {
        return Failed("'" + line + "': " + result.Describe());
    }
    if (HoldsZero(result.output)) {
        return Failed("'" + line + "' printed what no variable can hold");
    }
    if (result.cut && result.output.size() == kLargestText) {
        Log(LOG_LEVEL_WARNING, "Function 'execresult': the output of '%s' is cut at %zu bytes", line.c_str(),
            kLargestText);
        CutAtCharacter(&result.output);
    }
    result.output.erase(result.output.find_last_not_of('\n') + 1);
    return Text(result.output);
}

Answer ReadFileText(const FunctionCall &call)
{
    const std::string &path = call.arguments[0];
    const bool asked = call.arguments.size() > 1;
    long limit = static_cast<long>(kLargestText);
    if (asked && !IsNumberUpTo(call.arguments[1], static_cast<long>(kLargestText), &limit)) {
        return Failed("'" + call.arguments[1] + "' is no number of bytes up to " + std::to_string(kLargestText));
    }
    Handle handle;
    Descriptor fd;
    std::string bytes;
    bool cut = false;
    Trouble trouble = OpenHandle(path, &handle);
    if (!trouble.has_value()) {
        trouble = OpenRegular(handle, path, &fd);
    }
    if (!trouble.has_value()) {
        trouble = ReadUpTo(fd.Get(), path, static_cast<size_t>(limit), &bytes, &cut);
    }
    if (trouble.has_value()) {
        return Failed(*trouble);
    }
    if (HoldsZero(bytes)) {
        return Failed("'" + path + "' is no text: it holds a zero byte");
    }
    if (cut) {  // as the policy asks, or because nothing longer is read
        Log(asked ? LOG_LEVEL_VERBOSE : LOG_LEVEL_WARNING, "Function 'readfile': '%s' is cut at %ld bytes",
            path.c_str(), limit);
        CutAtCharacter(&bytes);
    }
    return Text(bytes);
}

Answer Canonify(const FunctionCall &call)
{
    std::string name = call.arguments[0];
    CanonifyNameInPlace(name.data());
    return Text(name);
}

Answer ClassMatch(const FunctionCall &call)
{
    const std::string mistake = WhyNoRegex(call.arguments[0].c_str());
    if (!mistake.empty()) {
        return Failed("'" + call.arguments[0] + "' is no regular expression: " + mistake);
    }
    const ClassTableIteratorPtr classes(EvalContextClassTableIteratorNewGlobal(call.ctx, nullptr, true, true));
    while (const Class *one = ClassTableIteratorNext(classes.get())) {
        const TextPtr name(ClassRefToString(one->ns, one->name));
        if (StringMatchFull(call.arguments[0].c_str(), name.get())) {
            return Text("any");
        }
    }
    return Text("!any");
}

struct Function {
    const char *name;
    size_t fewest;  // arguments
    size_t most;
    Answer (*work)(const FunctionCall &call);
};

constexpr Function kFunctions[] = {
    {"execresult", 2, 3, ExecResult},         {"readfile", 1, 2, ReadFileText}, {"canonify", 1, 1, Canonify},
    {"classmatch", 1, 1, ClassMatch},         {"ldapvalue", 6, 6, LdapValue},   {"ldaplist", 6, 6, LdapList},
    {"ldaparray", 6, 6, LdapArray},           {"regldap", 7, 7, RegLdap},       {"remotescalar", 2, 3, RemoteScalar},
    {"hostswithclass", 2, 2, HostsWithClass},
};

const Function *Find(const char *name)
{
    const auto *found = std::find_if(std::begin(kFunctions), std::end(kFunctions),
                                     [name](const Function &one) { return strcmp(one.name, name) == 0; });
    return found != std::end(kFunctions) ? found : nullptr;
}

// Connections that the work leaves open are closed: nobody would use them again.
Answer WorkOf(const Function &function, const FunctionCall &call)
{
    const ConnectionScope scope;
    return function.work(call);
}

}  // namespace

bool IsPolicyFunction(const char *name) { return Find(name) != nullptr; }

void RefuseCommandsOfPolicy(const char *why) { no_commands_because = why; }

Answer CallPolicyFunction(const FunctionCall &call)
{
    const Function *function = Find(call.name.c_str());
    if (function == nullptr) {
        Log(LOG_LEVEL_ERR, "Function '%s' is not available", call.name.c_str());
        return Failed("not available");
    }
    const size_t given = call.arguments.size();
    Answer answer = given < function->fewest || given > function->most
                        ? Failed("it does not take " + std::to_string(given) + " arguments")
                        : WorkOf(*function, call);
    if (!answer.ok) {
        Log(LOG_LEVEL_ERR, "Function '%s' failed: %s", call.name.c_str(), answer.why.c_str());
    }
    return answer;
}

}  // namespace veltrane
