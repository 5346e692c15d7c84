// Asking a directory (LDAP) on the command line: is this password right, which entries are there, what do they say.
//
// The work is the enterprise plug-in's; its plain functions are looked up in the loaded library. A password comes from
// a file or from standard input, never from the command line, where every user of the machine could read it. The
// certificate of a server is not verified. Whatever a directory answers, the terminal sees no control bytes.
#ifndef HOST_VT_HUB_LDAP_COMMANDS_H
#define HOST_VT_HUB_LDAP_COMMANDS_H

#include <cstddef>
#include <string>

namespace vthub {

struct LdapRequest {
    std::string uri;
    std::string dn;             // who asks, or whose password it is; "" = nobody, who needs none
    std::string password_file;  // "" = standard input
    bool starttls = false;
    int timeout_seconds = 0;  // for connecting and for each answer; 0 = as the environment says
    std::string base;
    std::string filter = "(objectClass=*)";
    std::string scope = "subtree";
    std::string attribute;
    std::size_t page = 1;
    std::size_t per_page = 1000;
};

// Each gives the exit status: 0 accepted or found; 1 refused, nothing found, or failed after one error line; 2 for a
// request that is none, with a line on standard error.
int LdapCheck(const LdapRequest &request);
int LdapSearch(const LdapRequest &request);
int LdapList(const LdapRequest &request);

}  // namespace vthub

#endif
