// libldap is loaded when it is first asked for, and a machine without it is one where connecting fails.
#include "libvtenterprise/ldap_library.h"

#include <dlfcn.h>

#include <fstream>
#include <sstream>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "libvtenterprise/ldap_lib.h"
#include "libvtenterprise/ldap_session.h"
#include "support/child.h"
#include "support/log_capture.h"

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

namespace {

bool is_missing = false;

}  // namespace

// What this program calls instead of the C library's own.
extern "C" void *dlopen(const char *name, int flags) noexcept
{
    using Function = void *(const char *, int);
    static const auto real = reinterpret_cast<Function *>(dlsym(RTLD_NEXT, "dlopen"));
    return real(is_missing ? "libldap-that-is-missing.so" : name, flags);
}

namespace {

std::string LoadedLibraries()
{
    std::ostringstream maps;
    maps << std::ifstream("/proc/self/maps").rdbuf();
    return maps.str();
}

}  // namespace

TEST(LdapLibrary, IsLoadedWhenADirectoryIsFirstAsked)
{
    InChild([] {
        EXPECT_THAT(LoadedLibraries(), Not(HasSubstr("libldap")));
        EXPECT_EQ(WhyNoLdapLibrary(), nullptr);
        EXPECT_THAT(LoadedLibraries(), HasSubstr("libldap"));
        EXPECT_STREQ(ldap_err2string(LDAP_SUCCESS), "Success");
    });
}

TEST(LdapLibrary, IsNotThereWhereNobodyInstalledIt)
{
    InChild([] {
        is_missing = true;
        LogCapture log;
        const char *error = "unset";
        EXPECT_EQ(VeskLDAPConnect("ldap://127.0.0.1:1", false, 0, &error), nullptr);
        EXPECT_THAT(error, HasSubstr("libldap-that-is-missing.so: cannot open shared object file"));
        EXPECT_EQ(VeskLDAPConnect("ldap://127.0.0.1:1", false, 0, nullptr), nullptr);
        EXPECT_FALSE(VtLDAPAuthenticate("ldap://127.0.0.1:1", "cn=x", "y", nullptr, false, 0, &error));
        ASSERT_EQ(log.lines.size(), 3u);
        for (const LogCapture::Line &line : log.lines) {
            EXPECT_EQ(line.first, LOG_LEVEL_ERR);
            EXPECT_EQ(line.second, std::string("LDAP connection failed: ") + error);
        }
    });
}
