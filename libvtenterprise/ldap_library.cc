// libldap's functions, handed on. The names and types are those of its header, so that a row that differs from it does
// not compile.
#define LDAP_DEPRECATED 1  // anonymous simple bind, lists of referrals, unbind
#include "libvtenterprise/ldap_library.h"

#include <dlfcn.h>
#include <ldap.h>

#include <string>

namespace {

struct Library {
    Library() : handle(dlopen(VT_LDAP_LIBRARY, RTLD_NOW | RTLD_LOCAL))
    {
        if (handle == nullptr) {
            const char *said = dlerror();
            why = said != nullptr ? said : VT_LDAP_LIBRARY;
        }
    }

    void *const handle;
    std::string why;
};

const Library &TheLibrary()
{
    static const Library library;
    return library;
}

}  // namespace

const char *WhyNoLdapLibrary() { return TheLibrary().handle != nullptr ? nullptr : TheLibrary().why.c_str(); }

// Weak, so that a test may have one of them fail.
#define HAND_ON(R, name, parameters, arguments)                                                        \
    extern "C" __attribute__((weak)) R name parameters                                                 \
    {                                                                                                  \
        static const auto real = reinterpret_cast<decltype(&name)>(dlsym(TheLibrary().handle, #name)); \
        return real arguments;                                                                         \
    }

// clang-format off
HAND_ON(int,          ldap_set_option,       (LDAP *ld, int option, const void *value), (ld, option, value))
HAND_ON(int,          ldap_get_option,       (LDAP *ld, int option, void *value), (ld, option, value))
HAND_ON(int,          ldap_initialize,       (LDAP **ld, const char *uri), (ld, uri))
HAND_ON(int,          ldap_start_tls_s,      (LDAP *ld, LDAPControl **server, LDAPControl **client), (ld, server, client))
HAND_ON(int,          ldap_simple_bind_s,    (LDAP *ld, const char *dn, const char *password), (ld, dn, password))
HAND_ON(int,          ldap_sasl_bind_s,      (LDAP *ld, const char *dn, const char *mechanism, berval *credential, LDAPControl **server, LDAPControl **client, berval **answer), (ld, dn, mechanism, credential, server, client, answer))
HAND_ON(int,          ldap_unbind,           (LDAP *ld), (ld))
HAND_ON(int,          ldap_search_ext_s,     (LDAP *ld, const char *base, int scope, const char *filter, char **names, int names_only, LDAPControl **server, LDAPControl **client, timeval *timeout, int limit, LDAPMessage **answer), (ld, base, scope, filter, names, names_only, server, client, timeout, limit, answer))
HAND_ON(int,          ldap_msgfree,          (LDAPMessage *message), (message))
HAND_ON(int,          ldap_msgtype,          (LDAPMessage *message), (message))
HAND_ON(int,          ldap_count_entries,    (LDAP *ld, LDAPMessage *answer), (ld, answer))
HAND_ON(int,          ldap_count_references, (LDAP *ld, LDAPMessage *answer), (ld, answer))
HAND_ON(LDAPMessage *, ldap_first_message,   (LDAP *ld, LDAPMessage *answer), (ld, answer))
HAND_ON(LDAPMessage *, ldap_next_message,    (LDAP *ld, LDAPMessage *message), (ld, message))
HAND_ON(LDAPMessage *, ldap_first_entry,     (LDAP *ld, LDAPMessage *answer), (ld, answer))
HAND_ON(LDAPMessage *, ldap_next_entry,      (LDAP *ld, LDAPMessage *entry), (ld, entry))
HAND_ON(int,          ldap_parse_result,     (LDAP *ld, LDAPMessage *result, int *code, char **matched, char **text, char ***referrals, LDAPControl ***server, int free_it), (ld, result, code, matched, text, referrals, server, free_it))
HAND_ON(int,          ldap_parse_reference,  (LDAP *ld, LDAPMessage *reference, char ***referrals, LDAPControl ***server, int free_it), (ld, reference, referrals, server, free_it))
HAND_ON(char *,       ldap_get_dn,           (LDAP *ld, LDAPMessage *entry), (ld, entry))
HAND_ON(char *,       ldap_first_attribute,  (LDAP *ld, LDAPMessage *entry, BerElement **ber), (ld, entry, ber))
HAND_ON(char *,       ldap_next_attribute,   (LDAP *ld, LDAPMessage *entry, BerElement *ber), (ld, entry, ber))
HAND_ON(berval **,    ldap_get_values_len,   (LDAP *ld, LDAPMessage *entry, const char *name), (ld, entry, name))
HAND_ON(void,         ldap_value_free,       (char **values), (values))
HAND_ON(void,         ldap_value_free_len,   (berval **values), (values))
HAND_ON(void,         ldap_memfree,          (void *memory), (memory))
HAND_ON(char *,       ldap_err2string,       (int code), (code))
HAND_ON(void,         ber_free,              (BerElement *ber, int free_buffer), (ber, free_buffer))
// clang-format on
