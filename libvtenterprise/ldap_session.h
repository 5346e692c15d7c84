// One conversation with a directory: connect, bind, search once, walk the answer, unbind.
//
// Invariant: nothing outlives the call that opened it, with one exception that callers of this plug-in rely on: a
// handle whose StartTLS or bind failed is left as it is. It is never unbound, so each such failure costs its process
// the handle and, where there was a connection, a descriptor.
//
// Three options of libldap belong to the whole process and are set again with every connection: certificates of
// servers are never verified, referrals are never followed, and the time-out is the one that a caller asked for last.
// Nothing sets them back. Where no caller ever asked, libldap's own configuration decides how long a silent server is
// waited for (TIMEOUT and NETWORK_TIMEOUT of ldap.conf, LDAPTIMEOUT and LDAPNETWORK_TIMEOUT of the environment), and
// without any it is waited for without end.
#ifndef LIBVTENTERPRISE_LDAP_SESSION_H
#define LIBVTENTERPRISE_LDAP_SESSION_H

#include <ldap.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>

#include <veltrane/owned.h>

// A handle for a server, which is not asked before something is sent to it, unless starttls.
//
// timeout_seconds  of every operation from now on, in all of the process; 0 or less leaves it as it is
// errstr           may be NULL. On failure it receives why: static text of libldap, except that a failed TLS handshake
//                  gives the diagnostic message of the handle, which is new and may be NULL
// Result           NULL on failure, after one error line
LDAP *VeskLDAPConnect(const char *uri, bool starttls, long timeout_seconds, const char **errstr);

// Bind: sec "sasl" as basedn with password (NULL is an empty one), every other word anonymously. The code of libldap.
int VeskLDAPAuthenticate(LDAP *ld, const char *basedn, const char *sec, const char *password);

// "base", "onelevel", "subtree", in exactly these letters; anything else is the subtree.
int VeskStr2Scope(const char *scope);

namespace ldap_session {

struct Unbinder {
    void operator()(LDAP *ld) const;
};
using LdapPtr = std::unique_ptr<LDAP, Unbinder>;

struct MessageFreer {
    void operator()(LDAPMessage *message) const { (void)ldap_msgfree(message); }
};
using MessagePtr = std::unique_ptr<LDAPMessage, MessageFreer>;

struct MemoryFreer {
    void operator()(char *text) const { ldap_memfree(text); }
};
using LdapText = std::unique_ptr<char, MemoryFreer>;

struct ValuesFreer {
    void operator()(berval **values) const { ldap_value_free_len(values); }
};
using ValuesPtr = std::unique_ptr<berval *[], ValuesFreer>;

// What a session is opened with; texts are lent. The password may be NULL.
struct Login {
    const char *uri;
    const char *dn;
    const char *security;
    const char *password;
    bool starttls;
};

// Connect without a time-out of its own, and bind. NULL on failure; only a failed connection sets errstr (may be NULL).
LdapPtr Open(const Login &login, const char **errstr);

struct Question {
    const char *base;
    const char *filter;
    const char *scope;  // a scope word
};

// Search for all attributes, without limits. NULL on failure, after one error line; *ret_code is then why.
MessagePtr Search(LDAP *ld, const Question &question, int *ret_code);

// What to do after an entry.
enum class Then { kGoOn, kStop };

struct Walk {
    const char *success_line;     // for a search that succeeded: %d entries, %d references
    bool tells_unknown = false;   // whether a message of another type is logged
    std::size_t first = 0;        // messages are counted from 1, whatever they are:
    std::size_t last = SIZE_MAX;  // those below first are passed over, the walk ends behind last
};

// Walk the messages of an answer. Entries go to visit; results and references are logged.
//
// Result  true at the end, or when visit stopped; false after one error line for a message that cannot be parsed,
//         *ret_code is then why
bool WalkMessages(LDAP *ld, LDAPMessage *answer, const Walk &walk, const std::function<Then(LDAPMessage *)> &visit,
                  int *ret_code);

// Visit the attribute names of one message; what is no entry has none.
void ForEachAttribute(LDAP *ld, LDAPMessage *names_of, const std::function<Then(const char *name)> &visit);

// The values of an attribute of an entry, ended by NULL; NULL when it has no such attribute.
inline ValuesPtr ValuesOf(LDAP *ld, LDAPMessage *entry, const char *name)
{
    return ValuesPtr(ldap_get_values_len(ld, entry, name));
}

// The first value, or NULL. Lent.
inline const berval *FirstOf(const ValuesPtr &values) { return values != nullptr ? values[0] : nullptr; }

// The text of a value: its bytes up to a zero. Lent by the value, which libldap ends with a zero.
inline const char *TextOf(const berval *value) { return value->bv_val != nullptr ? value->bv_val : ""; }

// Walk an answer and keep every value of one attribute, named exactly, of each entry that is visited.
//
// The names of attributes are those of the first message of the answer, for every entry: callers rely on it. So an
// attribute that the first message lacks is found in no entry, and none at all where that message is no entry.
// Result  as WalkMessages; *ret_values is set when it is true
bool CollectValues(LDAP *ld, LDAPMessage *answer, const Walk &walk, const char *name, veltrane::RlistPtr *ret_values,
                   int *ret_code);

}  // namespace ldap_session

#endif
