// Counting agents in the host's process table.
#include "libvtagent/processes.h"

#include <cstdint>
#include <memory>

#include <veltrane/item_lib.h>
#include <veltrane/owned.h>
#include <veltrane/processes.h>

using ItemListPtr = std::unique_ptr<Item, veltrane::Destroyer<DeleteItemList>>;

namespace {

int32_t CountProcesses(const char *name, const char *command)
{
    ProcessSelect selection = {};
    selection.command = command;
    selection.process_result = "command";
    const ItemListPtr found(SelectProcesses(name, &selection, true));
    return ListLen(found.get());
}

}  // namespace

bool AreParallelAgentsExecuting() noexcept
{
    (void)LoadProcessTable();  // it has logged; without a table no agent is found
    const int32_t agents = CountProcesses("vt-agent", "^[^ ]*vt-agent.*");
    const int32_t twins = CountProcesses("vt-twin", "^[^ ]*vt-twin.*");
    return agents + twins > 1;
}
