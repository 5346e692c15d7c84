// The client of remote scalars: a value that another host's server daemon publishes under a handle
// (docs/formats/transport.md has the exchange).
//
// GetRemoteScalar (entry_points_real.h) connects, asks and returns the caller's buffer: the value, or exactly "BAD:"
// for whatever went wrong. It leaves the connection open after an answer; the host closes it. The buffer holds 4096
// bytes, and a value that fills it has no zero: hosts hand over a byte more.
//
// The rest of this header is its step for peers of the classic protocol, so that it can be looked at alone.
#ifndef LIBVTENTERPRISE_REMOTE_SCALAR_H
#define LIBVTENTERPRISE_REMOTE_SCALAR_H

#include <veltrane/net.h>

// Where the cipher text begins in an encrypted request.
inline constexpr int kCipherTextOffset = 16;

// Write the encrypted form of a request: "S<word> <cipher length>", a zero, and the cipher text from byte 16 on.
//
// message  is all zeros before
// Result   the bytes to send. More than message holds is a programming error and ends the process.
int WriteEncryptedRequest(const char *word, const char *cipher_text, int cipher_length, char (&message)[VT_BUFSIZE]);

#endif
