#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include <sys/socket.h>
#include <sys/uio.h>

#include "../support/bench_camera.h"
#include "run.h"

namespace kelo::bench {

// The cameras' image datagrams, sent with as few system calls as the kernel allows, so that the
// sender is not what is measured: a burst is one message that the kernel splits (UDP_SEGMENT), and
// at full blast an image is one sendmmsg. Where it is paced it waits for the clock in a loop and
// never sleeps.
class UdpSender {
public:
    // traffic as in orders to come. Messages are built once.
    UdpSender(const Traffic& traffic, const CameraSetup& cameras, bool merge);

    bool Fits(const Traffic& traffic, bool merge) const;
    // Throws std::system_error. Image numbers go on from the last call.
    Sent Send(const Order& order);

private:
    struct alignas(cmsghdr) SegmentSize {
        std::byte bytes[CMSG_SPACE(sizeof(uint16_t))];
    };
    // One camera's image, cut into messages. All cameras send the same pixels.
    struct Camera {
        uint32_t number = 0;
        std::vector<std::array<std::byte, IMAGE_HEADER_SIZE>> headers;
        std::vector<iovec> slices;  // header, payload, header, payload, ...
        std::vector<SegmentSize> controls;
        std::vector<mmsghdr> messages;
    };
    class Socket;

    void BuildDatagrams(Camera& camera);
    void BuildMessages(Camera& camera);
    void BuildMessage(Camera& camera, size_t index);
    size_t Steps() const { return (datagrams_ + burst_ - 1) / burst_; }
    void BeginImage(Camera& camera);
    void StampEnd();
    void SendMessages(Camera& camera, int fd, size_t first, size_t count);
    void SendStep(Camera& camera, int fd, size_t step);
    void SendImagesAtOnce(const std::vector<Socket>& sockets);
    void SendImagesPaced(const std::vector<Socket>& sockets, double bytes_per_second);
    void WaitFor(int64_t due) const;

    const Traffic traffic_;
    const CameraSetup cameras_setup_;
    const bool merge_;
    const size_t datagrams_;  // of an image
    size_t burst_;            // datagrams of a step
    size_t per_message_;      // datagrams that the kernel splits a message into
    std::vector<std::byte> image_;
    std::vector<Camera> cameras_;
    // Of the running order.
    double due_ns_ = 0;
    int64_t work_ns_ = 0;
};

}  // namespace kelo::bench
