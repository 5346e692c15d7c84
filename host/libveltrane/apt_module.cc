// The package module "apt": dpkg-query lists, apt-get simulates and changes.
#include "libveltrane/apt_module.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <sstream>
#include <string_view>
#include <system_error>

#include "libveltrane/safe_path.h"

namespace veltrane {

namespace {

constexpr size_t kMostOutput = size_t{64} * 1024 * 1024;
constexpr size_t kLongestMessage = 300;
constexpr char kStandardPath[] = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";

// dpkg's words for what became of a package. Triggers still to run do not make it less installed.
constexpr std::array<std::string_view, 3> kInstalled = {"installed", "triggers-pending", "triggers-awaited"};
constexpr std::array<std::string_view, 5> kNotInstalled = {"not-installed", "config-files", "half-installed",
                                                           "unpacked", "half-configured"};

std::vector<std::string> Split(const std::string &text, char separator)
{
    std::vector<std::string> pieces;
    std::istringstream stream(text);
    for (std::string piece; std::getline(stream, piece, separator);) { pieces.push_back(piece); }
    return pieces;
}

// The caller's PATH, with the directories that a package's own scripts count on.
std::string FullPath()
{
    const char *const set = getenv("PATH");
    std::string path = set != nullptr && set[0] != '\0' ? set : "/usr/bin:/bin";
    const std::vector<std::string> there = Split(path, ':');
    for (const std::string &directory : Split(kStandardPath, ':')) {
        if (std::find(there.begin(), there.end(), directory) == there.end()) {
            path += ":" + directory;
        }
    }
    return path;
}

bool IsProgram(const std::string &path)
{
    struct stat status {};
    return stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) && access(path.c_str(), X_OK) == 0;
}

// The path of a program; "" when there is none. Only absolute directories of PATH count: what a relative one leads to
// depends on where we stand.
std::string FindProgram(const std::string &name)
{
    if (name.find('/') != std::string::npos) {
        return IsProgram(name) ? name : "";
    }
    for (const std::string &directory : Split(FullPath(), ':')) {
        std::string path = directory + "/" + name;
        if (directory.starts_with('/') && IsProgram(path)) {
            return path;
        }
    }
    return "";
}

// The last line that says something, fit for a message.
std::string LastLine(const std::string &text)
{
    const size_t end = text.find_last_not_of(" \t\r\n");
    if (end == std::string::npos) {
        return "";
    }
    const size_t start = text.find_last_of('\n', end);
    std::string line = text.substr(start == std::string::npos ? 0 : start + 1, end - (start + 1) + 1);
    line.resize(std::min(line.size(), kLongestMessage));
    std::replace_if(
        line.begin(), line.end(), [](char c) { return static_cast<unsigned char>(c) < 0x20; }, ' ');
    return line;
}

std::string WhyFailed(const std::string &program, const CommandResult &result)
{
    std::string why = "'" + program + "' failed: " + result.Describe();
    const std::string errors = LastLine(result.errors);
    const std::string last = errors.empty() ? LastLine(result.output) : errors;
    return last.empty() ? why : why + ": " + last;
}

std::string NotUnderstood(const std::string &program, const std::string &line)
{
    return "'" + program + "' printed what is no package: '" + LastLine(line) + "'";
}

// One line "status<TAB>name<TAB>version<TAB>architecture" of dpkg-query; false when it is none. What is not installed
// is passed over.
bool TakeInstalled(const std::string &line, std::vector<Package> *packages)
{
    const std::vector<std::string> fields = Split(line + "\t", '\t');
    if (fields.size() != 4) {
        return false;
    }
    if (std::find(kNotInstalled.begin(), kNotInstalled.end(), fields[0]) != kNotInstalled.end()) {
        return true;
    }
    if (std::find(kInstalled.begin(), kInstalled.end(), fields[0]) == kInstalled.end() ||
        !std::all_of(fields.begin() + 1, fields.end(), IsPackageText)) {
        return false;
    }
    packages->push_back({fields[1], fields[2], fields[3]});
    return true;
}

// The text between two marks, which ends up behind the second one; nothing when one of them is missing.
std::optional<std::string> Between(std::string_view *rest, std::string_view before, std::string_view after)
{
    if (!rest->starts_with(before)) {
        return std::nullopt;
    }
    rest->remove_prefix(before.size());
    const size_t end = rest->find(after);
    if (end == std::string_view::npos) {
        return std::nullopt;
    }
    std::string text(rest->substr(0, end));
    rest->remove_prefix(end);
    return text;
}

// One line "Inst name [installed] (offered Where:from, Where:else [arch])" of a simulated upgrade; false when it is
// none. Without a version in brackets it is a package that an upgrade would bring along.
bool TakeUpdate(std::string_view line, std::vector<Package> *packages)
{
    std::string_view rest = line;
    std::optional<std::string> name = Between(&rest, "Inst ", " ");
    if (!name.has_value()) {
        return false;
    }
    const bool is_update = rest.starts_with(" [");
    if (is_update && !Between(&rest, " [", "]").has_value()) {
        return false;
    }
    rest.remove_prefix(is_update ? 1 : 0);
    const std::optional<std::string> version = Between(&rest, " (", " ");
    const size_t end = rest.find("])");
    const size_t bracket = rest.rfind('[', end);
    if (!version.has_value() || end == std::string_view::npos || bracket == std::string_view::npos) {
        return false;
    }
    name->resize(std::min(name->size(), name->find(':')));  // a foreign architecture stands after the name as well
    const Package package = {*name, *version, std::string(rest.substr(bracket + 1, end - bracket - 1))};
    if (!IsPackageText(package.name) || !IsPackageText(package.version) || !IsPackageText(package.architecture)) {
        return false;
    }
    if (is_update) {
        packages->push_back(package);
    }
    return true;
}

// A simulation or a change touches the package: "Inst name " or "Conf name ", with or without ":arch".
bool Touches(const std::string &output, const std::string &name)
{
    const std::vector<std::string> lines = Split(output, '\n');
    return std::any_of(lines.begin(), lines.end(), [&name](const std::string &line) {
        for (const char *verb : {"Inst ", "Conf "}) {
            const std::string start = verb + name;
            if (line.starts_with(start) && (line[start.size()] == ' ' || line[start.size()] == ':')) {
                return true;
            }
        }
        return false;
    });
}

// As apt-get takes a package; one for all architectures is known under the machine's own.
std::string Argument(const Package &package)
{
    const bool any = package.architecture.empty() || package.architecture == "all";
    return package.name + (any ? "" : ":" + package.architecture) +
           (package.version.empty() ? "" : "=" + package.version);
}

void AppendState(const std::string &path, std::string *state)
{
    struct stat status {};
    if (stat(path.c_str(), &status) == 0) {
        *state += path + " " + std::to_string(status.st_mtim.tv_sec) + "." + std::to_string(status.st_mtim.tv_nsec) +
                  " " + std::to_string(status.st_size) + "\n";
    }
}

std::vector<std::string> NamesIn(const std::string &directory)
{
    std::vector<std::string> names;
    std::error_code error;
    for (std::filesystem::directory_iterator i(directory, error), end; !error && i != end; i.increment(error)) {
        names.push_back(i->path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

bool AllOf(const std::string &text, std::string_view allowed)
{
    return !text.empty() && text.size() <= 255 && text.find_first_not_of(allowed) == std::string::npos;
}

}  // namespace

CommandResult AptModule::Run(const std::string &program, std::vector<std::string> arguments, int seconds,
                             std::string *ret_trouble) const
{
    const std::string path = FindProgram(program);
    const std::string unsafe = path.empty() ? "" : WhyUnsafe(path);
    if (path.empty() || !unsafe.empty()) {
        *ret_trouble = "'" + program + "' " + (path.empty() ? "is not installed" : "is not run: " + unsafe);
        return {};
    }
    Command command;
    command.words = {path};
    command.words.insert(command.words.end(), arguments.begin(), arguments.end());
    command.environment = {{"LC_ALL", "C"},
                           {"PATH", FullPath()},
                           {"DEBIAN_FRONTEND", "noninteractive"},
                           {"APT_LISTCHANGES_FRONTEND", "none"}};
    command.timeout_seconds = seconds;
    command.output_limit = kMostOutput;
    CommandResult result = RunCommand(command);
    if (!result.Succeeded()) {
        *ret_trouble = WhyFailed(program, result);
    } else if (result.cut) {
        *ret_trouble = "'" + program + "' printed more than can be listed";
    }
    return result;
}

PackageListing AptModule::Installed() const
{
    PackageListing listing;
    const CommandResult result =
        Run(settings_.dpkg_query, {"-W", "-f=${db:Status-Status}\\t${Package}\\t${Version}\\t${Architecture}\\n"},
            settings_.list_seconds, &listing.trouble);
    if (!listing.Good()) {
        return listing;
    }
    for (const std::string &line : Split(result.output, '\n')) {
        if (!TakeInstalled(line, &listing.packages)) {
            return {{}, NotUnderstood(settings_.dpkg_query, line)};
        }
    }
    if (listing.packages.empty()) {  // dpkg is a package itself: this is a database that is not there
        listing.trouble = "'" + settings_.dpkg_query + "' lists no package at all";
    } else if (!result.output.ends_with('\n')) {
        return {{}, "'" + settings_.dpkg_query + "' stopped in the middle of a line"};
    }
    return listing;
}

PackageListing AptModule::Updates() const
{
    PackageListing listing;
    const CommandResult result = Run(settings_.apt_get, {"-s", "-o", "Debug::NoLocking=1", "dist-upgrade"},
                                     settings_.list_seconds, &listing.trouble);
    if (!listing.Good()) {
        return listing;
    }
    for (const std::string &line : Split(result.output, '\n')) {
        if (line.starts_with("Inst ") && !TakeUpdate(line, &listing.packages)) {
            return {{}, NotUnderstood(settings_.apt_get, line)};
        }
    }
    return listing;
}

bool AptModule::HasPackageLists() const
{
    const std::vector<std::string> names = NamesIn(settings_.package_lists);
    return std::any_of(names.begin(), names.end(),
                       [](const std::string &name) { return name.find("_Packages") != std::string::npos; });
}

std::string AptModule::UpdatesState() const
{
    std::string state;
    for (const std::string &path : {FindProgram(settings_.apt_get), settings_.package_status}) {
        AppendState(path, &state);
    }
    for (const std::string &directory :
         {settings_.package_lists, std::string("/etc/apt"), std::string("/etc/apt/preferences.d"),
          std::string("/etc/apt/apt.conf.d"), std::string("/etc/apt/sources.list.d")}) {
        AppendState(directory, &state);
        for (const std::string &name : NamesIn(directory)) { AppendState(directory + "/" + name, &state); }
    }
    return state;
}

std::string AptModule::Change(std::vector<std::string> arguments) const
{
    std::vector<std::string> all = {"-y", "-q",
                                    "-o", "Dpkg::Options::=--force-confdef",
                                    "-o", "Dpkg::Options::=--force-confold",
                                    "-o", "DPkg::Lock::Timeout=60"};
    all.insert(all.end(), arguments.begin(), arguments.end());
    std::string trouble;
    (void)Run(settings_.apt_get, std::move(all), settings_.change_seconds, &trouble);  // what it did, a listing shows
    return trouble;
}

std::string AptModule::Install(const Package &wanted) const
{
    // apt-get may take a name that it does not know for a pattern, or for one with a mark at its end that means to
    // remove: so what it would do is looked at first.
    std::string trouble;
    const CommandResult simulated =
        Run(settings_.apt_get, {"-s", "-o", "Debug::NoLocking=1", "install", "--no-remove", "--", Argument(wanted)},
            settings_.list_seconds, &trouble);
    if (!trouble.empty()) {
        return trouble;
    }
    if (!Touches(simulated.output, wanted.name)) {
        return "'" + settings_.apt_get + "' would not install '" + wanted.name + "'";
    }
    return Change({"install", "--no-remove", "--", Argument(wanted)});
}

std::string AptModule::Remove(const Package &installed) const
{
    return Change({"remove", "--", Argument({installed.name, "", installed.architecture})});
}

std::string AptModule::ManagerProgram() const
{
    const std::string path = FindProgram(settings_.apt_get);
    return path.empty() ? settings_.apt_get : path;
}

bool AptModule::IsPackageName(const std::string &text)
{
    return AllOf(text, "abcdefghijklmnopqrstuvwxyz0123456789+.-") &&
           std::string_view("+.-").find(text[0]) == std::string_view::npos;
}

bool AptModule::IsVersion(const std::string &text)
{
    return AllOf(text, "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.+~:-") && text[0] != '-';
}

bool AptModule::IsArchitecture(const std::string &text)
{
    return AllOf(text, "abcdefghijklmnopqrstuvwxyz0123456789-") && text[0] != '-';
}

}  // namespace veltrane
