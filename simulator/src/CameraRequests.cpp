// What a camera does with the datagrams that it receives. All of it runs on the control thread with
// the camera's lock held.

#include <algorithm>
#include <stdexcept>

#include "CameraImpl.h"
#include "Wire.h"
#include "kelo_registers.h"

namespace kelosim {
namespace {

constexpr size_t kMaxRecordedRequests = 4096;
constexpr uint32_t kIpAndUdpHeaders = 28;
constexpr uint32_t kMinPacketSize = 64;
constexpr uint64_t kReplyChance = 100;  // apart from the packets' chances

// Offsets of a reply's fields.
constexpr size_t kCommandAt = 2;
constexpr size_t kNumberAt = 6;
constexpr size_t kStatusAt = 10;
constexpr size_t kSecondWordAt = 18;

void Put32(std::vector<uint8_t>& datagram, size_t at, std::optional<uint32_t> value) {
    if (!value || datagram.size() < at + 4) return;
    for (size_t i = 0; i < 4; ++i)
        datagram[at + i] = static_cast<uint8_t>(*value >> (24 - 8 * i));
}

bool ConcernsRegister(const Request& request, const std::optional<uint32_t>& number) {
    if (!number) return true;
    const bool about_registers = request.command >= kReadRegister;
    return about_registers && request.register_number == *number;
}

bool IsMemory(const Request& request) {
    return request.command == kReadMemory || request.command == kWriteMemory;
}

std::string EndpointText(const Endpoint& endpoint) {
    return Ipv4Text(endpoint.address) + ":" + std::to_string(endpoint.port);
}

}  // namespace

void Camera::Impl::OnDatagram(std::span<const uint8_t> datagram, const Endpoint& from,
                              bool broadcast) {
    if (!powered_ || faults_.silent) return;
    const std::optional<Request> request = ParseRequest(datagram);
    if (!request) {
        ++counters_.malformed;
        return;
    }
    if (broadcast && request->command > kSetIp) return;
    Record(*request, from);
    // While it writes its flash a camera does nothing else.
    if (flash_busy_) return;
    if (!broadcast && owner_ && owner_->address == from.address) owner_heard_ = Clock::now();
    switch (request->command) {
        case kDiscover:
            return OnDiscover(*request, from);
        case kSetIp:
            return OnSetIp(*request);
        case kReadRegister:
            return OnReadRegister(*request, from);
        case kWriteRegister:
            return OnWriteRegister(*request, from);
        case kReadMemory:
            return OnReadMemory(*request, from);
        case kWriteMemory:
            return OnWriteMemory(*request, from);
        default:
            return;
    }
}

void Camera::Impl::Record(const Request& request, const Endpoint& from) {
    ++counters_.requests;
    const uint32_t value = request.values.empty() ? 0 : request.values.front();
    requests_.push_back({request.command, request.message_number, request.register_number,
                         request.count, value, from.address, from.port});
    if (requests_.size() > kMaxRecordedRequests) requests_.pop_front();
}

void Camera::Impl::OnDiscover(const Request& request, const Endpoint& from) {
    ++counters_.discoveries;
    if (faults_.ignore_discovery) return;
    Identity identity;
    identity.description = config_.description;
    identity.address = config_.address;
    identity.subnet_mask = config_.subnet_mask;
    identity.mac = config_.mac;
    identity.firmware_major = config_.firmware_major;
    identity.firmware_minor = config_.firmware_minor;
    identity.connection_status = owner_ ? 1 : 0;
    Reply(DiscoveryReply(request.message_number, identity), request, from);
}

void Camera::Impl::OnSetIp(const Request& request) {
    if (request.mac != config_.mac) return;
    after_reply_.push_back([this, request] {
        try {
            DoSetAddress(request.new_address, request.new_subnet_mask);
        } catch (const std::runtime_error& error) {
            Emit("address refused: " + std::string(error.what()));
        }
    });
}

uint32_t Camera::Impl::Check(uint32_t first, uint32_t count) const {
    for (uint32_t number = first; number < first + count; ++number) {
        const auto refused = faults_.refused_registers.find(number);
        if (refused != faults_.refused_registers.end()) return refused->second;
        if (!registers_.Mapped(number)) return kOutOfRange;
    }
    return kSuccess;
}

void Camera::Impl::OnReadRegister(const Request& request, const Endpoint& from) {
    const uint32_t status = Check(request.register_number, 1);
    const uint32_t value = status == kSuccess ? registers_.Get(request.register_number) : 0;
    Reply(RegisterReply(request, status, value), request, from);
}

void Camera::Impl::OnWriteRegister(const Request& request, const Endpoint& from) {
    const uint32_t number = request.register_number;
    uint32_t status = Check(number, 1);
    if (status == kSuccess) status = Write(number, request.values.front(), from);
    Reply(RegisterReply(request, status, registers_.Get(number)), request, from);
}

void Camera::Impl::OnReadMemory(const Request& request, const Endpoint& from) {
    const uint32_t first = request.register_number;
    uint32_t status = request.count > kMaxRegisters ? uint32_t{kError} : kSuccess;
    std::vector<uint32_t> values;
    if (status == kSuccess && first == KELO_CMD_FIRMWARE && flash_.Reading()) {
        const bool refused = faults_.refused_registers.count(first) != 0;
        auto piece = refused ? std::vector<uint32_t>{} : flash_.Read();
        if (!piece) return;
        values = std::move(*piece);
        values.resize(refused ? 0 : request.count);
        if (refused) status = Check(first, 1);
    } else if (status == kSuccess) {
        status = Check(first, request.count);
        for (uint32_t i = 0; status == kSuccess && i < request.count; ++i) {
            values.push_back(registers_.Get(first + i));
        }
    }
    Reply(ReadMemoryReply(request, status, values), request, from);
}

void Camera::Impl::OnWriteMemory(const Request& request, const Endpoint& from) {
    const uint32_t first = request.register_number;
    const bool sound = request.count <= kMaxRegisters && request.values.size() == request.count;
    uint32_t status = sound ? uint32_t{kSuccess} : kError;
    if (sound && first == KELO_CMD_FIRMWARE) status = Check(first, 1);
    if (status == kSuccess && first == KELO_CMD_FIRMWARE) return OnFirmwarePayload(request, from);
    if (sound && first != KELO_CMD_FIRMWARE) status = Check(first, request.count);
    uint32_t written = 0;
    while (status == kSuccess && written < request.count) {
        status = Write(first + written, request.values[written], from);
        if (status == kSuccess) ++written;
    }
    Reply(WriteMemoryReply(request, status, written), request, from);
}

void Camera::Impl::OnFirmwarePayload(const Request& request, const Endpoint& from) {
    std::string event;
    const Flash::Result result = flash_.Write(request.values, event);
    if (!event.empty()) Emit(event);
    if (result == Flash::Result::kNoAnswer) return;
    const bool refused = result == Flash::Result::kRefused;
    const bool finished = result == Flash::Result::kFinished;
    const uint32_t flash_time_ms = finished ? flash_.config().flash_time_ms : 0;
    flash_busy_ = flash_time_ms > 0;
    Reply(WriteMemoryReply(request, refused ? kError : kSuccess, refused ? 0 : request.count),
          request, from, flash_time_ms, flash_busy_);
}

uint32_t Camera::Impl::Write(uint32_t number, uint32_t value, const Endpoint& from) {
    switch (number) {
        case REG_STREAMPORT:
            return WriteStreamPort(value, from);
        case REG_CAMERA_USED:
            return WriteUsed(value, from);
        case REG_MTU:
            return WriteMtu(value, from);
        case REG_ACQUISITIONSTART:
            return WriteStart();
        case REG_ACQUISITIONSTOP:
            StopAcquisition();
            return kSuccess;
        case REG_REBOOT:
        case REG_REBOOT_WITH_FACTORY_SETTINGS:
            Emit("reboots");
            after_reply_.push_back([this] { DoReboot(); });
            return kSuccess;
        case REG_TRIGGERSOFTWARE:
            for (const auto& stream : streams_)
                stream->Trigger();
            return kSuccess;
        case REG_USED_STREAMS_MASK:
            registers_.Set(number, value & registers_.Get(REG_MAX_STREAMS_MASK));
            return kSuccess;
        case REG_FRAMERATE:
            for (StreamConfig& stream : config_.streams)
                stream.frame_rate = value / 1000.0;
            break;
        default:
            if (registers_.ReadOnly(number)) return kError;
            if (RegisterFile::Fixed(number)) return kSuccess;
    }
    registers_.Set(number, value);
    UpdatePlans();
    return kSuccess;
}

uint32_t Camera::Impl::WriteStreamPort(uint32_t value, const Endpoint& from) {
    if (value > 0xFFFF) return kError;
    stream_destination_ = {from.address, static_cast<uint16_t>(value)};
    registers_.Set(REG_STREAMPORT, value);
    UpdatePlans();
    return kSuccess;
}

uint32_t Camera::Impl::WriteUsed(uint32_t value, const Endpoint& from) {
    if (config_.exclusive && owner_ && *owner_ != from) return kError;
    if (value == 0) {
        if (owner_) EndSession("freed by " + EndpointText(from));
        return kSuccess;
    }
    owner_ = from;
    owner_heard_ = Clock::now();
    registers_.Set(REG_CAMERA_USED, 1);
    Emit("claimed by " + EndpointText(from));
    return kSuccess;
}

// The lower half is a packet size. With a port in the upper half the client wants to know whether
// its path carries packets of that size: it gets one of them in front of the answer.
uint32_t Camera::Impl::WriteMtu(uint32_t value, const Endpoint& from) {
    const uint32_t port = value >> 16;
    const uint32_t size = value & 0xFFFF;
    if (size < kMinPacketSize) return kError;
    if (port != 0) {
        const bool sent = SendTestDatagram(size, {from.address, static_cast<uint16_t>(port)});
        Emit("packet size " + std::to_string(size) + (sent ? ": test sent" : ": too large"));
        return kSuccess;
    }
    registers_.Set(REG_MTU, size);
    Emit("packet size is " + std::to_string(size));
    UpdatePlans();
    return kSuccess;
}

bool Camera::Impl::SendTestDatagram(uint32_t packet_size, const Endpoint& to) {
    if (packet_size > config_.path_packet_size) return false;
    std::vector<uint8_t> datagram(packet_size - kIpAndUdpHeaders);
    for (size_t i = 0; i < datagram.size(); ++i)
        datagram[i] = static_cast<uint8_t>(i);
    return SendTo(test_.get(), datagram, to);
}

uint32_t Camera::Impl::WriteStart() {
    if (faults_.refused_starts > 0) {
        --faults_.refused_starts;
        Emit("start rejected");
        return kError;
    }
    // A start that is asked for again, because its answer got lost, starts nothing anew.
    if (!Started()) StartAcquisition();
    return kSuccess;
}

bool Camera::Impl::Started() const {
    return std::any_of(streams_.begin(), streams_.end(),
                       [](const auto& stream) { return stream->acquiring(); });
}

StreamPlan Camera::Impl::PlanFor(size_t stream) const {
    const StreamConfig& config = config_.streams[stream];
    const uint32_t frames = registers_.Get(REG_ACQUISITIONFRAMES);
    StreamPlan plan;
    plan.over_tcp = over_tcp_[stream];
    plan.triggered = registers_.Get(REG_TRIGGERMODE) != 0;
    plan.silent = faults_.silent;
    plan.frame_rate = config.frame_rate;
    plan.image_count = frames != 0 ? frames : config.image_count;
    plan.local_address = config_.address;
    plan.route = {stream_destination_, registers_.Get(REG_MTU), config_.path_packet_size};
    plan.faults = image_faults_;
    return plan;
}

void Camera::Impl::UpdatePlans() {
    for (size_t i = 0; i < streams_.size(); ++i)
        streams_[i]->Update(PlanFor(i));
}

void Camera::Impl::StartAcquisition() {
    const uint32_t used = registers_.Get(REG_USED_STREAMS_MASK);
    for (size_t i = 0; i < streams_.size(); ++i) {
        if ((used >> i & 1) == 0) continue;
        const uint32_t block = RegisterFile::StreamBlock(static_cast<uint32_t>(i));
        over_tcp_[i] =
            (registers_.Get(block + RegisterFile::kOptions) & STREAM_OPTIONS_USE_TCP) != 0;
        streams_[i]->Start(PlanFor(i));
    }
    Emit("acquisition starts, images to " + EndpointText(stream_destination_));
}

void Camera::Impl::StopAcquisition() {
    if (Started()) Emit("acquisition stops");
    for (const auto& stream : streams_)
        stream->Stop();
}

void Camera::Impl::EndSession(const std::string& why) {
    StopAcquisition();
    owner_.reset();
    registers_.Set(REG_CAMERA_USED, 0);
    Emit(why);
}

void Camera::Impl::Reply(std::vector<uint8_t> datagram, const Request& request, const Endpoint& to,
                         uint32_t delay_ms, bool ends_flash_work) {
    ++reply_index_;
    if (LosesReply(request)) {
        ++counters_.replies_dropped;
        datagram.clear();
    } else {
        Falsify(datagram, request);
    }
    if (faults_.reply_delay_ms > 0 && faults_.delayed_replies > 0) {
        if (faults_.delayed_replies != UINT32_MAX) --faults_.delayed_replies;
        delay_ms += faults_.reply_delay_ms;
    }
    if (delay_ms > 0) {
        const auto due = Clock::now() + std::chrono::milliseconds(delay_ms);
        delayed_.push_back({due, std::move(datagram), to, ends_flash_work});
    } else if (!datagram.empty()) {
        SendNow(datagram, to);
    }
}

bool Camera::Impl::LosesReply(const Request& request) {
    if (faults_.drop_replies > 0 && ConcernsRegister(request, faults_.drop_replies_register)) {
        --faults_.drop_replies;
        return true;
    }
    return faults_.drop_reply_rate > 0 &&
           Chance(faults_.seed, kReplyChance, reply_index_, 0) < faults_.drop_reply_rate;
}

void Camera::Impl::Falsify(std::vector<uint8_t>& datagram, const Request& request) {
    for (ReplyLie& lie : faults_.replies) {
        if (lie.count == 0 || !ConcernsRegister(request, lie.only_register)) continue;
        if (lie.count != UINT32_MAX) --lie.count;
        if (lie.magic) datagram[0] = *lie.magic;
        Put32(datagram, kCommandAt, lie.command);
        if (lie.number_offset != 0) {
            Put32(datagram, kNumberAt, request.message_number + lie.number_offset);
        }
        Put32(datagram, kStatusAt, lie.status);
        const bool memory = IsMemory(request);
        if (request.command >= kReadRegister) {
            Put32(datagram, kSecondWordAt, memory ? lie.registers : lie.value);
        }
        datagram.resize(datagram.size() + lie.extra_bytes, 0xEE);
        if (lie.truncate_to && *lie.truncate_to < datagram.size())
            datagram.resize(*lie.truncate_to);
    }
}

void Camera::Impl::SendNow(std::span<const uint8_t> datagram, const Endpoint& to) {
    if (control_ && SendTo(control_.get(), datagram, to)) ++counters_.replies;
}

}  // namespace kelosim
