#include "kelo_protocol.h"

#include "utils.h"

TKeloCommandHeader MakeCommandHeader(VC_PROTOCOL_COMMANDS command, uint32_t message_number) {
    return {.magic_number = CONTROL_MAGIC,
            .flags = 0,
            .NL_command_id = kelo_htonl(command),
            .NL_message_number = kelo_htonl(message_number),
            .VCNL_status = kelo_htonl(VCS_SUCCESS)};
}

KELO_API_STATUS StatusFromWire(uint32_t status) {
    switch (status) {
        case VCS_SUCCESS:
            return KELO_STATUS_SUCCESS;
        case VCS_OUT_OF_RANGE:
            return KELO_STATUS_OUT_OF_RANGE;
        default:
            return KELO_STATUS_ERROR;
    }
}
