// The policy functions that ask a directory (LDAP). The work is the enterprise plug-in's; without it they fail.
//
//   ldapvalue  [uri, base, filter, attribute, scope, security]         the attribute's first value, of the first entry
//                                                                      that has it
//   ldaplist   [uri, base, filter, attribute, scope, security]         all its values in all entries, as a list
//   ldaparray  [array, uri, base, filter, scope, security]             "any", and the first value of each attribute of
//                                                                      the first entry as array[attribute]; "!any" when
//                                                                      nothing is found
//   regldap    [uri, base, filter, attribute, scope, regex, security]  "any" when a whole value of it matches
//
// scope is base, onelevel or subtree, anything else being subtree; security is sasl, which binds as the base DN without
// a password, anything else being nobody. Attributes are named exactly, with their case. The plug-in answers a look-up
// that failed and a list without values alike, so both are a failure here: an empty list is never taken for the truth.
//
// A server's certificate is not verified. How long a silent server is waited for is what StartProgram puts into the
// environment. No value that these functions give is longer than 1 MiB; one that is is a failure.
#ifndef HOST_LIBVELTRANE_POLICY_FUNCTIONS_DIRECTORY_H
#define HOST_LIBVELTRANE_POLICY_FUNCTIONS_DIRECTORY_H

#include "libveltrane/policy_function.h"

namespace veltrane {

Answer LdapValue(const FunctionCall &call);
Answer LdapList(const FunctionCall &call);
Answer LdapArray(const FunctionCall &call);
Answer RegLdap(const FunctionCall &call);

}  // namespace veltrane

#endif
