// Waiting for hosts that call, and asking each for its reports.
//
// The main loop gives each caller that the server daemon announces a place, or none while kMaxWaitingCalls wait, and
// takes its socket; threads ask (call_workers.h). A host's output is written whole, in one go, so that the reports of
// two hosts never mix. A caller whose connection fails, or who is silent, costs its time-out and one error line.
#ifndef HOST_VT_HUB_LISTEN_H
#define HOST_VT_HUB_LISTEN_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "vt-hub/reply_output.h"

namespace vthub {

struct ListenOptions {
    std::string type = "delta";  // what each host is asked for
    std::int64_t since = 0;      // start of the wanted period, seconds since the epoch
    std::size_t count = 0;       // answers after which it ends; 0 = none
    OutputOptions output;
};

// Prints "Waiting for calls" on standard output when it does, and goes on until a signal (SIGTERM, SIGINT, SIGHUP) ends
// it or count hosts have answered. Enters the sandbox. Result: the exit status, 1 after an error line when it could not
// start or could not write.
int Listen(const ListenOptions &options);

}  // namespace vthub

#endif
