#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "FaultPlan.h"
#include "Sockets.h"
#include "TcpStreams.h"
#include "UdpImageSender.h"
#include "kelosim/camera.h"

namespace kelosim {

// How images are to leave. May change while they do.
struct StreamPlan {
    bool over_tcp = false;
    bool triggered = false;
    bool silent = false;
    double frame_rate = 0;     // 0: as fast as possible
    uint32_t image_count = 0;  // 0: no end
    uint32_t local_address = 0;
    UdpImageSender::Route route;
    std::shared_ptr<const Faults> faults;
};

// One image stream and its thread, which makes the images and sends them. Owned by a camera; its
// functions may be called from any thread but its own.
class Stream {
public:
    using Event = std::function<void(const std::string&)>;

    // The event is called on the stream's thread, without any lock of the stream.
    Stream(uint8_t number, const StreamConfig& config, Event event);
    ~Stream();
    Stream(const Stream&) = delete;
    Stream& operator=(const Stream&) = delete;

    // A new acquisition, from the first image number.
    void Start(const StreamPlan& plan);
    void Update(const StreamPlan& plan);
    // No further image; one that is on its way still leaves.
    void Stop();
    // Stops in the middle of an image, ends the connection and waits until nothing leaves any more.
    void Abort();
    void Trigger();
    // The connection over which images are to leave from now on; an earlier one is closed.
    void Connect(TcpConnectionPtr connection);

    // Started and not stopped.
    bool acquiring() const;
    // Whether an image is on its way or will be.
    bool active() const;
    StreamCounters counters() const;
    std::vector<std::vector<uint8_t>> SentDatagrams() const;

private:
    using Clock = std::chrono::steady_clock;
    using Lock = std::unique_lock<std::mutex>;

    void Loop();
    bool Ready() const;
    // Waits for the next image's time; false when the thread is to end.
    bool WaitForNextImage(Lock& lock);
    void SendImage(Lock& lock);
    bool SendUdp(const StreamPlan& plan, const ImageHeader& header, SendTally& tally);
    bool Pace(uint64_t bytes);
    // With the lock held.
    void FlushHeld();
    void FinishImage(uint32_t number, bool sent, SendTally tally);
    void Count(SendTally tally);

    // Constant after construction.
    const uint8_t number_;
    const StreamConfig config_;
    const Event event_;

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::condition_variable idle_;
    // Guarded by mutex_.
    StreamPlan plan_;
    bool acquiring_ = false;
    bool aborted_ = false;
    bool quit_ = false;
    bool busy_ = false;
    uint64_t acquisition_ = 0;  // counts starts
    uint64_t images_made_ = 0;  // of this acquisition
    uint64_t triggers_ = 0;
    Clock::time_point next_due_;
    TcpConnectionPtr connection_;
    StreamCounters counters_;
    std::vector<std::vector<uint8_t>> sent_;  // of this acquisition

    // Owned by the thread.
    std::vector<uint8_t> frame_;
    std::unique_ptr<UdpImageSender> sender_;
    uint32_t sender_address_ = 0;
    Clock::time_point pace_due_;

    std::thread thread_;
};

}  // namespace kelosim
