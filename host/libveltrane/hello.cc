#include "libveltrane/hello.h"

#include <charconv>
#include <string>

namespace veltrane {

namespace {

constexpr std::string_view kHello = "HELLO ";

}  // namespace

int ParseHello(std::string_view text)
{
    if (!text.starts_with(kHello)) {
        return -1;
    }
    text.remove_prefix(kHello.size());
    if (text.empty() || text.size() > 4 || text.find_first_not_of("0123456789") != std::string_view::npos) {
        return -1;
    }
    int version = -1;
    std::from_chars(text.data(), text.data() + text.size(), version);
    return version;
}

int SendHello(ConnectionInfo *info, int version)
{
    const std::string text = std::string(kHello) + std::to_string(version);
    return SendTransaction(info, text.data(), static_cast<int>(text.size()), 't');
}

bool ReceiveHello(ConnectionInfo *info, int *ret_version)
{
    char payload[VT_BUFSIZE];
    bool more = false;
    const int length = ReceiveTransaction(info, payload, &more);
    if (length < 0) {
        return false;
    }
    *ret_version = more ? -1 : ParseHello(std::string_view(payload, static_cast<size_t>(length)));
    return true;
}

}  // namespace veltrane
