#include "vt-serverd/announcement.h"

#include <cstdio>
#include <cstdlib>
#include <string>

#include <veltrane/entry_points.h>
#include <veltrane/errors.h>
#include <veltrane/eval_context.h>
#include <veltrane/logging.h>
#include <veltrane/owned.h>

#include "libveltrane/net_address.h"
#include "libveltrane/replace_file.h"

namespace vtserverd {

namespace {

constexpr mode_t kForEverybody = 0644;  // the discovery service runs as a user of its own

// The line with the name of this hub; "" when it cannot be had.
std::string NameLine()
{
    char *text = nullptr;
    size_t size = 0;
    FILE *file = open_memstream(&text, &size);
    if (file == nullptr) {
        return "";
    }
    FprintAvahiVeltraneTag(file);
    const bool whole = fclose(file) == 0;
    const veltrane::TextPtr owner(text);
    return whole ? std::string(text, size) : "";
}

std::string ServiceGroup(const std::string &name_line, const std::string &port)
{
    return "<?xml version=\"1.0\" standalone=\"no\"?>\n"
           "<!DOCTYPE service-group SYSTEM \"avahi-service.dtd\">\n"
           "<service-group>\n"
           "  " +
           name_line +
           "  <service>\n"
           "    <type>_veltrane._tcp</type>\n"
           "    <port>" +
           port +
           "</port>\n"
           "  </service>\n"
           "</service-group>\n";
}

}  // namespace

void AnnounceHub(const ServedPolicy &policy, int listener)
{
    const std::string &path = policy.Settings().service_announcement;
    if (path.empty() ||
        CheckClassExpression(policy.Context(), "am_policy_hub|policy_server") != EXPRESSION_VALUE_TRUE) {
        return;
    }
    const std::string address = veltrane::LocalAddressAndPort(listener);
    const std::string name_line = NameLine();
    const std::string text = ServiceGroup(name_line, address.substr(address.rfind(':') + 1));
    const veltrane::Trouble trouble = name_line.empty() ? veltrane::Trouble("its name cannot be written")
                                                        : veltrane::ReplaceFile(path, text, kForEverybody);
    if (trouble.has_value()) {
        Log(LOG_LEVEL_ERR, "This hub is not announced: %s", trouble->c_str());
        return;
    }
    Log(LOG_LEVEL_VERBOSE, "This hub is announced in '%s'", path.c_str());
}

}  // namespace vtserverd
