// vt-hub: asks hosts for their reports and shows what they sent.
#include <CLI/CLI.hpp>

#include <unistd.h>
#include <iostream>
#include <string>

#include <veltrane/entry_points.h>
#include <veltrane/extension.h>
#include <veltrane/globals.h>
#include <veltrane/logging.h>
#include <veltrane/net.h>
#include <veltrane/owned.h>

#include "libveltrane/privilege.h"
#include "libveltrane/program.h"
#include "libveltrane/trust_commands.h"
#include "vt-hub/ldap_commands.h"
#include "vt-hub/listen.h"
#include "vt-hub/query.h"
#include "vt-hub/reply_output.h"
#include "vt-hub/stream_file.h"

namespace {

constexpr int kFailure = 1;
constexpr int kWrongUsage = 2;

struct Arguments {
    veltrane::ProgramOptions program;
    int loudness = 0;  // how many steps above the usual log level
    vthub::Query query;
    std::string target;  // HOST[:PORT]
    vthub::ListenOptions listen;
    vthub::OutputOptions output;
    std::string file;
    std::string show_type = "delta";
    std::string trust_file;
    std::string trust_identity;
    vthub::LdapRequest ldap;
};

int Show(const Arguments &arguments, const std::string &identity, const std::string &type,
         const std::vector<std::string> &lines)
{
    const bool written = vthub::WriteReply(std::cout, arguments.output, identity, type, lines);
    return written && std::cout.flush() ? 0 : kFailure;
}

int Collect(Arguments &arguments)
{
    char *host = nullptr;
    char *port = nullptr;
    ParseHostPort(arguments.target.data(), &host, &port);
    if (host == nullptr || *host == '\0') {
        std::cerr << "vt-hub: no host in '" << arguments.target << "'\n";
        return kWrongUsage;
    }
    arguments.query.host = host;
    arguments.query.port = port != nullptr ? port : "";
    arguments.query.timeout_seconds = static_cast<unsigned>(CONNTIMEOUT);
    vtnet_Init();
    if (!vtnet_IsInitialized()) {
        return kFailure;
    }
    // A host's answer is read without the rights that reading it does not need; the plug-in is loaded already.
    const std::string why = veltrane::EnterSandbox();
    if (!why.empty()) {
        Log(LOG_LEVEL_ERR, "Could not give up privileges. (%s)", why.c_str());
        return kFailure;
    }
    const std::optional<vthub::Reply> reply = vthub::AskHost(arguments.query);
    const int status = reply ? Show(arguments, reply->identity, arguments.query.type, reply->lines) : kFailure;
    vtnet_Shut();
    return status;
}

int ListenForCalls(Arguments &arguments)
{
    arguments.listen.output = arguments.output;
    vtnet_Init();
    if (!vtnet_IsInitialized()) {
        return kFailure;
    }
    const int status = vthub::Listen(arguments.listen);
    vtnet_Shut();
    return status;
}

int ShowFile(const Arguments &arguments)
{
    const std::optional<std::vector<std::string>> lines = vthub::ReadStreamFile(arguments.file);
    return lines ? Show(arguments, "(" + arguments.file + ")", arguments.show_type, *lines) : kFailure;
}

int PrintVersion()
{
    const veltrane::WriterPtr writer(StringWriter());
    GenericAgentWriteVersion(writer.get());
    std::cout << StringWriterData(writer.get());
    return 0;
}

LogLevel LevelFor(int loudness)
{
    return loudness <= 0   ? LOG_LEVEL_NOTICE
           : loudness == 1 ? LOG_LEVEL_INFO
           : loudness == 2 ? LOG_LEVEL_VERBOSE
                           : LOG_LEVEL_DEBUG;
}

void DescribeOutput(CLI::App *command, Arguments &arguments)
{
    command->add_flag("--raw", arguments.output.raw, "Print the stream itself, a line each");
    command->add_flag("--wide", arguments.output.wide, "Show all columns, and never cut a cell of a table");
}

void DescribeCollect(CLI::App &app, Arguments &arguments)
{
    CLI::App *collect = app.add_subcommand("collect", "Ask a host for its reports and show them");
    collect->add_option("HOST[:PORT]", arguments.target, "The host to ask")->required();
    collect
        ->add_option("--type", arguments.query.type,
                     "delta: what changed; rebase: the whole state, after which the host forgets its change history")
        ->required()
        ->check(CLI::IsMember({"delta", "rebase"}));
    collect->add_option("--since", arguments.query.since, "Start of the wanted period, seconds since the epoch")
        ->check(CLI::NonNegativeNumber);
    collect->add_option("--key", arguments.query.key, "Accept only the host with this key (SHA=...)");
    DescribeOutput(collect, arguments);
}

void DescribeListen(CLI::App &app, Arguments &arguments)
{
    CLI::App *listen = app.add_subcommand(
        "listen", "Wait for hosts that call, ask each for its reports and show them, until a signal ends it");
    listen
        ->add_option("--type", arguments.listen.type,
                     "delta: what changed (the default); rebase: the whole state, after which the host forgets its "
                     "change history")
        ->check(CLI::IsMember({"delta", "rebase"}));
    listen->add_option("--since", arguments.listen.since, "Start of the wanted period, seconds since the epoch (0)")
        ->check(CLI::NonNegativeNumber);
    listen->add_option("--count", arguments.listen.count, "End after so many hosts have answered")
        ->check(CLI::Range(1, 1000000000));
    DescribeOutput(listen, arguments);
}

void DescribeShow(CLI::App &app, Arguments &arguments)
{
    CLI::App *show = app.add_subcommand("show", "Show a report stream kept in a file");
    show->add_option("FILE", arguments.file, "What 'collect --raw' or a host's report dump wrote; - for standard input")
        ->required();
    show->add_option("--type", arguments.show_type, "What was asked for: in a rebase an absent state is an empty one")
        ->check(CLI::IsMember({"delta", "rebase"}));
    DescribeOutput(show, arguments);
}

void DescribeTrust(CLI::App &app, Arguments &arguments)
{
    app.add_subcommand("key", "Print this hub's key and where its public part lies");
    CLI::App *trust = app.add_subcommand("trust", "The keys that this hub trusts");
    trust->require_subcommand(1);
    CLI::App *add = trust->add_subcommand("add", "Trust a host's public key");
    add->add_option("KEYFILE", arguments.trust_file, "The host's keys/host.pub")->required();
    add->add_option("IDENTITY", arguments.trust_identity, "The SHA=... that the file must hold");
    CLI::App *remove = trust->add_subcommand("remove", "Trust a key no longer");
    remove->add_option("IDENTITY", arguments.trust_identity, "The key, SHA=...")->required();
    trust->add_subcommand("list", "List the trusted keys");
}

void DescribeLdap(CLI::App &app, vthub::LdapRequest &request)
{
    CLI::App *ldap = app.add_subcommand("ldap", "Ask a directory (LDAP); certificates of servers are not verified");
    ldap->require_subcommand(1);
    CLI::App *check = ldap->add_subcommand("check", "Is this password right? Exit status 0 when it is");
    check->add_option("--dn", request.dn, "Whose password it is")->required();
    CLI::App *search = ldap->add_subcommand("search", "The names of the entries that a search finds");
    CLI::App *list = ldap->add_subcommand("list", "The values of one attribute, a page of entries at a time");
    list->add_option("ATTRIBUTE", request.attribute, "Its name, exactly")->required();
    list->add_option("--page", request.page, "Which page (1); each begins with the last message of the one before")
        ->check(CLI::Range(1, 1000000000));
    list->add_option("--per-page", request.per_page, "Messages a page (1000)")->check(CLI::Range(1, 1000000000));
    for (CLI::App *one : {search, list}) {
        one->add_option("--base", request.base, "Where to search")->required();
        one->add_option("--filter", request.filter, "For what, as '(cn=*)'; else for everything");
        one->add_option("--scope", request.scope, "base, onelevel or subtree (subtree)")
            ->check(CLI::IsMember({"base", "onelevel", "subtree"}));
        one->add_option("--dn", request.dn, "Search as this user, with a password; else as nobody");
    }
    for (CLI::App *one : {check, search, list}) {
        one->add_option("--uri", request.uri, "The directory, as ldap://host:389")->required();
        one->add_option("--password-file", request.password_file,
                        "The password is its first line; else that of standard input");
        one->add_flag("--starttls", request.starttls, "Encrypt");
    }
}

int RunLdap(const CLI::App *ldap, Arguments &arguments)
{
    arguments.ldap.timeout_seconds = arguments.program.timeout_seconds;
    if (ldap->got_subcommand("check")) {
        return vthub::LdapCheck(arguments.ldap);
    }
    return ldap->got_subcommand("search") ? vthub::LdapSearch(arguments.ldap) : vthub::LdapList(arguments.ldap);
}

int Run(CLI::App &app, Arguments &arguments)
{
    if (app.got_subcommand("ldap")) {
        return RunLdap(app.get_subcommand("ldap"), arguments);
    }
    if (app.got_subcommand("collect")) {
        return Collect(arguments);
    }
    if (app.got_subcommand("listen")) {
        return ListenForCalls(arguments);
    }
    if (app.got_subcommand("show")) {
        return ShowFile(arguments);
    }
    if (app.got_subcommand("key")) {
        return veltrane::KeyCommand();
    }
    const CLI::App *trust = app.get_subcommand("trust");
    if (trust->got_subcommand("add")) {
        return veltrane::TrustAddCommand(arguments.trust_file, arguments.trust_identity);
    }
    if (trust->got_subcommand("remove")) {
        return veltrane::TrustRemoveCommand(arguments.trust_identity);
    }
    return veltrane::TrustListCommand();
}

}  // namespace

// NOLINTNEXTLINE(bugprone-exception-escape): thrown while options are declared, it is our mistake and ends us
int main(int argc, char **argv)
{
    Arguments arguments;
    bool version = false;
    CLI::App app("Collects the reports of hosts and shows them.", "vt-hub");
    app.require_subcommand(0, 1);
    app.fallthrough();
    app.add_option("--workdir", arguments.program.workdir, "Work directory")->envname("VELTRANE_WORKDIR");
    app.add_flag(
        "-I,--inform", [&](std::int64_t) { arguments.loudness = std::max(arguments.loudness, 1); }, "Log more");
    app.add_flag(
        "-v,--verbose", [&](std::int64_t) { arguments.loudness = std::max(arguments.loudness, 2); }, "Log much");
    app.add_flag(
        "-d,--debug", [&](std::int64_t) { arguments.loudness = 3; }, "Log everything");
    app.add_option("--timeout", arguments.program.timeout_seconds,
                   "Seconds that a host may take for each step, 1 to 3600 (30)")
        ->check(CLI::Range(1, 3600));
    app.add_flag("--fips", arguments.program.fips, "Run in FIPS mode");
    app.add_flag("-V,--version", version, "Print the versions and leave");
    DescribeCollect(app, arguments);
    DescribeListen(app, arguments);
    DescribeShow(app, arguments);
    DescribeTrust(app, arguments);
    DescribeLdap(app, arguments.ldap);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? 0 : kWrongUsage;
    }
    arguments.program.level = LevelFor(arguments.loudness);
    arguments.output.terminal = isatty(STDOUT_FILENO) != 0;
    if (!veltrane::StartProgram(arguments.program)) {
        return kFailure;
    }
    Vesk_Initialize(nullptr);
    if (version) {
        return PrintVersion();
    }
    if (app.get_subcommands().empty()) {
        std::cerr << app.help();
        return kWrongUsage;
    }
    return Run(app, arguments);
}
