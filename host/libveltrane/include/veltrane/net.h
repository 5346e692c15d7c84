// Transport: connections, transactions, trust by key.
//
// One thread at a time uses a connection; different connections are independent. Connect, each read and each write
// end within CONNTIMEOUT seconds. Writing to a closed socket raises SIGPIPE: every program ignores it.
#ifndef VELTRANE_NET_H
#define VELTRANE_NET_H

#include <openssl/ssl.h>

#include <veltrane/types.h>

VT_BEGIN_DECLS

// Numbers of the wire: never renumber.
typedef enum {
    VT_PROTOCOL_UNDEFINED = 0,
    VT_PROTOCOL_CLASSIC = 1,
    VT_PROTOCOL_TLS = 2,
    VT_PROTOCOL_COOKIE = 3,
    VT_PROTOCOL_FILESTREAM = 4
} ProtocolVersion;
// Passed by value.
struct ConnectionFlags_ {
    ProtocolVersion protocol_version;  // highest that may be agreed; undefined = the newest of ours
    bool cache_connection;             // keep it open for the next caller
    bool force_ipv4;
    bool trust_server;    // remember a key not seen before
    bool off_the_record;  // leave no last-seen entry
};

// largest payload of a transaction
#define VT_BUFSIZE 4096

struct ConnectionInfo_ {
    ProtocolVersion protocol;
    struct ConnectionInfoInternal_ *internal;  // the host's own
};

// new: undefined protocol, socket -1, no TLS
ConnectionInfo *ConnectionInfoNew(void);

// frees the record and its TLS object; the socket stays open
void ConnectionInfoDestroy(ConnectionInfo *info);
ProtocolVersion ConnectionInfoProtocolVersion(const ConnectionInfo *info);

// borrowed; NULL when the connection is not TLS
SSL *ConnectionInfoSSL(const ConnectionInfo *info);

// -1 when there is none
int ConnectionInfoSocket(const ConnectionInfo *info);

// borrowed "SHA=" and 64 hex digits of the peer; NULL before the handshake
const char *ConnectionInfoIdentity(const ConnectionInfo *info);
void ConnectionInfoSetProtocolVersion(ConnectionInfo *info, ProtocolVersion version);
void ConnectionInfoSetSocket(ConnectionInfo *info, int fd);

// takes over ssl
void ConnectionInfoSetSSL(ConnectionInfo *info, SSL *ssl);

struct AgentConnection_ {
    ConnectionInfo *conn_info;                  // owned
    unsigned char *session_key;                 // owned; classic only, else NULL
    char encryption_type;                       // letter of the session cipher; classic only
    struct AgentConnectionInternal_ *internal;  // the host's own
};
struct ServerConnectionState_ {
    ConnectionInfo *conn_info;   // owned
    unsigned char *session_key;  // owned; NULL over TLS
    char encryption_type;
    bool dump_reports;                                // keep a copy of every report answer (access promise attribute)
    struct ServerConnectionStateInternal_ *internal;  // the host's own
};

// new; takes over info; the rest is zero
ServerConnectionState *ServerConnectionStateNew(ConnectionInfo *info);

// closes the socket
void ServerConnectionStateDestroy(ServerConnectionState *conn);

// new: connected, handshake done, peer trusted, protocol agreed; restrict_keys NULL = any trusted key, else only
// these identities. NULL: *ret_error = -1 no such host, -2 no answer within the time-out, -3 peer not trusted or
// not among the keys, -4 no common protocol; errno says what the system said. Classic is never spoken on a wire:
// asking for it gives -4.
AgentConnection *ServerConnection(const char *server, const char *port, const Rlist *restrict_keys,
                                  unsigned int connect_timeout, ConnectionFlags flags, int *ret_error);

// TLS close, socket closed, record freed; a connection made with cache_connection whose last answer came whole is put
// aside for the next caller instead
void DisconnectServer(AgentConnection *conn);

// record and TLS object freed without a byte on the wire; the socket stays open
void DeleteAgentConn(AgentConnection *conn);

// 0; -1 on failure or a length outside 0..4096, errno set. A connection without a TLS object (in-process peers)
// sends plainly. status 't' = done, sent at once; 'm' = more follows, may wait for the record to fill
int SendTransaction(ConnectionInfo *info, const char *buffer, int length, char status);

// payload length 0..4096, or -1 (error, time-out, end of stream, malformed header). buffer holds 4096 bytes; a zero
// is put after a payload of fewer than 4096. ret_more (may be NULL): true for 'm', false for 't'
int ReceiveTransaction(ConnectionInfo *info, char *buffer, bool *ret_more);
typedef AgentConnection *(*ServerConnectionFunction)(const char *, const char *, const Rlist *, unsigned int,
                                                     ConnectionFlags, int *);

// tests and in-process peers; returns the one before; NULL = ours
ServerConnectionFunction ServerConnectionReplace(ServerConnectionFunction connect);

// keys and TLS contexts; once, by every program that uses the network
void vtnet_Init(void);

// false before vtnet_Init, after vtnet_Shut and when the key pair cannot be had
bool vtnet_IsInitialized(void);

// closes every AgentConnection still open as well
void vtnet_Shut(void);

// "classic"/"1", "tls"/"2", "cookie"/"3", "filestream"/"latest"/"4"; NULL, "" and "undefined" give undefined;
// anything else too, with an error line
ProtocolVersion ParseProtocolVersionPolicy(const char *text);

// splits in place at the last ':' outside [ ]; brackets taken off; no port: NULL
void ParseHostPort(char *text, char **ret_host, char **ret_port);

// new: address of the policy hub (workdir/hub_address, resolved); NULL when it has none
char *PolicyServerGetIP(void);

// opens the listening socket: its descriptor, -1 on failure
typedef int (*InitServerFunction)(size_t queue_size, char *bind_address);

// wakes the daemon's main loop (0 = nothing else); safe in signal handlers and threads
void HandleSignalsForDaemon(int signum);

VT_END_DECLS

#endif
