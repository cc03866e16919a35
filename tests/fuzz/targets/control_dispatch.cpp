// Control datagrams and discovery replies from anywhere at the manager, with discoveries and
// requests between them, against a simple model of who is registered. The records are in
// control_dispatch.h.

#include "control_dispatch.h"

#include <iterator>
#include <map>
#include <optional>
#include <set>
#include <vector>

#include "fuzz.h"
#include "identity_model.h"
#include "input.h"
#include "kelo_manager.h"
#include "loose_transport.h"
#include "utils.h"

using kelo::fuzz::ControlRecord;
using kelo::fuzz::FindTransport;
using kelo::fuzz::IdentityModel;
using kelo::fuzz::Input;
using kelo::fuzz::kInterfaceMasks;
using kelo::fuzz::kInterfaces;
using kelo::fuzz::Require;
using kelo::fuzz::RequireEqual;
namespace answer_flag = kelo::fuzz::answer_flag;
namespace control_way = kelo::fuzz::control_way;

namespace {

constexpr uint32_t kAnyAddress = 0;
constexpr uint32_t kNowhere = 1;  // no transport is bound to it
constexpr size_t kResponsesMax = 4096;
constexpr size_t kCamerasMax = 1024;
// Each camera has a thread: what a target can do without being slow.
constexpr int kDiscoveriesMax = 6;
constexpr size_t kRecordsMax = 400;
constexpr int kAnswersMax = 8;
constexpr uint32_t kRegister = 321;
constexpr uint32_t kUntouched = 0xEEEEEEEE;

struct Arrival {
    uint32_t transport;
    uint32_t source;
    std::vector<uint8_t> bytes;
};

// Who answered, who is registered, and on which interfaces there is a transport.
class RegistryModel {
public:
    void Receive(const Arrival& arrival) {
        const auto& bytes = arrival.bytes;
        if (bytes.size() <= 14 || bytes[0] != 0xAB) return;
        if (bytes[2] != 0 || bytes[3] != 0 || bytes[4] != 0 || bytes[5] != 2) return;
        const IdentityModel identity = kelo::fuzz::IdentityOfReply(bytes);
        const uint32_t transport = transports_.contains(arrival.transport) ? arrival.transport : 0;
        for (Response& known : responses_) {
            if (known.identity.ip != identity.ip) continue;
            if (IsOnItsSubnet(transport, identity.ip)) known = {identity, transport};
            return;
        }
        if (responses_.size() < kResponsesMax) responses_.push_back({identity, transport});
    }

    void BeginDiscovery() { transports_ = {kAnyAddress, kInterfaces[0], kInterfaces[1]}; }

    void EndDiscovery() {
        std::erase_if(cameras_, [&](const auto& camera) {
            for (const Response& response : responses_)
                if (response.identity == camera.second) return false;
            return true;
        });
        transports_ = {kAnyAddress};
        for (const Response& response : responses_) {
            if (cameras_.size() < kCamerasMax)
                cameras_.emplace(response.identity.Handle(), response.identity);
            transports_.insert(response.transport);
        }
        responses_.clear();
    }

    const std::map<CAM_HANDLE, IdentityModel>& Cameras() const { return cameras_; }
    const std::set<uint32_t>& Transports() const { return transports_; }

private:
    struct Response {
        IdentityModel identity;
        uint32_t transport;
    };

    static bool IsOnItsSubnet(uint32_t transport, uint32_t ip) {
        for (size_t i = 0; i < std::size(kInterfaces); ++i)
            if (transport == kInterfaces[i] && ((ip ^ transport) & kInterfaceMasks[i]) == 0)
                return true;
        return false;
    }

    std::vector<Response> responses_;
    std::map<CAM_HANDLE, IdentityModel> cameras_;
    std::set<uint32_t> transports_{kAnyAddress};
};

// Plays one input. The manager is the same for all of them; each leaves it as it found it.
class Player {
public:
    Player(KELOManager& manager, Input input) : manager_(manager), input_(input) {
        kelo::fuzz::OnSend([this](std::span<const uint8_t> sent) { OnSend(sent); });
        model_.EndDiscovery();
    }
    ~Player() { kelo::fuzz::OnSend(nullptr); }
    Player(const Player&) = delete;
    Player& operator=(const Player&) = delete;

    void Play() {
        for (size_t i = 0; i < kRecordsMax && !input_.IsEmpty(); ++i)
            Do(static_cast<ControlRecord>(input_.U8() %
                                          static_cast<uint8_t>(ControlRecord::Count)));
        Discover();
        // Now nobody answers any more.
        Discover();
        Require(model_.Cameras().empty(), "nobody is left");
    }

private:
    struct Answer {
        KELO_API_STATUS status;
        uint32_t value;
    };

    void Do(ControlRecord record) {
        if (record == ControlRecord::Discover) {
            if (++discoveries_ <= kDiscoveriesMax) Discover();
            return;
        }
        if (record == ControlRecord::Request) return Request();
        const uint8_t way = input_.U8();
        Arrival arrival{.transport = TransportOf(way), .source = SourceOf(way), .bytes = {}};
        if (record == ControlRecord::Datagram) {
            const auto bytes = input_.Bytes(input_.U16());
            arrival.bytes.assign(bytes.begin(), bytes.end());
        } else {
            arrival.bytes = Reply(way);
            if (record == ControlRecord::CutCamera)
                arrival.bytes.resize(std::min<size_t>(input_.U8(), arrival.bytes.size()));
            // Without what a larger block would have behind it.
            arrival.bytes = std::vector<uint8_t>(arrival.bytes.begin(), arrival.bytes.end());
        }
        if ((way & control_way::kInDiscovery) != 0) {
            in_discovery_.push_back(std::move(arrival));
        } else {
            Deliver(arrival);
        }
    }

    static uint32_t TransportOf(uint8_t way) {
        constexpr uint32_t kTransports[] = {kAnyAddress, kInterfaces[0], kInterfaces[1], kNowhere};
        return kTransports[way & control_way::kTransport];
    }

    static uint32_t SourceOf(uint8_t way) {
        const uint32_t net = kInterfaces[(way & control_way::kSecondNet) != 0 ? 1 : 0];
        return net + ((way & control_way::kSource) >> 2) + 1;
    }

    std::vector<uint8_t> Reply(uint8_t way) {
        const uint32_t net = kInterfaces[(way & control_way::kSecondNet) != 0 ? 1 : 0];
        const uint32_t ip = (net & 0xFFFFFF00) | input_.U8();
        const uint32_t mask = 0xFFFFFFFFu << (input_.U8() % 32);
        std::vector<uint8_t> reply(78);
        reply[0] = 0xAB;
        reply[5] = 2;
        reply[22] = input_.U8();
        reply[23] = 'x';
        for (size_t i = 0; i < 4; ++i) {
            reply[54 + i] = static_cast<uint8_t>(ip >> (24 - 8 * i));
            reply[58 + i] = static_cast<uint8_t>(mask >> (24 - 8 * i));
        }
        reply[67] = input_.U8();
        return reply;
    }

    void Deliver(const Arrival& arrival) {
        TPacketCommunicator* through =
            arrival.transport == kNowhere ? nullptr : FindTransport(arrival.transport);
        model_.Receive(arrival);
        manager_.OnRcv(through, arrival.source, arrival.bytes.data(),
                       static_cast<int>(arrival.bytes.size()), 0);
    }

    void OnSend(std::span<const uint8_t> sent) {
        if (sent[5] == 1) {
            OnBroadcast();
        } else {
            OnRequest(sent);
        }
    }

    // The second of the two: now every transport is there.
    void OnBroadcast() {
        if (++broadcasts_ % std::size(kInterfaces) != 0) return;
        for (const Arrival& arrival : in_discovery_)
            Deliver(arrival);
        in_discovery_.clear();
    }

    void Discover() {
        model_.BeginDiscovery();
        const uint32_t count = manager_.Discover(0, 0);
        model_.EndDiscovery();
        RequireEqual(count, model_.Cameras().size(), "cameras");
        CAM_HANDLE handles[kCamerasMax];
        RequireEqual(manager_.GetCameraList(handles, kCamerasMax), static_cast<int>(count), "list");
        size_t index = 0;
        for (const auto& [handle, identity] : model_.Cameras()) {
            RequireEqual(handles[index++], handle, "handle");
            CheckCamera(handle, identity);
        }
        for (const uint32_t ip : {kAnyAddress, kInterfaces[0], kInterfaces[1]})
            if (model_.Transports().contains(ip))
                Require(FindTransport(ip) != nullptr, "the transport is there");
    }

    // Asks a camera for a register. Its answers come through the manager, the last one is right.
    void Request() {
        const uint8_t which = input_.U8();
        if (model_.Cameras().empty()) return;
        const auto chosen = std::next(model_.Cameras().begin(),
                                      static_cast<std::ptrdiff_t>(which % model_.Cameras().size()));
        asked_ip_ = chosen->second.ip;
        answered_.reset();
        is_sent_ = false;
        uint32_t value = kUntouched;
        const KELO_API_STATUS status =
            manager_.FindHandle(chosen->first)->getRegisterValue(kRegister, value);
        // One that answered by no transport cannot be asked.
        const Answer expected = is_sent_ ? answered_.value() : Answer{KELO_STATUS_ERROR, 0};
        RequireEqual(static_cast<int>(status), static_cast<int>(expected.status), "status");
        const bool is_success = status == KELO_STATUS_SUCCESS;
        RequireEqual(value, is_success ? expected.value : kUntouched, "value");
    }

    void OnRequest(std::span<const uint8_t> sent) {
        Require(!is_sent_, "an answered request is not sent again");
        is_sent_ = true;
        Input request(sent.data(), sent.size());
        (void)request.Bytes(6);
        const uint32_t number = request.U32();
        for (int left = input_.U8() % kAnswersMax; left > 0; --left) {
            const uint8_t flags = input_.U8();
            const uint8_t command = input_.U8();
            const uint8_t status = input_.U8();
            AnswerRequest(flags, command, status, input_.U32(), number);
        }
        AnswerRequest(0, 5, 1, 0x12345678, number);
    }

    void AnswerRequest(uint8_t flags, uint8_t command, uint8_t status, uint32_t value,
                       uint32_t number) {
        const bool is_strange = (flags & answer_flag::kStranger) != 0;
        if ((flags & answer_flag::kWrongNumber) != 0) number += 1u + (flags >> 4);
        Arrival answer{.transport = kAnyAddress,
                       .source = is_strange ? ~asked_ip_ : asked_ip_,
                       .bytes = {0xAB, 0, 0, 0, 0, command}};
        for (const uint32_t word : {number, uint32_t{status}, kRegister * 4, value})
            for (int shift = 24; shift >= 0; shift -= 8)
                answer.bytes.push_back(static_cast<uint8_t>(word >> shift));
        if (!is_strange && (flags & answer_flag::kWrongNumber) == 0 && !answered_)
            answered_ = Understand(command, status, value);
        Deliver(answer);
    }

    static std::optional<Answer> Understand(uint8_t command, uint8_t status, uint32_t value) {
        const KELO_API_STATUS result = status == 1   ? KELO_STATUS_SUCCESS
                                       : status == 3 ? KELO_STATUS_OUT_OF_RANGE
                                                     : KELO_STATUS_ERROR;
        if (command == 5 || command == 7) return Answer{result, value};
        if (command == 11) return Answer{result, 0};
        if (command != 9 || (status == 1 && value > 128)) return std::nullopt;
        return Answer{result, 0};
    }

    void CheckCamera(CAM_HANDLE handle, const IdentityModel& identity) {
        const auto camera = manager_.FindHandle(handle);
        Require(camera != nullptr, "the camera is there");
        RequireEqual(camera->GetIP(), identity.ip, "address");
        RequireEqual(camera->Identity().camera_subnet, identity.mask, "mask");
        Require(manager_.FindIp(identity.ip) != nullptr, "the address is known");
    }

    KELOManager& manager_;
    Input input_;
    RegistryModel model_;
    std::vector<Arrival> in_discovery_;
    uint32_t broadcasts_ = 0;
    uint32_t asked_ip_ = 0;
    bool is_sent_ = false;
    std::optional<Answer> answered_;
    int discoveries_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static KELOManager manager;
    Player(manager, Input(data, size)).Play();
    return 0;
}
