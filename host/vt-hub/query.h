// Asking one host for its reports over the wire.
//
// A reply counts only when it is whole: its completion line came, and its lines are as long as its header says. What is
// cut off is an error and never half of a truth.
#ifndef HOST_VT_HUB_QUERY_H
#define HOST_VT_HUB_QUERY_H

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

#include <veltrane/net.h>
#include <veltrane/owned.h>

namespace vthub {

struct Query {
    std::string host;          // name or address; of a host that called, only what messages name it by
    std::string port;          // "" = the usual one
    std::string key;           // identity that the host must show; "" = any trusted one
    std::string type;          // "delta" or "rebase"
    std::int64_t since = 0;    // seconds since the epoch: start of the wanted period
    unsigned timeout_seconds;  // for connecting
};

struct Reply {
    std::string identity;            // key of the host that answered
    std::vector<std::string> lines;  // the header first, without line ends
};

// The whole reply of a host, or nothing after one error line that says why.
std::optional<Reply> AskHost(const Query &query);

// The same from a host that called, over its own socket, on which we are the TLS client. No other key than query.key is
// accepted there.
std::optional<Reply> AskCaller(veltrane::Descriptor socket, const Query &query);

// Read the lines of one reply from an open connection after its query was sent. false, with ret_error set, when the
// host refuses, closes early, sends something else, or more than max_bytes.
bool ReceiveReply(ConnectionInfo *connection, std::size_t max_bytes, std::vector<std::string> *ret_lines,
                  std::string *ret_error);

// Whether the header's length is that of the lines after it; ret_error says what is wrong.
bool LengthMatchesHeader(const std::vector<std::string> &lines, std::string *ret_error);

}  // namespace vthub

#endif
