// vt-testd: a daemon that answers report queries like a host, always the same. It runs in the foreground.
#include <CLI/CLI.hpp>

#include <algorithm>
#include <iostream>
#include <string>

#include <veltrane/entry_points.h>
#include <veltrane/globals.h>
#include <veltrane/logging.h>
#include <veltrane/net.h>
#include <veltrane/owned.h>

#include "libveltrane/privilege.h"
#include "libveltrane/program.h"
#include "libveltrane/trust_commands.h"
#include "vt-testd/test_daemon.h"

namespace {

constexpr int kFailure = 1;
constexpr int kWrongUsage = 2;

struct Arguments {
    veltrane::ProgramOptions program;
    std::string port;  // apart from the program's: "0" means any free one
    std::string bind_address;
    std::string key_file;
    std::string identity;
    bool version = false;
};

void DescribeOptions(CLI::App &app, Arguments &arguments)
{
    app.add_option("--workdir", arguments.program.workdir,
                   "Work directory (else the environment's VELTRANE_WORKDIR, else /var/veltrane)");
    app.add_option("--port", arguments.port, "Port to listen on, 0 for any free one (6127)")
        ->check(CLI::Range(0, 65535));
    app.add_option("--bind", arguments.bind_address, "Address to listen on (all)");
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
    app.add_flag("-V,--version", arguments.version, "Print the version and end");
}

void DescribeCommands(CLI::App &app, Arguments &arguments)
{
    app.require_subcommand(0, 1);
    app.fallthrough();  // options may stand before or after the command
    app.footer("Every trusted key may ask for a delta or a rebase; nothing of this machine is told.");
    app.add_subcommand("run", "Serve in the foreground until SIGTERM (the default)");
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
}

int PrintVersion()
{
    const veltrane::WriterPtr writer(StringWriter());
    GenericAgentWriteVersion(writer.get());
    std::cout << StringWriterData(writer.get()) << std::flush;
    return std::cout.good() ? 0 : kFailure;
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

int Run(const CLI::App &app, const Arguments &arguments)
{
    if (app.got_subcommand("key")) {
        return veltrane::KeyCommand();
    }
    if (app.got_subcommand("trust")) {
        return Trust(*app.get_subcommand("trust"), arguments);
    }
    const int status = vttestd::TestDaemon().Run(
        {arguments.bind_address, arguments.port.empty() ? VELTRANE_PORT_STR : arguments.port});
    vtnet_Shut();
    return status;
}

}  // namespace

// NOLINTNEXTLINE(bugprone-exception-escape): thrown while options are declared, it is our mistake and ends us
int main(int argc, char **argv)
{
    Arguments arguments;
    CLI::App app("Answers a hub's report queries with fixed test reports.", "vt-testd");
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
