#include "reply_intake.h"

#include <algorithm>

#include "kelo_protocol.h"
#include "utils.h"

namespace {

// Reads a memory read reply. False when it claims more registers than fit.
bool ParseMemoryRead(const void* data, size_t length, TResponse& response) {
    // An error carries no values, whatever it claims.
    if (response.Status != KELO_STATUS_SUCCESS) return true;
    const auto reply = kelo::CopyRecord<TMemReadReplyMax>(data, length);
    const uint32_t count = kelo_ntohl(reply.NL_number_of_registers);
    if (count > MAX_MEMORY_REGISTERS) {
        kelo::Log("VC_READMEMORY_REPLY got bad NL_number_of_registers\n");
        return false;
    }
    response.Count = count;
    response.Values.resize(count);
    for (uint32_t i = 0; i < count; ++i) {
        response.Values[i] = kelo_ntohl(reply.NL_register_values[i]);
    }
    return true;
}

}  // namespace

void ReplyIntake::OnRcv(const void* data, size_t length) {
    const auto header = kelo::CopyRecord<TKeloCommandHeader>(data, length);
    if (header.magic_number != CONTROL_MAGIC) return;
    const uint32_t number = kelo_ntohl(header.NL_message_number);

    const std::lock_guard lock(mutex_numbers);
    if (number != last_message_number) {
        kelo::Log("discarded message from camera our msg num != rcvd msg num %d != %d\n",
                  static_cast<int>(last_message_number.load()), static_cast<int>(number));
        return;
    }
    TResponse response;
    response.Status = StatusFromWire(kelo_ntohl(header.VCNL_status));
    switch (kelo_ntohl(header.NL_command_id)) {
        case VC_DISCOVER_REPLY:
            kelo::Log("got VC_DISCOVER_REPLY\n");
            return;
        case VC_READREGISTER_REPLY:
        case VC_WRITEREGISTER_REPLY:
            response.Value = kelo_ntohl(kelo::CopyRecord<TRegReadPacket>(data, length).NL_value);
            break;
        case VC_READMEMORY_REPLY:
            if (!ParseMemoryRead(data, length, response)) return;
            break;
        case VC_WRITEMEMORY_REPLY:
            response.Count =
                kelo_ntohl(kelo::CopyRecord<TMemWriteReply>(data, length).NL_number_of_registers);
            break;
        default:
            return;
    }
    Queue(response);
}

bool ReplyIntake::Awaits(uint32_t message_number) const {
    return awaiting && last_message_number == message_number;
}

void ReplyIntake::Queue(const TResponse& response) {
    // One reply answers a request. A camera that repeats it a thousand times must not stop the
    // receive thread, which serves the other cameras as well: what does not fit is dropped.
    (void)ResponseQueue.TryPut(response);
}

uint32_t ReplyIntake::BeginRequest() {
    const std::lock_guard lock(mutex_numbers);
    ResetResponses();
    awaiting = true;
    return ++last_message_number;
}

void ReplyIntake::ResetResponses() {
    TResponse discarded;
    while (ResponseQueue.Count() > 0 && ResponseQueue.Get(0, discarded)) {
    }
}

bool ReplyIntake::Get(int timeout_ms, TResponse& response, AbortFlag abort) {
    if (abandoned) return false;
    if (timeout_ms < 0) {
        ResponseQueue.Get(response);
    } else if (!ResponseQueue.Get(timeout_ms, response, abort)) {
        return false;
    }
    return !abandoned;
}

void ReplyIntake::Abandon() {
    const std::lock_guard lock(mutex_numbers);
    abandoned = true;
    Queue(TResponse{});
}

void SessionDirectory::Add(std::shared_ptr<ReplyIntake> intake) {
    const std::lock_guard lock(mutex_);
    intakes_.push_back(std::move(intake));
}

void SessionDirectory::Remove(const ReplyIntake* intake) {
    const std::lock_guard lock(mutex_);
    std::erase_if(intakes_, [&](const auto& entry) { return entry.get() == intake; });
}

std::shared_ptr<ReplyIntake> SessionDirectory::FindAwaiting(uint32_t camera_ip,
                                                            uint32_t message_number) {
    const std::lock_guard lock(mutex_);
    const auto found = std::find_if(intakes_.begin(), intakes_.end(), [&](const auto& intake) {
        return intake->CameraIp() == camera_ip && intake->Awaits(message_number);
    });
    return found == intakes_.end() ? nullptr : *found;
}

void SessionDirectory::AbandonAll() {
    const std::lock_guard lock(mutex_);
    for (const auto& intake : intakes_)
        intake->Abandon();
}
