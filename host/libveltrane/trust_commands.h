// The commands "key" and "trust" that the server daemon and the hub share: whom this host trusts, said on a terminal.
//
// Results go to standard output, one fact a line, so that scripts can read them; a failure is one error line. Each
// returns the exit status of the program: 0, or 1 after a failure.
#ifndef HOST_LIBVELTRANE_TRUST_COMMANDS_H
#define HOST_LIBVELTRANE_TRUST_COMMANDS_H

#include <string>

namespace veltrane {

// "key": prints the host's own identity, then the path of its public key file. Makes the pair when there is none.
int KeyCommand();

// "trust add SOURCE [SHA=...]": prints the identity that is trusted now. source and expected as for TrustAdd.
int TrustAddCommand(const std::string &source, const std::string &expected);

// "trust remove SHA=...": prints nothing when done.
int TrustRemoveCommand(const std::string &identity);

// "trust list": prints the trusted identities beside the own one, one a line.
int TrustListCommand();

}  // namespace veltrane

#endif
