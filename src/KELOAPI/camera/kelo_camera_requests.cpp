// The request/response engine of a camera session.

#include <algorithm>
#include <array>
#include <cstddef>
#include <stdexcept>

#include "Str.h"
#include "kelo_camera.h"
#include "kelo_protocol.h"
#include "utils.h"

namespace {

// How long the first, second, third and fourth attempt of a request wait for the reply.
constexpr std::array<int, 4> control_protocol_timeouts_ms = {250, 500, 750, 1000};

const char* StatusText(KELO_API_STATUS status) {
    switch (status) {
        case KELO_STATUS_OUT_OF_RANGE:
            return "KELO_STATUS_OUT_OF_RANGE";
        case KELO_STATUS_ERROR:
            return "KELO_STATUS_ERROR";
        case KELO_STATUS_NO_RESPONSE:
            return "KELO_STATUS_NO_RESPONSE";
        default:
            return "unknown";
    }
}

uint32_t WireAddress(uint32_t reg_num) {
    return kelo_htonl(reg_num * REGISTER_ADDRESS_FACTOR);
}

}  // namespace

void KELOCamera::vc_send(const void* udp_payload, int length) {
    if (m_packetCommunicator == nullptr) return;
    // What could not be sent is not answered either: the retries see to it.
    (void)m_packetCommunicator->Send(GetIP(), CAMERA_CONTROL_PORT, udp_payload, length);
    heartbeat_last_send_time = vc_get_time_msec();
}

void KELOCamera::vc_hearbeat_received() {
    heartbeat_last_rcv_time = vc_get_time_msec();
}

void KELOCamera::SideEffectsOnMemChange(uint32_t /*address_0*/, uint32_t /*count*/,
                                        const uint32_t* /*values*/, bool /*on_write*/) {
    // The one place that sees every successful transfer: where a cache of camera state would be
    // kept up to date. There is none.
}

void KELOCamera::OnRcv(uint32_t /*ip_from*/, const void* udp_payload, int length,
                       unsigned short /*socketPort*/) {
    intake->OnRcv(udp_payload, static_cast<size_t>(std::max(length, 0)));
}

TResponse KELOCamera::WaitForResponse(int msec, AbortFlag abort) {
    if (msec < 0 && abort.IsPresent()) throw std::runtime_error("Unsupported");
    TResponse response;
    const bool nothing_to_wait_for = msec == 0 && abort.IsPresent();
    if (nothing_to_wait_for || !intake->Get(msec, response, abort)) {
        return TResponse{};
    }
    vc_hearbeat_received();
    return response;
}

// Sends a command, with a new number for each attempt, until the camera answers.
template <typename SendCommand>
TResponse KELOCamera::Request(std::span<const int> timeouts_ms, AbortFlag abort,
                              SendCommand send_command) {
    TResponse response;
    if (m_packetCommunicator == nullptr) {
        response.Status = KELO_STATUS_ERROR;
        return response;
    }
    for (const int timeout_ms : timeouts_ms) {
        if (intake->IsAbandoned()) break;
        send_command(intake->BeginRequest());
        response = WaitForResponse(timeout_ms, abort);
        if (response.Status != KELO_STATUS_NO_RESPONSE || abort.IsSet()) break;
    }
    intake->EndRequest();
    return response;
}

KELO_API_STATUS KELOCamera::TransferRegister(uint32_t reg_num, uint32_t& value, bool write,
                                             TResponse& response) {
    response = Request(control_protocol_timeouts_ms, nullptr, [&](uint32_t number) {
        const TRegWritePacket packet{
            .header = MakeCommandHeader(write ? VC_WRITEREGISTER_COMMAND : VC_READREGISTER_COMMAND,
                                        number),
            .NL_address = WireAddress(reg_num),
            .NL_value = write ? kelo_htonl(value) : 0};
        vc_send(&packet, sizeof(packet));
    });
    if (response.Status == KELO_STATUS_SUCCESS) {
        value = response.Value;
        SideEffectsOnMemChange(reg_num, 1, &value, write);
    }
    return response.Status;
}

KELO_API_STATUS KELOCamera::getRegisterValue(uint32_t reg_num, uint32_t& value) {
    const kelo::TScopedLock lock(Mutex, "KELOCamera::getRegisterValue");
    TResponse response;
    const KELO_API_STATUS status = TransferRegister(reg_num, value, false, response);
    if (status != KELO_STATUS_SUCCESS) {
        kelo::Log("KELOCamera::getRegisterValue(reg_num 0x%08X) error = %d (%s)\n", reg_num,
                  static_cast<int>(status), StatusText(status));
    }
    return status;
}

KELO_API_STATUS KELOCamera::setRegisterValue(uint32_t reg_num, uint32_t& value) {
    const kelo::TScopedLock lock(Mutex, "KELOCamera::setRegisterValue");
    TResponse response;
    const KELO_API_STATUS status = TransferRegister(reg_num, value, true, response);
    if (status != KELO_STATUS_SUCCESS) {
        kelo::Log("KELOCamera::setRegisterValue(reg_num 0x%08X, val 0x%08X) error = %d (%s)\n",
                  reg_num, value, static_cast<int>(status), StatusText(status));
    }
    return status;
}

KELO_API_STATUS KELOCamera::setRegisterConst(uint32_t reg_num, uint32_t value) {
    return setRegisterValue(reg_num, value);
}

KELO_API_STATUS KELOCamera::readMemory(uint32_t start_reg_num, uint32_t& count, uint32_t values[]) {
    const kelo::TScopedLock lock(Mutex, "KELOCamera::readMemory");
    TResponse response = Request(control_protocol_timeouts_ms, nullptr, [&](uint32_t number) {
        const TMemReadCommand command{.header = MakeCommandHeader(VC_READMEMORY_COMMAND, number),
                                      .NL_address_0 = WireAddress(start_reg_num),
                                      .NL_number_of_registers = kelo_htonl(count)};
        vc_send(&command, sizeof(command));
    });
    if (response.Status != KELO_STATUS_SUCCESS) return response.Status;
    // Only a reply of another kind, whose count nothing has bounded, can claim more than it holds.
    if (response.Count > MAX_MEMORY_REGISTERS) return KELO_STATUS_ERROR;
    if (count < response.Count) {
        kelo::ShowMessage("Bug?",
                          "ERROR: readMemory(uint32_t start_reg_num, uint32_t &count, uint32_t "
                          "values[] - response.Count > count");
    }
    // The camera's count decides, by design: the firmware's read-back relies on whole replies, and
    // callers offer room for 128 registers.
    count = response.Count;
    // A reply of another kind has a count and no values: zeros.
    response.Values.resize(count);
    std::copy_n(response.Values.begin(), count, values);
    SideEffectsOnMemChange(start_reg_num, count, values, false);
    return KELO_STATUS_SUCCESS;
}

KELO_API_STATUS KELOCamera::writeMemory(uint32_t start_reg_num, uint32_t& count,
                                        const uint32_t values[], int timeout_msec,
                                        AbortFlag abort) {
    const kelo::TScopedLock lock(Mutex, "KELOCamera::writeMemory");
    if (count > MAX_MEMORY_REGISTERS) {
        kelo::ShowMessage("Error", Str() + "KELOCamera::MemWrite register count too high: " +
                                       count + " > " + MAX_MEMORY_REGISTERS);
        return KELO_STATUS_ERROR;
    }
    const std::array<int, 1> one_attempt = {timeout_msec};
    const std::span<const int> timeouts_ms =
        timeout_msec == -1 ? std::span<const int>(control_protocol_timeouts_ms)
                           : std::span<const int>(one_attempt);
    const TResponse response = Request(timeouts_ms, abort, [&](uint32_t number) {
        TMemWriteCommandMax command{};
        command.header = MakeCommandHeader(VC_WRITEMEMORY_COMMAND, number);
        command.NL_address_0 = WireAddress(start_reg_num);
        command.NL_number_of_registers = kelo_htonl(count);
        // By index: the record is packed, and a plain pointer into it would claim an alignment.
        for (uint32_t i = 0; i < count; ++i)
            command.NL_register_values[i] = kelo_htonl(values[i]);
        const size_t length = offsetof(TMemWriteCommandMax, NL_register_values) +
                              count * sizeof(command.NL_register_values[0]);
        vc_send(&command, static_cast<int>(length));
    });
    if (response.Status == KELO_STATUS_SUCCESS) {
        count = response.Count;
        SideEffectsOnMemChange(start_reg_num, count, values, true);
    }
    return response.Status;
}
