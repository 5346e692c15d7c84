// Running checks of an installation, and the line that each of them makes of its result.
#include <veltrane/diagnostics.h>

#include <veltrane/owned.h>
#include <veltrane/writer.h>

AgentDiagnosticsResult AgentDiagnosticsResultNew(bool success, char *message) { return {success, message}; }

void AgentDiagnosticsRun(const char *workdir, const AgentDiagnosticCheck checks[], Writer *output)
{
    for (const AgentDiagnosticCheck *check = checks; check->description != nullptr; check++) {
        const AgentDiagnosticsResult result = check->check(workdir);
        const veltrane::TextPtr message(result.message);
        WriterWriteF(output, "%s %s", result.success ? "[ YES ]" : "[ NO  ]", check->description);
        if (!result.success) {
            WriterWriteF(output, ": %s", message != nullptr ? message.get() : "");
        }
        WriterWriteChar(output, '\n');
    }
}
