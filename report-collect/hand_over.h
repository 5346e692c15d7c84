// Both sides of a hand-over through a local socket; hub_calls.h tells what is said there.
//
// Nothing here logs: what is handed back is enough for the caller's one line. Each step ends within CONNTIMEOUT.
#ifndef REPORT_COLLECT_HAND_OVER_H
#define REPORT_COLLECT_HAND_OVER_H

#include <cstdint>
#include <string>

#include <veltrane/owned.h>

namespace report_collect {

// A place in the queue of the process that takes connections.
struct Place {
    int32_t number = 0;         // from 1; 0 = there is none
    veltrane::Descriptor line;  // to that process, which keeps the place while it is open
    std::string trouble;        // why there is none; "" when the queue is full
};

// Connect to a local socket and ask for a place.
Place AskForPlace(const std::string &path);

// Send a descriptor and a text through the line of a place. "" when done, else why not.
[[nodiscard]] std::string HandOver(int line, int descriptor, const std::string &text);

struct TakenConnection {
    veltrane::Descriptor socket;  // close-on-exec; none when there is trouble
    std::string text;
    std::string trouble;
};

// Receive what the other side hands over, whatever it is: every descriptor that comes and is not the one result is
// closed.
TakenConnection TakeHandOver(int line);

}  // namespace report_collect

#endif
