// A running server daemon and a second host that deals with it, each with a work directory and a key of its own.
#ifndef TESTS_SUPPORT_TWO_HOSTS_H
#define TESTS_SUPPORT_TWO_HOSTS_H

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "support/daemon.h"

class TwoHosts : public Daemon {
  protected:
    TwoHosts()
    {
        for (const char *name : {"inputs", "lib"}) {
            std::filesystem::create_directories(host.path / name);
            std::filesystem::permissions(host.path / name, std::filesystem::perms::owner_all);
        }
        daemon_key = KeyOf(workdir.path);
        host_key = KeyOf(host.path);
    }

    void InstallPluginAtHost() const
    {
        std::filesystem::copy_file(std::filesystem::path(VT_TEST_LIB_DIR) / "veltrane-enterprise.so",
                                   host.path / "lib/veltrane-enterprise.so");
    }

    // Run a program of the second host.
    ProcessResult Host(const std::string &program, std::vector<std::string> arguments = {}) const
    {
        return RunIn(host.path, program, std::move(arguments));
    }

    // The daemon trusts the host from now on.
    void TrustTheHost() const { ASSERT_EQ(Run({"trust", "add", (host.path / "keys/host.pub").string()}).status, 0); }

    // And the host the daemon.
    void HostTrustsTheDaemon() const
    {
        ASSERT_EQ(Host("vt-serverd", {"trust", "add", (workdir.path / "keys/host.pub").string()}).status, 0);
    }

    void WriteInput(const std::string &name, const std::string &text) const
    {
        WriteFile(host.path / "inputs" / name, text);
        std::filesystem::permissions(host.path / "inputs" / name,
                                     std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
    }

    std::string DaemonAddress() const { return "127.0.0.1:" + port; }

    static ProcessResult RunIn(const std::filesystem::path &directory, const std::string &program,
                               std::vector<std::string> arguments)
    {
        ProcessOptions options;
        options.arguments = {"--workdir", directory.string()};
        options.arguments.insert(options.arguments.end(), arguments.begin(), arguments.end());
        return RunProcess(std::string(VT_TEST_BIN_DIR) + "/" + program, options);
    }

    static std::string KeyOf(const std::filesystem::path &directory)
    {
        return RunIn(directory, "vt-serverd", {"key"}).out.substr(0, 68);
    }

    TemporaryDirectory host;
    std::string daemon_key;
    std::string host_key;
};

#endif
