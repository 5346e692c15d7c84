#include "vt-hub/call_workers.h"

#include <fcntl.h>
#include <sys/socket.h>

#include <utility>

namespace vthub {

CallWorkers::CallWorkers(std::size_t threads, std::size_t limit, std::function<Outcome(Caller)> ask,
                         std::function<void()> ended)
    : ask_(std::move(ask)), ended_(std::move(ended)), limit_(limit)
{
    for (std::size_t i = 0; i < threads; ++i) { threads_.emplace_back(&CallWorkers::Run, this); }
}

CallWorkers::~CallWorkers() { (void)Stop(std::chrono::milliseconds(0)); }

void CallWorkers::Add(Caller caller)
{
    const std::lock_guard lock(mutex_);
    waiting_.push_back(std::move(caller));
    changed_.notify_all();
}

std::size_t CallWorkers::Waiting() const
{
    const std::lock_guard lock(mutex_);
    return waiting_.size();
}

bool CallWorkers::IsDone() const
{
    const std::lock_guard lock(mutex_);
    return output_failed_ || (limit_ != 0 && answered_ >= limit_);
}

bool CallWorkers::OutputFailed() const
{
    const std::lock_guard lock(mutex_);
    return output_failed_;
}

void CallWorkers::Run()
{
    std::unique_lock lock(mutex_);
    while (true) {
        changed_.wait(lock, [this] { return stopping_ || (!waiting_.empty() && MayAsk()); });
        if (stopping_) {
            return;
        }
        Caller caller = std::move(waiting_.front());
        waiting_.pop_front();
        // Without a duplicate it is asked all the same; only Stop has to wait for it.
        const veltrane::Descriptor handle(fcntl(caller.socket.Get(), F_DUPFD_CLOEXEC, 0));
        active_.insert(handle.Get());
        ++busy_;
        lock.unlock();
        const Outcome outcome = ask_(std::move(caller));
        lock.lock();
        active_.erase(handle.Get());
        --busy_;
        answered_ += outcome == Outcome::answered ? 1 : 0;
        output_failed_ = output_failed_ || outcome == Outcome::no_output;
        changed_.notify_all();
        lock.unlock();
        ended_();
        lock.lock();
    }
}

bool CallWorkers::Stop(std::chrono::milliseconds patience)
{
    {
        std::unique_lock lock(mutex_);
        stopping_ = true;
        waiting_.clear();
        changed_.notify_all();
        const auto idle = [this] { return busy_ == 0; };
        if (!changed_.wait_for(lock, patience, idle)) {
            for (const int fd : active_) { (void)shutdown(fd, SHUT_RDWR); }  // a peer that is gone already is fine
            if (!changed_.wait_for(lock, patience, idle)) {
                return false;
            }
        }
    }
    for (std::thread &thread : threads_) { thread.join(); }
    threads_.clear();
    return true;
}

}  // namespace vthub
