// Checks of a host's installation, and the report that they make.
#ifndef VELTRANE_DIAGNOSTICS_H
#define VELTRANE_DIAGNOSTICS_H

#include <veltrane/types.h>

VT_BEGIN_DECLS

// by value
typedef struct {
    bool success;
    char *message;  // owned
} AgentDiagnosticsResult;

// a table of checks ends with one whose both members are NULL
typedef struct {
    const char *description;
    AgentDiagnosticsResult (*check)(const char *workdir);
} AgentDiagnosticCheck;

// takes over message
typedef AgentDiagnosticsResult (*AgentDiagnosticsResultNewFunction)(bool success, char *message);
typedef void (*AgentDiagnosticsRunFunction)(const char *workdir, const AgentDiagnosticCheck checks[], Writer *output);

// takes over message
AgentDiagnosticsResult AgentDiagnosticsResultNew(bool success, char *message);

// every check in order: "[ YES ]" or "[ NO  ]", ' ', description, and ": <message>" after a failure, line feed
void AgentDiagnosticsRun(const char *workdir, const AgentDiagnosticCheck checks[], Writer *output);

VT_END_DECLS

#endif
