#pragma once

#include <cstdint>
#include <map>
#include <string_view>
#include <unordered_map>

#include "kelosim/camera.h"

namespace kelosim {

// The registers that merely hold a value. Which writes have effects is the camera's business; which
// registers exist and which of them a client may change is said here.
class RegisterFile {
public:
    // The values after power-on.
    RegisterFile(const CameraConfig& config, uint16_t tcp_port);

    bool Mapped(uint32_t number) const { return values_.count(number) != 0; }
    // 0 for an unmapped register.
    uint32_t Get(uint32_t number) const;
    void Set(uint32_t number, uint32_t value) { values_[number] = value; }
    void Unmap(uint32_t number) { values_.erase(number); }

    // Whether a client may write it.
    bool ReadOnly(uint32_t number) const;
    // Whether a write succeeds but leaves the value as it is: the picture's size is the source's.
    static bool Fixed(uint32_t number);

    // Block base of a stream, for use with the offsets below.
    static constexpr uint32_t StreamBlock(uint32_t stream) { return 264 + 8 * stream; }
    enum StreamOffset : uint32_t {
        kFormat = 0,
        kFrameSize = 1,
        kHeaderFormat = 2,
        kHeaderSize = 3,
        kOptions = 4
    };

private:
    void MapEverything();
    void SetText(uint32_t first, uint32_t registers, std::string_view text);
    void SetIdentity(const CameraConfig& config);
    void SetPicture(const CameraConfig& config);
    void SetStreams(const CameraConfig& config);

    std::unordered_map<uint32_t, uint32_t> values_;
};

}  // namespace kelosim
