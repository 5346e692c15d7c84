// Directory look-ups beside the same connect, bind, search and unbind written directly against libldap. Both ask one
// slapd on loopback, which the job starts itself and leaves out of the account, and both find libldap loaded.
#define LDAP_DEPRECATED 1
#include <ldap.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <stdexcept>
#include <string>

#include <veltrane/owned.h>

#include "bench/figure.h"
#include "libvtenterprise/entry_points_real.h"
#include "libvtenterprise/ldap_library.h"
#include "support/slapd.h"

namespace {

using bench::Cost;
using bench::Side;
using bench::Work;

constexpr char kBase[] = "uid=anna,ou=people,dc=example,dc=org";
constexpr char kFilter[] = "(objectClass=*)";
constexpr char kValue[] = "Anna Berg";

// work.size look-ups of a value of a person.
Cost LookUp(const Work &work, const std::function<bool(const std::string &uri)> &look_up)
{
    const Slapd slapd;
    if (WhyNoLdapLibrary() != nullptr) {
        throw std::runtime_error(WhyNoLdapLibrary());
    }
    for (int i = 0; i < 20; i++) {  // what the library and the server do once
        (void)look_up(slapd.uri);
    }
    const bench::Stopwatch watch;
    for (size_t i = 0; i < work.size; i++) {
        if (!look_up(slapd.uri)) {
            throw std::runtime_error("a value is missing");
        }
    }
    return watch.Stop();
}

Cost AskThePlugIn(const Work &work)
{
    return LookUp(work, [](const std::string &uri) {
        std::string a[] = {uri, kBase, kFilter, "cn", "base", "none"};
        const veltrane::TextPtr value(static_cast<char *>(
            VtLDAPValue__real(a[0].data(), a[1].data(), a[2].data(), a[3].data(), a[4].data(), a[5].data())));
        return value != nullptr && strcmp(value.get(), kValue) == 0;
    });
}

Cost AskTheLibrary(const Work &work)
{
    return LookUp(work, [](const std::string &uri) {
        LDAP *ld = nullptr;
        LDAPMessage *answer = nullptr;
        bool right = false;
        const int version = LDAP_VERSION3;
        if (ldap_initialize(&ld, uri.c_str()) == LDAP_SUCCESS &&
            ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &version) == LDAP_SUCCESS &&
            ldap_simple_bind_s(ld, nullptr, nullptr) == LDAP_SUCCESS &&
            ldap_search_ext_s(ld, kBase, LDAP_SCOPE_BASE, kFilter, nullptr, 0, nullptr, nullptr, nullptr, 0, &answer) ==
                LDAP_SUCCESS) {
            berval **values = ldap_get_values_len(ld, ldap_first_entry(ld, answer), "cn");
            right = values != nullptr && strcmp(values[0]->bv_val, kValue) == 0;
            ldap_value_free_len(values);
        }
        ldap_msgfree(answer);
        ldap_unbind(ld);
        return right;
    });
}

const bench::Job kJobs[] = {
    {"directory.plug_in", AskThePlugIn},
    {"directory.library", AskTheLibrary},
};

const bench::Figure kFigure = {
    .title = "1,000 directory look-ups",
    .peer_title = "the same connect, bind, search, unbind in a bare libldap loop",
    .bound = 0.85,
    .aim = 0.95,
    .size = 1'000,
    .ours = [](const Work &work) -> Side { return {bench::JobCommand("directory.plug_in", work)}; },
    .peer = [](const Work &work) -> Side { return {bench::JobCommand("directory.library", work)}; },
};

void DirectoryLookUps(benchmark::State &state) { bench::Measure(state, kFigure); }
BENCHMARK(DirectoryLookUps)->Arg(1'000)->Iterations(1)->Repetitions(9)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace
