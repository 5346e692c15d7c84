// Hubs of the test's own process, for the tests of collect calls.
#ifndef TESTS_UNIT_LIBVTSERVERD_COLLECT_CALL_SUPPORT_H
#define TESTS_UNIT_LIBVTSERVERD_COLLECT_CALL_SUPPORT_H

#include <openssl/ssl.h>
#include <sys/socket.h>

#include <cstdint>
#include <filesystem>
#include <iterator>
#include <mutex>
#include <string>
#include <utility>

#include <veltrane/net.h>

#include "libveltrane/server_connection.h"
#include "support/sockets.h"

inline std::string QueueLength(int32_t queue) { return {reinterpret_cast<const char *>(&queue), sizeof(queue)}; }

inline size_t OpenDescriptors()
{
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return static_cast<size_t>(std::distance(begin(all), end(all)));
}

inline size_t ThreadsOfThisProcess()
{
    const std::filesystem::directory_iterator all("/proc/self/task");
    return static_cast<size_t>(std::distance(begin(all), end(all)));
}

// A connection to a hub that has already answered; nothing follows its answer. The hub's socket is handed back: it
// reads what the host sends.
inline AgentConnection *ConnectionToHub(const std::string &answer, Descriptor *ret_hub,
                                        ProtocolVersion version = VT_PROTOCOL_FILESTREAM)
{
    TlsPair pair;
    if (!answer.empty()) {
        SSL_write(ConnectionInfoSSL(pair.server.get()), answer.data(), static_cast<int>(answer.size()));
    }
    shutdown(pair.sockets.theirs.Get(), SHUT_WR);
    ConnectionInfoSetProtocolVersion(pair.client.get(), version);
    (void)pair.sockets.ours.Release();  // the connection's
    *ret_hub = std::move(pair.sockets.theirs);
    return veltrane::AgentConnectionNew(pair.client.release());
}

#endif
