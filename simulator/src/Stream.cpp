#include "Stream.h"

#include <algorithm>
#include <iterator>
#include <stdexcept>
#include <utility>

#include <pthread.h>

#include "Wire.h"

namespace kelosim {
namespace {

std::chrono::steady_clock::duration Seconds(double seconds) {
    return std::chrono::duration_cast<std::chrono::steady_clock::duration>(
        std::chrono::duration<double>(seconds));
}

// Whoever falls behind by more than this does not catch up.
constexpr std::chrono::milliseconds kMaxLag(500);

void AppendFrame(const StreamConfig& config, uint32_t number, std::vector<uint8_t>& out) {
    const size_t begin = out.size();
    if (config.header_size > 0) {
        wire::Writer(out).U32(number).U16(config.source->Width()).U16(config.source->Height());
        out.resize(begin + config.header_size);
    }
    config.source->Render(number, out);
}

}  // namespace

std::vector<uint8_t> StreamConfig::Frame(uint32_t number) const {
    std::vector<uint8_t> frame;
    AppendFrame(*this, number, frame);
    return frame;
}

uint32_t StreamConfig::MaxFrameSize() const {
    return header_size + source->MaxSize();
}

Stream::Stream(uint8_t number, const StreamConfig& config, Event event)
    : number_(number), config_(config), event_(std::move(event)) {
    thread_ = std::thread([this] { Loop(); });
    pthread_setname_np(thread_.native_handle(), ("sim-stream-" + std::to_string(number)).c_str());
}

Stream::~Stream() {
    Abort();
    {
        std::lock_guard lock(mutex_);
        quit_ = true;
    }
    changed_.notify_all();
    thread_.join();
}

void Stream::Start(const StreamPlan& plan) {
    {
        std::lock_guard lock(mutex_);
        plan_ = plan;
        acquiring_ = true;
        aborted_ = false;
        ++acquisition_;
        images_made_ = 0;
        sent_.clear();
        triggers_ = 0;
        next_due_ = Clock::now();
    }
    changed_.notify_all();
}

void Stream::Update(const StreamPlan& plan) {
    {
        std::lock_guard lock(mutex_);
        // A new rate counts from now on, not from an image that was due at the old one.
        if (plan.frame_rate != plan_.frame_rate) next_due_ = Clock::now();
        plan_ = plan;
    }
    changed_.notify_all();
}

void Stream::Stop() {
    {
        std::lock_guard lock(mutex_);
        acquiring_ = false;
    }
    changed_.notify_all();
}

void Stream::Abort() {
    Lock lock(mutex_);
    acquiring_ = false;
    aborted_ = true;
    if (connection_) connection_->Close();
    connection_.reset();
    changed_.notify_all();
    idle_.wait(lock, [&] { return !busy_; });
}

void Stream::Trigger() {
    {
        std::lock_guard lock(mutex_);
        ++triggers_;
    }
    changed_.notify_all();
}

void Stream::Connect(TcpConnectionPtr connection) {
    {
        std::lock_guard lock(mutex_);
        if (connection_) connection_->Close();
        connection_ = std::move(connection);
    }
    changed_.notify_all();
}

bool Stream::acquiring() const {
    std::lock_guard lock(mutex_);
    return acquiring_;
}

bool Stream::active() const {
    std::lock_guard lock(mutex_);
    return acquiring_ || busy_;
}

StreamCounters Stream::counters() const {
    std::lock_guard lock(mutex_);
    return counters_;
}

std::vector<std::vector<uint8_t>> Stream::SentDatagrams() const {
    std::lock_guard lock(mutex_);
    return sent_;
}

void Stream::Loop() {
    Lock lock(mutex_);
    while (WaitForNextImage(lock))
        SendImage(lock);
}

bool Stream::Ready() const {
    if (!acquiring_ || plan_.silent || (plan_.triggered && triggers_ == 0)) return false;
    // Images are made only for someone: without a connection none is lost.
    if (plan_.over_tcp) return connection_ && !connection_->closed();
    return plan_.route.to.port != 0;
}

bool Stream::WaitForNextImage(Lock& lock) {
    while (!quit_) {
        if (!acquiring_ && sender_) FlushHeld();
        if (!Ready()) {
            // Looked at again when something changes.
            changed_.wait(lock);
            continue;
        }
        if (plan_.frame_rate <= 0 || plan_.triggered) return true;
        const auto now = Clock::now();
        if (now >= next_due_) {
            if (now - next_due_ > kMaxLag) next_due_ = now;
            next_due_ += Seconds(1 / plan_.frame_rate);
            return true;
        }
        changed_.wait_until(lock, next_due_);
    }
    return false;
}

void Stream::FlushHeld() {
    if (!aborted_) Count(sender_->Flush(plan_.route));
    sender_.reset();
}

void Stream::SendImage(Lock& lock) {
    const StreamPlan plan = plan_;
    const TcpConnectionPtr connection = connection_;
    const uint64_t acquisition = acquisition_;
    ImageHeader header;
    header.stream = number_;
    header.width = config_.source->Width();
    header.height = config_.source->Height();
    header.image_number = JumpedNumber(
        *plan.faults, config_.first_image_number + static_cast<uint32_t>(images_made_));
    ++images_made_;
    if (plan.triggered) --triggers_;
    busy_ = true;
    lock.unlock();

    frame_.clear();
    AppendFrame(config_, header.image_number, frame_);
    SendTally tally;
    const bool sent = plan.over_tcp ? SendTcpImage(*connection, frame_, header, *plan.faults, tally)
                                    : SendUdp(plan, header, tally);
    lock.lock();
    FinishImage(header.image_number, sent, std::move(tally));
    const bool last = acquisition == acquisition_ && acquiring_ && plan_.image_count != 0 &&
                      images_made_ >= plan_.image_count;
    if (last) acquiring_ = false;
    // Packets that faults delay must not wait for the next acquisition.
    if (!acquiring_ && sender_) FlushHeld();
    busy_ = false;
    idle_.notify_all();
    if (!last) return;
    lock.unlock();
    event_("stream " + std::to_string(number_) + ": all " + std::to_string(plan.image_count) +
           " images sent");
    lock.lock();
}

void Stream::FinishImage(uint32_t number, bool sent, SendTally tally) {
    if (sent) ++counters_.images;
    Count(std::move(tally));
    counters_.last_image_number = number;
}

void Stream::Count(SendTally tally) {
    counters_.packets += tally.packets;
    counters_.bytes += tally.bytes;
    counters_.packets_dropped += tally.dropped;
    std::move(tally.datagrams.begin(), tally.datagrams.end(), std::back_inserter(sent_));
}

bool Stream::SendUdp(const StreamPlan& plan, const ImageHeader& header, SendTally& tally) {
    try {
        if (!sender_ || sender_address_ != plan.local_address) {
            sender_ = std::make_unique<UdpImageSender>(plan.local_address, config_.keep_sent);
            sender_address_ = plan.local_address;
        }
    } catch (const std::runtime_error& error) {
        event_("stream " + std::to_string(number_) + ": " + error.what());
        Stop();
        return false;
    }
    const uint32_t payload = UdpImageSender::PayloadSize(plan.route.packet_size);
    if (UdpImageSender::PacketCount(frame_.size(), payload) == 0) {
        event_("stream " + std::to_string(number_) + ": an image needs more than 65535 packets");
        Stop();
        return false;
    }
    tally =
        sender_->Send(frame_, header, plan.route, *plan.faults, config_.max_bytes_per_second > 0,
                      [this](uint64_t bytes) { return Pace(bytes); });
    return true;
}

bool Stream::Pace(uint64_t bytes) {
    Lock lock(mutex_);
    if (config_.max_bytes_per_second <= 0) return !aborted_ && !plan_.silent;
    const auto now = Clock::now();
    if (now - pace_due_ > std::chrono::milliseconds(20)) pace_due_ = now;
    pace_due_ += Seconds(static_cast<double>(bytes) / config_.max_bytes_per_second);
    changed_.wait_until(lock, pace_due_, [&] { return aborted_; });
    return !aborted_ && !plan_.silent;
}

}  // namespace kelosim
