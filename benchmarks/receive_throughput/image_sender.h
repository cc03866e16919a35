#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include <sys/socket.h>
#include <sys/uio.h>

namespace kelo::bench {

inline constexpr size_t IMAGE_HEADER_SIZE = 14;
// A packet of 9000 bytes without its IP and UDP headers.
inline constexpr size_t DATAGRAM_SIZE = 8972;
inline constexpr size_t PAYLOAD_SIZE = DATAGRAM_SIZE - IMAGE_HEADER_SIZE;

constexpr uint32_t DatagramsPerImage(size_t image_size) {
    return static_cast<uint32_t>((image_size + PAYLOAD_SIZE - 1) / PAYLOAD_SIZE);
}

struct SendOrder {
    uint16_t port;         // on 127.0.0.1
    uint32_t first_image;  // image number
    uint32_t images;
    double bytes_per_second;  // of image data; 0: as fast as possible
};

// Sends images with as few system calls as the kernel allows: one sendmmsg per image, seven
// datagrams per message where it splits messages itself (UDP_SEGMENT), so that the sender is not
// what is measured. The first four bytes of an image's data are its number, big-endian.
class ImageSender {
public:
    explicit ImageSender(size_t image_size);

    // Seconds that it took. Throws std::system_error.
    double Send(const SendOrder& order);

private:
    void BuildDatagrams();
    void BuildMessages(size_t datagrams_per_message);
    void SetImageNumber(uint32_t number);
    void SendMessages(int fd, size_t first, size_t count);
    void SendPaced(int fd, double& due, double seconds_per_image);

    struct alignas(cmsghdr) SegmentSize {
        std::byte bytes[CMSG_SPACE(sizeof(uint16_t))];
    };

    std::vector<std::byte> image_;
    std::vector<std::array<std::byte, IMAGE_HEADER_SIZE>> headers_;
    std::vector<iovec> slices_;  // header, payload, header, payload, ...
    std::vector<SegmentSize> controls_;
    std::vector<mmsghdr> messages_;
};

}  // namespace kelo::bench
