// A collect call, accepted: place, answer, hand-over, in this order. hub_functions.h tells the rest.
#include <openssl/err.h>
#include <openssl/ssl.h>

#include <cerrno>

#include <veltrane/alloc.h>
#include <veltrane/errors.h>
#include <veltrane/logging.h>

#include "report-collect/hand_over.h"
#include "report-collect/hub_calls.h"
#include "report-collect/hub_functions.h"

using namespace report_collect;

namespace {

void LogNoPlace(const Place &place, const char *identity)
{
    if (place.trouble.empty()) {
        Log(LOG_LEVEL_INFO, "Put off the collect call of '%s': the queue of the hub process is full", identity);
    } else {
        Log(LOG_LEVEL_WARNING, "Put off the collect call of '%s': there is no hub process that takes it: %s", identity,
            place.trouble.c_str());
    }
}

// Tell the host its place: bare bytes in one TLS record. Past it the host reads nothing more of this TLS connection.
bool TellPlace(SSL *ssl, int32_t number)
{
    ERR_clear_error();
    errno = 0;
    if (SSL_write(ssl, &number, sizeof(number)) == sizeof(number)) {
        return true;
    }
    const int error = errno != 0 ? errno : EPROTO;
    ERR_clear_error();
    errno = error;
    return false;
}

}  // namespace

bool Vesk_AcceptCollectCall__real(ServerConnectionState *conn) noexcept
{
    SSL *ssl = ConnectionInfoSSL(conn->conn_info);
    const char *identity = ConnectionInfoIdentity(conn->conn_info);
    if (ssl == nullptr || identity == nullptr) {
        Log(LOG_LEVEL_ERR, "A collect call is taken over TLS alone, from a host that shows its key");
        return false;
    }
    const Place place = AskForPlace(HubCallsPath());
    if (place.number == 0) {
        LogNoPlace(place, identity);
    }
    if (!TellPlace(ssl, place.number)) {
        Log(LOG_LEVEL_ERR, "Could not answer the collect call of '%s'. (send: %s)", identity, GetErrorStr());
        return false;
    }
    if (place.number == 0) {
        return false;
    }
    const std::string trouble = HandOver(place.line.Get(), ConnectionInfoSocket(conn->conn_info), identity);
    if (!trouble.empty()) {
        // The host waits for the hub now, and nobody can tell it otherwise: all that is left is to close.
        Log(LOG_LEVEL_ERR, "The collect call of '%s' was accepted, and is lost on its way to the hub process: %s",
            identity, trouble.c_str());
        return false;
    }
    Log(LOG_LEVEL_VERBOSE, "Accepted the collect call of '%s', place %d", identity, static_cast<int>(place.number));
    return true;
}

bool share_connection__real(const char *path, const int descriptor, const char *message) noexcept
{
    const Place place = AskForPlace(path);
    std::string trouble = place.trouble;
    if (place.number > 0) {
        trouble = HandOver(place.line.Get(), descriptor, message);
    } else if (trouble.empty()) {
        trouble = "the queue there is full";
    }
    if (!trouble.empty()) {
        Log(LOG_LEVEL_ERR, "Could not share a connection through '%s': %s", path, trouble.c_str());
    }
    return trouble.empty();
}

int take_connection__real(const int interface, char **message) noexcept
{
    TakenConnection taken = TakeHandOver(interface);
    if (!taken.trouble.empty()) {
        Log(LOG_LEVEL_ERR, "Could not take a connection: %s", taken.trouble.c_str());
        return -1;
    }
    if (message != nullptr) {
        *message = xstrdup(taken.text.c_str());
    }
    return taken.socket.Release();
}
