// vt-monitord: measures this machine, and keeps what it measured for the reports. It runs in the foreground.
//
// Exit status: 0 when it was told to end, or measured once and kept all of it; 1 when the work directory is in trouble,
// another one is at work there, or something could not be kept; 2 for wrong usage.
#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdio>
#include <iostream>

#include <veltrane/entry_points.h>
#include <veltrane/known_dirs.h>
#include <veltrane/logging.h>
#include <veltrane/owned.h>

#include "libveltrane/program.h"
#include "vt-monitord/monitor_daemon.h"

namespace {

constexpr int kFailure = 1;
constexpr int kWrongUsage = 2;
constexpr int kUsualInterval = 300;
constexpr int kLongestInterval = 86400;

struct Arguments {
    veltrane::ProgramOptions program;
    int interval = kUsualInterval;
    bool once = false;
    bool version = false;
};

void DescribeOptions(CLI::App &app, Arguments &arguments)
{
    app.add_option("--workdir", arguments.program.workdir,
                   "Work directory (else the environment's VELTRANE_WORKDIR, else /var/veltrane)");
    app.add_flag("--once", arguments.once, "Measure once and end");
    app.add_option("--interval", arguments.interval, "Seconds from one measurement to the next, 1 to 86400 (300)")
        ->check(CLI::Range(1, kLongestInterval));
    const auto raise = [&arguments](LogLevel level) {
        return [&arguments, level] { arguments.program.level = std::max(arguments.program.level, level); };
    };
    app.add_flag_callback("-I,--inform", raise(LOG_LEVEL_INFO), "Say what is done");
    app.add_flag_callback("-v,--verbose", raise(LOG_LEVEL_VERBOSE), "Say more");
    app.add_flag_callback("-d,--debug", raise(LOG_LEVEL_DEBUG), "Say everything");
    app.add_flag("-V,--version", arguments.version, "Print the version and end");
    app.footer("SIGHUP measures at once, SIGTERM and SIGINT end it.");
}

int PrintVersion(const Arguments &arguments)
{
    if (!arguments.program.workdir.empty()) {
        SetWorkDir(arguments.program.workdir.c_str());  // where the plug-in is looked for
    }
    const veltrane::WriterPtr writer(StringWriter());
    GenericAgentWriteVersion(writer.get());
    std::cout << StringWriterData(writer.get()) << std::flush;
    return std::cout.good() ? 0 : kFailure;
}

}  // namespace

// NOLINTNEXTLINE(bugprone-exception-escape): thrown while options are declared, it is our mistake and ends us
int main(int argc, char **argv)
{
    Arguments arguments;
    CLI::App app("Measures this machine every few minutes, for the reports that a hub asks for.", "vt-monitord");
    DescribeOptions(app, arguments);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? 0 : kWrongUsage;
    }
    if (arguments.version) {
        return PrintVersion(arguments);
    }
    if (!veltrane::StartProgram(arguments.program) || !vtmonitord::LockMonitor()) {
        return kFailure;
    }
    if (arguments.once) {
        return vtmonitord::MeasureOnce() ? 0 : kFailure;
    }
    return vtmonitord::MeasureUntilStopped(arguments.interval);
}
