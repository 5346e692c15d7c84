// One collect call: this host connects to its hub and asks to be called back on the very same connection.
//
// Nothing here keeps state; every outcome is logged here, once.
#ifndef LIBVTSERVERD_COLLECT_CALL_HUB_H
#define LIBVTSERVERD_COLLECT_CALL_HUB_H

#include <cstdint>
#include <optional>

#include <veltrane/owned.h>

// A connection on which the hub has promised to ask for reports.
struct AcceptedCall {
    veltrane::Descriptor socket;  // without TLS: the hub begins a new handshake on it, as the client
    int32_t queue;                // how many hosts the hub has in its queue, this one among them; above 0
};

// Ask the hub for a call. Takes as long as connecting, sending and receiving may, each CONNTIMEOUT seconds.
//
// Nothing when there is no hub, it cannot be reached, is busy, refuses or does not speak TLS.
std::optional<AcceptedCall> CallHub();

#endif
