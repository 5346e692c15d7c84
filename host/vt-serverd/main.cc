// vt-serverd: the report server daemon of a host. It runs in the foreground.
#include <CLI/CLI.hpp>

#include <algorithm>
#include <iostream>
#include <string>

#include <veltrane/entry_points.h>
#include <veltrane/globals.h>
#include <veltrane/known_dirs.h>
#include <veltrane/logging.h>
#include <veltrane/net.h>
#include <veltrane/owned.h>
#include <veltrane/records.h>

#include "libveltrane/privilege.h"
#include "libveltrane/program.h"
#include "libveltrane/query_border.h"
#include "libveltrane/trust_commands.h"
#include "vt-serverd/server_daemon.h"

namespace {

constexpr int kFailure = 1;
constexpr int kWrongUsage = 2;

struct Arguments {
    veltrane::ProgramOptions program;
    std::string port;  // apart from the program's: "0" means any free one
    std::string bind_address;
    std::string policy_file;
    std::string key_file;
    std::string identity;
    std::string handle;
    std::string value;
    bool version = false;
};

void DescribeOptions(CLI::App &app, Arguments &arguments)
{
    app.add_option("--workdir", arguments.program.workdir,
                   "Work directory (else the environment's VELTRANE_WORKDIR, else /var/veltrane)");
    app.add_option("--port", arguments.port, "Port to listen on, 0 for any free one (6127)")
        ->check(CLI::Range(0, 65535));
    app.add_option("--bind", arguments.bind_address, "Address to listen on (all)");
    app.add_option("--file", arguments.policy_file, "Policy (inputs/promises.vt in the work directory)");
    const auto raise = [&arguments](LogLevel level) {
        return [&arguments, level] { arguments.program.level = std::max(arguments.program.level, level); };
    };
    app.add_flag_callback("-I,--inform", raise(LOG_LEVEL_INFO), "Say what is done");
    app.add_flag_callback("-v,--verbose", raise(LOG_LEVEL_VERBOSE), "Say more");
    app.add_flag_callback("-d,--debug", raise(LOG_LEVEL_DEBUG), "Say everything");
    app.add_option("--timeout", arguments.program.timeout_seconds,
                   "Seconds that a peer may take for each step, 1 to 3600 (30)")
        ->check(CLI::Range(1, 3600));
    app.add_option("--user", arguments.program.user,
                   "Run as this user, whose the work directory must be (started as root)");
    app.add_flag("--fips", arguments.program.fips, "Run in FIPS mode");
    app.add_flag("-V,--version", arguments.version, "Print the version and end");
}

void DescribeCommands(CLI::App &app, Arguments &arguments)
{
    app.require_subcommand(0, 1);
    app.fallthrough();  // options may stand before or after the command
    app.footer(
        "The daemon runs no program: the policy function execresult fails in it. It keeps no privilege of root but "
        "its\n"
        "user's files. An address may hold half of max_connections, the connections that policy lets be open.");
    app.add_subcommand("run", "Serve in the foreground until SIGTERM; SIGHUP reads the policy again (the default)");
    app.add_subcommand("key", "Print this host's key and where its public part lies");
    CLI::App *trust = app.add_subcommand("trust", "The keys that may connect");
    trust->require_subcommand(1);
    CLI::App *add =
        trust->add_subcommand("add", "Trust a key: its public key file, or SHA=... of one that was refused");
    add->add_option("KEY", arguments.key_file, "Public key file (PEM), or SHA=...")->required();
    add->add_option("IDENTITY", arguments.identity, "The SHA=... that the file must hold");
    CLI::App *remove = trust->add_subcommand("remove", "Trust a key no longer");
    remove->add_option("IDENTITY", arguments.identity, "SHA=...")->required();
    trust->add_subcommand("list", "List the trusted keys beside this host's own");
    CLI::App *scalar = app.add_subcommand("scalar", "Values that other hosts may read, beside those of the policy");
    scalar->require_subcommand(1);
    CLI::App *set = scalar->add_subcommand(
        "set",
        "Publish VALUE under HANDLE for 900 seconds, in the stead of what the policy publishes there; the policy's\n"
        "access promise for the handle says who may read it");
    set->add_option("HANDLE", arguments.handle, "1 to 1024 bytes without control characters")->required();
    set->add_option("VALUE", arguments.value, "At most 1023 bytes, not beginning with \"BAD:\"")->required();
}

int PrintVersion()
{
    const veltrane::WriterPtr writer(StringWriter());
    GenericAgentWriteVersion(writer.get());
    std::cout << StringWriterData(writer.get()) << std::flush;
    return 0;
}

int Serve(const Arguments &arguments)
{
    vtserverd::DaemonOptions options;
    options.policy_file =
        arguments.policy_file.empty() ? std::string(GetInputDir()) + "/promises.vt" : arguments.policy_file;
    options.bind_address = arguments.bind_address;
    options.port = arguments.port.empty() ? VELTRANE_PORT_STR : arguments.port;
    const int status = vtserverd::ServerDaemon(options).Run();
    vtnet_Shut();
    return status;
}

bool Become(const std::string &user)
{
    const std::string why = veltrane::BecomeUser(user);
    if (!why.empty()) {
        Log(LOG_LEVEL_ERR, "Could not become user '%s'. (%s)", user.c_str(), why.c_str());
    }
    return why.empty();
}

int Trust(const CLI::App &trust, const Arguments &arguments)
{
    if (trust.got_subcommand("add")) {
        return veltrane::TrustAddCommand(arguments.key_file, arguments.identity);
    }
    if (trust.got_subcommand("remove")) {
        return veltrane::TrustRemoveCommand(arguments.identity);
    }
    return veltrane::TrustListCommand();
}

int SetScalar(const Arguments &arguments)
{
    constexpr size_t kLongestValue = sizeof(PersistentScalar::rval) - 1;
    if (!veltrane::IsHandle(arguments.handle)) {
        Log(LOG_LEVEL_ERR, "This is no handle: it has 1 to %zu bytes and no control characters",
            veltrane::kLongestHandle);
        return kWrongUsage;
    }
    if (arguments.value.size() > kLongestValue || arguments.value.starts_with("BAD:")) {
        Log(LOG_LEVEL_ERR, "This is no value: it has at most %zu bytes and does not begin with \"BAD:\"",
            kLongestValue);
        return kWrongUsage;
    }
    if (!PersistentScalarPut(arguments.handle.c_str(), arguments.value.c_str())) {
        Log(LOG_LEVEL_ERR, "Could not store the value of '%s'", arguments.handle.c_str());
        return kFailure;
    }
    return 0;
}

int Run(const CLI::App &app, const Arguments &arguments)
{
    if (app.got_subcommand("key")) {
        return veltrane::KeyCommand();
    }
    if (app.got_subcommand("trust")) {
        return Trust(*app.get_subcommand("trust"), arguments);
    }
    if (app.got_subcommand("scalar")) {
        return SetScalar(arguments);
    }
    return Serve(arguments);
}

}  // namespace

// NOLINTNEXTLINE(bugprone-exception-escape): thrown while options are declared, it is our mistake and ends us
int main(int argc, char **argv)
{
    Arguments arguments;
    CLI::App app("Serves this host's reports to the hubs that policy admits.", "vt-serverd");
    DescribeOptions(app, arguments);
    DescribeCommands(app, arguments);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? 0 : kWrongUsage;
    }
    if (!arguments.port.empty() && arguments.port != "0") {
        arguments.program.port = arguments.port;
    }
    if (!arguments.program.user.empty() && !Become(arguments.program.user)) {
        return kFailure;
    }
    if (!veltrane::StartProgram(arguments.program)) {
        return kFailure;
    }
    return arguments.version ? PrintVersion() : Run(app, arguments);
}
