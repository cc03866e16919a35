#include "kelosim/simulator.h"

#include <atomic>
#include <stdexcept>
#include <thread>

#include <poll.h>
#include <pthread.h>

#include "CameraImpl.h"

namespace kelosim {

// The broadcast socket, its thread and the cameras.
class Simulator::Impl {
public:
    explicit Impl(EventSink sink) : sink_(std::move(sink)) {}
    ~Impl() { Stop(); }

    Camera& Add(const CameraConfig& config) {
        if (thread_.joinable()) throw std::logic_error("cameras are added before the start");
        cameras_.push_back(std::make_unique<Camera>(std::make_unique<Camera::Impl>(
            config, [this](const std::string& line) { OnEvent(line); })));
        return *cameras_.back();
    }
    size_t size() const { return cameras_.size(); }
    Camera& at(size_t index) { return *cameras_.at(index); }

    void Start();
    void Stop();

private:
    void Loop();
    void ReceiveBroadcasts();
    void OnEvent(const std::string& line) {
        std::lock_guard lock(sink_mutex_);
        if (sink_) sink_(line);
    }

    std::mutex sink_mutex_;  // one event at a time
    const EventSink sink_;
    Waker waker_;
    std::atomic<bool> quit_{false};
    Fd broadcasts_;
    std::vector<std::unique_ptr<Camera>> cameras_;
    std::thread thread_;
};

void Simulator::Impl::Start() {
    if (thread_.joinable()) return;
    try {
        broadcasts_ = BindBroadcast(kControlPort);
        for (const auto& camera : cameras_)
            camera->impl().Start();
    } catch (...) {
        Stop();
        throw;
    }
    quit_ = false;
    thread_ = std::thread([this] { Loop(); });
    pthread_setname_np(thread_.native_handle(), "sim-broadcast");
}

void Simulator::Impl::Stop() {
    quit_ = true;
    waker_.Wake();
    if (thread_.joinable()) thread_.join();
    for (const auto& camera : cameras_)
        camera->impl().Stop();
    broadcasts_.Reset();
}

void Simulator::Impl::Loop() {
    while (!quit_) {
        pollfd fds[] = {{waker_.fd(), POLLIN, 0}, {broadcasts_.get(), POLLIN, 0}};
        poll(fds, 2, -1);
        waker_.Clear();
        ReceiveBroadcasts();
    }
}

void Simulator::Impl::ReceiveBroadcasts() {
    while (!quit_) {
        std::vector<uint8_t> datagram(2048);
        sockaddr_in from{};
        socklen_t length = sizeof(from);
        const ssize_t size = recvfrom(broadcasts_.get(), datagram.data(), datagram.size(),
                                      MSG_DONTWAIT, reinterpret_cast<sockaddr*>(&from), &length);
        if (size < 0) return;
        datagram.resize(static_cast<size_t>(size));
        for (const auto& camera : cameras_)
            camera->impl().OnBroadcast(datagram, FromSockaddr(from));
    }
}

Simulator::Simulator(EventSink on_event) : impl_(std::make_unique<Impl>(std::move(on_event))) {}
Simulator::~Simulator() = default;

Camera& Simulator::Add(const CameraConfig& config) {
    return impl_->Add(config);
}

void Simulator::AddMany(int count, const CameraConfig& base) {
    for (int i = 0; i < count; ++i) {
        CameraConfig config = base;
        config.address += static_cast<uint32_t>(i);
        config.mac = {};
        config.description += " " + std::to_string(i + 1);
        const std::string number = std::to_string(i + 1);
        config.serial_number = std::string(7 - std::min<size_t>(6, number.size()), '0') + number;
        Add(config);
    }
}

size_t Simulator::size() const {
    return impl_->size();
}
Camera& Simulator::operator[](size_t index) {
    return impl_->at(index);
}
void Simulator::Start() {
    impl_->Start();
}
void Simulator::Stop() {
    impl_->Stop();
}

}  // namespace kelosim
