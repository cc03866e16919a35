// What reads a TCP stream without the library.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <system_error>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "../support/big_endian.h"
#include "../support/cpu.h"
#include "bound_socket.h"
#include "receiver.h"

namespace kelo::bench {
namespace {

constexpr size_t HEADERS_SIZE = 10 + IMAGE_HEADER_SIZE;

class TcpReceiver : public Receiver {
public:
    TcpReceiver(const ReceiverSetup& setup, uint8_t tag);
    ~TcpReceiver() override { close(fd_); }

    uint8_t TcpTag() const override { return tag_; }
    std::vector<pid_t> Threads() const override { return {gettid()}; }
    Received Run(const SenderDone& done, Latencies& latencies) override;

protected:
    virtual void BeginRun() {}
    // Takes in what has come; false when nothing came for QUIET_SECONDS.
    virtual bool Receive(Latencies& latencies) = 0;

    const ReceiverSetup setup_;
    const int fd_;
    Received counts_;

private:
    const uint8_t tag_;
};

TcpReceiver::TcpReceiver(const ReceiverSetup& setup, uint8_t tag)
    : setup_(setup), fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)), tag_(tag) {
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(setup.tcp_port);
    to.sin_addr.s_addr = htonl(setup.first_camera);
    const std::byte opening[] = {std::byte{0xAC}, std::byte{tag}};
    if (fd_ < 0 || connect(fd_, reinterpret_cast<sockaddr*>(&to), sizeof to) != 0 ||
        send(fd_, opening, sizeof opening, MSG_NOSIGNAL) < 0) {
        throw std::system_error(errno, std::generic_category(), "bare TCP receiver");
    }
    const timeval wait = {0, static_cast<suseconds_t>(QUIET_SECONDS * 1e6)};
    setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
}

Received TcpReceiver::Run(const SenderDone& done, Latencies& latencies) {
    counts_ = {};
    counts_.images_in_flight = 1;
    BeginRun();
    const double start = Now();
    bool sent = false;
    while (true) {
        if (Receive(latencies)) continue;
        if (sent) break;
        counts_.seconds = Now() - start - QUIET_SECONDS;
        sent = done();
    }
    return counts_;
}

// Reads into one buffer, as programs do that measure networks.
class DropReceiver final : public TcpReceiver {
public:
    explicit DropReceiver(const ReceiverSetup& setup)
        : TcpReceiver(setup, 1), buffer_(128 * 1024) {}

private:
    void BeginRun() override { total_ = 0; }
    bool Receive(Latencies&) override {
        const ssize_t size = recv(fd_, buffer_.data(), buffer_.size(), 0);
        if (size <= 0) return false;
        total_ += static_cast<uint64_t>(size);
        const uint64_t message = HEADERS_SIZE + setup_.traffic.ImageSize();
        counts_.whole_images = counts_.datagrams = total_ / message;
        counts_.bytes = counts_.whole_images * setup_.traffic.ImageSize();
        return true;
    }

    std::vector<std::byte> buffer_;
    uint64_t total_ = 0;  // bytes of this run
};

// Reads the headers, then the image into a frame.
class FrameReceiver final : public TcpReceiver {
public:
    explicit FrameReceiver(const ReceiverSetup& setup)
        : TcpReceiver(setup, 2), frame_(setup.traffic.ImageSize()) {}

private:
    bool Receive(Latencies& latencies) override {
        std::byte headers[HEADERS_SIZE];
        if (!ReadAll(headers, sizeof headers) || !ReadAll(frame_.data(), frame_.size())) {
            return false;
        }
        const int64_t now = NowNs();
        if (Get32(frame_.data()) != Get32(headers + 12)) {
            throw std::runtime_error("a bare TCP receiver read a wrong image");
        }
        int64_t sent = 0;
        std::memcpy(&sent, &frame_[setup_.traffic.StampOffset()], sizeof sent);
        latencies.Add(sent, now);
        ++counts_.whole_images;
        ++counts_.datagrams;
        counts_.bytes += frame_.size();
        return true;
    }

    // False when nothing comes. In the middle of a message more must come.
    bool ReadAll(std::byte* to, size_t size) const {
        size_t read = 0;
        while (read < size) {
            const ssize_t count = recv(fd_, to + read, size - read, 0);
            if (count > 0) {
                read += static_cast<size_t>(count);
            } else if (count == 0 || read == 0) {
                return false;
            }
        }
        return true;
    }

    std::vector<std::byte> frame_;
};

}  // namespace

std::unique_ptr<Receiver> MakeTcpDropReceiver(const ReceiverSetup& setup) {
    return std::make_unique<DropReceiver>(setup);
}

std::unique_ptr<Receiver> MakeTcpFrameReceiver(const ReceiverSetup& setup) {
    return std::make_unique<FrameReceiver>(setup);
}

std::unique_ptr<Receiver> MakeReceiver(const std::string& name, const ReceiverSetup& setup) {
    if (name == "library") return MakeLibraryReceiver(setup);
    if (name == "iperf-like") return MakeTcpDropReceiver(setup);
    if (name == "plain" && setup.traffic.tcp) return MakeTcpFrameReceiver(setup);
    if (name == "plain") return MakePlainReceiver(setup);
    if (name == "blocking") return MakeBlockingReceiver(setup);
    if (name == "drop") return MakeDropReceiver();
    if (name == "floor") return MakeFloorReceiver(setup);
    if (name == "scatter") return MakeScatterReceiver(setup);
    if (name == "moderated") return MakeModeratedReceiver(setup);
    if (name == "unread") return MakeUnreadReceiver();
    return nullptr;
}

}  // namespace kelo::bench
