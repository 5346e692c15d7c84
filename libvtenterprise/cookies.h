// Cookies: this host hands a peer the cookie that it issued last time and a fresh one, which it remembers for next
// time.
//
// They lie in the database dbid_cookies (docs/formats/remote-values.md) under a host name, of which only "localhost" is
// used here. A cookie is a number of `rand` in decimal; it is no secret. The entry point ReturnCookies, declared in
// libvtenterprise/entry_points_real.h, sends both in one transaction. No lock: of two answers at once both may tell the
// same cookie before, and the later fresh one stays.
#ifndef LIBVTENTERPRISE_COOKIES_H
#define LIBVTENTERPRISE_COOKIES_H

#include "libvtenterprise/export.h"

// New text: the cookie of a host; "0" when it has none (with a verbose line) or the database does not open.
VT_EXPORT char *GetCookie(const char *host) noexcept;

// Remember the cookie of a host in place of the one before. Failure is an error line.
VT_EXPORT void PutCookie(const char *host, const char *cookie) noexcept;

// New text: a fresh cookie, which is remembered for "localhost".
VT_EXPORT char *NewCookie() noexcept;

#endif
