#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "kelosim/faults.h"
#include "kelosim/firmware.h"
#include "kelosim/image_source.h"

namespace kelosim {

// UDP port of every camera's control channel.
inline constexpr uint16_t kControlPort = 6061;
inline constexpr int kMaxStreams = 8;

// a.b.c.d in host order, as everywhere in this library.
constexpr uint32_t Ipv4(uint32_t a, uint32_t b, uint32_t c, uint32_t d) {
    return a << 24 | b << 16 | c << 8 | d;
}
std::string Ipv4Text(uint32_t address);
// Throws std::invalid_argument for anything but a dotted quad.
uint32_t ParseIpv4(const std::string& text);

struct StreamConfig {
    ImageSourcePtr source;            // none: MakeTestChart8(640, 480)
    double frame_rate = 0;            // images per second; 0: as fast as possible
    uint32_t image_count = 0;         // images of one acquisition; 0: no end
    uint32_t first_image_number = 1;  // of every acquisition
    bool over_tcp = false;            // the options register's initial bit 0
    bool used = true;                 // the initial bit in REG_USED_STREAMS_MASK
    uint8_t header_format = 0;
    // Bytes in front of the pixels: the image number (32 bits), the width and the height (16 bits
    // each), all big-endian, then zeros; cut off when there is less room.
    uint8_t header_size = 0;
    // UDP: a limit on what leaves the camera, in bytes of image data; 0: none.
    double max_bytes_per_second = 0;
    // UDP: whether Camera::SentDatagrams is to tell what left; costs the memory and the speed.
    bool keep_sent = false;

    // What image number n of the stream consists of: its header and its pixels.
    std::vector<uint8_t> Frame(uint32_t number) const;
    uint32_t MaxFrameSize() const;
};

struct CameraConfig {
    uint32_t address = Ipv4(127, 0, 0, 11);
    uint32_t subnet_mask = Ipv4(255, 0, 0, 0);
    // All zeros: one is made from the address.
    std::array<uint8_t, 6> mac{};
    std::string description = "KELO simulated camera";  // 32 characters at most are sent
    std::string model = "Simulated 1";
    std::string serial_number = "0000001";
    uint16_t firmware_major = 2;
    uint16_t firmware_minor = 3;
    std::vector<StreamConfig> streams{StreamConfig{}};
    uint32_t heartbeat_timeout_ms = 3000;
    // The largest IP packet that the path carries: bigger test and image datagrams get lost.
    uint32_t path_packet_size = 9000;
    uint16_t tcp_port = 0;   // 0: chosen by the system; REG_TCP_STREAMPORT tells which
    bool exclusive = false;  // a client's claim keeps others from claiming the camera
    FirmwareConfig firmware;
    Faults faults;
};

struct StreamCounters {
    uint64_t images = 0;           // sent, whole or damaged by faults
    uint64_t packets = 0;          // datagrams that left (UDP)
    uint64_t bytes = 0;            // of image data that left
    uint64_t packets_dropped = 0;  // by faults, by the path's size or by the kernel
    uint32_t last_image_number = 0;
};

struct CameraCounters {
    uint64_t requests = 0;   // well-formed control requests, discovery included
    uint64_t malformed = 0;  // datagrams on the control port that were none
    uint64_t replies = 0;    // sent
    uint64_t replies_dropped = 0;
    uint64_t discoveries = 0;
    uint64_t watchdog_expired = 0;
    uint64_t connections = 0;  // TCP connections that named their stream
    std::array<StreamCounters, kMaxStreams> streams{};
};

// One control request as the camera understood it.
struct ControlRequest {
    uint32_t command = 0;
    uint32_t message_number = 0;
    uint32_t register_number = 0;  // of register and memory requests
    uint32_t count = 0;            // registers; 1 for register requests
    uint32_t value = 0;            // of a register write; the first one of a memory write
    uint32_t from_address = 0;
    uint16_t from_port = 0;
};

// A simulated camera: control channel, image streams, flash. Owned by its Simulator; every function
// may be called from any thread while the simulator exists. From inside an event callback only the
// camera that the event is about may be switched off and on, moved, or have its connections
// changed.
//
// Its control thread owns its sockets and answers requests; one thread per stream sends images.
class Camera {
public:
    class Impl;
    explicit Camera(std::unique_ptr<Impl> impl);
    ~Camera();
    Camera(const Camera&) = delete;
    Camera& operator=(const Camera&) = delete;

    // As configured; `address`, `subnet_mask` and `tcp_port` are those of now.
    CameraConfig config() const;
    uint32_t address() const;
    uint16_t tcp_port() const;

    // The register file, without the effects that a client's write has. Reading an unmapped
    // register gives 0; setting one maps it.
    uint32_t GetRegister(uint32_t number) const;
    void SetRegister(uint32_t number, uint32_t value);
    // Makes a register unknown to the camera.
    void UnmapRegister(uint32_t number);

    Faults faults() const;
    void SetFaults(const Faults& faults);
    void UpdateFaults(const std::function<void(Faults&)>& change);
    void SetFirmware(const FirmwareConfig& firmware);
    void SetPathPacketSize(uint32_t size);
    void SetFrameRate(int stream, double frame_rate);
    // Takes effect at the next start of the acquisition.
    void SetImageCount(int stream, uint32_t images);

    // The first bytes of the flash; what was never written is 0xFF.
    std::vector<uint8_t> FlashContents(uint32_t length) const;

    CameraCounters counters() const;
    // What left on a stream that keeps it, since its latest start: every datagram as it was, in
    // order.
    std::vector<std::vector<uint8_t>> SentDatagrams(int stream) const;
    // The latest requests (at most 4096), oldest first.
    std::vector<ControlRequest> Requests() const;
    void ClearRequests();

    // Whether images leave, or will as soon as they may; false means that all have left.
    bool acquiring() const;
    bool used() const;
    bool powered() const;

    // One image on every stream that waits for a trigger (REG_TRIGGERMODE other than 0).
    void Trigger();

    // Leaves the network at once; all state but address, flash and configuration is lost.
    void PowerOff();
    // Throws std::runtime_error when the address is not to be had.
    void PowerOn();
    // PowerOff, and PowerOn after the configured reboot time.
    void Reboot();
    // Moves to another address, as after a set-IP command; ends the session. Throws
    // std::runtime_error, and stays where it was, when the address is not to be had.
    void SetAddress(uint32_t address, uint32_t subnet_mask);
    // Ends the TCP connections of the streams.
    void CloseConnections();

    Impl& impl() { return *impl_; }

private:
    std::unique_ptr<Impl> impl_;
};

}  // namespace kelosim
