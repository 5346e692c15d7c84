// One thread a connection, at most so many, all joined.
//
// The pool owns each socket and closes it when its thread is through, under the record's own mutex, so that stopping
// never shuts down a descriptor that has become somebody else's.
#ifndef HOST_VT_SERVERD_CONNECTION_THREADS_H
#define HOST_VT_SERVERD_CONNECTION_THREADS_H

#include <chrono>
#include <condition_variable>
#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <thread>

namespace vtserverd {

class ConnectionThreads {
  public:
    // serve  works on the socket until it has nothing more to do with it, and never closes it
    // ended  is called in the connection's thread when it is through; it must wake whoever calls Join
    ConnectionThreads(std::function<void(int fd)> serve, std::function<void()> ended);
    ~ConnectionThreads();
    ConnectionThreads(const ConnectionThreads &) = delete;
    ConnectionThreads &operator=(const ConnectionThreads &) = delete;

    // The rest is for the main thread.

    // Serve a socket in a thread of its own, for a peer at this network (see CountOf). Takes over fd. false, with
    // errno, when there is no thread to be had.
    [[nodiscard]] bool Start(int fd, const std::string &network);

    // Join the threads that are through.
    void Join();

    // Connections that are not joined yet.
    size_t Count() const { return connections_.size(); }

    // Those of them that peers of one network hold, under the name they were started with.
    size_t CountOf(const std::string &network) const;

    // End all: no further request is read; answers under way may take up to patience to end, then they are cut off.
    void Stop(std::chrono::milliseconds patience);

  private:
    struct Connection {
        std::mutex mutex;      // guards fd
        int fd = -1;           // -1 once closed
        bool through = false;  // guarded by the pool's mutex
        std::string network;   // of the peer
        std::thread thread;
    };

    void Run(Connection *connection);
    void ShutdownAll(int how);

    std::function<void(int)> serve_;
    std::function<void()> ended_;
    std::list<Connection> connections_;  // main thread only; the records stay where they are
    std::mutex mutex_;                   // guards running_ and each record's through
    std::condition_variable all_through_;
    size_t running_ = 0;
};

}  // namespace vtserverd

#endif
