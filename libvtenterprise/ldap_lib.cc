// The directory operations of hub programs. See ldap_session.h for what all of them share.
#include "libvtenterprise/ldap_lib.h"

#include <stdint.h>

#include <veltrane/alloc.h>
#include <veltrane/owned.h>

#include "libvtenterprise/ldap_session.h"

using ldap_session::CollectValues;
using ldap_session::LdapPtr;
using ldap_session::LdapText;
using ldap_session::MessagePtr;
using ldap_session::Open;
using ldap_session::Search;
using ldap_session::Walk;

namespace {

constexpr size_t kResultsPerPage = 1000;

size_t Times(size_t a, size_t b)
{
    size_t product = 0;
    return __builtin_mul_overflow(a, b, &product) ? SIZE_MAX : product;
}

// Page n begins with the message that page n - 1 ended with.
Walk PageOf(size_t page, size_t results_per_page)
{
    const size_t number = page != 0 ? page : 1;
    const size_t size = results_per_page != 0 ? results_per_page : kResultsPerPage;
    Walk walk{"LDAP search was successful, %d entries, %d references"};
    walk.first = Times(number - 1, size);
    walk.last = Times(number, size);
    return walk;
}

// The answer to a search; NULL with its error text.
MessagePtr SearchOrSayWhy(LDAP *ld, const ldap_session::Question &question, const char **errstr)
{
    int code = LDAP_SUCCESS;
    MessagePtr answer = Search(ld, question, &code);
    if (answer == nullptr) {
        *errstr = ldap_err2string(code);
    }
    return answer;
}

}  // namespace

bool VtLDAPAuthenticate(const char *uri, const char *basedn, const char *passwd, const char *authentication_method,
                        bool starttls, long timeout_seconds, const char **errstr) noexcept
{
    LdapPtr ld(VeskLDAPConnect(uri, starttls, timeout_seconds, errstr));
    if (ld == nullptr) {
        return false;
    }
    const char *method = authentication_method != nullptr ? authentication_method : "sasl";
    const int code = VeskLDAPAuthenticate(ld.get(), basedn, method, passwd);
    ld.reset();
    if (code == LDAP_SUCCESS) {
        return true;
    }
    if (errstr != nullptr) {
        *errstr = code == LDAP_INVALID_CREDENTIALS ? nullptr : ldap_err2string(code);
    }
    return false;
}

StringSet *VtLDAP_SearchDNs(const char *uri, const char *authdn, const char *password, const char *basedn,
                            const char *filter, const char *scopes, const char *security, bool start_tls,
                            const char **errstr) noexcept
{
    const LdapPtr ld = Open({uri, authdn, security, password, start_tls}, errstr);
    if (ld == nullptr) {
        return nullptr;
    }
    const MessagePtr answer = SearchOrSayWhy(ld.get(), {basedn, filter, scopes}, errstr);
    if (answer == nullptr) {
        return nullptr;
    }
    veltrane::StringSetPtr names(StringSetNew());
    for (LDAPMessage *entry = ldap_first_entry(ld.get(), answer.get()); entry != nullptr;
         entry = ldap_next_entry(ld.get(), entry)) {
        const LdapText dn(ldap_get_dn(ld.get(), entry));
        if (dn != nullptr) {
            StringSetAdd(names.get(), xstrdup(dn.get()));
        }
    }
    *errstr = nullptr;
    return names.release();
}

Rlist *VtLDAP_GetSingleAttributeList(const char *password, const char *uri, const char *authdn, const char *basedn,
                                     const char *filter, const char *attribute_name, const char *scopes,
                                     const char *security, bool start_tls, size_t page, size_t results_per_page,
                                     const char **errstr) noexcept
{
    const LdapPtr ld = Open({uri, authdn, security, password, start_tls}, errstr);
    if (ld == nullptr) {
        return nullptr;
    }
    const MessagePtr answer = SearchOrSayWhy(ld.get(), {basedn, filter, scopes}, errstr);
    if (answer == nullptr) {
        return nullptr;
    }
    veltrane::RlistPtr values;
    int code = LDAP_SUCCESS;
    const bool whole =
        CollectValues(ld.get(), answer.get(), PageOf(page, results_per_page), attribute_name, &values, &code);
    *errstr = whole ? nullptr : ldap_err2string(code);
    return values.release();
}
