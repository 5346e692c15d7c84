// The threads that ask hosts that called, so many at once.
//
// The hosts wait here in the order in which they came. With a limit, no host is asked that could not count any more:
// the number answered never goes beyond it.
#ifndef HOST_VT_HUB_CALL_WORKERS_H
#define HOST_VT_HUB_CALL_WORKERS_H

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <veltrane/owned.h>

namespace vthub {

struct Caller {
    veltrane::Descriptor socket;
    std::string key;  // the identity that it has shown when it called
};

enum class Outcome {
    answered,
    no_answer,
    no_output,  // what was answered cannot be shown: there is no use in asking others
};

class CallWorkers {
  public:
    // threads  how many are asked at once
    // limit    how many answers are wanted; 0 = any number
    // ask      works on one caller in a thread of its own, and ends in bounded time once its socket is shut down
    // ended    is called in that thread afterwards
    CallWorkers(std::size_t threads, std::size_t limit, std::function<Outcome(Caller)> ask,
                std::function<void()> ended);
    ~CallWorkers();
    CallWorkers(const CallWorkers &) = delete;
    CallWorkers &operator=(const CallWorkers &) = delete;

    void Add(Caller caller);

    // Hosts that wait for a thread.
    std::size_t Waiting() const;

    // Whether the wanted number has answered, or there is no output any more.
    bool IsDone() const;
    bool OutputFailed() const;

    // End: no other host is asked; what is under way may take up to patience, then its sockets are shut down, and it
    // has patience again. false when a thread is still busy after that; the process must then end without this object's
    // destructor.
    [[nodiscard]] bool Stop(std::chrono::milliseconds patience);

  private:
    void Run();
    bool MayAsk() const { return limit_ == 0 || answered_ + busy_ < limit_; }

    std::function<Outcome(Caller)> ask_;
    std::function<void()> ended_;
    const std::size_t limit_;
    mutable std::mutex mutex_;  // guards all below but threads_
    std::condition_variable changed_;
    std::deque<Caller> waiting_;
    std::set<int> active_;  // duplicates of the sockets that are worked on, to shut them down by
    std::size_t busy_ = 0;
    std::size_t answered_ = 0;
    bool output_failed_ = false;
    bool stopping_ = false;
    std::vector<std::thread> threads_;
};

}  // namespace vthub

#endif
