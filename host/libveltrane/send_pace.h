// How long one message may take to be sent: a reader that always takes a little within each time-out must not hold a
// reply, and the memory of it, for ever.
//
// A message may wait for its reader one time-out in all, and a second for each kSlowestBytesPerSecond of it. Only
// waiting counts: a sender that is slow itself uses nothing up.
#ifndef HOST_LIBVELTRANE_SEND_PACE_H
#define HOST_LIBVELTRANE_SEND_PACE_H

#include <algorithm>
#include <chrono>
#include <cstddef>

namespace veltrane {

constexpr std::size_t kSlowestBytesPerSecond = 4096;

class SendPace {
  public:
    using Duration = std::chrono::steady_clock::duration;

    // How long the next bytes of the message may wait; never negative.
    Duration TimeFor(std::size_t bytes, Duration time_out) const
    {
        const std::chrono::milliseconds earned((bytes_ + bytes) * 1000 / kSlowestBytesPerSecond);
        return std::max(Duration::zero(), time_out + earned - waited_);
    }

    // They have waited so long.
    void Sent(std::size_t bytes, Duration waited)
    {
        bytes_ += bytes;
        waited_ += waited;
    }

    // The message is sent whole.
    void Restart() { *this = SendPace(); }

  private:
    std::size_t bytes_ = 0;
    Duration waited_ = Duration::zero();
};

}  // namespace veltrane

#endif
