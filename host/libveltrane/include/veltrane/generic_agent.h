// What a host program was asked to do.
#ifndef VELTRANE_GENERIC_AGENT_H
#define VELTRANE_GENERIC_AGENT_H

#include <veltrane/types.h>

VT_BEGIN_DECLS

struct GenericAgentSpecific_ {
    char *bootstrap_argument;  // NULL = no bootstrap run
    bool report_class_log;
};

struct GenericAgentConfig_ {
    char *input_file;  // policy file of this run, never NULL
    GenericAgentSpecific agent_specific;
};

VT_END_DECLS

#endif
