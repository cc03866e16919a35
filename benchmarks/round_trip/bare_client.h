#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace kelo::bench {

// Sends the very datagrams that the library sends and waits for the answer in the same call: what
// the exchange costs without the library. Throws std::runtime_error if the answer is missing or
// not the expected one.
class BareClient {
public:
    BareClient();
    ~BareClient();
    BareClient(const BareClient&) = delete;
    BareClient& operator=(const BareClient&) = delete;

    void ReadRegister(uint32_t number);
    void WriteMemory(uint32_t number, uint32_t count, const uint32_t* values);

private:
    void StartRequest(uint32_t command, uint32_t number, uint32_t word);
    void Exchange(size_t size, uint32_t reply_command);

    int socket_;
    uint32_t message_number_ = 0;
    std::array<std::byte, 534> datagram_{};
};

}  // namespace kelo::bench
