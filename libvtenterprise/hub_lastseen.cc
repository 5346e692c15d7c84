// One peer that a host has been in touch with, in one direction: the same peer incoming and outgoing is two items. It
// alone of the records owns both of its hosts.
#include "libvtenterprise/enterprise_install.h"
#include "libvtenterprise/record.h"

using LastSeenRecord = Record<HubLastSeen>;

const char *LastSeenDirectionToString(LastSeenDirection direction)
{
    switch (direction) {
        case LAST_SEEN_DIRECTION_OUTGOING:
            return "OUTGOING";
        case LAST_SEEN_DIRECTION_INCOMING:
            return "INCOMING";
    }
    return "UNKNOWN";
}

HubLastSeen *HubLastSeenNew(HubHost *hh, LastSeenDirection direction, const char *kh, const char *rhost, const char *ip,
                            double ago, time_t t)
{
    HubLastSeen *lastseen = LastSeenRecord::New();
    lastseen->hh = hh;
    lastseen->rhost = HubHostNew(kh, ip, rhost);
    lastseen->hrsago = ago;
    lastseen->t = t;
    lastseen->direction = direction;
    return lastseen;
}

void *HubLastSeenDup(const void *lastseen)
{
    const HubLastSeen *record = static_cast<const HubLastSeen *>(lastseen);
    if (record == nullptr) {
        return nullptr;
    }
    const HubHost *peer = record->rhost;
    return HubLastSeenNew(HubHostDup(record->hh), record->direction, peer->keyhash, peer->hostname, peer->ipaddr,
                          record->hrsago, record->t);
}

void HubLastSeenDelete(void *lastseen)
{
    HubLastSeen *record = static_cast<HubLastSeen *>(lastseen);
    if (record != nullptr) {
        HubHostDelete(record->rhost);
        HubHostDelete(record->hh);
        LastSeenRecord::Delete(record);
    }
}

int HubLastSeenCompareKeys(const void *a, const void *b, void *)
{
    if (a == nullptr || b == nullptr) {
        return -1;
    }
    const HubLastSeen *la = static_cast<const HubLastSeen *>(a);
    const HubLastSeen *lb = static_cast<const HubLastSeen *>(b);
    if (const int order = StringSafeCompare(la->rhost->keyhash, lb->rhost->keyhash); order != 0) {
        return order;
    }
    return (la->direction > lb->direction) - (la->direction < lb->direction);
}

bool HubLastSeenCompareValues(const void *a, const void *b)
{
    return a != nullptr && b != nullptr &&
           static_cast<const HubLastSeen *>(a)->t == static_cast<const HubLastSeen *>(b)->t;
}

void HubLastSeenToCSV(void *lastseen, CsvWriter *c)
{
    const HubLastSeen *record = static_cast<const HubLastSeen *>(lastseen);
    WriteNumber(c, static_cast<int>(record->direction));
    WriteText(c, record->rhost->keyhash);
    WriteText(c, record->rhost->ipaddr);
    CsvWriterFieldF(c, "%lf", record->hrsago);
    WriteNumber(c, record->t);
}

void *HubLastSeenFromAttributeList(Seq *attr)
{
    if (FieldCount(attr) != 5) {
        return nullptr;
    }
    HubLastSeen *record = LastSeenRecord::New();
    record->direction = static_cast<LastSeenDirection>(StringToLongUnsafe(FieldAt(attr, 0)));
    record->rhost = CreateEmptyHubHost();
    record->rhost->keyhash = TextAt(attr, 1);
    record->rhost->ipaddr = TextAt(attr, 2);
    (void)StringToDouble(FieldAt(attr, 3), &record->hrsago);  // 0 when it is no number
    record->t = StringToLongUnsafe(FieldAt(attr, 4));
    return record;
}

int SortLastSeen(const void *p1, const void *p2)
{
    return static_cast<const HubLastSeen *>(p1)->t > static_cast<const HubLastSeen *>(p2)->t;
}
