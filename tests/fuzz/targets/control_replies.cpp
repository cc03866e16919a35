// Datagrams from the camera while a request waits for its reply: the request must take the first
// one that answers it, and take it for what it is. Input: see control_replies.h.

#include "control_replies.h"

#include <algorithm>
#include <memory>
#include <optional>
#include <vector>

#include "fuzz.h"
#include "input.h"
#include "kelo_camera.h"

using kelo::fuzz::Input;
using kelo::fuzz::ReplyRequest;
using kelo::fuzz::Require;
using kelo::fuzz::RequireEqual;

namespace {

using Bytes = std::vector<uint8_t>;

constexpr uint32_t kRegistersMax = 128;
constexpr uint32_t kUntouched = 0xEEEEEEEE;
constexpr int kExchangesMax = 100;

uint32_t Word(const Bytes& bytes, size_t offset) {
    uint32_t word = 0;
    for (size_t i = offset; i < offset + 4; ++i)
        word = word << 8 | (i < bytes.size() ? bytes[i] : uint8_t{0});
    return word;
}

void SetWord(Bytes& bytes, size_t offset, uint32_t word) {
    for (size_t i = 0; i < 4; ++i)
        if (offset + i < bytes.size())
            bytes[offset + i] = static_cast<uint8_t>(word >> (24 - 8 * i));
}

// What a datagram tells a waiting request.
struct Answer {
    KELO_API_STATUS status = KELO_STATUS_ERROR;
    uint32_t value = 0;
    uint32_t count = 0;
    std::vector<uint32_t> values{};
};

// Nothing if it is no answer to the request of that number.
std::optional<Answer> Understand(const Bytes& bytes, uint32_t number) {
    if (bytes.empty() || bytes[0] != 0xAB || Word(bytes, 6) != number) return std::nullopt;
    Answer answer;
    if (Word(bytes, 10) == 1) answer.status = KELO_STATUS_SUCCESS;
    if (Word(bytes, 10) == 3) answer.status = KELO_STATUS_OUT_OF_RANGE;
    answer.values.assign(kRegistersMax, 0);
    switch (Word(bytes, 2)) {
        case 5:
        case 7:
            answer.value = Word(bytes, 18);
            return answer;
        case 9:
            if (answer.status != KELO_STATUS_SUCCESS) return answer;
            answer.count = Word(bytes, 18);
            if (answer.count > kRegistersMax) return std::nullopt;
            for (uint32_t i = 0; i < answer.count; ++i)
                answer.values[i] = Word(bytes, 22 + size_t{4} * i);
            return answer;
        case 11:
            answer.count = Word(bytes, 18);
            return answer;
        default:
            return std::nullopt;
    }
}

// The transport and the camera behind it: answers a request at once with the datagrams of the
// input, and then with one that is right, so that nobody ever waits.
class ScriptedCamera : public TPacketCommunicator {
public:
    struct Planned {
        bool has_right_number;
        Bytes bytes;
    };

    void Plan(std::vector<Planned> datagrams) {
        planned_ = std::move(datagrams);
        answer_.reset();
        sent_.clear();
    }
    // What was sent, and what it was answered.
    const Bytes& Sent() const { return sent_; }
    const std::optional<Answer>& Answered() const { return answer_; }

    KELOCamera* session = nullptr;

    void StartRxThread() override {}
    void StopRxThread() override {}
    bool IsInitialized() override { return true; }
    unsigned short GetSocketPort() override { return 4711; }
    unsigned int GetSocketIp() override { return 0x7F000001; }
    const char* GetDescription() override { return "scripted"; }

    ssize_t Send(uint32_t, int, const void* data, int length) override {
        Require(sent_.empty(), "an answered request is not sent again");
        const auto* bytes = static_cast<const uint8_t*>(data);
        sent_.assign(bytes, bytes + length);
        const uint32_t number = Word(sent_, 6);
        for (Planned& planned : planned_) {
            if (planned.has_right_number) SetWord(planned.bytes, 6, number);
            Deliver(planned.bytes, number);
        }
        Bytes last(22);
        last[0] = 0xAB;
        last[5] = static_cast<uint8_t>(Word(sent_, 2) + 1);
        SetWord(last, 6, number);
        SetWord(last, 10, 2);
        Deliver(last, number);
        return length;
    }

private:
    void Deliver(const Bytes& bytes, uint32_t number) {
        if (!answer_) answer_ = Understand(bytes, number);
        session->OnRcv(0, bytes.data(), static_cast<int>(bytes.size()), 0);
    }

    std::vector<Planned> planned_;
    Bytes sent_;
    std::optional<Answer> answer_;
};

// One session for all inputs: only the number of its last request outlives an exchange.
struct Session {
    std::shared_ptr<ScriptedCamera> link = std::make_shared<ScriptedCamera>();
    KELOCamera camera{nullptr, 1, CAM_INFO{}, link};
    Session() { link->session = &camera; }
};

class Exchange {
public:
    Exchange(Session& session, Input& input) : session_(session) {
        const uint8_t first = input.U8();
        request_ =
            static_cast<ReplyRequest>((first & 0x0F) % static_cast<uint8_t>(ReplyRequest::Count));
        register_ = input.U32();
        count_ = input.U8();
        std::vector<ScriptedCamera::Planned> planned;
        for (int i = first >> 4; i > 0; --i) {
            const bool has_right_number = input.U8() != 0;
            const auto bytes = input.Bytes(input.U16());
            planned.push_back({has_right_number, {bytes.begin(), bytes.end()}});
        }
        session_.link->Plan(std::move(planned));
    }

    void Run() {
        switch (request_) {
            case ReplyRequest::ReadRegister:
            case ReplyRequest::WriteRegister:
                return TransferRegister(request_ == ReplyRequest::WriteRegister);
            case ReplyRequest::ReadMemory:
                return ReadMemory();
            default:
                return WriteMemory();
        }
    }

private:
    const Answer& CheckRequest(uint32_t command, size_t length, uint32_t second_word) {
        const Bytes& sent = session_.link->Sent();
        RequireEqual(sent.size(), length, "length of the request");
        RequireEqual(sent[0], 0xAB, "magic");
        RequireEqual(sent[1], 0, "flags");
        RequireEqual(Word(sent, 2), command, "command");
        RequireEqual(Word(sent, 10), 1u, "status of the request");
        RequireEqual(Word(sent, 14), register_ * 4, "address");
        RequireEqual(Word(sent, 18), second_word, "count or value");
        return *session_.link->Answered();
    }

    void TransferRegister(bool write) {
        uint32_t value = count_;
        const KELO_API_STATUS status = write ? session_.camera.setRegisterValue(register_, value)
                                             : session_.camera.getRegisterValue(register_, value);
        const Answer& answer = CheckRequest(write ? 6 : 4, 22, write ? count_ : 0);
        RequireEqual(static_cast<int>(status), static_cast<int>(answer.status), "status");
        const bool is_success = status == KELO_STATUS_SUCCESS;
        RequireEqual(value, is_success ? answer.value : count_, "value");
    }

    void ReadMemory() {
        // As much room as callers give.
        const auto values = std::make_unique<uint32_t[]>(kRegistersMax);
        std::fill_n(values.get(), kRegistersMax, kUntouched);
        uint32_t count = count_;
        const KELO_API_STATUS status = session_.camera.readMemory(register_, count, values.get());
        const Answer& answer = CheckRequest(8, 22, count_);
        const bool is_success =
            answer.status == KELO_STATUS_SUCCESS && answer.count <= kRegistersMax;
        const KELO_API_STATUS expected =
            answer.status == KELO_STATUS_SUCCESS && !is_success ? KELO_STATUS_ERROR : answer.status;
        RequireEqual(static_cast<int>(status), static_cast<int>(expected), "status");
        RequireEqual(count, is_success ? answer.count : count_, "count");
        for (uint32_t i = 0; i < kRegistersMax; ++i)
            RequireEqual(values[i], is_success && i < answer.count ? answer.values[i] : kUntouched,
                         "register");
    }

    void WriteMemory() {
        const auto values = std::make_unique<uint32_t[]>(count_);
        for (uint32_t i = 0; i < count_; ++i)
            values[i] = i * 0x01010101;
        uint32_t count = count_;
        const KELO_API_STATUS status =
            session_.camera.writeMemory(register_, count, values.get(), -1, nullptr);
        if (count_ > kRegistersMax) {
            RequireEqual(static_cast<int>(status), static_cast<int>(KELO_STATUS_ERROR), "status");
            Require(session_.link->Sent().empty(), "too many registers are not sent");
            return;
        }
        const Answer& answer = CheckRequest(10, 22 + size_t{4} * count_, count_);
        for (uint32_t i = 0; i < count_; ++i)
            RequireEqual(Word(session_.link->Sent(), 22 + size_t{4} * i), values[i], "word");
        RequireEqual(static_cast<int>(status), static_cast<int>(answer.status), "status");
        RequireEqual(count, status == KELO_STATUS_SUCCESS ? answer.count : count_, "count");
    }

    Session& session_;
    ReplyRequest request_;
    uint32_t register_;
    uint32_t count_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static Session session;
    Input input(data, size);
    for (int i = 0; i < kExchangesMax && !input.IsEmpty(); ++i)
        Exchange(session, input).Run();
    return 0;
}
