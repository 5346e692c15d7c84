#include "libvtenterprise/report_collect_extension.h"

#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <type_traits>

#include <veltrane/errors.h>
#include <veltrane/extension.h>
#include <veltrane/logging.h>
#include <veltrane/owned.h>

#include "libvtenterprise/call_frame.h"
#include "libvtenterprise/stubs.h"

namespace {

constexpr char kLibrary[] = "veltrane-report-collect.so";

void *report_collect_library_handle = nullptr;  // written under the once-control only
pthread_once_t report_collect_library_once = PTHREAD_ONCE_INIT;

void OpenOnce() { report_collect_library_handle = extension_library_open(kLibrary); }

bool ClosesAfterEachCall() { return getenv("VELTRANE_TEST_OVERRIDE_EXTENSION_LIBRARY_DO_CLOSE") != nullptr; }

using LibraryPtr = std::unique_ptr<void, veltrane::Destroyer<report_collect_library_close>>;

// One function of the library: its wrapper is looked up until it is found, then kept.
template <typename R, typename... A>
class HubFunction {
  public:
    constexpr HubFunction(const char *symbol, R (*stub)(A...) noexcept) : symbol_(symbol), stub_(stub) {}

    R operator()(A... arguments)
    {
        LibraryPtr library(report_collect_library_open());
        if (const Wrapper wrapper = Find(library.get()); wrapper != nullptr) {
            int successful = 0;
            if constexpr (std::is_void_v<R>) {
                wrapper(kFrameCanary, &successful, arguments..., kFrameCanary);
                if (successful != 0) {
                    return;
                }
            } else {
                const R result = wrapper(kFrameCanary, &successful, arguments..., kFrameCanary);
                if (successful != 0) {
                    return result;
                }
            }
        }
        library.reset();
        return stub_(arguments...);
    }

  private:
    using Wrapper = R (*)(int32_t, int *, A..., int32_t);

    Wrapper Find(void *library)
    {
        if (library == nullptr) {
            return nullptr;
        }
        Wrapper wrapper = wrapper_.load(std::memory_order_acquire);
        if (wrapper == nullptr) {
            wrapper = reinterpret_cast<Wrapper>(shlib_load(library, symbol_));
            if (wrapper != nullptr) {  // what another thread has found meanwhile is not taken away again
                wrapper_.store(wrapper, std::memory_order_release);
            }
        }
        return wrapper;
    }

    const char *const symbol_;
    R (*const stub_)(A...) noexcept;
    std::atomic<Wrapper> wrapper_{nullptr};
};

// Nothing of them is destroyed at the end of the process, when threads may still call.
constinit HubFunction accept_collect_call("Vesk_AcceptCollectCall__wrapper", Vesk_AcceptCollectCall__stub);
constinit HubFunction share_connection_function("share_connection__wrapper", share_connection__stub);
constinit HubFunction take_connection_function("take_connection__wrapper", take_connection__stub);
constinit HubFunction hosts_with_field("VTDB_HostsWithField__wrapper", VTDB_HostsWithField__stub);
constinit HubFunction check_and_set_ha_state("Vesk_CheckAndSetHAState__wrapper", Vesk_CheckAndSetHAState__stub);
constinit HubFunction reload_ha_config("Vesk_ReloadHAConfig__wrapper", Vesk_ReloadHAConfig__stub);
constinit HubFunction get_max_hub_processes("VeskGetMaxVtHubProcesses__wrapper", VeskGetMaxVtHubProcesses__stub);
static_assert(std::is_trivially_destructible_v<decltype(accept_collect_call)>);

}  // namespace

void *report_collect_library_open() noexcept
{
    if (ClosesAfterEachCall()) {
        return extension_library_open(kLibrary);
    }
    const int error = pthread_once(&report_collect_library_once, OpenOnce);
    if (error != 0) {
        errno = error;
        Log(LOG_LEVEL_ERR, "Could not initialize Extension Library: %s: %s", kLibrary, GetErrorStr());
        return nullptr;
    }
    return report_collect_library_handle;
}

void report_collect_library_close(void *handle) noexcept
{
    if (ClosesAfterEachCall()) {
        extension_library_close(handle);
    }
}

bool Vesk_AcceptCollectCall(ServerConnectionState *conn) noexcept { return accept_collect_call(conn); }

bool share_connection(const char *path, const int descriptor, const char *message) noexcept
{
    return share_connection_function(path, descriptor, message);
}

int take_connection(const int interface, char **message) noexcept
{
    return take_connection_function(interface, message);
}

bool VTDB_HostsWithField(EvalContext *ctx, Rlist **return_list, char *field_value, char *return_format,
                         int function_type) noexcept
{
    return hosts_with_field(ctx, return_list, field_value, return_format, function_type);
}

void Vesk_CheckAndSetHAState(const char *workdir, EvalContext *ctx) noexcept { check_and_set_ha_state(workdir, ctx); }

void Vesk_ReloadHAConfig() noexcept { reload_ha_config(); }

size_t VeskGetMaxVtHubProcesses() noexcept { return get_max_hub_processes(); }
