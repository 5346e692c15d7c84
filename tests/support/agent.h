// An agent with a work directory of its own, run as an operator runs it.
#ifndef TESTS_SUPPORT_AGENT_H
#define TESTS_SUPPORT_AGENT_H

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>
#include <vector>

#include "support/process.h"
#include "support/work_dir.h"

class Agent : public testing::Test {
  protected:
    Agent()
    {
        for (const char *name : {"", "inputs"}) { mkdir((work / name).c_str(), 0700); }
    }

    void WriteInput(const std::string &name, const std::string &text)
    {
        WriteFile(work / "inputs" / name, text);
        std::filesystem::permissions(work / "inputs" / name,
                                     std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
    }

    // A policy file whose bundle main holds these promises.
    void WritePolicy(const std::string &promises, const std::string &name = "promises.vt")
    {
        WriteInput(name, "bundles:\n  - agent: main\n    promises:\n" + promises);
    }

    ProcessResult Run(std::vector<std::string> arguments = {}, const std::string &name = "vt-agent")
    {
        ProcessOptions options;
        options.arguments = {"--workdir", work.string()};
        options.arguments.insert(options.arguments.end(), arguments.begin(), arguments.end());
        options.working_directory = directory.path;
        return RunProcess(std::string(VT_TEST_BIN_DIR) + "/" + name, options);
    }

    void InstallPlugIn()
    {
        mkdir((work / "lib").c_str(), 0700);
        std::filesystem::copy_file(std::filesystem::path(VT_TEST_LIB_DIR) / "veltrane-enterprise.so",
                                   work / "lib/veltrane-enterprise.so");
        std::filesystem::permissions(work / "lib/veltrane-enterprise.so", std::filesystem::perms::owner_all);
    }

    ProcessResult RunPolicy(const std::string &promises, std::vector<std::string> arguments = {})
    {
        WritePolicy(promises);
        return Run(std::move(arguments));
    }

    std::string Made(const std::string &name) { return (directory.path / name).string(); }

    TemporaryDirectory directory;
    std::filesystem::path work = directory.path / "work";
};

#endif
