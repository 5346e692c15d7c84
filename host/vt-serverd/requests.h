// The requests of a peer, one 't' transaction each, and their answers.
//
//   "QUERY <type> <from> <peer time>"        the report stream: 'm' lines, then 't' "QUERY complete"
//   "SCALLBACK CALL_ME_BACK collect_calls"   closed without a word
//   anything else                            't' "BAD: <why>", and the connection is closed
//
// A query that is malformed and one that the peer is not admitted to get no answer: one log line, and the connection is
// closed. Nothing that a peer sends ends more than its own connection.
#ifndef HOST_VT_SERVERD_REQUESTS_H
#define HOST_VT_SERVERD_REQUESTS_H

#include "vt-serverd/served_policy.h"

namespace vtserverd {

// Serve one accepted socket to its end: handshake, requests, answers. Does not close it.
void ServeConnection(int fd, const ServedPolicy &policy);

}  // namespace vtserverd

#endif
