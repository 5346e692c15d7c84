// A host with nothing but a work directory and a policy, for tests that run the agent on it.
#ifndef TESTS_SUPPORT_AGENT_HOST_H
#define TESTS_SUPPORT_AGENT_HOST_H

#include <filesystem>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "support/process.h"
#include "support/work_dir.h"

class AgentHost {
  public:
    AgentHost()
    {
        for (const char *name : {"", "inputs", "lib"}) {
            std::filesystem::create_directory(work / name);
            std::filesystem::permissions(work / name, std::filesystem::perms::owner_all);
        }
    }

    // A policy whose bundle main holds these promises, behind a control section or none.
    void WritePolicy(const std::string &promises, const std::string &control = "")
    {
        const std::filesystem::path path = work / "inputs/promises.vt";
        WriteFile(path, control + "bundles:\n  - agent: main\n    promises:\n" + promises);
        std::filesystem::permissions(path, std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
    }

    void InstallPlugIn()
    {
        const std::filesystem::path path = work / "lib/veltrane-enterprise.so";
        std::filesystem::copy_file(std::filesystem::path(VT_TEST_LIB_DIR) / "veltrane-enterprise.so", path);
        std::filesystem::permissions(path, std::filesystem::perms::owner_all);
    }

    ProcessOptions Options(std::vector<std::string> arguments = {}) const
    {
        ProcessOptions options;
        options.arguments = {"--workdir", work.string()};
        options.arguments.insert(options.arguments.end(), arguments.begin(), arguments.end());
        options.environment = environment;
        options.working_directory = directory.path;
        options.time_out = std::chrono::seconds(120);
        return options;
    }

    ProcessResult Run(std::vector<std::string> arguments = {}) const
    {
        return RunProcess(Program(), Options(std::move(arguments)));
    }

    static std::string Program() { return std::string(VT_TEST_BIN_DIR) + "/vt-agent"; }

    TemporaryDirectory directory;
    std::filesystem::path work = directory.path / "work";
    std::map<std::string, std::string> environment;  // added to the agent's
};

#endif
