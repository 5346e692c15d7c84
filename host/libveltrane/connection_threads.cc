#include "libveltrane/connection_threads.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>

namespace veltrane {

ConnectionThreads::ConnectionThreads(std::function<void(int fd)> serve, std::function<void()> ended)
    : serve_(std::move(serve)), ended_(std::move(ended))
{
}

ConnectionThreads::~ConnectionThreads() { Stop(std::chrono::milliseconds(0)); }

bool ConnectionThreads::Start(int fd, const std::string &network, std::function<void()> closed)
{
    Connection &connection = connections_.emplace_back();
    connection.fd = fd;
    connection.network = network;
    connection.closed = std::move(closed);
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
        close(fd);
        if (connection.closed) {
            connection.closed();
        }
        connections_.pop_back();
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
        Forget(connection->fd);
        close(std::exchange(connection->fd, -1));
    }
    if (connection->closed) {
        connection->closed();
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

bool ConnectionThreads::Share(int fd)
{
    const std::lock_guard lock(mutex_);
    if (!stopping_) {
        shared_.insert(fd);
    }
    return !stopping_;
}

void ConnectionThreads::Forget(int fd)
{
    const std::lock_guard lock(mutex_);
    shared_.erase(fd);
}

void ConnectionThreads::ShutdownAll(int how)
{
    for (Connection &connection : connections_) {
        const std::lock_guard lock(connection.mutex);
        const std::lock_guard sharing(mutex_);
        if (connection.fd >= 0 && shared_.count(connection.fd) == 0) {
            (void)shutdown(connection.fd, how);  // a peer that is gone already is fine
        }
    }
}

void ConnectionThreads::Stop(std::chrono::milliseconds patience)
{
    {
        const std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    ShutdownAll(SHUT_RD);
    {
        std::unique_lock lock(mutex_);
        all_through_.wait_for(lock, patience, [this] { return running_ == 0; });
    }
    ShutdownAll(SHUT_RDWR);
    for (Connection &connection : connections_) { connection.thread.join(); }
    connections_.clear();
}

}  // namespace veltrane
