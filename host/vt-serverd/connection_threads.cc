#include "vt-serverd/connection_threads.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>

namespace vtserverd {

ConnectionThreads::ConnectionThreads(std::function<void(int fd)> serve, std::function<void()> ended)
    : serve_(std::move(serve)), ended_(std::move(ended))
{
}

ConnectionThreads::~ConnectionThreads() { Stop(std::chrono::milliseconds(0)); }

bool ConnectionThreads::Start(int fd, const std::string &network)
{
    Connection &connection = connections_.emplace_back();
    connection.fd = fd;
    connection.network = network;
    {
        const std::lock_guard lock(mutex_);
        ++running_;
    }
    try {
        connection.thread = std::thread(&ConnectionThreads::Run, this, &connection);
    } catch (const std::system_error &failure) {
        {
            const std::lock_guard lock(mutex_);
            --running_;
        }
        connections_.pop_back();
        close(fd);
        errno = failure.code().value();
        return false;
    }
    return true;
}

void ConnectionThreads::Run(Connection *connection)
{
    serve_(connection->fd);
    {
        const std::lock_guard lock(connection->mutex);
        close(std::exchange(connection->fd, -1));
    }
    {
        const std::lock_guard lock(mutex_);
        connection->through = true;
        --running_;
        all_through_.notify_all();
    }
    ended_();
}

void ConnectionThreads::Join()
{
    for (auto connection = connections_.begin(); connection != connections_.end();) {
        bool through = false;
        {
            const std::lock_guard lock(mutex_);
            through = connection->through;
        }
        if (!through) {
            ++connection;
            continue;
        }
        connection->thread.join();
        connection = connections_.erase(connection);
    }
}

size_t ConnectionThreads::CountOf(const std::string &network) const
{
    return static_cast<size_t>(
        std::count_if(connections_.begin(), connections_.end(),
                      [&network](const Connection &connection) { return connection.network == network; }));
}

void ConnectionThreads::ShutdownAll(int how)
{
    for (Connection &connection : connections_) {
        const std::lock_guard lock(connection.mutex);
        if (connection.fd >= 0) {
            (void)shutdown(connection.fd, how);  // a peer that is gone already is fine
        }
    }
}

void ConnectionThreads::Stop(std::chrono::milliseconds patience)
{
    ShutdownAll(SHUT_RD);
    {
        std::unique_lock lock(mutex_);
        all_through_.wait_for(lock, patience, [this] { return running_ == 0; });
    }
    ShutdownAll(SHUT_RDWR);
    for (Connection &connection : connections_) { connection.thread.join(); }
    connections_.clear();
}

}  // namespace vtserverd
