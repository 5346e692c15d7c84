// Promises of type "commands": a command that is run. Running it to a good end is a repair.
//
// The promiser is split at blanks (quotes hold words together) and followed by the words of "args". With "shell" it
// goes to /bin/sh as it stands and the words of "args" are its $1, $2 and so on. "timeout" is in seconds, 0 and absent
// mean no limit; "cwd" is the directory it runs in; "env" is a list of NAME=value or a map.
#ifndef HOST_VT_AGENT_COMMANDS_H
#define HOST_VT_AGENT_COMMANDS_H

#include <veltrane/eval_context.h>
#include <veltrane/outcome.h>
#include <veltrane/policy.h>

namespace veltrane {

// Repaired when the command ends with status 0; timed out, with its whole process group killed, when its time is over;
// else failed. What it prints is logged line by line, at info level and its standard error at notice level.
PromiseResult KeepCommandsPromise(EvalContext *ctx, const Promise *expanded);

}  // namespace veltrane

#endif
