#include <algorithm>
#include <stdexcept>

#include <pthread.h>

#include "CameraImpl.h"
#include "kelo_registers.h"

namespace kelosim {
namespace {

constexpr size_t kMaxDatagram = 2048;
// Of one round; a flood of requests must not keep the watchdog from looking.
constexpr int kMaxDatagramsPerRound = 256;
constexpr std::chrono::milliseconds kPowerOnRetry(50);

CameraConfig Completed(CameraConfig config) {
    if (config.streams.empty()) config.streams.push_back({});
    if (config.streams.size() > size_t{kMaxStreams}) {
        throw std::invalid_argument("a camera has 8 streams at most");
    }
    for (StreamConfig& stream : config.streams) {
        if (!stream.source) stream.source = MakeTestChart8(640, 480);
    }
    if (config.mac == std::array<uint8_t, 6>{}) {
        config.mac = {0x02, 0x4B};  // locally administered
        for (size_t i = 0; i < 4; ++i) {
            config.mac[2 + i] = static_cast<uint8_t>(config.address >> (24 - 8 * i));
        }
    }
    return config;
}

}  // namespace

Camera::Impl::Impl(const CameraConfig& config, Sink sink)
    : sink_(std::move(sink)),
      config_(Completed(config)),
      registers_(config_, config_.tcp_port),
      faults_(config_.faults),
      image_faults_(std::make_shared<const Faults>(config_.faults)),
      flash_(config_.firmware) {
    for (size_t i = 0; i < config_.streams.size(); ++i) {
        streams_.push_back(
            std::make_unique<Stream>(static_cast<uint8_t>(i), config_.streams[i],
                                     [this](const std::string& text) { Emit(text); }));
    }
}

Camera::Impl::~Impl() {
    Stop();
    // Their threads may still report events.
    streams_.clear();
}

void Camera::Impl::Start() {
    DoPowerOn();
    {
        std::lock_guard lock(mutex_);
        running_ = true;
        quit_ = false;
    }
    thread_ = std::thread([this] { Loop(); });
    pthread_setname_np(thread_.native_handle(), "sim-camera");
}

void Camera::Impl::Stop() {
    if (!thread_.joinable()) return;
    Run([this] { DoPowerOff(); });
    Post([this] {
        std::lock_guard lock(mutex_);
        quit_ = true;
    });
    thread_.join();
    {
        std::lock_guard lock(mutex_);
        running_ = false;
    }
    RunTasks();  // that came too late for the thread
    FlushEvents();
}

void Camera::Impl::Loop() {
    {
        std::lock_guard lock(mutex_);
        control_thread_ = std::this_thread::get_id();
    }
    std::vector<pollfd> fds;
    for (;;) {
        fds.assign(1, {waker_.fd(), POLLIN, 0});
        if (control_) fds.push_back({control_.get(), POLLIN, 0});
        tcp_.AddPollFds(fds);
        poll(fds.data(), fds.size(), PollTimeout());
        waker_.Clear();
        RunTasks();
        ReceiveDatagrams();
        HandleConnections();
        Tick();
        FlushEvents();
        std::lock_guard lock(mutex_);
        if (quit_) return;
    }
}

void Camera::Impl::Post(std::function<void()> task) {
    {
        std::lock_guard lock(mutex_);
        tasks_.push_back(std::move(task));
    }
    waker_.Wake();
}

// On the control thread, which the caller may be itself; exceptions reach the caller.
void Camera::Impl::Run(const std::function<void()>& task) {
    const auto packaged = std::make_shared<std::packaged_task<void()>>(task);
    std::future<void> done = packaged->get_future();
    bool elsewhere = false;
    {
        std::lock_guard lock(mutex_);
        elsewhere = running_ && std::this_thread::get_id() != control_thread_;
        if (elsewhere) tasks_.push_back([packaged] { (*packaged)(); });
    }
    if (elsewhere) {
        waker_.Wake();
    } else {
        (*packaged)();
    }
    done.get();
}

void Camera::Impl::RunTasks() {
    std::vector<std::function<void()>> tasks;
    {
        std::lock_guard lock(mutex_);
        tasks.swap(tasks_);
    }
    for (const auto& task : tasks)
        task();
}

int Camera::Impl::PollTimeout() const {
    std::lock_guard lock(mutex_);
    std::optional<Clock::time_point> due = power_on_at_;
    const auto consider = [&](Clock::time_point time) {
        if (!due || time < *due) due = time;
    };
    for (const DelayedReply& reply : delayed_)
        consider(reply.due);
    const uint32_t watchdog_ms = registers_.Get(REG_HEARTBEAT_TIMEOUT);
    const bool watched = owner_ && watchdog_ms != 0 && !flash_busy_;
    if (watched) consider(owner_heard_ + std::chrono::milliseconds(watchdog_ms));
    if (!due) return -1;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(*due - Clock::now()).count();
    return static_cast<int>(std::clamp<int64_t>(left, 0, 60000));
}

void Camera::Impl::ReceiveDatagrams() {
    for (int i = 0; i < kMaxDatagramsPerRound && control_; ++i) {
        uint8_t datagram[kMaxDatagram];
        sockaddr_in from{};
        socklen_t length = sizeof(from);
        const ssize_t size = recvfrom(control_.get(), datagram, sizeof(datagram), MSG_DONTWAIT,
                                      reinterpret_cast<sockaddr*>(&from), &length);
        if (size < 0) return;
        Handle({datagram, static_cast<size_t>(size)}, FromSockaddr(from), false);
    }
}

void Camera::Impl::OnBroadcast(std::vector<uint8_t> datagram, const Endpoint& from) {
    Post([this, datagram = std::move(datagram), from] { Handle(datagram, from, true); });
}

void Camera::Impl::Handle(std::span<const uint8_t> datagram, const Endpoint& from, bool broadcast) {
    std::vector<std::function<void()>> after;
    {
        std::lock_guard lock(mutex_);
        OnDatagram(datagram, from, broadcast);
        after.swap(after_reply_);
    }
    for (const auto& task : after)
        task();
}

void Camera::Impl::HandleConnections() {
    ApplyAcceptMode();
    std::lock_guard lock(mutex_);
    for (auto& [stream, connection] : tcp_.Handle(faults_.tcp.reset_connections, streams_.size())) {
        ++counters_.connections;
        Emit("stream " + std::to_string(stream) + ": TCP connection opened");
        streams_[stream]->Connect(std::move(connection));
    }
}

void Camera::Impl::ApplyAcceptMode() {
    uint32_t address = 0;
    uint16_t port = 0;
    TcpFaults::Accept wanted{};
    {
        std::lock_guard lock(mutex_);
        if (!powered_) return;
        wanted = faults_.tcp.accept;
        address = config_.address;
        port = tcp_port_;
    }
    if (wanted == accept_) return;
    accept_ = wanted;
    try {
        tcp_.Open(address, port, wanted);
    } catch (const std::runtime_error& error) {
        Emit(error.what());
    }
}

void Camera::Impl::Tick() {
    bool power_on = false;
    {
        std::lock_guard lock(mutex_);
        WatchClient();
        SendDueReplies();
        power_on = power_on_at_ && Clock::now() >= *power_on_at_;
        if (power_on) power_on_at_.reset();
    }
    if (!power_on) return;
    try {
        DoPowerOn();
    } catch (const std::runtime_error& error) {
        Emit(error.what());
        std::lock_guard lock(mutex_);
        power_on_at_ = Clock::now() + kPowerOnRetry;
    }
}

// The watchdog: a client that has gone away must not leave the camera streaming and taken.
void Camera::Impl::WatchClient() {
    const uint32_t timeout_ms = registers_.Get(REG_HEARTBEAT_TIMEOUT);
    if (!owner_ || timeout_ms == 0 || flash_busy_) return;
    if (Clock::now() < owner_heard_ + std::chrono::milliseconds(timeout_ms)) return;
    ++counters_.watchdog_expired;
    EndSession("client silent for " + std::to_string(timeout_ms) + " ms: freed");
}

void Camera::Impl::SendDueReplies() {
    const auto now = Clock::now();
    for (auto reply = delayed_.begin(); reply != delayed_.end();) {
        if (reply->due > now) {
            ++reply;
            continue;
        }
        if (reply->ends_flash_work) {
            flash_busy_ = false;
            owner_heard_ = now;
        }
        if (!faults_.silent && !reply->datagram.empty()) SendNow(reply->datagram, reply->to);
        reply = delayed_.erase(reply);
    }
}

void Camera::Impl::Emit(const std::string& text) {
    {
        std::lock_guard lock(events_mutex_);
        events_.push_back(text);
    }
    waker_.Wake();
}

void Camera::Impl::FlushEvents() {
    std::vector<std::string> events;
    {
        std::lock_guard lock(events_mutex_);
        events.swap(events_);
    }
    if (!sink_ || events.empty()) return;
    const std::string name = Ipv4Text(config().address) + ": ";
    for (std::string& event : events)
        sink_(event.insert(0, name));
}

void Camera::Impl::OpenSockets(uint32_t address) {
    uint16_t port = 0;
    {
        std::lock_guard lock(mutex_);
        // Once chosen, the port stays that of the camera's life.
        port = tcp_port_ != 0 ? tcp_port_ : config_.tcp_port;
        accept_ = faults_.tcp.accept;
    }
    Fd control = BindUdp({address, kControlPort});
    Fd test = BindUnfragmented(address);
    TcpStreams tcp;
    port = tcp.Open(address, port, accept_);
    CloseSockets();
    control_ = std::move(control);
    test_ = std::move(test);
    tcp_ = std::move(tcp);
    std::lock_guard lock(mutex_);
    tcp_port_ = port;
}

void Camera::Impl::CloseSockets() {
    control_.Reset();
    test_.Reset();
    tcp_.Close();
}

void Camera::Impl::DoPowerOff() {
    CloseSockets();
    {
        std::lock_guard lock(mutex_);
        if (powered_) Emit("power off");
        powered_ = false;
        power_on_at_.reset();
        delayed_.clear();
        owner_.reset();
        stream_destination_ = {};
        flash_busy_ = false;
        flash_.EndRun();
        registers_.Set(REG_CAMERA_USED, 0);
    }
    for (const auto& stream : streams_)
        stream->Abort();
}

void Camera::Impl::DoPowerOn() {
    uint32_t address = 0;
    {
        std::lock_guard lock(mutex_);
        if (powered_) return;
        power_on_at_.reset();
        address = config_.address;
    }
    OpenSockets(address);
    std::lock_guard lock(mutex_);
    powered_ = true;
    registers_ = RegisterFile(config_, tcp_port_);
    Emit("power on, TCP port " + std::to_string(tcp_port_));
}

void Camera::Impl::DoReboot() {
    DoPowerOff();
    std::lock_guard lock(mutex_);
    power_on_at_ = Clock::now() + std::chrono::milliseconds(flash_.config().reboot_time_ms);
}

void Camera::Impl::DoSetAddress(uint32_t address, uint32_t subnet_mask) {
    bool rebind = false;
    {
        std::lock_guard lock(mutex_);
        rebind = powered_ && address != config_.address;
    }
    if (rebind) {
        OpenSockets(address);
        for (const auto& stream : streams_)
            stream->Abort();
    }
    std::lock_guard lock(mutex_);
    const uint32_t before = config_.address;
    config_.address = address;
    config_.subnet_mask = subnet_mask;
    registers_.Set(REG_CURR_IP_ADDR_0, address);
    registers_.Set(REG_CURR_SUBNET_MASK_0, subnet_mask);
    registers_.Set(REG_PERSIST_IP_ADDR_0, address);
    registers_.Set(REG_PERSIST_SUBNET_MASK_0, subnet_mask);
    registers_.Set(REG_TCP_STREAMPORT, tcp_port_);
    // The session was one with the old address.
    if (rebind) EndSession("moved here from " + Ipv4Text(before));
}

CameraConfig Camera::Impl::config() const {
    std::lock_guard lock(mutex_);
    CameraConfig config = config_;
    config.tcp_port = tcp_port_;
    config.faults = faults_;
    return config;
}

uint32_t Camera::Impl::GetRegister(uint32_t number) const {
    std::lock_guard lock(mutex_);
    return registers_.Get(number);
}

void Camera::Impl::SetRegister(uint32_t number, uint32_t value) {
    std::lock_guard lock(mutex_);
    registers_.Set(number, value);
    if (number == REG_CAMERA_USED && value == 0) owner_.reset();
    UpdatePlans();
    waker_.Wake();
}

void Camera::Impl::UnmapRegister(uint32_t number) {
    std::lock_guard lock(mutex_);
    registers_.Unmap(number);
}

Faults Camera::Impl::faults() const {
    std::lock_guard lock(mutex_);
    return faults_;
}

void Camera::Impl::UpdateFaults(const std::function<void(Faults&)>& change) {
    bool accept_changed = false;
    {
        std::lock_guard lock(mutex_);
        const TcpFaults::Accept before = faults_.tcp.accept;
        change(faults_);
        accept_changed = faults_.tcp.accept != before;
        image_faults_ = std::make_shared<const Faults>(faults_);
        UpdatePlans();
    }
    // The new way to treat connections is in force when this returns.
    if (accept_changed) Run([this] { ApplyAcceptMode(); });
}

void Camera::Impl::SetFirmware(const FirmwareConfig& firmware) {
    std::lock_guard lock(mutex_);
    config_.firmware = firmware;
    flash_.Configure(firmware);
}

void Camera::Impl::SetPathPacketSize(uint32_t size) {
    std::lock_guard lock(mutex_);
    config_.path_packet_size = size;
    UpdatePlans();
}

void Camera::Impl::SetFrameRate(int stream, double frame_rate) {
    std::lock_guard lock(mutex_);
    config_.streams.at(static_cast<size_t>(stream)).frame_rate = frame_rate;
    UpdatePlans();
}

void Camera::Impl::SetImageCount(int stream, uint32_t images) {
    std::lock_guard lock(mutex_);
    config_.streams.at(static_cast<size_t>(stream)).image_count = images;
}

std::vector<uint8_t> Camera::Impl::FlashContents(uint32_t length) const {
    std::lock_guard lock(mutex_);
    return flash_.Contents(length);
}

CameraCounters Camera::Impl::counters() const {
    std::lock_guard lock(mutex_);
    CameraCounters counters = counters_;
    for (size_t i = 0; i < streams_.size(); ++i)
        counters.streams[i] = streams_[i]->counters();
    return counters;
}

std::vector<std::vector<uint8_t>> Camera::Impl::SentDatagrams(int stream) const {
    std::lock_guard lock(mutex_);
    return streams_.at(static_cast<size_t>(stream))->SentDatagrams();
}

std::vector<ControlRequest> Camera::Impl::Requests() const {
    std::lock_guard lock(mutex_);
    return {requests_.begin(), requests_.end()};
}

void Camera::Impl::ClearRequests() {
    std::lock_guard lock(mutex_);
    requests_.clear();
}

bool Camera::Impl::acquiring() const {
    return std::any_of(streams_.begin(), streams_.end(),
                       [](const auto& stream) { return stream->active(); });
}

bool Camera::Impl::used() const {
    std::lock_guard lock(mutex_);
    return registers_.Get(REG_CAMERA_USED) != 0;
}

bool Camera::Impl::powered() const {
    std::lock_guard lock(mutex_);
    return powered_;
}

void Camera::Impl::Trigger() {
    for (const auto& stream : streams_)
        stream->Trigger();
}

void Camera::Impl::PowerOff() {
    Run([this] { DoPowerOff(); });
}

void Camera::Impl::PowerOn() {
    Run([this] { DoPowerOn(); });
}

void Camera::Impl::Reboot() {
    Run([this] { DoReboot(); });
}

void Camera::Impl::SetAddress(uint32_t address, uint32_t subnet_mask) {
    Run([=, this] { DoSetAddress(address, subnet_mask); });
}

void Camera::Impl::CloseConnections() {
    Run([this] { tcp_.CloseConnections(); });
}

Camera::Camera(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
Camera::~Camera() = default;

CameraConfig Camera::config() const {
    return impl_->config();
}
uint32_t Camera::address() const {
    return impl_->config().address;
}
uint16_t Camera::tcp_port() const {
    return impl_->config().tcp_port;
}
uint32_t Camera::GetRegister(uint32_t number) const {
    return impl_->GetRegister(number);
}
void Camera::SetRegister(uint32_t number, uint32_t value) {
    impl_->SetRegister(number, value);
}
void Camera::UnmapRegister(uint32_t number) {
    impl_->UnmapRegister(number);
}
Faults Camera::faults() const {
    return impl_->faults();
}
void Camera::SetFaults(const Faults& faults) {
    impl_->UpdateFaults([&](Faults& current) { current = faults; });
}
void Camera::UpdateFaults(const std::function<void(Faults&)>& change) {
    impl_->UpdateFaults(change);
}
void Camera::SetFirmware(const FirmwareConfig& firmware) {
    impl_->SetFirmware(firmware);
}
void Camera::SetPathPacketSize(uint32_t size) {
    impl_->SetPathPacketSize(size);
}
void Camera::SetFrameRate(int stream, double frame_rate) {
    impl_->SetFrameRate(stream, frame_rate);
}
void Camera::SetImageCount(int stream, uint32_t images) {
    impl_->SetImageCount(stream, images);
}
std::vector<uint8_t> Camera::FlashContents(uint32_t length) const {
    return impl_->FlashContents(length);
}
CameraCounters Camera::counters() const {
    return impl_->counters();
}
std::vector<std::vector<uint8_t>> Camera::SentDatagrams(int stream) const {
    return impl_->SentDatagrams(stream);
}
std::vector<ControlRequest> Camera::Requests() const {
    return impl_->Requests();
}
void Camera::ClearRequests() {
    impl_->ClearRequests();
}
bool Camera::acquiring() const {
    return impl_->acquiring();
}
bool Camera::used() const {
    return impl_->used();
}
bool Camera::powered() const {
    return impl_->powered();
}
void Camera::Trigger() {
    impl_->Trigger();
}
void Camera::PowerOff() {
    impl_->PowerOff();
}
void Camera::PowerOn() {
    impl_->PowerOn();
}
void Camera::Reboot() {
    impl_->Reboot();
}
void Camera::SetAddress(uint32_t address, uint32_t subnet_mask) {
    impl_->SetAddress(address, subnet_mask);
}
void Camera::CloseConnections() {
    impl_->CloseConnections();
}

}  // namespace kelosim
