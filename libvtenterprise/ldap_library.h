// libldap, loaded when a directory is first asked: with what it needs itself it takes longer to load than the plug-in,
// and most runs ask no directory.
//
// The functions of <ldap.h> that the plug-in calls are defined here under their own names, hidden in the plug-in, and
// hand each call on to the library. None of them may be called before WhyNoLdapLibrary has answered NULL.
#ifndef LIBVTENTERPRISE_LDAP_LIBRARY_H
#define LIBVTENTERPRISE_LDAP_LIBRARY_H

// Load the library, once; it stays to the end. NULL when it is there, else why it is not: text that lasts. Any thread.
const char *WhyNoLdapLibrary();

#endif
