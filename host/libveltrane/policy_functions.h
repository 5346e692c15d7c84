// The functions that a value of the policy may call: {name: [arguments]}.
//
// A program that talks to strangers runs no command: execresult fails there (RefuseCommandsOfPolicy).
//
// Each name that the language knows is in one table. One that needs what this host lacks fails when it is called: the
// promise is skipped, the rest of the policy goes on.
//
//   execresult [command, noshell|useshell] or [command, noshell|useshell, seconds]
//                                           what a command prints on its standard output, without the line ends at its
//                                           end; another exit status than 0, and more than 60 seconds or what is given
//                                           (up to 3600), is a failure
//   readfile   [path] or [path, bytes]      what a regular file holds, at most so many bytes
//   canonify   [text]                       the text as the name of a class
//   classmatch [regex]                      "any" when the whole name of a class of the run matches, else "!any"
//   remotescalar, hostswithclass            see policy_functions_remote.h
//   ldapvalue, ldaplist, ldaparray, regldap see policy_functions_directory.h
//
// The last two rows reach beyond this machine, in a daemon as in the agent, and start nothing.
//
// No text is longer than 1 MiB: what a command prints and what a file holds beyond that is left out, with a warning
// (verbose where the policy asked for fewer bytes), never in the middle of a character.
#ifndef HOST_LIBVELTRANE_POLICY_FUNCTIONS_H
#define HOST_LIBVELTRANE_POLICY_FUNCTIONS_H

#include "libveltrane/policy_function.h"

namespace veltrane {

// Whether the language has a function of this name.
bool IsPolicyFunction(const char *name);

// From now on functions that run a command fail in this process, with this reason. Any thread.
void RefuseCommandsOfPolicy(const char *why);

// Call it. An answer that is not ok has had its one error line, which says why.
Answer CallPolicyFunction(const FunctionCall &call);

}  // namespace veltrane

#endif
