// One run of the agent: which policies, in which order, and what is reported after each.
#ifndef HOST_VT_AGENT_AGENT_RUN_H
#define HOST_VT_AGENT_AGENT_RUN_H

#include <string>
#include <vector>

#include "libveltrane/program.h"

namespace veltrane {

struct AgentOptions {
    ProgramOptions program;
    std::string file;                 // "" = the roles: update.vt, promises.vt, failsafe.vt
    std::vector<std::string> define;  // classes that hold from the start
    bool log_classes = false;         // as "report_class_log" of the policy's agent control section
    bool show_version = false;        // print the version and do nothing else
    bool diagnostics = false;         // check the installation and do nothing else
    std::string bootstrap;            // the hub of this host from now on, as ParseHub reads it; "" = as it is
    std::string hub_key;              // with bootstrap: the key that the hub must have
};

// Run the agent to its end: the exit status of the program.
//
// Without a file, inputs/update.vt runs first where there is one, then inputs/promises.vt. When that one cannot be
// read, inputs/failsafe.vt runs where there is one, and the status is 1 all the same.
//
// A bootstrap comes first. After it only inputs/failsafe.vt runs, where there is one, or the file that options name, so
// that a new host has something to report before its policy has come.
int RunAgent(const AgentOptions &options);

}  // namespace veltrane

#endif
