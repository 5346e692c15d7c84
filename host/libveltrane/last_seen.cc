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

bool HoldsText(DBHandle *db, const std::string &key, const std::string &text)
{
    char held[128] = "";
    return ReadDB(db, key.c_str(), held, sizeof(held) - 1) && text == held;
}

// Forget the address that the peer had before, unless another peer was met there since.
void ForgetOldAddress(DBHandle *db, const std::string &identity)
{
    char old_address[64] = "";
    if (!ReadDB(db, ("k" + identity).c_str(), old_address, sizeof(old_address) - 1)) {
        return;
    }
    const std::string key = std::string("p") + old_address;
    if (HoldsText(db, key, identity)) {
        (void)DeleteDB(db, key.c_str());  // gone already when another program was quicker
    }
}

// Note where a peer was met. Most are met where they were before: then there is nothing to write.
bool NoteAddress(DBHandle *db, const std::string &identity, const std::string &address)
{
    const std::string by_peer = "k" + identity;
    const std::string by_address = "p" + address;
    if (address.empty()) {
        return true;
    }
    if (!HoldsText(db, by_peer, address)) {
        ForgetOldAddress(db, identity);
        return WriteText(db, by_peer, address) && WriteText(db, by_address, identity);
    }
    return HoldsText(db, by_address, identity) || WriteText(db, by_address, identity);
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
    if (!WriteDB(db.get(), key.c_str(), &seen, sizeof(seen)) || !NoteAddress(db.get(), identity, address)) {
        Log(LOG_LEVEL_VERBOSE, "Could not write the last-seen database: %s", GetErrorStr());
    }
}

}  // namespace veltrane
