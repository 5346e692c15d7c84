#include "libvtenterprise/cookies.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <veltrane/alloc.h>
#include <veltrane/logging.h>
#include <veltrane/net.h>
#include <veltrane/owned.h>

#include "libvtenterprise/entry_points_real.h"

namespace {

using veltrane::DBHandlePtr;
using veltrane::TextPtr;

constexpr char kOwnName[] = "localhost";
constexpr char kDefaultCookie[] = "0";
constexpr int kCookieSize = 65;  // with its zero

DBHandlePtr OpenCookies()
{
    DBHandle *db = nullptr;
    return DBHandlePtr(OpenDB(&db, dbid_cookies) ? db : nullptr);
}

void LogPathError(const char *what)
{
    const TextPtr path(DBIdToPath(dbid_cookies));
    Log(LOG_LEVEL_ERR, "%s local cookies database: '%s'", what, path.get());
}

}  // namespace

char *GetCookie(const char *host) noexcept
{
    const DBHandlePtr db = OpenCookies();
    if (db == nullptr) {
        return xstrdup(kDefaultCookie);
    }
    char cookie[kCookieSize + 1] = {};  // what lies there may lack its zero
    if (!ReadDB(db.get(), host, cookie, kCookieSize)) {
        Log(LOG_LEVEL_VERBOSE, "Could not find host '%s' in cookie database, using default cookie (0)", host);
        return xstrdup(kDefaultCookie);
    }
    return xstrdup(cookie);
}

void PutCookie(const char *host, const char *cookie) noexcept
{
    const DBHandlePtr db = OpenCookies();
    if (db == nullptr) {
        LogPathError("Failed to open");
        return;
    }
    if (!WriteDB(db.get(), host, cookie, static_cast<int>(strlen(cookie) + 1))) {
        LogPathError("Failed writing to");
    }
}

char *NewCookie() noexcept
{
    char cookie[kCookieSize];
    (void)snprintf(cookie, sizeof(cookie), "%d", rand());
    PutCookie(kOwnName, cookie);
    return xstrdup(cookie);
}

bool ReturnCookies__real(ServerConnectionState *conn) noexcept
{
    const TextPtr before(GetCookie(kOwnName));  // read before it is replaced
    const TextPtr fresh(NewCookie());
    char message[VT_BUFSIZE];
    const int length = snprintf(message, sizeof(message), "COOKIES %s %s", before.get(), fresh.get());
    return SendTransaction(conn->conn_info, message, length, 't') != -1;
}
