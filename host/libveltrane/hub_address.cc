#include "libveltrane/hub_address.h"

#include <algorithm>
#include <string_view>

#include <veltrane/eval_context.h>
#include <veltrane/file_lib.h>
#include <veltrane/globals.h>
#include <veltrane/known_dirs.h>
#include <veltrane/owned.h>
#include <veltrane/string_lib.h>

#include "libveltrane/replace_file.h"

namespace veltrane {

namespace {

constexpr size_t kMostBytes = 1024;
constexpr mode_t kPrivate = 0600;
constexpr const char *kClassTags = "inventory,attribute_name=none,source=agent";

std::string Path() { return std::string(GetWorkDir()) + "/hub_address"; }

// The text up to the next line end, which is taken off as well, without the blanks around it.
std::string TakeLine(std::string_view *text)
{
    constexpr std::string_view kBlanks = " \t\r";
    const size_t end = std::min(text->find('\n'), text->size());
    const std::string_view line = text->substr(0, end);
    text->remove_prefix(std::min(end + 1, text->size()));
    const size_t first = line.find_first_not_of(kBlanks);
    return first == std::string_view::npos
               ? ""
               : std::string(line.substr(first, line.find_last_not_of(kBlanks) - first + 1));
}

}  // namespace

bool IsPortNumber(const std::string &text)
{
    long number = 0;
    constexpr size_t kMostDigits = 5;
    return text.size() <= kMostDigits && StringIsNumeric(text.c_str()) && StringToLong(text.c_str(), &number) == 0 &&
           number >= 1 && number <= 65535;
}

std::optional<HubAddress> ReadHubAddress()
{
    const WriterPtr bytes(FileRead(Path().c_str(), kMostBytes, nullptr));
    if (bytes == nullptr) {
        return std::nullopt;
    }
    std::string_view text(StringWriterData(bytes.get()));
    HubAddress hub;
    hub.host = TakeLine(&text);
    hub.port = TakeLine(&text);
    if (!IsPortNumber(hub.port)) {
        hub.port.clear();
    }
    return hub.host.empty() ? std::nullopt : std::optional(hub);
}

Trouble WriteHubAddress(const HubAddress &hub)
{
    return ReplaceFile(Path(), hub.host + "\n" + (hub.port.empty() ? "" : hub.port + "\n"), kPrivate);
}

bool IsHub()
{
    const std::optional<HubAddress> hub = ReadHubAddress();
    return hub.has_value() && hub->host == kHubItself;
}

void PutHubClasses(EvalContext *ctx)
{
    if (IsHub()) {
        EvalContextClassPutHard(ctx, "am_policy_hub", kClassTags);
        EvalContextClassPutHard(ctx, "policy_server", kClassTags);
    }
}

void UsePortOfHub()
{
    const std::optional<HubAddress> hub = ReadHubAddress();
    if (hub.has_value() && !hub->port.empty()) {
        StringCopy(hub->port.c_str(), VELTRANE_PORT_STR, sizeof(VELTRANE_PORT_STR));
    }
}

}  // namespace veltrane
