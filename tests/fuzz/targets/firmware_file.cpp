// Firmware files: which are accepted, the payloads that they are cut into, what happens when they
// change meanwhile, and the read-back of what was sent. Input: see firmware_file.h.

#include "firmware_file.h"

#include <algorithm>
#include <memory>
#include <stdexcept>
#include <vector>

#include "fuzz.h"
#include "input.h"
#include "kelo_fw_client.h"
#include "memory_file.h"

using kelo::fuzz::Fail;
using kelo::fuzz::Input;
using kelo::fuzz::Require;
using kelo::fuzz::RequireEqual;
namespace firmware_flag = kelo::fuzz::firmware_flag;

namespace {

using Bytes = std::vector<uint8_t>;

constexpr size_t kEmblemSize = 12;
constexpr uint64_t kPiece = 0x100000;
constexpr int kPayloadLimit = 2000;

uint32_t Word(std::span<const uint8_t> bytes, size_t offset) {
    uint32_t word = 0;
    for (size_t i = 0; i < 4; ++i)
        word = word << 8 | bytes[offset + i];
    return word;
}

// As far as the bytes reach.
void SetWord(Bytes& bytes, uint64_t offset, uint32_t word) {
    for (size_t i = 0; i < 4; ++i)
        if (offset + i < bytes.size())
            bytes[offset + i] = static_cast<uint8_t>(word >> (24 - 8 * i));
}

uint32_t MaskedCrc(const Bytes& content, size_t emblem) {
    uint32_t crc = 0x5478DE90;
    for (size_t i = 0; i < content.size(); ++i) {
        crc ^= i >= emblem && i - emblem < kEmblemSize ? 0xFF : content[i];
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc & 1) != 0 ? crc >> 1 ^ 0xEDB88320u : crc >> 1;
    }
    return crc;
}

// Why the file is refused; empty if it is not.
std::string Verdict(const Bytes& content, uint64_t emblem) {
    if (content.empty()) return "The file has no valid magic";
    if (emblem < kPiece && emblem + kEmblemSize > kPiece) {
        return "the emblem falls on the boundary of MAX; try changing MAX or move the emblem...";
    }
    if (emblem + kEmblemSize > content.size() || Word(content, emblem) != 0x9AE4601F)
        return "The file has no valid magic";
    if (Word(content, emblem + 4) != content.size())
        return "The file does not have the right length";
    if (Word(content, emblem + 8) != MaskedCrc(content, emblem)) return "The file has no valid crc";
    return "";
}

struct Case {
    int payload_max;
    uint32_t emblem;
    uint8_t flags;
    uint8_t change_before;
    uint16_t change_at;
    uint8_t change_to;
    Bytes content;

    bool Has(uint8_t flag) const { return (flags & flag) != 0; }
    bool Changes() const { return Has(firmware_flag::kChanged) || Has(firmware_flag::kTruncated); }
};

Case ReadCase(Input input) {
    Case made{.payload_max = input.U16() % kelo::fuzz::kPayloadKinds + kelo::fuzz::kSmallestPayload,
              .emblem = input.U32(),
              .flags = input.U8(),
              .change_before = input.U8(),
              .change_at = input.U16(),
              .change_to = input.U8(),
              .content = {}};
    made.content.assign(input.Rest().begin(), input.Rest().end());
    if (!made.Has(firmware_flag::kSealed)) return made;
    const uint64_t emblem = made.emblem;
    SetWord(made.content, emblem, 0x9AE4601F);
    SetWord(made.content, emblem + 4, static_cast<uint32_t>(made.content.size()));
    SetWord(made.content, emblem + 8, MaskedCrc(made.content, emblem));
    const uint64_t broken = emblem + made.change_to % kEmblemSize;
    if (made.Has(firmware_flag::kBrokenSeal) && broken < made.content.size())
        made.content[broken] ^= made.change_to;
    return made;
}

uint32_t fake_seconds = 0;

class Run {
public:
    Run(const Case& plan, kelo::fuzz::MemoryFile& file)
        : plan_(plan), file_(file), client_(plan.payload_max, [] { return fake_seconds; }) {}

    void Execute() {
        const std::string verdict = Verdict(plan_.content, plan_.emblem);
        try {
            client_.StartProgramming(file_.Path(), plan_.emblem);
            if (!verdict.empty()) Fail("accepted in place of: " + verdict);
        } catch (const std::runtime_error& error) {
            if (verdict != error.what()) Fail(std::string(error.what()) + ", not: " + verdict);
            return;
        }
        Require(client_.AbortionAllowed, "a run may be aborted");
        if (SendAll()) ReadBack();
        CheckProgress();
    }

private:
    // The next payload, in a block of exactly the promised size. Empty if there is none.
    Bytes Next(TResult expected) {
        Bytes payload(static_cast<size_t>(std::max(plan_.payload_max, 0)), 0xEE);
        int length = 0;
        int timeout = 0;
        RequireEqual(static_cast<int>(client_.GetNextPayload(payload.data(), length, timeout)),
                     static_cast<int>(expected), "next payload");
        if (expected != R_OK) return {};
        Require(length > 0 && length <= plan_.payload_max, "length of the payload");
        Require(std::all_of(payload.begin() + length, payload.end(),
                            [](uint8_t byte) { return byte == 0; }),
                "zeros behind the payload");
        Require(timeout > 0, "time for the payload");
        CheckProgress();
        payload.resize(static_cast<size_t>(length));
        return payload;
    }

    // False when the run has ended before the read-back.
    bool SendAll() {
        const bool has_room = plan_.payload_max >= 4;
        const Bytes start = Next(has_room ? R_OK : R_ERROR);
        if (!has_room) return false;
        Require(start.size() == 4 && Word(start, 0) == 0xFFFFFF00, "start");
        if (!SendData()) return false;
        Require(!client_.AbortionAllowed, "nobody aborts while the camera writes its flash");
        const bool has_room_for_two = plan_.payload_max >= 8;
        const Bytes prepare = Next(has_room_for_two ? R_OK : R_ERROR);
        if (!has_room_for_two) return false;
        Require(prepare.size() == 8 && Word(prepare, 0) == 0xFFFFFF02 && Word(prepare, 4) == 0,
                "read prepare");
        (void)Next(R_READ);
        return true;
    }

    // Up to the finish payload, which there must only be for what was checked.
    bool SendData() {
        Bytes sent;
        for (int payloads = 0;; ++payloads) {
            if (payloads == plan_.change_before) Change();
            Bytes payload(static_cast<size_t>(plan_.payload_max));
            int length = 0;
            int timeout = 0;
            const TResult result = client_.GetNextPayload(payload.data(), length, timeout);
            const bool is_complete = sent == plan_.content;
            if (result == R_ERROR) {
                Require(!is_complete, "a complete file is finished");
                Require(plan_.Changes() || plan_.payload_max == 4, "only a change is an error");
                return false;
            }
            RequireEqual(static_cast<int>(result), static_cast<int>(R_OK), "data payload");
            ++fake_seconds;
            CheckProgress();
            if (Word(payload, 0) == 0xFFFFFF01) {
                Require(is_complete && length == 4, "only what was checked is finished");
                return true;
            }
            RequireEqual(Word(payload, 0), sent.size(), "offset of the data");
            Require(length > 4 && length <= plan_.payload_max, "length of the data");
            sent.insert(sent.end(), payload.begin() + 4, payload.begin() + length);
            Require(sent.size() <= plan_.content.size(), "no more is sent than there is");
        }
    }

    void Change() {
        const size_t at = plan_.change_at % plan_.content.size();
        if (plan_.Has(firmware_flag::kTruncated))
            file_.Resize(at);
        else if (plan_.Has(firmware_flag::kChanged))
            file_.Overwrite(at, plan_.change_to);
    }

    // The camera holds what was sent; the file may have changed since.
    void ReadBack() {
        Bytes reply(8 + plan_.content.size());
        SetWord(reply, 4, static_cast<uint32_t>(plan_.content.size()));
        std::copy(plan_.content.begin(), plan_.content.end(), reply.begin() + 8);
        const TResult checked = Check(reply, plan_.content.size());
        if (plan_.Changes()) return;
        RequireEqual(static_cast<int>(checked), static_cast<int>(R_OK), "read-back");
        // Only a piece beyond the end tells that this is the end.
        Bytes last(9);
        SetWord(last, 0, static_cast<uint32_t>(plan_.content.size()));
        SetWord(last, 4, 1);
        RequireEqual(static_cast<int>(Check(last, 1)), static_cast<int>(R_END), "end of read-back");
        client_.UpdateProgress(0);
        int percent = -1;
        Require(client_.GetProgress(&percent) == R_OK && percent == 100, "a run that is done");
    }

    TResult Check(const Bytes& reply, size_t size) {
        const void* data = nullptr;
        uint32_t address = 0;
        int count = 0;
        RequireEqual(static_cast<int>(client_.ExtractReadData(
                         reply.data(), static_cast<int>(reply.size()), data, address, count)),
                     static_cast<int>(R_OK), "read-back reply");
        RequireEqual(static_cast<size_t>(count), size, "bytes of the reply");
        return client_.CheckReadData(data, address, count);
    }

    void CheckProgress() {
        int percent = -1;
        RequireEqual(static_cast<int>(client_.GetProgress(&percent)), static_cast<int>(R_OK),
                     "progress");
        Require(percent >= percent_ && percent <= 100, "progress never goes backwards");
        percent_ = percent;
    }

    const Case& plan_;
    kelo::fuzz::MemoryFile& file_;
    TKeloFWClient client_;
    int percent_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static kelo::fuzz::MemoryFile file;
    fake_seconds = 1000;
    const Case plan = ReadCase(Input(data, size));
    file.Set(plan.content);
    try {
        Run run(plan, file);
        Require(plan.payload_max <= kPayloadLimit, "the payload has a limit");
        run.Execute();
    } catch (const std::runtime_error&) {
        Require(plan.payload_max > kPayloadLimit, "only a large payload is refused");
    }
    return 0;
}
