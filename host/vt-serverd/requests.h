// The requests of a peer, one 't' transaction each, and their answers.
//
//   "QUERY <type> <from> <peer time>"        the report stream: 'm' lines, then 't' "QUERY complete"
//   "VAR <handle>"                           't' the value that is published under the handle, without a zero
//   "COOKIES"                                't' "COOKIES <before> <new>"
//   "SCALLBACK CALL_ME_BACK collect_calls"   on a hub: four bare bytes, and the connection is the hub process's; else
//                                            closed without a word
//   anything else                            't' "BAD: <why>", and the connection is closed
//
// A query that is malformed and one that the peer is not admitted to get no answer: one log line, and the connection is
// closed. A value that is not there and one that the peer is not admitted to get the same "BAD: <why>", so that nobody
// finds out which handles there are. Nothing that a peer sends ends more than its own connection.
#ifndef HOST_VT_SERVERD_REQUESTS_H
#define HOST_VT_SERVERD_REQUESTS_H

#include <functional>

#include "vt-serverd/served_policy.h"

namespace vtserverd {

// Serve one connected socket to its end: handshake, requests, answers. Does not close it.
//
// share  is called before the socket is handed to another process; false when it is too late for that. From then on
//        nothing may be done to the socket but closing it.
void ServeConnection(int fd, const ServedPolicy &policy, const std::function<bool()> &share);

}  // namespace vtserverd

#endif
