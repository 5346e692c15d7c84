// One thread a connection, at most so many, all joined.
//
// The pool owns each socket and closes it when its thread is through, under the record's own mutex, so that stopping
// never shuts down a descriptor that has become somebody else's. A socket that another process has as well (Share) is
// closed and nothing else: shutting it down would end the other's connection.
#ifndef HOST_LIBVELTRANE_CONNECTION_THREADS_H
#define HOST_LIBVELTRANE_CONNECTION_THREADS_H

#include <chrono>
#include <condition_variable>
#include <functional>
#include <list>
#include <mutex>
#include <set>
#include <string>
#include <thread>

namespace veltrane {

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
    //
    // closed  is called once fd is closed, whatever became of it, in the connection's thread or here; may be empty
    [[nodiscard]] bool Start(int fd, const std::string &network, std::function<void()> closed = {});

    // Join the threads that are through.
    void Join();

    // Connections that are not joined yet.
    size_t Count() const { return connections_.size(); }

    // Those of them that peers of one network hold, under the name they were started with.
    size_t CountOf(const std::string &network) const;

    // End all: no further request is read; answers under way may take up to patience to end, then they are cut off.
    void Stop(std::chrono::milliseconds patience);

    // For a connection's own thread: its socket is about to be handed to another process. From now on it is not shut
    // down any more, not by Stop either, which then waits for the thread. false when Stop has begun: too late.
    [[nodiscard]] bool Share(int fd);

  private:
    struct Connection {
        std::mutex mutex;      // guards fd
        int fd = -1;           // -1 once closed
        bool through = false;  // guarded by the pool's mutex
        std::string network;   // of the peer
        std::function<void()> closed;
        std::thread thread;
    };

    void Run(Connection *connection);
    void Forget(int fd);
    void ShutdownAll(int how);

    std::function<void(int)> serve_;
    std::function<void()> ended_;
    std::list<Connection> connections_;  // main thread only; the records stay where they are
    std::mutex mutex_;                   // guards all below and each record's through; taken after a record's mutex
    std::condition_variable all_through_;
    size_t running_ = 0;
    bool stopping_ = false;
    std::set<int> shared_;  // sockets that other processes have as well
};

}  // namespace veltrane

#endif
