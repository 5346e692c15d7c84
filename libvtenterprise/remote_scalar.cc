#include "libvtenterprise/remote_scalar.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>

#include <veltrane/crypto.h>
#include <veltrane/errors.h>
#include <veltrane/eval_context.h>
#include <veltrane/globals.h>
#include <veltrane/logging.h>

#include "libvtenterprise/entry_points_real.h"

namespace {

constexpr char kEnterpriseCipher = 'N';
constexpr char kFailure[] = "BAD:";
constexpr size_t kFailureLength = sizeof(kFailure) - 1;

char *Fail(char *recvbuffer)
{
    memcpy(recvbuffer, kFailure, sizeof(kFailure));
    return recvbuffer;
}

// The connection to "host" or "host:port"; NULL after an error line.
AgentConnection *Hail(const EvalContext *ctx, const char *handle, const char *server, char *recvbuffer)
{
    ConnectionFlags flags{};
    flags.protocol_version =
        ParseProtocolVersionPolicy(EvalContextVariableControlCommonGet(ctx, COMMON_CONTROL_PROTOCOL_VERSION));
    std::string address(server);
    char *host = nullptr;
    char *port = nullptr;
    ParseHostPort(address.data(), &host, &port);
    Log(LOG_LEVEL_VERBOSE, "* Hailing %s for remote handle \"%s\"", host, handle);
    memset(recvbuffer, 0, VT_BUFSIZE);

    int error = 0;
    AgentConnection *conn =
        ServerConnection(host, port, nullptr, static_cast<unsigned int>(CONNTIMEOUT), flags, &error);
    if (conn == nullptr) {
        Log(LOG_LEVEL_ERR, "remotescalar: no suitable server responded (connect: %s)", GetErrorStr());
    }
    return conn;
}

// The bytes of a message; what is too long for one fails there, however long it is.
int MessageLength(size_t length) { return static_cast<int>(std::min<size_t>(length, VT_BUFSIZE + 1)); }

// The encrypted form of a request; its length, or -1 when it cannot be encrypted.
int EncryptRequest(const AgentConnection *conn, const char *word, const std::string &request,
                   char (&message)[VT_BUFSIZE])
{
    char cipher_text[VT_BUFSIZE];
    const int cipher_length = EncryptString(cipher_text, sizeof(cipher_text), request.c_str(),
                                            MessageLength(request.size() + 1), kEnterpriseCipher, conn->session_key);
    return cipher_length < 0 ? -1 : WriteEncryptedRequest(word, cipher_text, cipher_length, message);
}

// Replace an encrypted answer by what it says; false when it cannot be read.
bool DecryptAnswer(const AgentConnection *conn, char *recvbuffer, int length)
{
    char cipher_text[VT_BUFSIZE];
    memcpy(cipher_text, recvbuffer, static_cast<size_t>(length));
    memset(recvbuffer, 0, VT_BUFSIZE);
    return DecryptString(recvbuffer, VT_BUFSIZE, cipher_text, length, kEnterpriseCipher, conn->session_key) >= 0;
}

// Send the request and receive its answer: the answer's length. -1 after an error line, and the connection is closed.
int Exchange(AgentConnection *conn, const char *message, int length, char *recvbuffer)
{
    if (SendTransaction(conn->conn_info, message, length, 't') == -1) {
        Log(LOG_LEVEL_ERR, "remotescalar: failed to send (send: %s)", GetErrorStr());
        DisconnectServer(conn);
        return -1;
    }
    const int received = ReceiveTransaction(conn->conn_info, recvbuffer, nullptr);
    if (received == -1) {
        Log(LOG_LEVEL_ERR, "remotescalar: failed to receive (recv: %s)", GetErrorStr());
        Log(LOG_LEVEL_VERBOSE, "No answer from host");
        DisconnectServer(conn);
    }
    return received;
}

}  // namespace

int WriteEncryptedRequest(const char *word, const char *cipher_text, int cipher_length, char (&message)[VT_BUFSIZE])
{
    const int length = cipher_length + kCipherTextOffset;
    if (length > VT_BUFSIZE) {
        ProgrammingError("GetRemoteScalar: tosend (%d) > sendbuffer (%zu)", length, sizeof(message));
    }
    (void)snprintf(message, kCipherTextOffset, "S%s %d", word, cipher_length);
    memcpy(message + kCipherTextOffset, cipher_text, static_cast<size_t>(cipher_length));
    return length;
}

char *GetRemoteScalar__real(EvalContext *ctx, char *proto, char *handle, const char *server, int encrypted,
                            char *recvbuffer) noexcept
{
    if (!vtnet_IsInitialized()) {
        return nullptr;
    }
    AgentConnection *conn = Hail(ctx, handle, server, recvbuffer);
    if (conn == nullptr) {
        return Fail(recvbuffer);
    }
    const std::string request = std::string(proto) + ' ' + handle;
    // Over TLS the channel is encrypted already.
    const bool by_cipher = encrypted != 0 && ConnectionInfoProtocolVersion(conn->conn_info) == VT_PROTOCOL_CLASSIC;
    char message[VT_BUFSIZE] = {};
    int length = MessageLength(request.size());
    if (by_cipher) {
        length = EncryptRequest(conn, proto, request, message);
        if (length < 0) {
            Log(LOG_LEVEL_ERR, "Encryption failed for \"%s\"", request.c_str());
            return recvbuffer;
        }
    }
    const int received = Exchange(conn, by_cipher ? message : request.c_str(), length, recvbuffer);
    if (received == -1 || strncmp(recvbuffer, kFailure, kFailureLength) == 0) {
        return Fail(recvbuffer);
    }
    if (by_cipher && !DecryptAnswer(conn, recvbuffer, received)) {
        Log(LOG_LEVEL_ERR, "Decryption failed for \"%s\"", request.c_str());
        return Fail(recvbuffer);
    }
    return recvbuffer;
}
