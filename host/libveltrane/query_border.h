// The border between a peer's report query and the enterprise plug-in, which reads queries trustingly: what comes
// through here can do no harm there.
//
//   menu = "<type> <from> <peer time>"     single blanks, nothing before or after
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

}  // namespace veltrane

#endif
