#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <vector>

#include "TPacketCommunicator.h"
#include "kelo_camera.h"

namespace kelo::test {

using Bytes = std::vector<uint8_t>;

// Big-endian numbers in byte strings.
void Append32(Bytes& bytes, uint32_t value);
uint32_t Read32(const Bytes& bytes, size_t offset);

// A control datagram: header and body words.
Bytes Datagram(uint32_t command, uint32_t number, uint32_t status,
               const std::vector<uint32_t>& body);

// A request as it was seen on the wire.
struct SeenRequest {
    uint32_t command;
    uint32_t number;
    uint32_t reg;
    uint32_t value;
    Bytes bytes;
};

// The transport and the camera behind it in one: answers from a register file, on the sender's
// thread, so that tests neither wait nor need a network.
class FakeCamera : public TPacketCommunicator {
public:
    FakeCamera() : TPacketCommunicator(nullptr) {}

    // ---- What the camera does ----

    // Set up before the session is opened: from then on its heartbeat looks here, too.
    std::map<uint32_t, uint32_t> registers;
    std::set<uint32_t> unmapped;                        // answered with "out of range"
    std::map<uint32_t, std::deque<uint32_t>> statuses;  // per register, for its next answers
    std::atomic<int> requests_to_ignore{0};
    std::atomic<bool> silent{false};
    uint32_t largest_packet = 9000;  // of the packet-size test
    int test_datagrams = 1;          // for each request
    std::optional<uint32_t> memory_count_lie;
    std::function<void(const SeenRequest&)> on_request;

    // Where the replies go.
    KELOCamera* session = nullptr;

    // ---- What it saw ----

    // What a register holds, also while the session is open.
    uint32_t Register(uint32_t reg);

    std::vector<SeenRequest> Requests() const;
    size_t CountWrites(uint32_t reg) const;
    std::vector<uint32_t> Writes(uint32_t reg) const;
    void Forget();

    // ---- TPacketCommunicator ----

    void StartRxThread() override {}
    void StopRxThread() override {}
    bool IsInitialized() override { return true; }
    ssize_t Send(uint32_t ip, int port, const void* data, int length) override;
    unsigned short GetSocketPort() override { return 4711; }
    unsigned int GetSocketIp() override { return 0x7F000001; }
    const char* GetDescription() override { return "fake"; }

    std::atomic<uint32_t> last_ip{0};
    std::atomic<int> last_port{0};

private:
    void Answer(const SeenRequest& request);
    void AnswerRegister(const SeenRequest& request);
    void AnswerMemory(const SeenRequest& request);
    void SendTestDatagram(uint32_t value) const;
    void Deliver(const Bytes& reply) const;
    uint32_t StatusFor(uint32_t reg);

    std::mutex mutex_answer_;  // guards the state above while the camera answers
    mutable std::mutex mutex_;
    std::vector<SeenRequest> requests_;
};

// A camera's identity at 127.0.0.11 with the given description.
CAM_INFO TestCamInfo(const char* description = "Test camera", uint32_t ip = 0x7F00000B);

// A session whose transport is a FakeCamera.
struct FakeSession {
    explicit FakeSession(KELOManager* manager = nullptr, const CAM_INFO& info = TestCamInfo())
        : fake(std::make_shared<FakeCamera>()),
          camera(std::make_shared<KELOCamera>(manager, 0x1234, info, fake)) {
        fake->session = camera.get();
    }

    std::shared_ptr<FakeCamera> fake;
    std::shared_ptr<KELOCamera> camera;
};

}  // namespace kelo::test
