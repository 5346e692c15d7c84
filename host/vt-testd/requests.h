// The requests that the test daemon answers:
//
//   "QUERY delta <from> <peer time>", "QUERY rebase <from> <peer time>"   a fixed report stream of the plug-in
//   "SCALLBACK CALL_ME_BACK collect_calls"                                closed without a word
//   anything else                                                        't' "BAD: <why>", and the connection is closed
//
// The plug-in has a reply for these two words alone and ends the process at another, so no other reaches it.
#ifndef HOST_VT_TESTD_REQUESTS_H
#define HOST_VT_TESTD_REQUESTS_H

namespace vttestd {

// Serve one accepted socket to its end: handshake, requests, answers. Every trusted key is admitted. Does not close it.
void ServeConnection(int fd);

}  // namespace vttestd

#endif
