// The border between a peer's request and the enterprise plug-in, which reads requests trustingly: what comes through
// here can do no harm there.
//
//   menu   = "<type> <from> <peer time>"     single blanks, nothing before or after
//   handle = 1 to 1024 bytes without control characters: the name of a value that is published
//
// type is one of the words that a peer may ask for; the two numbers are seconds since the epoch, digits only.
#ifndef HOST_LIBVELTRANE_QUERY_BORDER_H
#define HOST_LIBVELTRANE_QUERY_BORDER_H

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>

namespace veltrane {

// How far ahead of our clock the window of a query may begin: clocks differ.
constexpr time_t kMostSecondsAhead = 3600;

struct ReportQuery {
    std::string type;  // "delta", "rebase" or "full"
    int64_t from;
    int64_t peer_time;
};

// Read a menu; nothing, with ret_why set, when it must not reach the plug-in.
std::optional<ReportQuery> ParseReportQuery(std::string_view menu, time_t now, std::string *ret_why);

// What a promise of the resource "context" may admit to: that a host calls, to be called back.
constexpr const char *kCollectCalls = "collect_calls";

// Longest handle, on both sides: a request with a longer one could not be sent encrypted.
constexpr size_t kLongestHandle = 1024;

// Whether text may be the handle of a published value.
bool IsHandle(std::string_view text);

}  // namespace veltrane

#endif
