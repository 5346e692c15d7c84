// Asking a directory on the command line.
#include "vt-hub/ldap_commands.h"

#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <iostream>
#include <optional>

#include <libvtenterprise/ldap_lib.h>
#include <veltrane/errors.h>
#include <veltrane/extension.h>
#include <veltrane/logging.h>
#include <veltrane/owned.h>

#include "libveltrane/file_bytes.h"
#include "libveltrane/privilege.h"
#include "vt-hub/table.h"

namespace vthub {

namespace {

constexpr int kFound = 0;
constexpr int kNotFound = 1;  // refused or failed, too
constexpr int kWrongUsage = 2;
constexpr size_t kLongestPassword = 4096;

// What errstr is before a call: a failed bind leaves it so.
constexpr char kUntouched[] = "the directory did not let us in";

// The functions of the plug-in, or none after one error line.
template <typename Function>
Function *Find(Function *, const char *name)
{
    void *library = enterprise_library();
    if (library == nullptr) {
        Log(LOG_LEVEL_ERR, "Asking a directory needs the enterprise plug-in, and it is not installed");
        return nullptr;
    }
    void *address = shlib_load(library, name);
    if (address == nullptr) {
        Log(LOG_LEVEL_ERR, "The enterprise plug-in lacks '%s'", name);
    }
    return reinterpret_cast<Function *>(address);
}

// While it lives, a terminal shows nothing of what is typed.
class NoEcho {
  public:
    NoEcho() : is_terminal_(tcgetattr(STDIN_FILENO, &before_) == 0)
    {
        if (is_terminal_) {
            std::cerr << "Password: " << std::flush;
            termios quiet = before_;
            quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
            (void)tcsetattr(STDIN_FILENO, TCSAFLUSH, &quiet);
        }
    }
    ~NoEcho()
    {
        if (is_terminal_) {
            (void)tcsetattr(STDIN_FILENO, TCSAFLUSH, &before_);
            std::cerr << '\n';
        }
    }
    NoEcho(const NoEcho &) = delete;
    NoEcho &operator=(const NoEcho &) = delete;

  private:
    termios before_{};
    bool is_terminal_;
};

// The bytes of standard input up to the end of its first line.
veltrane::Trouble ReadTypedLine(std::string *ret_bytes)
{
    const NoEcho quiet;
    char byte = 0;
    ssize_t n = 0;
    while (ret_bytes->size() <= kLongestPassword && ret_bytes->find('\n') == std::string::npos &&
           ((n = read(STDIN_FILENO, &byte, 1)) > 0 || (n < 0 && errno == EINTR))) {
        if (n > 0) {
            *ret_bytes += byte;
        }
    }
    return n < 0 ? veltrane::Trouble(std::string("could not read it (read: ") + GetErrorStr() + ")") : std::nullopt;
}

veltrane::Trouble ReadPasswordFile(const std::string &path, std::string *ret_bytes)
{
    veltrane::Handle handle;
    veltrane::Descriptor fd;
    bool cut = false;
    veltrane::Trouble trouble = veltrane::OpenHandle(path, &handle);
    if (!trouble.has_value()) {
        trouble = veltrane::OpenRegular(handle, path, &fd);
    }
    return trouble.has_value() ? trouble : veltrane::ReadUpTo(fd.Get(), path, kLongestPassword + 1, ret_bytes, &cut);
}

// The first line that the request names; nothing after one line that says why. An empty password is none: most servers
// take it for nobody's, whoever is named, and let that in.
std::optional<std::string> ReadPassword(const LdapRequest &request)
{
    std::string bytes;
    const veltrane::Trouble trouble =
        request.password_file.empty() ? ReadTypedLine(&bytes) : ReadPasswordFile(request.password_file, &bytes);
    if (trouble.has_value()) {
        Log(LOG_LEVEL_ERR, "No password: %s", trouble->c_str());
        return std::nullopt;
    }
    bytes.resize(std::min(bytes.find('\n'), bytes.size()));
    if (bytes.empty() || bytes.size() > kLongestPassword || bytes.find('\0') != std::string::npos) {
        Log(LOG_LEVEL_ERR, "No password: it must have from 1 to %zu bytes, and none of them zero", kLongestPassword);
        return std::nullopt;
    }
    return bytes;
}

// The library that asks directories reads its time-outs from the environment, at its first use.
void SetTimeouts(const LdapRequest &request)
{
    if (request.timeout_seconds > 0) {
        for (const char *name : {"LDAPTIMEOUT", "LDAPNETWORK_TIMEOUT"}) {
            (void)setenv(name, std::to_string(request.timeout_seconds).c_str(), 1);
        }
    }
}

// What a directory answers is read without the rights that reading it does not need.
bool GiveUpRights()
{
    const std::string why = veltrane::EnterSandbox();
    if (!why.empty()) {
        Log(LOG_LEVEL_ERR, "Could not give up privileges. (%s)", why.c_str());
    }
    return why.empty();
}

// Whom a search is made as.
struct Searcher {
    std::string password;
    const char *security = "none";
};

std::optional<Searcher> MakeSearcher(const LdapRequest &request)
{
    Searcher searcher;
    if (!request.dn.empty()) {
        std::optional<std::string> password = ReadPassword(request);
        if (!password.has_value()) {
            return std::nullopt;
        }
        searcher = {std::move(*password), "sasl"};
    }
    SetTimeouts(request);
    return GiveUpRights() ? std::optional(searcher) : std::nullopt;
}

int Failed(const LdapRequest &request, const char *error)
{
    Log(LOG_LEVEL_ERR, "No answer from '%s': %s", Printable(request.uri).c_str(),
        error != nullptr ? Printable(error).c_str() : "no reason is known");
    return kNotFound;
}

int Finish(bool found)
{
    if (!std::cout.flush()) {
        return kNotFound;
    }
    if (!found) {
        Log(LOG_LEVEL_NOTICE, "Nothing found");
    }
    return found ? kFound : kNotFound;
}

}  // namespace

int LdapCheck(const LdapRequest &request)
{
    const auto authenticate = Find(&VtLDAPAuthenticate, "VtLDAPAuthenticate");
    if (authenticate == nullptr) {
        return kNotFound;
    }
    if (request.dn.empty()) {
        std::cerr << "vt-hub: whose password is it? --dn is empty\n";
        return kWrongUsage;
    }
    const std::optional<std::string> password = ReadPassword(request);
    if (!password.has_value()) {
        return kNotFound;
    }
    SetTimeouts(request);
    if (!GiveUpRights()) {
        return kNotFound;
    }
    const char *error = kUntouched;
    // No method word but this one looks at the password at all.
    if (authenticate(request.uri.c_str(), request.dn.c_str(), password->c_str(), "sasl", request.starttls,
                     request.timeout_seconds, &error)) {
        std::cout << "accepted\n";
        return Finish(true);
    }
    if (error != nullptr) {
        return Failed(request, error);
    }
    std::cout << "refused\n";
    std::cout.flush();
    return kNotFound;
}

int LdapSearch(const LdapRequest &request)
{
    const auto search = Find(&VtLDAP_SearchDNs, "VtLDAP_SearchDNs");
    const std::optional<Searcher> as = search != nullptr ? MakeSearcher(request) : std::nullopt;
    if (!as.has_value()) {
        return kNotFound;
    }
    const char *error = kUntouched;
    const veltrane::StringSetPtr names(search(request.uri.c_str(), request.dn.c_str(), as->password.c_str(),
                                              request.base.c_str(), request.filter.c_str(), request.scope.c_str(),
                                              as->security, request.starttls, &error));
    if (names == nullptr) {
        return Failed(request, error);
    }
    StringSetIterator i = StringSetIteratorInit(names.get());
    while (const char *name = StringSetIteratorNext(&i)) { std::cout << Printable(name) << '\n'; }
    return Finish(StringSetSize(names.get()) > 0);
}

int LdapList(const LdapRequest &request)
{
    const auto get = Find(&VtLDAP_GetSingleAttributeList, "VtLDAP_GetSingleAttributeList");
    const std::optional<Searcher> as = get != nullptr ? MakeSearcher(request) : std::nullopt;
    if (!as.has_value()) {
        return kNotFound;
    }
    const char *error = kUntouched;
    const veltrane::RlistPtr values(get(as->password.c_str(), request.uri.c_str(), request.dn.c_str(),
                                        request.base.c_str(), request.filter.c_str(), request.attribute.c_str(),
                                        request.scope.c_str(), as->security, request.starttls, request.page,
                                        request.per_page, &error));
    if (values == nullptr && error != nullptr) {
        return Failed(request, error);
    }
    for (const Rlist *node = values.get(); node != nullptr; node = node->next) {
        std::cout << Printable(RlistScalarValue(node)) << '\n';
    }
    return Finish(values != nullptr);
}

}  // namespace vthub
