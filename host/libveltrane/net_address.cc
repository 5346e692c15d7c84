#include "libveltrane/net_address.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstring>
#include <optional>

#include <veltrane/logging.h>
#include <veltrane/net.h>
#include <veltrane/string_lib.h>

#include "libveltrane/hub_address.h"

namespace veltrane {

namespace {

// An address as 16 bytes, IPv4 ones in the form that IPv6 has for them, so that both compare alike.
using AddressBytes = std::array<unsigned char, 16>;
constexpr std::array<unsigned char, 12> kMapped = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};

struct Network {
    AddressBytes bytes;
    int bits;  // of the 128
};

std::optional<AddressBytes> ParseAddress(std::string_view text)
{
    const std::string copy(text);
    AddressBytes bytes{};
    if (inet_pton(AF_INET6, copy.c_str(), bytes.data()) == 1) {
        return bytes;
    }
    std::copy(kMapped.begin(), kMapped.end(), bytes.begin());
    if (inet_pton(AF_INET, copy.c_str(), bytes.data() + kMapped.size()) == 1) {
        return bytes;
    }
    return std::nullopt;
}

std::optional<Network> ParseNetwork(std::string_view text)
{
    const size_t slash = text.find('/');
    const std::string_view address = text.substr(0, slash);
    const std::optional<AddressBytes> bytes = ParseAddress(address);
    if (!bytes.has_value()) {
        return std::nullopt;
    }
    const int offset = address.find(':') == std::string_view::npos ? 96 : 0;
    if (slash == std::string_view::npos) {
        return Network{*bytes, 128};
    }
    const std::string_view digits = text.substr(slash + 1);
    int bits = -1;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), bits);
    if (error != std::errc() || end != digits.data() + digits.size() || bits < 0 || bits > 128 - offset) {
        return std::nullopt;
    }
    return Network{*bytes, offset + bits};
}

bool SameLeadingBits(const AddressBytes &a, const AddressBytes &b, int bits)
{
    const int whole = bits / 8;
    if (!std::equal(a.begin(), a.begin() + whole, b.begin())) {
        return false;
    }
    const int rest = bits % 8;
    return rest == 0 || (a[whole] ^ b[whole]) >> (8 - rest) == 0;
}

// The resolver would take a larger number modulo 65536. 0 is for binding.
bool IsPort(const std::string &text) { return text == "0" || IsPortNumber(text); }

// A socket bound to one address; -1 with errno.
int BindTo(const addrinfo &address)
{
    const int fd = socket(address.ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, address.ai_protocol);
    if (fd < 0) {
        return -1;
    }
    const int on = 1;
    const int off = 0;
    if (setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) == 0 &&
        (address.ai_family != AF_INET6 || setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof(off)) == 0) &&
        bind(fd, address.ai_addr, address.ai_addrlen) == 0) {
        return fd;
    }
    const int error = errno;
    close(fd);
    errno = error;
    return -1;
}

// "<address>:<port>" of any socket address.
std::string WithPort(const sockaddr_storage &address, socklen_t length)
{
    const std::string text = AddressText(reinterpret_cast<const sockaddr *>(&address), length);
    if (text.empty()) {
        return "";
    }
    const in_port_t port = address.ss_family == AF_INET6 ? reinterpret_cast<const sockaddr_in6 *>(&address)->sin6_port
                                                         : reinterpret_cast<const sockaddr_in *>(&address)->sin_port;
    const bool brackets = text.find(':') != std::string::npos;
    return (brackets ? "[" + text + "]" : text) + ":" + std::to_string(ntohs(port));
}

}  // namespace

AddressListPtr ResolveHost(const char *host, const char *port, int family, int flags)
{
    addrinfo hints{};
    hints.ai_family = family;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = flags | AI_NUMERICSERV;
    if (port != nullptr && !IsPort(port)) {
        errno = EINVAL;
        return nullptr;
    }
    addrinfo *found = nullptr;
    errno = 0;
    const int result = getaddrinfo(host, port, &hints, &found);
    if (result == 0) {
        return AddressListPtr(found);
    }
    if (result != EAI_SYSTEM || errno == 0) {
        errno = EHOSTUNREACH;  // the resolver has errors of its own; this is the nearest of the system's
    }
    return nullptr;
}

std::string AddressText(const sockaddr *address, socklen_t length)
{
    if (address->sa_family != AF_INET && address->sa_family != AF_INET6) {
        return "";
    }
    char text[NI_MAXHOST];
    if (getnameinfo(address, length, text, sizeof(text), nullptr, 0, NI_NUMERICHOST) != 0) {
        return "";
    }
    constexpr std::string_view kMappedText = "::ffff:";
    const std::string_view all = text;
    const bool mapped = all.starts_with(kMappedText) && all.find('.') != std::string_view::npos;
    return std::string(mapped ? all.substr(kMappedText.size()) : all);
}

std::string PeerAddress(int fd)
{
    sockaddr_storage address{};
    socklen_t length = sizeof(address);
    if (getpeername(fd, reinterpret_cast<sockaddr *>(&address), &length) != 0) {
        return "";
    }
    return AddressText(reinterpret_cast<const sockaddr *>(&address), length);
}

std::string NetworkOf(std::string_view address)
{
    const std::optional<AddressBytes> bytes = ParseAddress(address.substr(0, address.find('%')));
    if (!bytes.has_value()) {
        return "";
    }
    const bool v6 = address.find(':') != std::string_view::npos;
    return std::string(bytes->begin(), v6 ? bytes->begin() + 8 : bytes->end());
}

bool AddressIn(std::string_view address, std::string_view network)
{
    // The zone of a link-local address says by which interface, not who.
    const std::optional<AddressBytes> bytes = ParseAddress(address.substr(0, address.find('%')));
    const std::optional<Network> range = ParseNetwork(network);
    return bytes.has_value() && range.has_value() && SameLeadingBits(*bytes, range->bytes, range->bits);
}

bool IsAddressOrNetwork(std::string_view text) { return ParseNetwork(text).has_value(); }

int OpenBoundSocket(const char *bind_address, const char *port)
{
    const bool any = bind_address == nullptr || *bind_address == '\0';
    const AddressListPtr addresses = ResolveHost(any ? nullptr : bind_address, port, AF_UNSPEC, AI_PASSIVE);
    if (addresses == nullptr) {
        return -1;
    }
    // IPv6 first where every address is meant, for its socket takes IPv4 as well; a machine without IPv6 gets the
    // other.
    int fd = -1;
    for (const bool v6 : {true, false}) {
        for (const addrinfo *address = addresses.get(); address != nullptr && fd < 0; address = address->ai_next) {
            if ((address->ai_family == AF_INET6) == v6) {
                fd = BindTo(*address);
            }
        }
    }
    return fd;
}

int OpenListeningSocket(size_t queue_size, const char *bind_address, const char *port)
{
    const int fd = OpenBoundSocket(bind_address, port);
    if (fd >= 0 && !Listen(fd, queue_size)) {
        const int error = errno;
        close(fd);
        errno = error;
        return -1;
    }
    return fd;
}

bool Listen(int fd, size_t queue_size)
{
    return listen(fd, static_cast<int>(std::min<size_t>(queue_size, INT_MAX))) == 0;
}

std::string LocalAddressAndPort(int fd)
{
    sockaddr_storage address{};
    socklen_t length = sizeof(address);
    if (getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length) != 0) {
        return "";
    }
    return WithPort(address, length);
}

}  // namespace veltrane

extern "C" {

void ParseHostPort(char *text, char **ret_host, char **ret_port)
{
    char *colon = nullptr;
    bool inside = false;
    for (char *c = text; *c != '\0'; ++c) {
        if (*c == '[') {
            inside = true;
        } else if (*c == ']') {
            inside = false;
        } else if (*c == ':' && !inside) {
            colon = c;
        }
    }
    char *port = nullptr;
    if (colon != nullptr) {
        *colon = '\0';
        port = colon[1] != '\0' ? colon + 1 : nullptr;  // nothing after the colon says no port
    }
    const size_t length = strlen(text);
    if (text[0] == '[' && text[length - 1] == ']') {
        text[length - 1] = '\0';
        ++text;
    }
    *ret_host = text;
    *ret_port = port;
}

ProtocolVersion ParseProtocolVersionPolicy(const char *text)
{
    if (text == nullptr || *text == '\0' || StringEqual(text, "undefined")) {
        return VT_PROTOCOL_UNDEFINED;
    }
    struct Name {
        const char *text;
        ProtocolVersion version;
    };
    static constexpr Name kNames[] = {
        {"classic", VT_PROTOCOL_CLASSIC},
        {"1", VT_PROTOCOL_CLASSIC},
        {"tls", VT_PROTOCOL_TLS},
        {"2", VT_PROTOCOL_TLS},
        {"cookie", VT_PROTOCOL_COOKIE},
        {"3", VT_PROTOCOL_COOKIE},
        {"filestream", VT_PROTOCOL_FILESTREAM},
        {"4", VT_PROTOCOL_FILESTREAM},
        {"latest", VT_PROTOCOL_FILESTREAM},
    };
    for (const Name &name : kNames) {
        if (StringEqual(text, name.text)) {
            return name.version;
        }
    }
    Log(LOG_LEVEL_ERR, "Unknown protocol version '%s'", text);
    return VT_PROTOCOL_UNDEFINED;
}

char *PolicyServerGetIP(void)
{
    const std::optional<veltrane::HubAddress> hub = veltrane::ReadHubAddress();
    if (!hub.has_value()) {
        return nullptr;
    }
    if (hub->host == veltrane::kHubItself) {
        return SafeStringDuplicate(veltrane::kHubItself);
    }
    const veltrane::AddressListPtr addresses = veltrane::ResolveHost(hub->host.c_str(), nullptr, AF_UNSPEC, 0);
    if (addresses == nullptr) {
        return nullptr;
    }
    const std::string address = veltrane::AddressText(addresses->ai_addr, addresses->ai_addrlen);
    return address.empty() ? nullptr : SafeStringDuplicate(address.c_str());
}

}  // extern "C"
