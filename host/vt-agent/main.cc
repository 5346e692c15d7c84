// vt-agent, and vt-twin, which is the same program under its second name: the command line.
//
// Exit status: 0 when the run came to its end, promises that are not kept and checks that fail included; 1 when the
// policy or the work directory is in trouble, another agent is at work, or the hub of a bootstrap is not the one that
// is meant; 2 for wrong usage.
#include <CLI/CLI.hpp>
#include <cstdio>

#include "libveltrane/keys.h"
#include "vt-agent/agent_run.h"
#include "vt-agent/bootstrap.h"

namespace {

constexpr int kWrongUsage = 2;

}  // namespace

// NOLINTNEXTLINE(bugprone-exception-escape): thrown while options are declared, it is our mistake and ends us
int main(int argc, char **argv)
{
    CLI::App app("Keeps the promises of a policy on this machine and reports what it found.", "vt-agent");
    veltrane::AgentOptions options;
    bool inform = false;
    bool verbose = false;
    bool debug = false;

    app.add_option("--workdir", options.program.workdir, "Work directory [VELTRANE_WORKDIR, else /var/veltrane]");
    app.add_option("-f,--file", options.file,
                   "Policy to run; below inputs/ unless it begins with / or ./ [update.vt, then promises.vt]");
    app.add_option("-D,--define", options.define, "Classes to define, separated by commas")
        ->delimiter(',')
        ->allow_extra_args(false);
    app.add_option("--port", options.program.port, "Port of the host's network protocol [6127]");
    app.add_option("--timeout", options.program.timeout_seconds,
                   "Seconds that another host may take for each step, 1 to 3600 [30]")
        ->check(CLI::Range(1, 3600));
    app.add_option("--bootstrap", options.bootstrap, "HUB or HUB:PORT: make it the hub of this host, then end")
        ->check([](const std::string &text) {
            return veltrane::ParseHub(text).has_value() ? "" : "'" + text + "' is no HUB or HUB:PORT";
        });
    app.add_option("--key", options.hub_key, "With --bootstrap: the hub's key, SHA=...")
        ->needs("--bootstrap")
        ->check([](const std::string &text) {
            return veltrane::IsIdentity(text) ? "" : "'" + text + "' is no key: SHA= and 64 hex digits are expected";
        });
    app.add_flag("-I,--inform", inform, "Tell what is changed");
    app.add_flag("-v,--verbose", verbose, "Tell what is done");
    app.add_flag("-d,--debug", debug, "Tell everything");
    app.add_flag("--log-classes", options.log_classes, "Append the classes of the run to state/classes.jsonl");
    app.add_flag("--fips", options.program.fips, "Run in FIPS mode");
    app.add_flag("--diagnostics", options.diagnostics, "Check the installation, print what was found and end");
    app.add_flag("-V,--version", options.show_version, "Print the version and end");

    try {
        app.parse(argc, argv);
    } catch (const CLI::Success &help) {
        return app.exit(help);
    } catch (const CLI::ParseError &error) {
        fprintf(stderr, "%s\n%s", error.what(), app.help().c_str());
        return kWrongUsage;
    }
    if (!options.bootstrap.empty() && options.hub_key.empty()) {
        fprintf(stderr,
                "--bootstrap needs --key SHA=...: the hub's key, without which anybody could pass for the hub.\n"
                "On the hub, this prints it: vt-serverd key\n");
        return kWrongUsage;
    }
    options.program.level = debug     ? LOG_LEVEL_DEBUG
                            : verbose ? LOG_LEVEL_VERBOSE
                            : inform  ? LOG_LEVEL_INFO
                                      : LOG_LEVEL_NOTICE;
    return veltrane::RunAgent(options);
}
