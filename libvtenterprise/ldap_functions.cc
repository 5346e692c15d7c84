// The four entry points behind the policy functions that ask a directory: a value, a list, an array, a match.
//
// Each asks as the base DN itself, without a password: what a directory shows to everybody, or to a name alone. A call
// that fails is NULL; of a bind that failed nothing is logged, so the caller says what was asked.
#include <stdio.h>

#include <veltrane/alloc.h>
#include <veltrane/eval_context.h>
#include <veltrane/logging.h>
#include <veltrane/owned.h>
#include <veltrane/policy.h>
#include <veltrane/string_lib.h>

#include "libvtenterprise/entry_points_real.h"
#include "libvtenterprise/ldap_session.h"

using ldap_session::CollectValues;
using ldap_session::FirstOf;
using ldap_session::ForEachAttribute;
using ldap_session::LdapPtr;
using ldap_session::LdapText;
using ldap_session::MessagePtr;
using ldap_session::Open;
using ldap_session::Question;
using ldap_session::Search;
using ldap_session::TextOf;
using ldap_session::Then;
using ldap_session::ValuesOf;
using ldap_session::ValuesPtr;
using ldap_session::Walk;
using ldap_session::WalkMessages;

namespace {

constexpr Walk kWalk{"LDAP search successful, %d entries, %d references"};
constexpr Walk kListWalk{"LDAP search was successful, %d entries, %d references"};
constexpr Walk kRegexWalk{"LDAP search successful, %d entries, %d references", true};

// The answer to one question, and the connection that it came by. Without an answer the look-up has failed.
struct LookUp {
    LookUp(const char *uri, const char *security, const Question &question)
        : ld(Open({uri, question.base, security, nullptr, false}, nullptr))
    {
        int code = LDAP_SUCCESS;
        if (ld != nullptr) {
            answer = Search(ld.get(), question, &code);
        }
    }

    bool WalkEntries(const Walk &walk, const std::function<Then(LDAPMessage *)> &visit) const
    {
        int code = LDAP_SUCCESS;
        return WalkMessages(ld.get(), answer.get(), walk, visit, &code);
    }

    LdapPtr ld;
    MessagePtr answer;
};

// false when the entry has no DN
bool TellDn(LDAP *ld, LDAPMessage *entry)
{
    const LdapText dn(ldap_get_dn(ld, entry));
    if (dn != nullptr) {
        Log(LOG_LEVEL_VERBOSE, "LDAP query found dn: %s", dn.get());
    }
    return dn != nullptr;
}

char *ClassExpression(bool value) { return xstrdup(value ? "any" : "!any"); }

// The first value of an attribute that the entry has under exactly this name; new, NULL without one.
char *ValueIn(LDAP *ld, LDAPMessage *entry, const char *name)
{
    char *found = nullptr;
    ForEachAttribute(ld, entry, [&](const char *one) {
        if (!StringEqual(one, name)) {
            return Then::kGoOn;
        }
        const ValuesPtr values = ValuesOf(ld, entry, one);
        if (const berval *value = FirstOf(values); value != nullptr) {
            Log(LOG_LEVEL_VERBOSE, "Located LDAP value %s => %s", one, TextOf(value));
            found = xstrdup(TextOf(value));
        }
        return found != nullptr ? Then::kStop : Then::kGoOn;
    });
    return found;
}

bool MatchesIn(LDAP *ld, LDAPMessage *entry, const char *name, const char *regex)
{
    bool matches = false;
    ForEachAttribute(ld, entry, [&](const char *one) {
        if (!StringEqual(one, name)) {
            return Then::kGoOn;
        }
        const ValuesPtr values = ValuesOf(ld, entry, one);
        for (size_t i = 0; !matches && values != nullptr && values[i] != nullptr; i++) {
            matches = StringMatchFull(regex, TextOf(values[i]));
            if (matches) {
                Log(LOG_LEVEL_VERBOSE, "Located regex matching LDAP value %s => %s", one, TextOf(values[i]));
            }
        }
        return matches ? Then::kStop : Then::kGoOn;
    });
    return matches;
}

// Put one value under array[index] in the scope of a bundle.
bool PutElement(EvalContext *ctx, const Bundle *caller, const char *array, const char *index, const char *value)
{
    char name[1024];
    snprintf(name, sizeof(name), "%s[%s]", array, index);
    const veltrane::VarRefPtr ref(VarRefParseFromBundle(name, caller));
    const bool put = EvalContextVariablePut(ctx, ref.get(), value, VT_DATA_TYPE_STRING, "source=ldap");
    Log(LOG_LEVEL_VERBOSE, "Setting %s => %s, in context '%s'", name, value, caller->name);
    return put;
}

// Whether the entry set at least one variable.
bool FillArray(EvalContext *ctx, const Bundle *caller, const char *array, LDAP *ld, LDAPMessage *entry)
{
    bool filled = false;
    ForEachAttribute(ld, entry, [&](const char *one) {
        if (!StringEqual(one, "objectClass")) {
            const ValuesPtr values = ValuesOf(ld, entry, one);
            const berval *value = FirstOf(values);
            filled = (value != nullptr && PutElement(ctx, caller, array, one, TextOf(value))) || filled;
        }
        return Then::kGoOn;
    });
    return filled;
}

}  // namespace

void *VtLDAPValue__real(char *uri, char *basedn, char *filter, char *name, char *scopes, char *sec) noexcept
{
    const LookUp lookup(uri, sec, {basedn, filter, scopes});
    if (lookup.answer == nullptr) {
        return nullptr;
    }
    char *found = nullptr;
    (void)lookup.WalkEntries(kWalk, [&](LDAPMessage *entry) {  // failed or at the end: nothing was found
        if (!TellDn(lookup.ld.get(), entry)) {
            Log(LOG_LEVEL_VERBOSE, "No LDAP query result found");
            return Then::kGoOn;
        }
        found = ValueIn(lookup.ld.get(), entry, name);
        return found != nullptr ? Then::kStop : Then::kGoOn;
    });
    return found;
}

void *VtLDAPList__real(char *uri, char *basedn, char *filter, char *name, char *scopes, char *sec) noexcept
{
    const LookUp lookup(uri, sec, {basedn, filter, scopes});
    if (lookup.answer == nullptr) {
        return nullptr;
    }
    veltrane::RlistPtr values;
    int code = LDAP_SUCCESS;
    (void)CollectValues(lookup.ld.get(), lookup.answer.get(), kListWalk, name, &values, &code);  // failed: none
    return values.release();
}

void *VtLDAPArray__real(EvalContext *ctx, const Bundle *caller, char *array, char *uri, char *basedn, char *filter,
                        char *scopes, char *sec) noexcept
{
    const LookUp lookup(uri, sec, {basedn, filter, scopes});
    if (lookup.answer == nullptr) {
        return nullptr;
    }
    bool filled = false;
    const bool whole = lookup.WalkEntries(kWalk, [&](LDAPMessage *entry) {
        (void)TellDn(lookup.ld.get(), entry);  // an entry without one has attributes all the same
        filled = FillArray(ctx, caller, array, lookup.ld.get(), entry);
        return filled ? Then::kStop : Then::kGoOn;
    });
    return whole ? ClassExpression(filled) : nullptr;
}

void *VtRegLDAP__real(EvalContext *, char *uri, char *basedn, char *filter, char *name, char *scopes, char *regex,
                      char *sec) noexcept
{
    const LookUp lookup(uri, sec, {basedn, filter, scopes});
    if (lookup.answer == nullptr) {
        return nullptr;
    }
    bool matches = false;
    const bool whole = lookup.WalkEntries(kRegexWalk, [&](LDAPMessage *entry) {
        (void)TellDn(lookup.ld.get(), entry);
        matches = MatchesIn(lookup.ld.get(), entry, name, regex);
        return matches ? Then::kStop : Then::kGoOn;
    });
    return whole ? ClassExpression(matches) : nullptr;
}
