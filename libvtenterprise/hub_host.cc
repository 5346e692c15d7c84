// Hosts as the reports know them: a key hash is who a host is, everything else may change.
#include <cstdint>
#include <cstdlib>

#include <veltrane/string_lib.h>

#include "libvtenterprise/enterprise_install.h"
#include "libvtenterprise/record.h"

using HostRecord = Record<HubHost, &HubHost::keyhash, &HubHost::ipaddr, &HubHost::hostname>;

HubHost *HubHostNew(const char *keyhash, const char *ipaddr, const char *hostname)
{
    HubHost *host = HostRecord::New();
    host->keyhash = SafeStringDuplicate(keyhash);
    host->ipaddr = SafeStringDuplicate(ipaddr);
    host->hostname = SafeStringDuplicate(hostname);
    return host;
}

HubHost *CreateEmptyHubHost() { return HostRecord::New(); }

HubHost *UpdateHubHost(HubHost *host, const char *keyhash, const char *ipaddr, const char *hostname)
{
    // Copied before the old texts go: an argument may be one of them.
    char *const texts[] = {xstrdup(keyhash), xstrdup(ipaddr), xstrdup(hostname)};
    free(host->keyhash);
    free(host->ipaddr);
    free(host->hostname);
    host->keyhash = texts[0];
    host->ipaddr = texts[1];
    host->hostname = texts[2];
    return host;
}

HubHost *HubHostDup(const HubHost *host) { return HostRecord::Dup(host); }

void HubHostDelete(HubHost *host) { HostRecord::Delete(host); }

HubHost *GetHubHostIn(const Rlist *host_list, const char *keyhash)
{
    for (const Rlist *node = host_list; node != nullptr; node = node->next) {
        HubHost *host = static_cast<HubHost *>(node->val.item);
        if (StringEqual(host->keyhash, keyhash)) {
            return host;
        }
    }
    return nullptr;
}

bool HubHostEqual(const void *a, const void *b)
{
    return StringEqual(static_cast<const HubHost *>(a)->keyhash, static_cast<const HubHost *>(b)->keyhash);
}

unsigned int HubHostHash(const void *host, unsigned int)
{
    return static_cast<unsigned int>(SafeStringLength(static_cast<const HubHost *>(host)->keyhash));
}

int HubHostCompareTimestamps(const void *a, const void *b, void *user_data)
{
    const bool newest_first = user_data != nullptr && *static_cast<const bool *>(user_data);
    const uint32_t at = static_cast<uint32_t>(static_cast<const HubHost *>(a)->last_report);
    const uint32_t bt = static_cast<uint32_t>(static_cast<const HubHost *>(b)->last_report);
    return static_cast<int32_t>(newest_first ? bt - at : at - bt);  // wraps, never overflows
}
