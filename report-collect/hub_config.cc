#include "report-collect/hub_config.h"

#include <cerrno>

#include <veltrane/errors.h>
#include <veltrane/file_lib.h>
#include <veltrane/owned.h>

namespace report_collect {

namespace {

constexpr char kFileName[] = "/hub_config.json";
constexpr size_t kMaxFileBytes = 65536;
constexpr long kMostProcesses = 256;

constexpr char kProcesses[] = "max_hub_processes";
constexpr char kAvailability[] = "high_availability";
constexpr char kRole[] = "role";

bool IsObject(const JsonElement *element)
{
    return JsonGetElementType(element) == JSON_ELEMENT_TYPE_CONTAINER &&
           JsonGetContainerType(element) == JSON_CONTAINER_TYPE_OBJECT;
}

// What is wrong, or "".
std::string TakeProcesses(const JsonElement *object, HubConfig *config)
{
    const JsonElement *number = JsonObjectGet(object, kProcesses);
    if (number == nullptr) {
        return "";
    }
    const bool whole = JsonGetElementType(number) == JSON_ELEMENT_TYPE_PRIMITIVE &&
                       JsonGetPrimitiveType(number) == JSON_PRIMITIVE_TYPE_INTEGER;
    const long value = whole ? JsonPrimitiveGetAsInteger(number) : 0;
    if (value < 1 || value > kMostProcesses) {
        return std::string("'") + kProcesses + "' is no number from 1 to " + std::to_string(kMostProcesses);
    }
    config->max_hub_processes = static_cast<std::size_t>(value);
    return "";
}

std::string TakeRole(const JsonElement *object, HubConfig *config)
{
    const JsonElement *availability = JsonObjectGet(object, kAvailability);
    if (availability == nullptr) {
        return "";
    }
    const char *text = IsObject(availability) ? JsonObjectGetAsString(availability, kRole) : nullptr;
    const std::string role = text != nullptr ? text : "";
    if ((role != "active" && role != "passive") || JsonLength(availability) != 1) {
        return std::string("'") + kAvailability + "' is not {\"" + kRole + "\": \"active\"} or \"passive\"";
    }
    config->role = role == "active" ? HaRole::active : HaRole::passive;
    return "";
}

bool HoldsOnlyKnown(const JsonElement *object)
{
    size_t known = 0;
    for (const char *name : {kProcesses, kAvailability}) { known += JsonObjectGet(object, name) != nullptr ? 1 : 0; }
    return JsonLength(object) == known;
}

}  // namespace

std::optional<HubConfig> ParseHubConfig(const std::string &text, std::string *ret_error)
{
    if (text.find('\0') != std::string::npos) {
        *ret_error = "it holds a zero byte";
        return std::nullopt;
    }
    JsonElement *parsed = nullptr;
    const JsonParseError error = JsonParse(text.c_str(), &parsed);
    const veltrane::JsonPtr json(parsed);
    if (error != JSON_PARSE_OK) {
        *ret_error = std::string("it is no JSON: ") + JsonParseErrorToString(error);
        return std::nullopt;
    }
    if (!IsObject(json.get())) {
        *ret_error = "it is no object";
        return std::nullopt;
    }
    HubConfig config;
    std::string wrong = TakeProcesses(json.get(), &config);
    if (wrong.empty()) {
        wrong = TakeRole(json.get(), &config);
    }
    if (wrong.empty() && !HoldsOnlyKnown(json.get())) {
        wrong = std::string("it holds more than '") + kProcesses + "' and '" + kAvailability + "'";
    }
    if (!wrong.empty()) {
        *ret_error = wrong;
        return std::nullopt;
    }
    return config;
}

std::optional<HubConfig> ReadHubConfig(const std::string &workdir, std::string *ret_error)
{
    bool truncated = false;
    const std::string path = workdir + kFileName;
    const veltrane::WriterPtr content(FileRead(path.c_str(), kMaxFileBytes, &truncated));
    if (content == nullptr && errno == ENOENT) {
        return HubConfig();
    }
    std::string wrong;
    std::optional<HubConfig> config;
    if (content == nullptr) {
        wrong = std::string("it cannot be read. (open: ") + GetErrorStr() + ")";
    } else if (truncated) {
        wrong = "it is larger than " + std::to_string(kMaxFileBytes) + " bytes";
    } else {
        config =
            ParseHubConfig(std::string(StringWriterData(content.get()), StringWriterLength(content.get())), &wrong);
    }
    if (!config) {
        *ret_error = "'" + path + "' is refused: " + wrong;
    }
    return config;
}

}  // namespace report_collect
