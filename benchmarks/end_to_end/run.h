#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>

// What the processes tell each other about a run: plain records that go through a channel.
namespace kelo::bench {

inline constexpr size_t IMAGE_HEADER_SIZE = 14;
inline constexpr double NOT_MEASURED = std::numeric_limits<double>::quiet_NaN();

// What is sent. An image's data begins with its number (32 bits, big-endian); where StampOffset
// says, there is the time at which its end was sent (64 bits, the machine's own byte order).
struct Traffic {
    uint32_t width = 2048;
    uint32_t height = 2048;
    uint32_t datagram_size = 1472;  // UDP payload: image header and data
    uint32_t cameras = 1;
    double bytes_per_second = 0;  // of image data, all cameras together; 0: as fast as possible
    uint32_t burst = 0;           // datagrams that leave together; 0: as many as a message holds
    bool tcp = false;

    uint32_t ImageSize() const { return width * height; }
    uint32_t PayloadSize() const { return datagram_size - uint32_t{IMAGE_HEADER_SIZE}; }
    uint32_t Datagrams() const { return (ImageSize() + PayloadSize() - 1) / PayloadSize(); }
    uint32_t StampOffset() const;

    bool operator==(const Traffic&) const = default;
};

// What a TCP stream is sent in; the last piece begins with the time at which it was sent.
inline constexpr uint32_t TCP_PIECE = 128 * 1024;

inline uint32_t Traffic::StampOffset() const {
    return tcp ? ImageSize() - TCP_PIECE : (Datagrams() - 1) * PayloadSize();
}

struct Order {
    Traffic traffic;
    double seconds = 1;
    uint32_t images = 0;      // of each camera; 0: as many as the time holds
    uint32_t to_address = 0;  // host order; 0: where the library told the cameras to send
    uint16_t to_port = 0;
    bool merge = true;         // let the kernel split messages (UDP_SEGMENT) where it can
    bool await_start = false;  // begin when the library starts the acquisition
    uint8_t tcp_tag = 0;       // second byte that the wanted connection was opened with
};

// What the camera's side did.
struct Sent {
    uint64_t images;
    uint64_t datagrams;
    uint64_t bytes;  // of image data
    double seconds;
    double
        work_seconds;    // spent in sending: processor time, or time in the calls where it is paced
    double cpu_seconds;  // of the process, with the waiting for the clock
};

// One run, seen from the receiving side.
struct RunResult {
    Sent sent{};
    double seconds = 0;      // from the order to the last arrival
    uint64_t bytes = 0;      // of image data that arrived
    uint64_t datagrams = 0;  // that arrived
    uint64_t whole_images = 0;
    double thread_cpu_ns = NOT_MEASURED;  // of the receiving threads
    double user_seconds = 0;              // of the receiving process
    double system_seconds = 0;
    double kernel_thread_seconds = 0;  // of the kernel's receiving threads, where they are told
    double minor_faults = 0;
    double latency_p50_us = NOT_MEASURED;  // end of an image sent to image delivered
    double latency_p99_us = NOT_MEASURED;
    double instructions = NOT_MEASURED;  // of the receiving threads
    double peak_bytes = 0;               // beyond what the process had before it made its receiver
    double images_in_flight = 0;         // that the receiver held at once
    double receive_buffer = 0;           // that the system granted
    double rss_first = NOT_MEASURED, rss_last = NOT_MEASURED, rss_max = NOT_MEASURED;
    double late_faults_per_image = NOT_MEASURED;  // over the last two thirds
};

}  // namespace kelo::bench
