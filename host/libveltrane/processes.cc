// The one process table of a program, and selections from it.
#include <veltrane/processes.h>

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include <veltrane/logging.h>
#include <veltrane/string_lib.h>

#include "libveltrane/class_expression.h"
#include "libveltrane/process_table.h"

namespace {

using veltrane::Process;

struct Table {
    std::optional<std::vector<Process>> processes;  // nothing while none is loaded
    std::string source;                             // "" = /proc
};

Table &TheTable()
{
    static Table table;
    return table;
}

// One column of a process, and what a selection asks of it; NULL asks nothing.
struct Column {
    const char *name;
    const char *regex;
    std::string text;

    bool Matches() const { return regex != nullptr && StringMatchFull(regex, text.c_str()); }
};

bool IsSelected(const Process &process, const ProcessSelect &selection)
{
    const Column columns[] = {{"command", selection.command, process.command},
                              {"owner", selection.owner, process.owner},
                              {"pid", selection.pid, std::to_string(process.pid)}};
    if (selection.process_result == nullptr) {
        return std::all_of(std::begin(columns), std::end(columns),
                           [](const Column &column) { return column.regex == nullptr || column.Matches(); });
    }
    // A column that is asked nothing, and a name that is no column's, do not hold.
    const auto holds = [&columns](const std::string &name) {
        return std::any_of(std::begin(columns), std::end(columns),
                           [&name](const Column &column) { return name == column.name && column.Matches(); });
    };
    return veltrane::EvaluateClassExpression(selection.process_result, holds) == EXPRESSION_VALUE_TRUE;
}

// Said here, for an empty list does not show it.
bool IsUsable(const ProcessSelect &selection)
{
    const auto nothing_holds = [](const std::string &) { return false; };
    if (selection.process_result != nullptr &&
        veltrane::EvaluateClassExpression(selection.process_result, nothing_holds) == EXPRESSION_VALUE_ERROR) {
        Log(LOG_LEVEL_ERR, "'%s' is no class expression over the columns of a process", selection.process_result);
        return false;
    }
    return true;
}

std::string LineOf(const Process &process)
{
    return process.owner + " " + std::to_string(process.pid) + " " + process.command;
}

}  // namespace

bool LoadProcessTable(void)
{
    Table &table = TheTable();
    if (!table.processes.has_value()) {
        table.processes = table.source.empty() ? veltrane::ReadProcesses() : veltrane::ReadProcessTree(table.source);
    }
    return table.processes.has_value();
}

void ClearProcessTable(void) { TheTable().processes.reset(); }

Item *SelectProcesses(const char *process_name, const ProcessSelect *selection, bool attrselect)
{
    Item *list = nullptr;
    if (attrselect && !IsUsable(*selection)) {
        return list;
    }
    const std::vector<Process> &processes = veltrane::LoadedProcesses();
    std::for_each(processes.rbegin(), processes.rend(), [&](const Process &process) {  // so that the list ascends
        if (!process.command.empty() && StringMatch(process_name, process.command.c_str(), nullptr, nullptr) &&
            (!attrselect || IsSelected(process, *selection))) {
            PrependItem(&list, LineOf(process).c_str());
        }
    });
    return list;
}

void ProcessTableSetSource(const char *directory)
{
    TheTable().source = directory != nullptr ? directory : "";
    ClearProcessTable();
}

namespace veltrane {

const std::vector<Process> &LoadedProcesses()
{
    static const std::vector<Process> none;
    const Table &table = TheTable();
    return table.processes.has_value() ? *table.processes : none;
}

}  // namespace veltrane
