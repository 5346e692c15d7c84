// The network layer of a process: its key and its TLS, from vtnet_Init to vtnet_Shut.
#include <veltrane/net.h>

#include <mutex>
#include <utility>

#include <veltrane/logging.h>

#include "libveltrane/server_connection.h"
#include "libveltrane/tls_context.h"

namespace veltrane {

namespace {

std::mutex contexts_mutex;  // guards contexts

// A handshake under way keeps the contexts it began with.
std::shared_ptr<const TlsContexts> contexts;

}  // namespace

std::shared_ptr<const TlsContexts> CurrentTlsContexts()
{
    const std::lock_guard lock(contexts_mutex);
    return contexts;
}

}  // namespace veltrane

extern "C" {

void vtnet_Init(void)
{
    std::string error;
    const veltrane::KeyPtr key = veltrane::OwnKey(&error);
    std::shared_ptr<const veltrane::TlsContexts> made;
    if (key != nullptr) {
        made = veltrane::MakeTlsContexts(key.get(), &error);
    }
    if (made == nullptr) {
        Log(LOG_LEVEL_ERR, "The network cannot be used. %s", error.c_str());
    }
    const std::lock_guard lock(veltrane::contexts_mutex);
    veltrane::contexts = std::move(made);
}

bool vtnet_IsInitialized(void) { return veltrane::CurrentTlsContexts() != nullptr; }

void vtnet_Shut(void)
{
    veltrane::CloseOpenConnections();
    const std::lock_guard lock(veltrane::contexts_mutex);
    veltrane::contexts.reset();
}

}  // extern "C"
