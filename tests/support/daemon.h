// The server daemon as a process of its own, with a test as its peer that has a key and a work directory of its own.
#ifndef TESTS_SUPPORT_DAEMON_H
#define TESTS_SUPPORT_DAEMON_H

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <veltrane/dbm_api.h>
#include <veltrane/net.h>
#include <veltrane/owned.h>
#include <veltrane/records.h>

#include "libveltrane/keys.h"
#include "libveltrane/tls_context.h"
#include "support/ask.h"
#include "support/process.h"
#include "support/work_dir.h"

class Daemon : public testing::Test {
  protected:
    Daemon()
    {
        vtnet_Init();
        own_key = veltrane::CurrentTlsContexts()->identity;
        std::filesystem::create_directories(workdir.path / "lib");
        std::filesystem::create_directories(workdir.path / "inputs");
        std::filesystem::permissions(workdir.path / "lib", std::filesystem::perms::owner_all);
        std::filesystem::permissions(workdir.path / "inputs", std::filesystem::perms::owner_all);
        SetPolicy(Admit("delta", own_key) + Admit("rebase", own_key));
    }
    ~Daemon() override { vtnet_Shut(); }

    void InstallPlugin() const
    {
        std::filesystem::copy_file(std::filesystem::path(VT_TEST_LIB_DIR) / "veltrane-enterprise.so",
                                   workdir.path / "lib/veltrane-enterprise.so");
    }

    static std::string Admit(const std::string &word, const std::string &key)
    {
        return "      - access: " + word + "\n        resource: query\n        admit_keys: [\"" + key + "\"]\n";
    }

    void SetPolicy(const std::string &promises, const std::string &control = "") const
    {
        std::string text;
        if (!control.empty()) {
            text = "control:\n  server:\n" + control;
        }
        WriteFile(Policy(), text + "bundles:\n  - server: rules\n    promises:\n" + promises);
        std::filesystem::permissions(Policy(),
                                     std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
    }

    std::filesystem::path Policy() const { return workdir.path / "inputs/promises.vt"; }

    ProcessOptions Options(std::vector<std::string> arguments) const
    {
        ProcessOptions options;
        options.arguments = {"--workdir", workdir.path.string()};
        options.arguments.insert(options.arguments.end(), arguments.begin(), arguments.end());
        return options;
    }

    ProcessResult Run(std::vector<std::string> arguments) const { return RunProcess(kProgram, Options(arguments)); }

    void Start(std::vector<std::string> arguments = {})
    {
        arguments.insert(arguments.begin(), {"--bind", "127.0.0.1", "--port", "0"});
        daemon = std::make_unique<BackgroundProcess>(kProgram, Options(arguments));
        ASSERT_TRUE(daemon->WaitForLine("Listening on 127.0.0.1:")) << daemon->Err();
        ReadPort();
    }

    void ReadPort()
    {
        std::string line;
        ASSERT_TRUE(daemon->WaitForLine("Listening on ", std::chrono::seconds(20), &line));
        port = line.substr(line.rfind(':') + 1);
    }

    // Both sides trust each other from now on.
    void TrustEachOther() const
    {
        ASSERT_EQ(Run({"trust", "add", veltrane::OwnPublicKeyPath()}).status, 0);
        TrustTheDaemon();
    }

    void TrustTheDaemon() const
    {
        ASSERT_EQ(Run({"key"}).status, 0);
        std::string why_not;
        const veltrane::KeyPtr key = veltrane::ReadPublicKey(workdir.path / "keys/host.pub", &why_not);
        ASSERT_NE(key, nullptr) << why_not;
        ASSERT_EQ(veltrane::TrustKey(key.get()), "");
    }

    void StartTrusting(std::vector<std::string> arguments = {})
    {
        TrustEachOther();
        Start(std::move(arguments));
    }

    AgentPtr Connect() { return ConnectFromThread(&error); }

    AgentPtr ConnectFromThread(int *ret_error) const
    {
        return AgentPtr(ServerConnection("127.0.0.1", port.c_str(), nullptr, 20, {}, ret_error));
    }

    // A base state far beyond what the sockets between two processes hold.
    void MakeLargeState() const
    {
        std::filesystem::create_directories(workdir.path / "state/previous_state");
        std::string rows;
        for (int i = 0; i < kLargeState; ++i) {
            rows += "class_number_" + std::to_string(i) + ",\"inventory,attribute_name=none,source=agent\"\r\n";
        }
        WriteFile(workdir.path / "state/previous_state/classes.cache", rows);
    }

    // Let a value of the daemon's scalar database be this much older.
    void AgeScalar(const std::string &handle, time_t seconds) const
    {
        SetWorkDir(workdir.path.c_str());
        DBHandle *db = nullptr;
        ASSERT_TRUE(OpenDB(&db, dbid_scalars));
        PersistentScalar scalar = {};
        EXPECT_TRUE(ReadDB(db, handle.c_str(), &scalar, sizeof(scalar)));
        scalar.time -= seconds;
        EXPECT_TRUE(WriteDB(db, handle.c_str(), &scalar, sizeof(scalar)));
        CloseDB(db);
        SetWorkDir(ours.path.c_str());
    }

    bool Says(const std::string &line) { return daemon->WaitForLine(line); }

    // The daemon is told to stop and does; its whole log is then in the result.
    const ProcessResult &Stop()
    {
        daemon->Signal(SIGTERM);
        return daemon->Wait();
    }

    static size_t Count(const std::string &text, const std::string &part)
    {
        size_t count = 0;
        for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) { ++count; }
        return count;
    }

    static constexpr int kLargeState = 200'000;
    inline static const std::string kProgram = std::string(VT_TEST_BIN_DIR) + "/vt-serverd";

    WorkDirectory ours;
    TemporaryDirectory workdir;  // the daemon's
    std::string own_key;
    std::string port;
    int error = 0;
    std::unique_ptr<BackgroundProcess> daemon;
};

#endif
