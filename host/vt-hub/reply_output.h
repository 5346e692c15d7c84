// A host's reply as the options of a command want it: its stream as it came, or tables.
#ifndef HOST_VT_HUB_REPLY_OUTPUT_H
#define HOST_VT_HUB_REPLY_OUTPUT_H

#include <ostream>
#include <string>
#include <vector>

namespace vthub {

struct OutputOptions {
    bool raw = false;       // the stream itself, a line each
    bool wide = false;      // tables: all columns, and never a cell cut
    bool terminal = false;  // of a stream control bytes are escaped
};

// Write the lines of one reply. identity and type say who sent it and what was asked for. false after one error line
// when the lines are no report stream; whether out took them, out tells.
[[nodiscard]] bool WriteReply(std::ostream &out, const OutputOptions &options, const std::string &identity,
                              const std::string &type, const std::vector<std::string> &lines);

}  // namespace vthub

#endif
