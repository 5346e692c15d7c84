// Commands of the policy: run to their end, bounded in time and output, in a process group of their own.
//
// A command inherits nothing but its three standard streams: standard input is empty, standard output and standard
// error are collected. Without a shell its words are handed over as they are, so no text from outside is ever
// interpreted.
#ifndef HOST_LIBVELTRANE_CHILD_PROCESS_H
#define HOST_LIBVELTRANE_CHILD_PROCESS_H

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace veltrane {

struct Command {
    std::vector<std::string> words;  // program and arguments; a program without '/' is looked up in PATH
    std::string directory;           // "" = the caller's own
    std::map<std::string, std::string>
        environment;                            // added to the caller's, or in place of a variable of the same name
    int timeout_seconds = 0;                    // 0 = no limit; afterwards its whole process group is killed
    size_t output_limit = size_t{1024} * 1024;  // bytes kept of each stream; the rest is read and dropped
};

struct CommandResult {
    enum class End { kNotStarted, kExited, kSignalled, kTimedOut };

    End end = End::kNotStarted;
    int code = 0;        // errno, exit status or signal, as end says
    std::string output;  // standard output
    std::string errors;  // standard error
    bool cut = false;    // one of them was longer than the limit

    bool Succeeded() const { return end == End::kExited && code == 0; }

    // How it ended, for a message: "exit status 3", "signal 9", "timed out", "could not be started: No such file …".
    std::string Describe() const;
};

// Run a command and wait for its end. A process that it left behind in the background is not waited for, and is
// killed only with a command that timed out.
CommandResult RunCommand(const Command &command);

// Split a command line at blanks; single and double quotes hold words together and are taken off, a backslash takes the
// meaning of the next byte outside single quotes. nullopt when a quote stays open; an empty line has no words.
std::optional<std::vector<std::string>> SplitWords(std::string_view line);

}  // namespace veltrane

#endif
