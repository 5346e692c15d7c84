// A machine's processes as a test wants them: a tree in the shape of /proc, which the process table reads while it
// lives.
#ifndef TESTS_SUPPORT_PROCESS_TREE_H
#define TESTS_SUPPORT_PROCESS_TREE_H

#include <filesystem>
#include <string>

#include <veltrane/processes.h>

#include "support/texts.h"
#include "support/work_dir.h"

class ProcessTree {
  public:
    explicit ProcessTree(const std::vector<Texts> &command_lines = {})
    {
        for (const Texts &command_line : command_lines) { Start(command_line); }
        ProcessTableSetSource(place_.path.c_str());
        ClearProcessTable();
    }
    ~ProcessTree()
    {
        ProcessTableSetSource(nullptr);
        ClearProcessTable();
    }
    ProcessTree(const ProcessTree &) = delete;
    ProcessTree &operator=(const ProcessTree &) = delete;

    // One process more, seen from the next load of the table on. Without arguments it is a kernel thread.
    void Start(const Texts &command_line)
    {
        const std::filesystem::path process = place_.path / std::to_string(next_pid_++);
        std::filesystem::create_directory(process);
        std::string arguments;
        for (const std::string &argument : command_line) { arguments += argument + '\0'; }
        WriteFile(process / "cmdline", arguments);
    }

  private:
    TemporaryDirectory place_;
    int next_pid_ = 100;
};

#endif
