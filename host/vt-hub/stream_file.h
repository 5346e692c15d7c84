// A report stream in a file, as `collect --raw` and the report dumps of a host write it.
//
// Each line of the stream ends in a line feed. A line that is a CSV row may hold line feeds inside quotes, so quotes
// are followed; lines that begin with "# " are remarks of a dump and no part of the stream.
#ifndef HOST_VT_HUB_STREAM_FILE_H
#define HOST_VT_HUB_STREAM_FILE_H

#include <optional>
#include <string>
#include <vector>

namespace vthub {

// The lines of the stream, or nothing after one error line that says why. "-" reads standard input.
std::optional<std::vector<std::string>> ReadStreamFile(const std::string &path);

// The same for the bytes of a file; false when a quote stays open to the end.
bool SplitStream(const std::string &bytes, std::vector<std::string> *ret_lines);

}  // namespace vthub

#endif
