#include "fake_camera.h"

#include <cstring>

#include "kelo_registers.h"

namespace kelo::test {

void Append32(Bytes& bytes, uint32_t value) {
    for (int shift = 24; shift >= 0; shift -= 8)
        bytes.push_back(static_cast<uint8_t>(value >> shift));
}

uint32_t Read32(const Bytes& bytes, size_t offset) {
    uint32_t value = 0;
    for (size_t i = 0; i < 4; ++i)
        value = value << 8 | bytes.at(offset + i);
    return value;
}

Bytes Datagram(uint32_t command, uint32_t number, uint32_t status,
               const std::vector<uint32_t>& body) {
    Bytes bytes{0xAB, 0};
    Append32(bytes, command);
    Append32(bytes, number);
    Append32(bytes, status);
    for (const uint32_t word : body)
        Append32(bytes, word);
    return bytes;
}

std::vector<SeenRequest> FakeCamera::Requests() const {
    const std::lock_guard lock(mutex_);
    return requests_;
}

std::vector<uint32_t> FakeCamera::Writes(uint32_t reg) const {
    std::vector<uint32_t> values;
    for (const auto& request : Requests()) {
        if (request.command == 6 && request.reg == reg) values.push_back(request.value);
    }
    return values;
}

size_t FakeCamera::CountWrites(uint32_t reg) const {
    return Writes(reg).size();
}

void FakeCamera::Forget() {
    const std::lock_guard lock(mutex_);
    requests_.clear();
}

ssize_t FakeCamera::Send(uint32_t ip, int port, const void* data, int length) {
    last_ip = ip;
    last_port = port;
    SeenRequest request;
    request.bytes.resize(static_cast<size_t>(length));
    std::memcpy(request.bytes.data(), data, request.bytes.size());
    request.command = Read32(request.bytes, 2);
    request.number = Read32(request.bytes, 6);
    request.reg = Read32(request.bytes, 14) / 4;
    request.value = Read32(request.bytes, 18);
    {
        const std::lock_guard lock(mutex_);
        requests_.push_back(request);
    }
    if (on_request) on_request(request);
    if (requests_to_ignore > 0) {
        --requests_to_ignore;
    } else if (!silent) {
        Answer(request);
    }
    return length;
}

uint32_t FakeCamera::Register(uint32_t reg) {
    const std::lock_guard lock(mutex_answer_);
    return registers[reg];
}

void FakeCamera::Answer(const SeenRequest& request) {
    const std::lock_guard lock(mutex_answer_);
    if (request.command == 4 || request.command == 6) {
        AnswerRegister(request);
    } else {
        AnswerMemory(request);
    }
}

uint32_t FakeCamera::StatusFor(uint32_t reg) {
    auto& planned = statuses[reg];
    if (!planned.empty()) {
        const uint32_t status = planned.front();
        planned.pop_front();
        return status;
    }
    return unmapped.contains(reg) ? 3 : 1;
}

void FakeCamera::AnswerRegister(const SeenRequest& request) {
    const uint32_t status = StatusFor(request.reg);
    if (request.command == 6 && status == 1) {
        if (request.reg == REG_MTU && request.value >> 16 != 0) {
            SendTestDatagram(request.value);
        } else {
            registers[request.reg] = request.value;
        }
    }
    Deliver(Datagram(request.command + 1, request.number, status,
                     {request.reg * 4, registers[request.reg]}));
}

void FakeCamera::AnswerMemory(const SeenRequest& request) {
    const uint32_t count = memory_count_lie.value_or(request.value);
    std::vector<uint32_t> body{request.reg * 4, count};
    if (request.command == 8) {
        for (uint32_t i = 0; i < count && i < 128; ++i)
            body.push_back(registers[request.reg + i]);
    } else {
        for (uint32_t i = 0; i < request.value; ++i) {
            registers[request.reg + i] = Read32(request.bytes, 22 + size_t{4} * i);
        }
    }
    Deliver(Datagram(request.command + 1, request.number, StatusFor(request.reg), body));
}

void FakeCamera::SendTestDatagram(uint32_t value) const {
    const uint32_t size = value & 0xFFFF;
    if (size > largest_packet) return;
    UDPSocket socket(0x7F000001, 0);
    const Bytes payload(size - 28);
    const auto port = static_cast<uint16_t>(value >> 16);
    for (int i = 0; i < test_datagrams; ++i)
        socket.sendto(payload.data(), payload.size(), 0x7F000001, port);
}

void FakeCamera::Deliver(const Bytes& reply) const {
    if (session != nullptr) {
        session->OnRcv(0, reply.data(), static_cast<int>(reply.size()), 4711);
    }
}

CAM_INFO TestCamInfo(const char* description, uint32_t ip) {
    CAM_INFO info{};
    strncpy(info.hardware_description, description, sizeof(info.hardware_description) - 1);
    info.camera_ip = ip;
    info.camera_subnet = 0xFF000000;
    const uint8_t mac[] = {2, 0, 0, 0, 0, 11};
    std::memcpy(info.camera_mac, mac, sizeof(mac));
    return info;
}

}  // namespace kelo::test
