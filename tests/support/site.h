// A host and a hub on loopback, each with a work directory of its own, keys, and trust in each other: the smallest real
// site. The plug-in is copied into both work directories, as an operator would install it.
#ifndef TESTS_SUPPORT_SITE_H
#define TESTS_SUPPORT_SITE_H

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/process.h"
#include "support/work_dir.h"

class Site {
  public:
    Site()
    {
        for (const std::filesystem::path &workdir : {Host(), Hub()}) {
            std::filesystem::create_directories(workdir / "lib");
            std::filesystem::create_directories(workdir / "inputs");
            std::filesystem::copy_file(std::filesystem::path(VT_TEST_LIB_DIR) / "veltrane-enterprise.so",
                                       workdir / "lib" / "veltrane-enterprise.so");
            for (const auto &directory : {workdir, workdir / "lib", workdir / "inputs"}) {
                std::filesystem::permissions(directory, std::filesystem::perms::owner_all);
            }
        }
        hub_key = KeyOf("vt-hub", Hub());
        host_key = KeyOf("vt-serverd", Host());
    }

    std::filesystem::path Host() const { return directory_.path / "host"; }
    std::filesystem::path Hub() const { return directory_.path / "hub"; }

    // Both sides trust each other's key.
    bool TrustEachOther()
    {
        return Run("vt-serverd", Host(), {"trust", "add", (Hub() / "keys/host.pub").string()}).status == 0 &&
               Run("vt-hub", Hub(), {"trust", "add", (Host() / "keys/host.pub").string()}).status == 0;
    }

    // The host's policy: the promises of bundle main, and access promises for the hub's key with this filter (YAML at
    // the depth of an attribute of a promise; may be empty).
    void SetPolicy(const std::string &promises, const std::string &filter = "")
    {
        std::string text =
            control + "bundles:\n  - agent: main\n    promises:\n" + promises + "  - server: reports\n    promises:\n";
        for (const char *word : {"delta", "rebase", "full"}) {
            text += std::string("      - access: ") + word + "\n        resource: query\n        admit_keys: [\"" +
                    hub_key + "\"]\n" + filter;
        }
        WritePolicy(text);
    }

    void WritePolicy(const std::string &text) { WriteFile(Host() / "inputs/promises.vt", text); }

    ProcessResult Run(const std::string &program, const std::filesystem::path &workdir,
                      std::vector<std::string> arguments) const
    {
        ProcessOptions options;
        options.arguments = {"--workdir", workdir.string()};
        options.arguments.insert(options.arguments.end(), arguments.begin(), arguments.end());
        return RunProcess(std::string(VT_TEST_BIN_DIR) + "/" + program, options);
    }

    ProcessResult RunAgent(std::vector<std::string> arguments = {}) const { return Run("vt-agent", Host(), arguments); }

    // Start the daemon, or the test daemon in its stead, and wait until it listens; false when it does not.
    bool StartDaemon(std::vector<std::string> arguments = {}, const std::string &program = "vt-serverd")
    {
        ProcessOptions options;
        options.arguments = {"--workdir", Host().string(), "--bind", "127.0.0.1", "--port", "0"};
        options.arguments.insert(options.arguments.end(), arguments.begin(), arguments.end());
        daemon = std::make_unique<BackgroundProcess>(std::string(VT_TEST_BIN_DIR) + "/" + program, options);
        std::string line;
        if (!daemon->WaitForLine("Listening on ", std::chrono::seconds(20), &line)) {
            return false;
        }
        address = line.substr(line.find("on ") + 3);
        return true;
    }

    ProcessResult Collect(const std::string &type, std::vector<std::string> arguments = {}) const
    {
        std::vector<std::string> all{"collect", address, "--type", type};
        all.insert(all.end(), arguments.begin(), arguments.end());
        return Run("vt-hub", Hub(), all);
    }

    // Collect a delta again and again until its output holds text: a row is sent from the second after the next on.
    ProcessResult CollectDeltaUntil(const std::string &text, std::vector<std::string> arguments = {}) const
    {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(15);
        ProcessResult result = Collect("delta", arguments);
        while (result.out.find(text) == std::string::npos && std::chrono::steady_clock::now() < end) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            result = Collect("delta", arguments);
        }
        return result;
    }

    std::string control;  // the control section that SetPolicy puts in front
    std::string hub_key;
    std::string host_key;
    std::string address;  // of the running daemon
    std::unique_ptr<BackgroundProcess> daemon;

  private:
    // The identity that a program prints for its work directory; "" when it prints none.
    std::string KeyOf(const std::string &program, const std::filesystem::path &workdir) const
    {
        const std::string out = Run(program, workdir, {"key"}).out;
        const std::size_t at = out.find("SHA=");
        return at == std::string::npos ? "" : out.substr(at, 68);
    }

    TemporaryDirectory directory_;
};

#endif
