// A directory server that says what a test puts into its mouth: for answers that a real one never gives.
//
// It runs in a process of its own and takes one connection after the other. To each request on a connection it sends
// the next reply; after the last one it closes the connection, or stays silent.
#ifndef TESTS_SUPPORT_FAKE_DIRECTORY_H
#define TESTS_SUPPORT_FAKE_DIRECTORY_H

#include <poll.h>
#include <sys/prctl.h>

#include <csignal>
#include <string>
#include <vector>

#include "support/child.h"
#include "support/sockets.h"

// The messages of the protocol, as bytes. Lengths below 64 KiB.
namespace ldap_bytes {

inline std::string Tlv(char tag, const std::string &content)
{
    std::string bytes(1, tag);
    if (content.size() < 128) {
        bytes += static_cast<char>(content.size());
    } else {
        bytes += {'\x82', static_cast<char>(content.size() >> 8), static_cast<char>(content.size() & 0xFF)};
    }
    return bytes + content;
}

inline std::string Octets(const std::string &text) { return Tlv('\x04', text); }
inline std::string Sequence(const std::string &content) { return Tlv('\x30', content); }

// A message with the number of the request that it answers; the first request of a connection has number 1.
inline std::string Message(char number, const std::string &operation)
{
    return Sequence(std::string{'\x02', '\x01', number} + operation);
}

inline std::string Result(char tag, char code, const std::string &matched = "", const std::string &text = "")
{
    return Tlv(tag, std::string{'\x0A', '\x01', code} + Octets(matched) + Octets(text));
}

inline std::string BindResult(char code) { return Result('\x61', code); }
inline std::string SearchDone(char code, const std::string &matched = "", const std::string &text = "")
{
    return Result('\x65', code, matched, text);
}
inline std::string ExtendedResult(char code) { return Result('\x78', code); }

inline std::string Attribute(const std::string &name, const std::vector<std::string> &values)
{
    std::string all;
    for (const std::string &value : values) { all += Octets(value); }
    return Sequence(Octets(name) + Tlv('\x31', all));
}
inline std::string SearchEntry(const std::string &dn, const std::string &attributes)
{
    return Tlv('\x64', Octets(dn) + Sequence(attributes));
}
// One whose name is longer than the message.
inline std::string EntryWithoutName() { return Tlv('\x64', "\x04\x7Fx"); }
inline std::string SearchReference(const std::string &uri) { return Tlv('\x73', Octets(uri)); }
inline std::string Intermediate() { return Tlv('\x79', Tlv('\x80', "1.2.3")); }

}  // namespace ldap_bytes

class FakeDirectory {
  public:
    enum class End { kCloses, kIsSilent };

    explicit FakeDirectory(const std::vector<std::string> &replies, End end = End::kCloses)
        : uri("ldap://127.0.0.1:" + listener_.port), server_([&] {
              prctl(PR_SET_PDEATHSIG, SIGKILL);
              for (;;) { Serve(listener_.Accept(), replies, end); }
          })
    {
    }

    // One that answers a bind, and then a search with these operations.
    static std::vector<std::string> Answer(const std::vector<std::string> &operations)
    {
        std::string answer;
        for (const std::string &operation : operations) { answer += ldap_bytes::Message(2, operation); }
        return {ldap_bytes::Message(1, ldap_bytes::BindResult(0)), answer};
    }

  private:
    LoopbackListener listener_;

  public:
    const std::string uri;

  private:
    static void Serve(const Descriptor &client, const std::vector<std::string> &replies, End end)
    {
        char request[65536];
        for (const std::string &reply : replies) {
            if (recv(client.Get(), request, sizeof(request), 0) <= 0 || !SendBytes(client.Get(), reply)) {
                return;
            }
        }
        if (end == End::kCloses) {
            shutdown(client.Get(), SHUT_WR);  // and then read to the end, so that nothing that was sent is reset
        }
        while (recv(client.Get(), request, sizeof(request), 0) > 0) {}
    }

    Child server_;
};

#endif
