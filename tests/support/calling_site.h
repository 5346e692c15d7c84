// A site whose host calls: it listens nowhere, and the hub takes its calls.
#ifndef TESTS_SUPPORT_CALLING_SITE_H
#define TESTS_SUPPORT_CALLING_SITE_H

#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "libveltrane/tls_context.h"
#include "support/peers.h"
#include "support/process.h"
#include "support/site.h"

class CallingSite : public Site {
  public:
    CallingSite()
    {
        // A second is all that a test waits for a call.
        control = "control:\n  server:\n    listen: false\n    call_collect_interval: 1\n";
        std::filesystem::copy_file(std::filesystem::path(VT_TEST_LIB_DIR) / "veltrane-report-collect.so",
                                   Hub() / "lib/veltrane-report-collect.so");
        std::filesystem::permissions(Hub() / "lib/veltrane-report-collect.so", std::filesystem::perms::owner_all);
        Admit({host_key});
        if (!TrustEachOther()) {
            throw std::runtime_error("no trust");
        }
    }

    // The hub's policy: whose collect calls it takes.
    void Admit(const std::vector<std::string> &keys)
    {
        std::string list;
        for (const std::string &key : keys) { list += (list.empty() ? "\"" : ", \"") + key + "\""; }
        const std::filesystem::path policy = Hub() / "inputs/promises.vt";
        WriteFile(policy,
                  "bundles:\n  - server: calls\n    promises:\n      - access: collect_calls\n"
                  "        resource: context\n        admit_keys: [" +
                      list + "]\n");
        std::filesystem::permissions(policy, std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
    }

    // Start the hub's daemon, on the port it had before if it had one, and tell the host where it is.
    bool StartHubDaemon(std::vector<std::string> arguments = {})
    {
        hub_daemon = Start("vt-serverd", Hub(), {"--bind", "127.0.0.1", "--port", port.empty() ? "0" : port},
                           std::move(arguments));
        std::string line;
        if (!hub_daemon->WaitForLine("Listening on ", std::chrono::seconds(20), &line)) {
            return false;
        }
        port = line.substr(line.rfind(':') + 1);
        WriteFile(Host() / "hub_address", "127.0.0.1\n" + port + "\n");
        return true;
    }

    // Start the process that asks the hosts that call.
    bool StartListening(std::vector<std::string> arguments)
    {
        hub = Start("vt-hub", Hub(), {"listen"}, std::move(arguments));
        return hub->WaitForLine("Waiting for calls");
    }

    // Start the host's daemon; it calls a second later.
    void StartCalling(std::vector<std::string> arguments = {"--verbose"})
    {
        daemon = Start("vt-serverd", Host(), {"--bind", "127.0.0.1", "--port", "0"}, std::move(arguments));
    }

    std::string port;  // of the hub's daemon
    std::unique_ptr<BackgroundProcess> hub_daemon;
    std::unique_ptr<BackgroundProcess> hub;

  private:
    static std::unique_ptr<BackgroundProcess> Start(const std::string &program, const std::filesystem::path &workdir,
                                                    std::vector<std::string> first, std::vector<std::string> rest)
    {
        ProcessOptions options;
        options.arguments = {"--workdir", workdir.string()};
        options.arguments.insert(options.arguments.end(), first.begin(), first.end());
        options.arguments.insert(options.arguments.end(), rest.begin(), rest.end());
        return std::make_unique<BackgroundProcess>(std::string(VT_TEST_BIN_DIR) + "/" + program, options);
    }
};

// A host that calls, played by the test, which decides how far it goes.
struct TestCaller {
    explicit TestCaller(EVP_PKEY *key) : peer(key) {}

    // Call the hub's daemon at a port: the place that it tells, -1 when it tells none.
    int32_t Call(const std::string &port)
    {
        constexpr std::string_view kRequest = "SCALLBACK CALL_ME_BACK collect_calls";
        int32_t place = -1;
        const bool asked =
            peer.ConnectAndGreet(port) > 0 &&
            SendTransaction(peer.info.get(), kRequest.data(), static_cast<int>(kRequest.size()), 't') == 0;
        return asked && SSL_read(peer.Ssl(), &place, sizeof(place)) == sizeof(place) ? place : -1;
    }

    // Be the TLS server in the second handshake, with the key of contexts. An errno, or 0.
    int AnswerHandshake(const veltrane::TlsContexts &contexts)
    {
        peer.info.reset();
        veltrane::SslPtr ssl;
        return veltrane::TlsHandshake(contexts, veltrane::TlsRole::server, peer.fd.Get(), &ssl);
    }

    TlsPeer peer;
};

#endif
