// The calls of libldap behind the directory operations. Synchronous throughout: a search comes back whole.
#define LDAP_DEPRECATED 1  // anonymous simple bind, lists of referrals, unbind
#include "libvtenterprise/ldap_session.h"

#include <utility>

#include <veltrane/logging.h>
#include <veltrane/string_lib.h>

#include "libvtenterprise/ldap_library.h"

using ldap_session::LdapText;
using ldap_session::Then;

namespace {

struct ReferralsFreer {
    void operator()(char **referrals) const { ldap_value_free(referrals); }
};
using Referrals = std::unique_ptr<char *[], ReferralsFreer>;

// Whether a code is success. Else errstr gets its text, and it is logged by format, which has one %s.
bool Succeeded(int code, const char *format, const char **errstr)
{
    if (code == LDAP_SUCCESS) {
        return true;
    }
    if (errstr != nullptr) {
        *errstr = ldap_err2string(code);
    }
    Log(LOG_LEVEL_ERR, format, ldap_err2string(code));
    return false;
}

bool SetProcessOptions(long timeout_seconds, const char **errstr)
{
    if (timeout_seconds > 0) {
        const timeval timeout = {timeout_seconds, 0};
        if (!Succeeded(ldap_set_option(nullptr, LDAP_OPT_TIMEOUT, &timeout),
                       "Unable to set global LDAP_OPT_TIMEOUT option: %s", errstr)) {
            return false;
        }
    }
    const int never = LDAP_OPT_X_TLS_NEVER;
    return Succeeded(ldap_set_option(nullptr, LDAP_OPT_X_TLS_REQUIRE_CERT, &never),
                     "Unable to set global LDAP TLS options: %s", errstr) &&
           Succeeded(ldap_set_option(nullptr, LDAP_OPT_REFERRALS, LDAP_OPT_OFF),
                     "Unable to disable LDAP referrals chasing: %s", errstr);
}

// The handle's diagnostic message; new, NULL when it has none.
char *Diagnostic(LDAP *ld)
{
    char *message = nullptr;
    (void)ldap_get_option(ld, LDAP_OPT_DIAGNOSTIC_MESSAGE, &message);  // on failure it stays NULL
    const LdapText owned(message);
    return SafeStringDuplicate(owned.get());
}

bool StartTls(LDAP *ld, const char **errstr)
{
    const int code = ldap_start_tls_s(ld, nullptr, nullptr);
    if (code == LDAP_SUCCESS) {
        return true;
    }
    if (errstr != nullptr) {
        *errstr = code == LDAP_CONNECT_ERROR ? Diagnostic(ld) : ldap_err2string(code);
    }
    Log(LOG_LEVEL_ERR, "Unable to negotiate TLS encryption with LDAP server: %s", ldap_err2string(code));
    return false;
}

// The end of a search. What a server says about a failure is told as it stands.
bool TellResult(LDAP *ld, LDAPMessage *answer, LDAPMessage *result, const char *success_line, int *ret_code)
{
    Log(LOG_LEVEL_VERBOSE, "LDAP Query result received");
    int outcome = LDAP_SUCCESS;
    char *matched_text = nullptr;
    char *error_text = nullptr;
    const int code = ldap_parse_result(ld, result, &outcome, &matched_text, &error_text, nullptr, nullptr, 0);
    const LdapText matched(matched_text);
    const LdapText error(error_text);
    if (!Succeeded(code, "LDAP Error parsed: %s", nullptr)) {
        *ret_code = code;
        return false;
    }
    if (outcome == LDAP_SUCCESS) {
        Log(LOG_LEVEL_VERBOSE, success_line, ldap_count_entries(ld, answer), ldap_count_references(ld, answer));
        return true;
    }
    Log(LOG_LEVEL_ERR, "LDAP search failed: %s", ldap_err2string(outcome));
    if (SafeStringLength(error.get()) > 0) {
        Log(LOG_LEVEL_ERR, "%s", error.get());
    }
    if (SafeStringLength(matched.get()) > 0) {
        Log(LOG_LEVEL_VERBOSE, "Part of the DN that matches an existing entry: %s", matched.get());
    }
    return true;
}

bool TellReference(LDAP *ld, LDAPMessage *reference, int *ret_code)
{
    char **parsed = nullptr;
    const int code = ldap_parse_reference(ld, reference, &parsed, nullptr, 0);
    const Referrals referrals(parsed);
    if (!Succeeded(code, "Unable to parse LDAP references: %s", nullptr)) {
        *ret_code = code;
        return false;
    }
    for (char **one = parsed; one != nullptr && *one != nullptr; one++) {
        Log(LOG_LEVEL_VERBOSE, "Search reference: %s", *one);
    }
    return true;
}

void TellDn(LDAP *ld, LDAPMessage *entry)
{
    const LdapText dn(ldap_get_dn(ld, entry));
    if (dn != nullptr) {
        Log(LOG_LEVEL_VERBOSE, "LDAP query found dn: %s", dn.get());
    } else {
        Log(LOG_LEVEL_VERBOSE, "No LDAP query found");
    }
}

}  // namespace

LDAP *VeskLDAPConnect(const char *uri, bool starttls, long timeout_seconds, const char **errstr)
{
    if (const char *why = WhyNoLdapLibrary(); why != nullptr) {
        if (errstr != nullptr) {
            *errstr = why;
        }
        Log(LOG_LEVEL_ERR, "LDAP connection failed: %s", why);
        return nullptr;
    }
    if (!SetProcessOptions(timeout_seconds, errstr)) {
        return nullptr;
    }
    LDAP *made = nullptr;
    if (!Succeeded(ldap_initialize(&made, uri), "LDAP connection failed: %s", errstr)) {
        return nullptr;
    }
    ldap_session::LdapPtr ld(made);
    const int version = LDAP_VERSION3;
    if (!Succeeded(ldap_set_option(ld.get(), LDAP_OPT_PROTOCOL_VERSION, &version), "Trouble setting LDAP option %s",
                   errstr)) {
        return nullptr;
    }
    if (starttls && !StartTls(ld.get(), errstr)) {
        (void)ld.release();  // left as it is, see the header
        return nullptr;
    }
    return ld.release();
}

int VeskLDAPAuthenticate(LDAP *ld, const char *basedn, const char *sec, const char *password)
{
    if (!StringEqual(sec, "sasl")) {
        return ldap_simple_bind_s(ld, nullptr, nullptr);
    }
    berval credential = {SafeStringLength(password), const_cast<char *>(password)};
    return ldap_sasl_bind_s(ld, basedn, LDAP_SASL_SIMPLE, &credential, nullptr, nullptr, nullptr);
}

int VeskStr2Scope(const char *scope)
{
    if (StringEqual(scope, "base")) {
        return LDAP_SCOPE_BASE;
    }
    return StringEqual(scope, "onelevel") ? LDAP_SCOPE_ONELEVEL : LDAP_SCOPE_SUBTREE;
}

namespace ldap_session {

void Unbinder::operator()(LDAP *ld) const { (void)ldap_unbind(ld); }

LdapPtr Open(const Login &login, const char **errstr)
{
    LdapPtr ld(VeskLDAPConnect(login.uri, login.starttls, 0, errstr));
    if (ld != nullptr && VeskLDAPAuthenticate(ld.get(), login.dn, login.security, login.password) != LDAP_SUCCESS) {
        (void)ld.release();  // left as it is, see the header
    }
    return ld;
}

MessagePtr Search(LDAP *ld, const Question &question, int *ret_code)
{
    LDAPMessage *answer = nullptr;
    const int code = ldap_search_ext_s(ld, question.base, VeskStr2Scope(question.scope), question.filter, nullptr, 0,
                                       nullptr, nullptr, nullptr, LDAP_NO_LIMIT, &answer);
    MessagePtr owned(answer);  // a failed search may have one too
    if (!Succeeded(code, "LDAP search failed: %s", nullptr)) {
        *ret_code = code;
        return nullptr;
    }
    return owned;
}

bool WalkMessages(LDAP *ld, LDAPMessage *answer, const Walk &walk, const std::function<Then(LDAPMessage *)> &visit,
                  int *ret_code)
{
    std::size_t counter = 1;
    for (LDAPMessage *message = ldap_first_message(ld, answer); message != nullptr && counter <= walk.last;
         message = ldap_next_message(ld, message), counter++) {
        if (counter < walk.first) {
            continue;
        }
        switch (ldap_msgtype(message)) {
            case LDAP_RES_SEARCH_RESULT:
                if (!TellResult(ld, answer, message, walk.success_line, ret_code)) {
                    return false;
                }
                break;
            case LDAP_RES_SEARCH_REFERENCE:
                if (!TellReference(ld, message, ret_code)) {
                    return false;
                }
                break;
            case LDAP_RES_SEARCH_ENTRY:
                if (visit(message) == Then::kStop) {
                    return true;
                }
                break;
            default:
                if (walk.tells_unknown) {
                    Log(LOG_LEVEL_VERBOSE, "Unknown message received");
                }
                break;
        }
    }
    return true;
}

void ForEachAttribute(LDAP *ld, LDAPMessage *names_of, const std::function<Then(const char *name)> &visit)
{
    BerElement *ber = nullptr;
    LdapText name(ldap_first_attribute(ld, names_of, &ber));
    while (name != nullptr && visit(name.get()) == Then::kGoOn) { name.reset(ldap_next_attribute(ld, names_of, ber)); }
    ber_free(ber, 0);
}

bool CollectValues(LDAP *ld, LDAPMessage *answer, const Walk &walk, const char *name, veltrane::RlistPtr *ret_values,
                   int *ret_code)
{
    Rlist *list = nullptr;
    Rlist **end = &list;  // so that a long list is not walked for each of its values
    const auto keep = [&](LDAPMessage *entry) {
        const ValuesPtr values = ValuesOf(ld, entry, name);
        for (size_t i = 0; values != nullptr && values[i] != nullptr; i++) {
            Log(LOG_LEVEL_VERBOSE, "Located LDAP value '%s' => '%s'", name, TextOf(values[i]));
            RlistAppendScalar(end, TextOf(values[i]));
            end = &(*end)->next;
        }
    };
    const bool whole = WalkMessages(
        ld, answer, walk,
        [&](LDAPMessage *entry) {
            TellDn(ld, entry);
            ForEachAttribute(ld, ldap_first_message(ld, answer), [&](const char *one) {
                Log(LOG_LEVEL_DEBUG, "LDAP query found attribute '%s'", one);
                if (StringEqual(one, name)) {
                    keep(entry);
                }
                return Then::kGoOn;
            });
            return Then::kGoOn;
        },
        ret_code);
    veltrane::RlistPtr values(list);
    if (whole) {
        *ret_values = std::move(values);
    }
    return whole;
}

}  // namespace ldap_session
