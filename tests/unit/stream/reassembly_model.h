#pragma once

// What reassembly does, told a second time in the simplest way there is: one position at a time, no
// shortcut, no care for speed. StreamReceiver must not be told from it.

#include <algorithm>
#include <cstdint>
#include <deque>
#include <string>
#include <utility>
#include <vector>

#include "kelo_types.h"
#include "stream_wire.h"

namespace kelo::test {

class ReassemblyModel {
public:
    struct Image {
        uint32_t number;
        uint32_t count;
        uint32_t payload_length;
        bool length_is_sure;
        std::string data;
        BufferStatistics losses{};
        StreamStatistics counters{};
    };

    explicit ReassemblyModel(uint32_t frame_size) : frame_size_(frame_size) {}

    void Restart() { Restart(frame_size_); }

    void Restart(uint32_t frame_size) {
        CompleteAll();
        frame_size_ = frame_size;
        window_.assign(2048, false);
        first_packet_sets_window_ = true;
        image_ = packet_ = 0;
        arrivals_ = 0;
        waiting_ = 0;
    }

    void Receive(const ImagePacket& p) {
        quiet_ = false;
        bool known = std::any_of(images_.begin(), images_.end(),
                                 [&](const Image& image) { return image.number == p.image; });
        if (!known && p.count == 0) return Say("Invalid packet number", p.number, ">=", 0, p.image);
        if (first_packet_sets_window_) {
            image_ = p.image;
            packet_ = 0;
            first_packet_sets_window_ = false;
        }
        Step3(p);
    }

    void Tick() {
        if (quiet_) CompleteAll();
        quiet_ = true;
    }

    void ResetStatistics() { counters_ = {}; }

    // Without any image to come, or with several of them, nobody can tell what completes one.
    uint32_t PacketsToCome() const {
        return images_.size() == 1 ? images_.front().count - packet_ - waiting_ : 0;
    }

    bool IsIdle() const { return images_.empty(); }

    // Whether an image began since the last call.
    bool TakeBegun() { return std::exchange(begun_, false); }

    std::deque<Image> finished;
    std::vector<std::string> log;

private:
    void Step3(const ImagePacket& p) {
        uint32_t before = 0;
        size_t index = 0;
        while (index < images_.size() && images_[index].number != p.image) {
            before += images_[index++].count;
        }
        const auto length = static_cast<uint32_t>(p.payload.size());
        if (index == images_.size()) {
            while (images_.size() >= 512)
                Consume(false);
            index = images_.size();
            before = 0;
            for (const Image& image : images_)
                before += image.count;
            begun_ = true;
            if (images_.empty()) {
                counters_.imagesSkipped += p.image - image_;
                image_ = p.image;
                packet_ = 0;
            }
            images_.push_back({p.image, p.count, length, p.number != p.count - 1 && p.count != 1,
                               std::string(frame_size_, '\0')});
        }
        Image& image = images_[index];
        if (p.number >= image.count) {
            return Say("Invalid packet number", p.number, ">=", image.count, p.image);
        }
        if (p.image == image_ && p.number < packet_) {
            return Say("Invalid packet number (too old)", p.number, "<", packet_, p.image);
        }
        const uint32_t distance = before - packet_ + p.number;
        if (distance >= 2048) {
            if (++too_new_ < 6) return;
            log.push_back("Too many too new packets received, recovering, moving sliding window.");
            for (uint32_t i = 0; i < distance; ++i)
                Consume(false);
            log.push_back("Sliding window position: img nr " + Signed(image_) + ", packet " +
                          Signed(packet_) + ".");
            return Step3(p);
        }
        Place(p, image, length);
        if (!window_[distance]) ++waiting_;
        window_[distance] = true;
        ++arrivals_;
        while (!images_.empty() && (window_[0] || arrivals_ > 409))
            Consume(false);
    }

    void Place(const ImagePacket& p, Image& image, uint32_t length) {
        if (!image.length_is_sure && p.number != image.count - 1) {
            const uint64_t from = uint64_t{image.count - 1} * image.payload_length;
            const uint64_t to = uint64_t{image.count - 1} * length;
            const std::string slice =
                from < frame_size_ ? image.data.substr(from, image.payload_length) : "";
            for (size_t i = 0; i < slice.size() && to + i < frame_size_; ++i) {
                image.data[to + i] = slice[i];
            }
            image.payload_length = length;
            image.length_is_sure = true;
        }
        for (uint64_t i = 0; i < length; ++i) {
            const uint64_t at = uint64_t{image.payload_length} * p.number + i;
            if (at < frame_size_) image.data[at] = p.payload[i];
        }
        counters_.bytesReceived += length;
        image.losses.bytesReceived += length;
    }

    void Consume(bool forced) {
        const bool received = window_.front();
        window_.pop_front();
        window_.push_back(false);
        ++packet_;
        too_new_ = 0;
        Image& image = images_.front();
        if (received) {
            --waiting_;
            --arrivals_;
        } else {
            counters_.missingPackets += 1;
            counters_.bytesLost += image.payload_length;
            image.losses.errorFlag = 1;
            image.losses.missingPackets++;
            image.losses.bytesLost += image.payload_length;
        }
        if (packet_ < image.count) return;
        counters_.imagesReceived += 1;
        image.counters = counters_;
        finished.push_back(image);
        if (forced) {
            log.push_back("Image " + Signed(image.number) +
                          " completed (forcefully by timer - no new packets arrived).");
        }
        images_.pop_front();
        ++image_;
        if (!images_.empty()) {
            counters_.imagesSkipped += images_.front().number - image_;
            image_ = images_.front().number;
        }
        packet_ = 0;
    }

    void CompleteAll() {
        while (!images_.empty())
            Consume(true);
    }

    static std::string Signed(uint32_t number) { return std::to_string(static_cast<int>(number)); }

    void Say(const std::string& what, uint32_t number, const std::string& sign, uint32_t limit,
             uint32_t image) {
        log.push_back(what + " " + Signed(number) + " " + sign + " " + Signed(limit) +
                      (sign == "<" ? " (sliding window position) (image nr "
                                   : " (all packets for image nr ") +
                      Signed(image) + ").");
    }

    uint32_t frame_size_;
    std::deque<Image> images_;
    std::deque<bool> window_ = std::deque<bool>(2048, false);
    bool first_packet_sets_window_ = false;
    bool quiet_ = true;
    bool begun_ = false;
    uint32_t image_ = 0;
    uint32_t packet_ = 0;
    int arrivals_ = 0;
    uint32_t waiting_ = 0;  // entries of the window that are set
    uint32_t too_new_ = 0;
    StreamStatistics counters_{};
};

}  // namespace kelo::test
