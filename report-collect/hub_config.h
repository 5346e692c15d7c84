// The hub's own configuration, hub_config.json in its work directory; docs/formats/hub-config.md tells its form.
//
// It is taken whole or not at all: a file that is malformed, or holds what is not known, changes nothing.
#ifndef REPORT_COLLECT_HUB_CONFIG_H
#define REPORT_COLLECT_HUB_CONFIG_H

#include <cstddef>
#include <optional>
#include <string>

namespace report_collect {

enum class HaRole { none, active, passive };

// As it is where no file says otherwise.
struct HubConfig {
    std::size_t max_hub_processes = 4;  // hosts asked at once
    HaRole role = HaRole::none;
};

// The configuration that a text holds; nothing, with ret_error set, when it is malformed.
std::optional<HubConfig> ParseHubConfig(const std::string &text, std::string *ret_error);

// That of a work directory: as it is without a file when there is none; nothing, with ret_error set, when there is one
// that cannot be read or is malformed.
std::optional<HubConfig> ReadHubConfig(const std::string &workdir, std::string *ret_error);

}  // namespace report_collect

#endif
