// Three operations on a directory for the programs of a hub: check credentials, list the names that a search finds, and
// read one attribute of all entries page by page. Each call opens a connection of its own and keeps nothing.
//
// Common to all:
// scopes, security  "base", "onelevel", else the subtree; "sasl" binds as the given DN with the password, every other
//                   word anonymously. Both words are compared exactly, with their case.
// start_tls         encrypts; the certificate of the server is never verified
// errstr            receives why: static text, or after a failed TLS handshake new text, or NULL. A failed bind of a
//                   search leaves it untouched; a call that succeeded sets it to NULL, except VtLDAPAuthenticate
// Logs              one error line a failure; a failed bind has none. What was found is told at verbose level
// Locks             none. Options of libldap that belong to the whole process are set; see ldap_session.h
#ifndef LIBVTENTERPRISE_LDAP_LIB_H
#define LIBVTENTERPRISE_LDAP_LIB_H

#include <stddef.h>

#include <veltrane/rlist.h>
#include <veltrane/set.h>

#include "libvtenterprise/export.h"

// Whether a directory accepts these credentials.
//
// basedn                 the DN of the user
// authentication_method  NULL means "sasl". Any word but that binds anonymously and says nothing about the password,
// and
//                        so does an empty password at most servers: never call it so.
// timeout_seconds        for each operation, from now on in all of the process; 0 or less leaves it as it is
// errstr                 may be NULL; becomes NULL when the credentials are wrong
VT_EXPORT bool VtLDAPAuthenticate(const char *uri, const char *basedn, const char *passwd,
                                  const char *authentication_method, bool starttls, long timeout_seconds,
                                  const char **errstr) noexcept;

// The DNs of all entries that a search finds, each once; new, NULL on failure.
VT_EXPORT StringSet *VtLDAP_SearchDNs(const char *uri, const char *authdn, const char *password, const char *basedn,
                                      const char *filter, const char *scopes, const char *security, bool start_tls,
                                      const char **errstr) noexcept;

// The values of one attribute, named exactly, of the entries on one page of a search; new.
//
// page, results_per_page  0 means 1 and 1000. What is counted are messages of the answer, whatever they are. A page n
//                         beyond the first begins with the last message of page n - 1: whoever reads page by page gets
//                         that one twice.
// Result                  NULL on failure, and when there are none: then errstr is NULL too. An attribute that the
// first
//                         message of the answer lacks is found in no entry.
VT_EXPORT Rlist *VtLDAP_GetSingleAttributeList(const char *password, const char *uri, const char *authdn,
                                               const char *basedn, const char *filter, const char *attribute_name,
                                               const char *scopes, const char *security, bool start_tls, size_t page,
                                               size_t results_per_page, const char **errstr) noexcept;

#endif
