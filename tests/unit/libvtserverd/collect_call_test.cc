// The machinery of collect calls: when its worker calls, what it hands over, and how it ends.
//
// The hub is a function of this process, and the worker's clock stands still where a test puts it: what it waits for is
// then over at once (in the past) or never (in the future), and what it logs of its waits is exact.
#include <poll.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <fstream>
#include <functional>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <veltrane/globals.h>

#include "libveltrane/daemon_signal.h"
#include "libvtenterprise/entry_points_real.h"
#include "support/child.h"
#include "support/hub_library.h"
#include "support/log_capture.h"
#include "support/output_log.h"
#include "support/peers.h"
#include "support/work_dir.h"
#include "unit/libvtserverd/collect_call_support.h"

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::Pair;

namespace {

using Line = OutputLog::Line;

constexpr time_t kRealTime = -1;
constexpr time_t kPast = 1'000'000;
constexpr time_t kFuture = 40'000'000'000;
std::atomic<time_t> worker_clock{kRealTime};

// Holds the worker at the second look at its clock: it has been told to go on, and is about to wait.
class Gate {
  public:
    void Arm()
    {
        const std::lock_guard lock(mutex_);
        looks_ = 0;
    }
    void Pass()
    {
        std::unique_lock lock(mutex_);
        if (looks_ >= 0 && ++looks_ == 2) {
            changed_.notify_all();
            changed_.wait(lock, [&] { return looks_ < 0; });
        }
    }
    void AwaitWorker()
    {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [&] { return looks_ == 2; });
    }
    void Open()
    {
        const std::lock_guard lock(mutex_);
        looks_ = -1;
        changed_.notify_all();
    }

  private:
    std::mutex mutex_;  // guards looks_
    std::condition_variable changed_;
    int looks_ = -1;  // since the gate was armed; below 0 it is open
} gate;

// A hub whose connections a test hands out.
class FakeHub {
  public:
    using Answer = std::function<AgentConnection *()>;

    FakeHub()
    {
        hub = this;
        before_ = ServerConnectionReplace(Connect);
    }
    ~FakeHub()
    {
        ServerConnectionReplace(before_);
        hub = nullptr;
    }
    FakeHub(const FakeHub &) = delete;
    FakeHub &operator=(const FakeHub &) = delete;

    static AgentConnection *Refuse() { return nullptr; }

    // A connection with this answer; the far ends are kept.
    Answer With(int32_t queue)
    {
        return [this, queue] {
            Descriptor far_end;
            AgentConnection *const connection = ConnectionToHub(QueueLength(queue), &far_end);
            const std::lock_guard lock(mutex_);
            far_ends_.push_back(std::move(far_end));
            return connection;
        };
    }

    // What the next call gets that has got nothing yet: a call waits for its answer.
    void Next(Answer answer)
    {
        const std::lock_guard lock(mutex_);
        answers_.push_back(std::move(answer));
        changed_.notify_all();
    }

    // What all calls get for which there is no other answer.
    void Always(Answer answer)
    {
        const std::lock_guard lock(mutex_);
        always_ = std::move(answer);
        changed_.notify_all();
    }

    // Wait until so many calls have come; false when that takes too long.
    bool WaitForCall(int number)
    {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, std::chrono::seconds(30), [&] { return calls_ >= number; });
    }

    int Calls() const
    {
        const std::lock_guard lock(mutex_);
        return calls_;
    }

    int FarEnd(size_t i) const
    {
        const std::lock_guard lock(mutex_);
        return far_ends_.at(i).Get();
    }

    void CloseFarEnds()
    {
        const std::lock_guard lock(mutex_);
        far_ends_.clear();
    }

  private:
    static AgentConnection *Connect(const char *, const char *, const Rlist *, unsigned int, ConnectionFlags,
                                    int *ret_error)
    {
        *ret_error = -2;
        return hub->TakeAnswer()();
    }

    Answer TakeAnswer()
    {
        std::unique_lock lock(mutex_);
        calls_++;
        changed_.notify_all();
        changed_.wait(lock, [&] { return always_ || !answers_.empty(); });
        if (answers_.empty()) {
            return always_;
        }
        Answer answer = std::move(answers_.front());
        answers_.pop_front();
        return answer;
    }

    inline static FakeHub *hub = nullptr;
    mutable std::mutex mutex_;  // guards all below
    std::condition_variable changed_;
    std::deque<Answer> answers_;
    Answer always_;
    int calls_ = 0;
    std::vector<Descriptor> far_ends_;
    ServerConnectionFunction before_;
};

std::set<std::string> ThreadIds()
{
    std::set<std::string> ids;
    for (const auto &entry : std::filesystem::directory_iterator("/proc/self/task")) {
        ids.insert(entry.path().filename().string());
    }
    return ids;
}

class CollectCall : public testing::Test {
  protected:
    // A sanitizer makes a thread of its own beside the first, which must not count as the worker.
    static void SetUpTestSuite()
    {
        pid_t first = 0;
        std::thread([&] { first = gettid(); }).join();
        const std::string task = "/proc/self/task/" + std::to_string(first);
        ASSERT_TRUE(Eventually([&] { return !std::filesystem::exists(task); }));
    }

    CollectCall()
    {
        WriteFile(work.path / "hub_address", "127.0.0.1\n");
        worker_clock = kPast;
    }
    ~CollectCall() override
    {
        hub.Always(FakeHub::Refuse);
        CollectCallStop__real();
        const Descriptor never_taken(CollectCallGetPending__real(nullptr));
        CollectCallMarkProcessed__real();
        EXPECT_TRUE(Eventually([&] { return ThreadsOfThisProcess() == threads_before; }));
        worker_clock = kRealTime;
    }

    // From now on the clock stands where waits never end.
    static AgentConnection *EndlessWaitsAfter(const FakeHub::Answer &answer)
    {
        worker_clock = kFuture;
        return answer();
    }

    // What was logged by other threads than this one, in order.
    std::vector<Line> WorkerLines() const
    {
        std::vector<Line> lines = output.Lines();
        for (const Line &own : log.lines) {
            const auto place = std::find(lines.begin(), lines.end(), own);
            if (place != lines.end()) {
                lines.erase(place);
            }
        }
        return lines;
    }

    // Take what waits; -1 when nothing does.
    static std::pair<Descriptor, int> Take()
    {
        int queue = 0;
        Descriptor socket(CollectCallGetPending__real(&queue));
        return {std::move(socket), queue};
    }

    WorkDirectory work;
    const size_t threads_before = ThreadsOfThisProcess();
    OutputLog output;
    LogCapture log;
    FakeHub hub;
};

Line Verbose(const std::string &message) { return {LOG_LEVEL_VERBOSE, message}; }

std::string Waiting(int seconds) { return "CollectCallWorker: timed wait [" + std::to_string(seconds) + " seconds]"; }

const Line kNotStarting = Verbose("CollectCallWorker: no interval specified. Not starting");
const Line kWorkerStopped = Verbose("CollectCallWorker: stopped");
const std::string kInProgress = "CollectCallWorker: already in progress";
const Line kRule = {LOG_LEVEL_INFO, std::string(70, '.')};

// A call without the outcome of the connection.
std::vector<Line> Calling()
{
    return {Verbose("CollectCallWorker: no call in progress"),
            Verbose("CollectCallWorker: trying to contact server"),
            kRule,
            {LOG_LEVEL_INFO, " * Peer collect call back to hub 127.0.0.1 : " + std::string(VELTRANE_PORT_STR)},
            kRule};
}

const std::vector<Line> kNobodyThere = {Verbose("No suitable hub server responded to hail (-2)"),
                                        {LOG_LEVEL_INFO, "Failed to contact the hub for report collection."}};

std::vector<Line> Joined(const std::vector<std::vector<Line>> &parts)
{
    std::vector<Line> all;
    for (const std::vector<Line> &part : parts) { all.insert(all.end(), part.begin(), part.end()); }
    return all;
}

}  // namespace

// The clock of the worker, which nothing else here looks at.
extern "C" int gettimeofday(struct timeval *__restrict tv, void *__restrict) noexcept
{
    gate.Pass();
    const time_t fixed = worker_clock;
    timespec now{fixed, 0};
    if (fixed == kRealTime) {
        clock_gettime(CLOCK_REALTIME, &now);
    }
    *tv = {now.tv_sec, now.tv_nsec / 1000};
    return 0;
}

TEST_F(CollectCall, WithoutAnIntervalNothingStarts)
{
    CollectCallStart__real(0);
    CollectCallStart__real(-300);
    EXPECT_THAT(log.lines, ElementsAre(kNotStarting, kNotStarting));
    EXPECT_EQ(ThreadsOfThisProcess(), threads_before);
}

TEST_F(CollectCall, StartingMakesOneThreadAndSaysSo)
{
    CollectCallStart__real(300);
    EXPECT_THAT(log.lines, ElementsAre(Verbose("CollectCallWorker, starting machinery interval: [300]"),
                                       Verbose("CollectCallWorker: machinery started")));
    EXPECT_EQ(ThreadsOfThisProcess(), threads_before + 1);
}

TEST_F(CollectCall, TheFirstCallComesTenSecondsAfterTheStartAtTheLatest)
{
    CollectCallStart__real(300);
    ASSERT_TRUE(hub.WaitForCall(1));
    EXPECT_THAT(WorkerLines(),
                ElementsAreArray(Joined({{Verbose("CollectCallWorker starting"), Verbose(Waiting(10))}, Calling()})));
}

TEST_F(CollectCall, AShorterIntervalIsTheFirstWaitToo)
{
    CollectCallStart__real(5);
    ASSERT_TRUE(hub.WaitForCall(1));
    EXPECT_THAT(WorkerLines(),
                ElementsAreArray(Joined({{Verbose("CollectCallWorker starting"), Verbose(Waiting(5))}, Calling()})));
}

TEST_F(CollectCall, TheFirstCallOfALongIntervalIsDueInTenSecondsOfTheRealClock)
{
    worker_clock = kRealTime;
    CollectCallStart__real(300);
    EXPECT_TRUE(
        Eventually([&] { return output.Count(Verbose(Waiting(9))) + output.Count(Verbose(Waiting(10))) == 1; }));
    EXPECT_EQ(hub.Calls(), 0);
}

TEST_F(CollectCall, OfTheRealClockOneSecondIsWaited)
{
    worker_clock = kRealTime;
    const auto start = std::chrono::steady_clock::now();
    CollectCallStart__real(1);
    ASSERT_TRUE(hub.WaitForCall(1));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(900));
}

TEST_F(CollectCall, AFailedCallIsTriedAgainOneIntervalAfterTheLastWakeUp)
{
    CollectCallStart__real(300);
    hub.Next([] {
        worker_clock = kPast + 100;  // the call took its time
        return FakeHub::Refuse();
    });
    ASSERT_TRUE(hub.WaitForCall(2));
    EXPECT_THAT(WorkerLines(), ElementsAreArray(Joined({{Verbose("CollectCallWorker starting"), Verbose(Waiting(10))},
                                                        Calling(),
                                                        kNobodyThere,
                                                        {Verbose(Waiting(200))},
                                                        Calling()})));
}

TEST_F(CollectCall, AfterACallLongerThanTheIntervalTheNextFollowsAtOnce)
{
    CollectCallStart__real(5);
    hub.Next([] {
        worker_clock = kPast + 100;
        return FakeHub::Refuse();
    });
    ASSERT_TRUE(hub.WaitForCall(2));
    EXPECT_THAT(
        WorkerLines(),
        ElementsAreArray(Joined(
            {{Verbose("CollectCallWorker starting"), Verbose(Waiting(5))}, Calling(), kNobodyThere, Calling()})));
}

TEST_F(CollectCall, ABusyHubIsAFailureAndIsCalledAgainOneIntervalLater)
{
    CollectCallStart__real(300);
    hub.Next(hub.With(0));
    ASSERT_TRUE(hub.WaitForCall(2));
    EXPECT_THAT(WorkerLines(),
                ElementsAreArray(Joined({{Verbose("CollectCallWorker starting"), Verbose(Waiting(10))},
                                         Calling(),
                                         {Verbose("CollectCallWorker: sending request to server"),
                                          {LOG_LEVEL_INFO, "Server is busy, we'll try calling again later."},
                                          {LOG_LEVEL_INFO, "Failed to contact the hub for report collection."},
                                          Verbose(Waiting(300))},
                                         Calling()})));
    EXPECT_FALSE(CollectCallHasPending__real());
}

TEST_F(CollectCall, AnAcceptedConnectionIsHandedOverOnceAndItsQueueIsRemembered)
{
    CollectCallStart__real(300);
    hub.Next([&] { return EndlessWaitsAfter(hub.With(4)); });
    ASSERT_TRUE(output.WaitForVerbose(Waiting(300)));
    log.lines.clear();

    EXPECT_TRUE(CollectCallHasPending__real());
    int queue = 0;
    const Descriptor socket(CollectCallGetPending__real(&queue));
    EXPECT_TRUE(socket.IsOpen());
    EXPECT_EQ(queue, 4);
    EXPECT_FALSE(CollectCallHasPending__real());
    queue = 0;
    EXPECT_EQ(CollectCallGetPending__real(&queue), -1);
    EXPECT_EQ(queue, 4);
    EXPECT_EQ(CollectCallGetPending__real(nullptr), -1);

    const std::string fd = std::to_string(socket.Get());
    EXPECT_THAT(
        log.lines,
        ElementsAre(Verbose("CollectCallHasPending: true"), Verbose("CollectCallWorker: getting pending connection"),
                    Verbose("CollectCallWorker: socket [" + fd + "], queue [4]"),
                    Verbose("CollectCallHasPending: false"), Verbose("CollectCallWorker: getting pending connection"),
                    Verbose("CollectCallWorker: socket [-1], queue [4]"),
                    Verbose("CollectCallWorker: getting pending connection"),
                    Verbose("CollectCallWorker: socket [-1], queue [4]")));
    const std::vector<Line> all = output.Lines();
    EXPECT_THAT(all, testing::Contains(Verbose("Collect call established socket: " + fd + ", queue: 4.")));
    EXPECT_THAT(all, testing::Contains(Verbose("CollectCallWorker: current waiting queue is [4]")));
    EXPECT_THAT(all, testing::Contains(Verbose(kInProgress)));
    EXPECT_EQ(std::count(all.begin(), all.end(), kNobodyThere.back()), 0);
}

TEST_F(CollectCall, BeforeAnyCallNothingIsPending)
{
    CollectCallStart__real(0);
    EXPECT_FALSE(CollectCallHasPending__real());
    int queue = 7;
    EXPECT_EQ(CollectCallGetPending__real(&queue), -1);
    EXPECT_EQ(queue, -1);
}

TEST_F(CollectCall, TheDaemonIsWokenWhenAConnectionLiesThere)
{
    InChild([&] {  // whose signals are the daemon's
        ASSERT_TRUE(veltrane::CatchDaemonSignals());
        CollectCallStart__real(300);
        hub.Next(hub.With(1));
        pollfd woken{veltrane::DaemonWakeDescriptor(), POLLIN, 0};
        EXPECT_EQ(poll(&woken, 1, 30'000), 1);
        EXPECT_TRUE(CollectCallHasPending__real());
        const veltrane::DaemonRequests requests = veltrane::TakeDaemonRequests();
        EXPECT_FALSE(requests.stop);
        EXPECT_FALSE(requests.reload);
        CollectCallStop__real();
    });
}

TEST_F(CollectCall, WhileAConnectionIsInProgressNoCallIsMade)
{
    CollectCallStart__real(300);
    hub.Next(hub.With(1));
    ASSERT_TRUE(output.WaitForVerbose(kInProgress, 3));
    const auto taken = Take();
    EXPECT_TRUE(taken.first.IsOpen());
    const size_t before = output.Count(Verbose(kInProgress));
    ASSERT_TRUE(output.WaitForVerbose(kInProgress, before + 3));  // taken is not processed
    EXPECT_EQ(hub.Calls(), 1);

    log.lines.clear();
    CollectCallMarkProcessed__real();
    EXPECT_THAT(log.lines, ElementsAre(Verbose("CollectCallWorker: marking as processed"),
                                       Verbose("CollectCallWorker: marked as processed")));
    EXPECT_TRUE(hub.WaitForCall(2));
}

TEST_F(CollectCall, AConnectionThatIsMarkedProcessedButNeverTakenIsClosedByTheNext)
{
    CollectCallStart__real(300);
    hub.Next(hub.With(1));
    ASSERT_TRUE(output.WaitForVerbose(kInProgress));
    CollectCallMarkProcessed__real();
    hub.Next(hub.With(2));
    ASSERT_TRUE(output.WaitForVerbose("CollectCallWorker: current waiting queue is [2]"));
    EXPECT_TRUE(IsEnded(hub.FarEnd(0)));
    EXPECT_TRUE(Eventually([] { return CollectCallHasPending__real(); }));
    EXPECT_EQ(Take().second, 2);
}

TEST_F(CollectCall, AnotherThreadMayTakeTheConnection)
{
    CollectCallStart__real(300);
    hub.Next(hub.With(6));
    std::pair<Descriptor, int> taken;
    std::thread([&] {
        ASSERT_TRUE(Eventually([] { return CollectCallHasPending__real(); }));
        taken = Take();
        CollectCallMarkProcessed__real();
    }).join();
    EXPECT_TRUE(taken.first.IsOpen());
    EXPECT_EQ(taken.second, 6);
    EXPECT_TRUE(hub.WaitForCall(2));
}

TEST_F(CollectCall, AnotherIntervalCountsFromTheNextWakeUpOn)
{
    CollectCallStart__real(300);
    ASSERT_TRUE(hub.WaitForCall(1));
    log.lines.clear();
    CollectCallStart__real(7);
    EXPECT_THAT(log.lines, ElementsAre(Verbose("CollectCallWorker: adjusting interval to [7] while running")));
    EXPECT_EQ(ThreadsOfThisProcess(), threads_before + 1);
    hub.Next(FakeHub::Refuse);
    hub.Next(FakeHub::Refuse);
    ASSERT_TRUE(hub.WaitForCall(3));

    std::vector<Line> waits;
    for (const Line &line : WorkerLines()) {
        if (line.second.rfind("CollectCallWorker: timed wait", 0) == 0) {
            waits.push_back(line);
        }
    }
    EXPECT_THAT(waits, ElementsAre(Verbose(Waiting(10)), Verbose(Waiting(300)), Verbose(Waiting(7))));
}

TEST_F(CollectCall, StoppingWakesAWaitingWorkerAndWaitsForItsEnd)
{
    worker_clock = kFuture;
    CollectCallStart__real(300);
    ASSERT_TRUE(output.WaitForVerbose(Waiting(10)));
    log.lines.clear();
    CollectCallStop__real();
    EXPECT_THAT(log.lines, ElementsAre(Verbose("CollectCallWorker: stopping"), kWorkerStopped));
    EXPECT_EQ(output.Count(kWorkerStopped), 2u);  // the worker's own as well
    EXPECT_EQ(hub.Calls(), 0);
}

TEST_F(CollectCall, AStopThatComesJustBeforeTheWorkerWaitsIsNotMissed)
{
    worker_clock = kFuture;
    gate.Arm();
    CollectCallStart__real(300);
    gate.AwaitWorker();
    CollectCallStart__real(0);  // so that the stop joins nothing
    CollectCallStop__real();
    gate.Open();
    EXPECT_TRUE(output.WaitFor(kWorkerStopped, 2));
    EXPECT_EQ(hub.Calls(), 0);
}

TEST_F(CollectCall, StoppingWhatDoesNotRunOnlySaysSo)
{
    CollectCallStop__real();
    CollectCallStop__real();
    EXPECT_THAT(log.lines, ElementsAre(Verbose("CollectCallWorker: stopping"), kWorkerStopped,
                                       Verbose("CollectCallWorker: stopping"), kWorkerStopped));
}

TEST_F(CollectCall, StoppingDuringACallWaitsForItAndItsConnectionCanStillBeTaken)
{
    CollectCallStart__real(300);
    ASSERT_TRUE(hub.WaitForCall(1));
    std::thread answering([&] {
        EXPECT_TRUE(output.WaitForVerbose("CollectCallWorker: stopping"));
        hub.Next(hub.With(2));
    });
    CollectCallStop__real();
    answering.join();
    EXPECT_TRUE(CollectCallHasPending__real());
    const auto taken = Take();
    EXPECT_TRUE(taken.first.IsOpen());
    EXPECT_EQ(taken.second, 2);
}

TEST_F(CollectCall, AStartAfterAStopBeginsAnewAndForgetsWhatWasNotTaken)
{
    CollectCallStart__real(300);
    hub.Next(hub.With(2));
    ASSERT_TRUE(output.WaitForVerbose(kInProgress));
    CollectCallStop__real();
    EXPECT_TRUE(CollectCallHasPending__real());

    CollectCallStart__real(300);
    EXPECT_FALSE(CollectCallHasPending__real());
    EXPECT_EQ(Take().second, -1);
    EXPECT_TRUE(IsEnded(hub.FarEnd(0)));
    EXPECT_TRUE(hub.WaitForCall(2));  // nothing is in progress any more
}

TEST_F(CollectCall, AnIntervalOfZeroNeitherWakesNorJoinsTheWorker)
{
    worker_clock = kFuture;
    CollectCallStart__real(300);
    ASSERT_TRUE(output.WaitForVerbose(Waiting(10)));
    log.lines.clear();
    CollectCallStart__real(0);
    EXPECT_THAT(log.lines, ElementsAre(Verbose("CollectCallWorker: setting interval to 0 and stopping")));

    // no event tells of what does not happen
    EXPECT_FALSE(Eventually([&] { return output.Count(kWorkerStopped) > 0; }, std::chrono::milliseconds(50)));

    CollectCallStart__real(60);  // another worker comes to its wait, and the first is still there
    ASSERT_TRUE(output.WaitForVerbose(Waiting(10), 2));
    EXPECT_EQ(output.Count(kWorkerStopped), 0u);
    EXPECT_EQ(ThreadsOfThisProcess(), threads_before + 2);

    CollectCallStop__real();
    EXPECT_TRUE(output.WaitFor(kWorkerStopped, 3));  // both workers, and this thread
}

TEST_F(CollectCall, AWorkerThatWasToldToEndIsNotJoinedByAStopEither)
{
    CollectCallStart__real(300);
    ASSERT_TRUE(hub.WaitForCall(1));  // and it stays in that call
    CollectCallStart__real(-1);
    CollectCallStop__real();
    EXPECT_EQ(output.Count(kWorkerStopped), 1u);
    EXPECT_EQ(ThreadsOfThisProcess(), threads_before + 1);
    hub.Next(FakeHub::Refuse);
    EXPECT_TRUE(output.WaitFor(kWorkerStopped, 2));
}

TEST_F(CollectCall, AWorkerThatWasToldToEndEndsAtItsNextWakeUpWithoutACall)
{
    CollectCallStart__real(300);
    ASSERT_TRUE(hub.WaitForCall(1));
    CollectCallStart__real(0);
    hub.Next(FakeHub::Refuse);
    EXPECT_TRUE(output.WaitFor(kWorkerStopped));
    EXPECT_EQ(hub.Calls(), 1);
    EXPECT_EQ(WorkerLines().back(), kWorkerStopped);
}

TEST_F(CollectCall, AWorkerThatWasToldToEndMayStillHandOverItsLastCall)
{
    CollectCallStart__real(300);
    ASSERT_TRUE(hub.WaitForCall(1));
    CollectCallStart__real(0);
    hub.Next(hub.With(5));
    EXPECT_TRUE(output.WaitFor(kWorkerStopped));
    const auto taken = Take();
    EXPECT_TRUE(taken.first.IsOpen());
    EXPECT_EQ(taken.second, 5);
}

TEST_F(CollectCall, AWorkerThatOthersFollowedEndsAndHandsOverNothing)
{
    CollectCallStart__real(300);
    ASSERT_TRUE(hub.WaitForCall(1));
    CollectCallStart__real(0);
    worker_clock = kFuture;
    CollectCallStart__real(300);
    ASSERT_TRUE(output.WaitForVerbose(Waiting(10), 2));

    hub.Next(hub.With(5));  // the first worker's
    EXPECT_TRUE(output.WaitFor(kWorkerStopped));
    EXPECT_FALSE(CollectCallHasPending__real());
    EXPECT_TRUE(IsEnded(hub.FarEnd(0)));
    EXPECT_EQ(hub.Calls(), 1);
    EXPECT_TRUE(Eventually([&] { return ThreadsOfThisProcess() == threads_before + 1; }));
}

TEST_F(CollectCall, AnIntervalOfZeroTwiceStillEndsTheWorker)
{
    CollectCallStart__real(300);
    ASSERT_TRUE(hub.WaitForCall(1));
    CollectCallStart__real(0);
    CollectCallStart__real(0);
    EXPECT_EQ(log.lines.back(), kNotStarting);
    hub.Always(FakeHub::Refuse);
    EXPECT_TRUE(output.WaitFor(kWorkerStopped));
    EXPECT_EQ(hub.Calls(), 1);
}

TEST_F(CollectCall, AThreadThatCannotBeMadeIsAnErrorAndNothingRuns)
{
    pthread_attr_t usual;
    ASSERT_EQ(pthread_getattr_default_np(&usual), 0);
    pthread_attr_t huge;
    pthread_attr_init(&huge);
    ASSERT_EQ(pthread_attr_setstacksize(&huge, size_t{1} << 50), 0);  // more than a process can address
    ASSERT_EQ(pthread_setattr_default_np(&huge), 0);
    CollectCallStart__real(300);
    ASSERT_EQ(pthread_setattr_default_np(&usual), 0);
    pthread_attr_destroy(&usual);
    pthread_attr_destroy(&huge);

    EXPECT_THAT(log.lines, ElementsAre(Verbose("CollectCallWorker, starting machinery interval: [300]"),
                                       Pair(LOG_LEVEL_ERR, "CollectCallWorker: failed to start")));
    CollectCallStop__real();  // joins nothing
    CollectCallStart__real(300);
    EXPECT_EQ(log.lines.back(), Verbose("CollectCallWorker: machinery started"));
}

TEST_F(CollectCall, TheWorkerLeavesSignalsToTheDaemonsThreads)
{
    const std::set<std::string> before = ThreadIds();
    worker_clock = kFuture;
    CollectCallStart__real(300);
    ASSERT_TRUE(output.WaitForVerbose(Waiting(10)));
    for (const std::string &id : ThreadIds()) {
        if (before.count(id) != 0) {
            continue;
        }
        uint64_t blocked = 0;
        std::ifstream status("/proc/self/task/" + id + "/status");
        for (std::string line; std::getline(status, line);) {
            if (line.rfind("SigBlk:", 0) == 0) {
                blocked = std::stoull(line.substr(7), nullptr, 16);
            }
        }
        for (const int signum : {SIGTERM, SIGINT, SIGHUP, SIGUSR1, SIGALRM, SIGCHLD}) {
            EXPECT_NE(blocked >> (signum - 1) & 1, 0u) << signum;
        }
    }
    sigset_t own;
    pthread_sigmask(SIG_SETMASK, nullptr, &own);
    EXPECT_EQ(sigismember(&own, SIGTERM), 0);
}

TEST_F(CollectCall, AProcessMayEndWithAWorkerThatWaits)
{
    Child child([&] {
        worker_clock = kFuture;
        CollectCallStart__real(300);
        EXPECT_TRUE(output.WaitForVerbose(Waiting(10)));
        exit(HasFailure() ? 1 : 0);
    });
    EXPECT_EQ(child.Wait(), 0);
}

TEST_F(CollectCall, AProcessMayEndWithAWorkerThatCalls)
{
    Child child([&] {
        CollectCallStart__real(1);
        EXPECT_TRUE(hub.WaitForCall(1));
        exit(HasFailure() ? 1 : 0);
    });
    EXPECT_EQ(child.Wait(), 0);
}

TEST_F(CollectCall, StartsAndStopsLeaveNoThreadAndNoDescriptor)
{
    const size_t descriptors = OpenDescriptors();
    hub.Always(hub.With(1));
    for (int round = 0; round < 50; round++) {
        CollectCallStart__real(300);
        ASSERT_TRUE(hub.WaitForCall(round + 1));
        CollectCallStop__real();
        EXPECT_TRUE(Eventually([&] { return ThreadsOfThisProcess() == threads_before; }));
    }
    EXPECT_TRUE(Take().first.IsOpen());
    hub.CloseFarEnds();
    EXPECT_EQ(OpenDescriptors(), descriptors);
}

// Whatever is done in whatever order, each stop comes back and nothing is left over.
TEST_F(CollectCall, AThousandRandomSchedulesEndCleanly)
{
    LogSetGlobalLevel(LOG_LEVEL_CRIT);  // the lines of so many loops are not looked at
    const size_t descriptors = OpenDescriptors();
    std::atomic<unsigned> calls{0};
    hub.Always([&] {
        const unsigned number = calls++;
        return number % 8 == 0 ? hub.With(1)() : number % 8 == 1 ? hub.With(0)() : nullptr;
    });
    std::mt19937 random(20);
    for (int schedule = 0; schedule < 1000; schedule++) {
        for (unsigned step = 0, steps = random() % 12; step < steps; step++) {
            switch (random() % 10) {
                case 0:
                case 1:
                case 2:
                    CollectCallStart__real(1 + static_cast<int>(random() % 300));
                    break;
                case 3:
                    CollectCallStart__real(0);
                    break;
                case 4:
                    CollectCallStop__real();
                    break;
                case 5:
                    worker_clock = random() % 2 == 0 ? kPast : kFuture;
                    break;
                case 6:
                    CollectCallMarkProcessed__real();
                    break;
                case 7:
                    (void)CollectCallHasPending__real();
                    break;
                case 8:
                    (void)Take();
                    break;
                default:
                    std::this_thread::yield();
            }
            log.lines.clear();
        }
        CollectCallStop__real();
        hub.CloseFarEnds();
    }
    EXPECT_TRUE(Eventually([&] { return ThreadsOfThisProcess() == threads_before; }));
    (void)Take();
    hub.CloseFarEnds();
    EXPECT_EQ(OpenDescriptors(), descriptors);
}

TEST_F(HubLibraryTest, ReceivingACollectCallIsTheHubLibrarysMatter)
{
    Install("fake_hub");
    InChild([&] {
        ServerConnectionState conn{};
        EXPECT_TRUE(ReceiveCollectCall__real(&conn));
        char accepted[64];
        snprintf(accepted, sizeof(accepted), "Accept(%p)", static_cast<void *>(&conn));
        EXPECT_THAT(log.lines, ElementsAre(Pair(LOG_LEVEL_INFO, accepted)));
    });
}

TEST_F(HubLibraryTest, WithoutThatLibraryACollectCallIsRefused)
{
    InChild([&] {
        ServerConnectionState conn{};
        EXPECT_FALSE(ReceiveCollectCall__real(&conn));
        EXPECT_THAT(log.lines, ElementsAre(NotInstalled(), kCollectCallsNeedAHub));
    });
}
