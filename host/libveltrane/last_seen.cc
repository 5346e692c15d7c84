#include "libveltrane/last_seen.h"

#include <algorithm>
#include <ctime>

#include <veltrane/dbm_api.h>
#include <veltrane/errors.h>
#include <veltrane/logging.h>
#include <veltrane/measure.h>
#include <veltrane/owned.h>
#include <veltrane/records.h>

namespace veltrane {

namespace {

constexpr double kWeightOfNew = 0.7;
constexpr double kSecondsPerHour = 3600.0;

// The sighting after the one that is stored; the first of a peer has no interval yet.
KeyHostSeen NextSighting(DBHandle *db, const std::string &key, time_t now)
{
    KeyHostSeen before{};
    KeyHostSeen seen{};
    if (ReadDB(db, key.c_str(), &before, sizeof(before))) {
        const double hours = static_cast<double>(std::max<time_t>(now - before.lastseen, 0)) / kSecondsPerHour;
        seen.Q = QAverage(before.Q, hours, kWeightOfNew);
    }
    seen.acknowledged = true;
    seen.lastseen = now;
    return seen;
}

bool WriteText(DBHandle *db, const std::string &key, const std::string &text)
{
    return WriteDB(db, key.c_str(), text.c_str(), static_cast<int>(text.size() + 1));
}

bool WriteAddress(DBHandle *db, const std::string &identity, const std::string &address)
{
    return address.empty() || (WriteText(db, "k" + identity, address) && WriteText(db, "p" + address, identity));
}

// Forget the address that the peer had before, unless another peer was met there since.
void ForgetOldAddress(DBHandle *db, const std::string &identity, const std::string &address)
{
    char old_address[64] = "";
    char at_old_address[128] = "";
    if (address.empty() || !ReadDB(db, ("k" + identity).c_str(), old_address, sizeof(old_address) - 1) ||
        address == old_address) {
        return;
    }
    const std::string key = std::string("p") + old_address;
    if (ReadDB(db, key.c_str(), at_old_address, sizeof(at_old_address) - 1) && identity == at_old_address) {
        (void)DeleteDB(db, key.c_str());  // gone already when another program was quicker
    }
}

}  // namespace

void NoteSeenPeer(const std::string &identity, const std::string &address, SeenDirection direction)
{
    DBHandle *opened = nullptr;
    if (!OpenDB(&opened, dbid_lastseen)) {
        Log(LOG_LEVEL_VERBOSE, "Could not open the last-seen database: %s", GetErrorStr());
        return;
    }
    const DBHandlePtr db(opened);
    const std::string key = std::string("q") + static_cast<char>(direction) + identity;
    const KeyHostSeen seen = NextSighting(db.get(), key, std::time(nullptr));
    ForgetOldAddress(db.get(), identity, address);
    if (!WriteDB(db.get(), key.c_str(), &seen, sizeof(seen)) || !WriteAddress(db.get(), identity, address)) {
        Log(LOG_LEVEL_VERBOSE, "Could not write the last-seen database: %s", GetErrorStr());
    }
}

}  // namespace veltrane
