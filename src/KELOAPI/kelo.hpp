/// @file kelo.hpp
/// C++17 over kelo_api.h, header only: what is opened is closed, what is taken is given back, what
/// fails says why.
///
///     kelo::Library library;
///     kelo::Camera camera = library.open(library.discover().at(0));
///     const kelo::Acquisition acquisition = camera.start();
///     for (kelo::Image& image : camera.stream(0, std::chrono::seconds(2))) use(image.pixels());
///
/// Conventions
///
///  1. Errors. Each function that can fail comes twice: `open` throws kelo::Error, `try_open`
///     returns a kelo::Result. Both carry the same kelo::Failure. That no image came in time is not
///     an error. Besides them only std::bad_alloc, and what the application's own functions throw,
///     leaves this layer.
///  2. Ownership. Library, Camera, Acquisition and Image are released by their destructors, in any
///     order: an image keeps its camera's session, a session keeps the library. All but Library are
///     moved, never copied.
///  3. No copies. Image::data() is the memory that the library received the image into.
///  4. One image of a stream at a time: the next one can be had when the last one has been given
///     back. Asking earlier is an error.
///  5. An image's memory ends early when the application calls Camera::close. When the camera is
///     lost or a discovery does not find it unchanged, which may come at any moment, Image::valid()
///     turns false as well, but what is being read stays where it is: until an image of the same
///     stream of that camera is left behind in the same way, the stream is closed, or the library
///     ends.
///  6. Threads. Different objects may be used from different threads. A Camera may be used from any
///     number of threads at once, but for moving, close and destruction. An Image, an Acquisition,
///     an ImageRange and a ResilientSession belong to one thread at a time.
///  7. Times are std::chrono durations. Negative ones count as zero, long ones as 24 days.
#ifndef KELO_HPP
#define KELO_HPP

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <iterator>
#include <limits>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include "kelo_api.h"

namespace kelo {
/// The version of this layer; it keeps two versions of the header in one program apart.
inline namespace v1 {

// ---- Errors ---------------------------------------------------------------------------------

/// What went wrong. A value: copying it costs no memory and cannot fail.
struct Failure {
    KELO_API_STATUS code = KELO_STATUS_ERROR;      ///< never KELO_STATUS_SUCCESS
    const char* function = "";                     ///< of the C interface; static text
    std::optional<CAM_HANDLE> camera;              ///< none: not about one camera
    std::optional<std::uint32_t> register_number;  ///< of register and memory accesses
    const char* reason = nullptr;                  ///< static text; null: what the code says

    /// One readable sentence with everything above.
    std::string text() const;
};

/// The name of a status code and what it means, as static texts.
/// @{
inline const char* name_of(KELO_API_STATUS code) noexcept {
    switch (code) {
        case KELO_STATUS_SUCCESS:
            return "KELO_STATUS_SUCCESS";
        case KELO_STATUS_ERROR:
            return "KELO_STATUS_ERROR";
        case KELO_STATUS_OUT_OF_RANGE:
            return "KELO_STATUS_OUT_OF_RANGE";
        case KELO_STATUS_NO_RESPONSE:
            return "KELO_STATUS_NO_RESPONSE";
    }
    return "unknown status";
}

inline const char* meaning_of(KELO_API_STATUS code) noexcept {
    switch (code) {
        case KELO_STATUS_SUCCESS:
            return "done";
        case KELO_STATUS_ERROR:
            return "the library or the camera refused";
        case KELO_STATUS_OUT_OF_RANGE:
            return "the camera does not know this number";
        case KELO_STATUS_NO_RESPONSE:
            return "the camera did not answer in time";
    }
    return "the library gave a status that this header does not know";
}
/// @}

inline std::string Failure::text() const {
    std::string text = std::string(function) + " failed";
    if (register_number) text += " at register " + std::to_string(*register_number);
    if (camera) {
        char handle[16];
        std::snprintf(handle, sizeof handle, "0x%08x", static_cast<unsigned>(*camera));
        text += std::string(" for camera ") + handle;
    }
    return text + ": " + (reason != nullptr ? reason : meaning_of(code)) + " (" + name_of(code) +
           ")";
}

/// A Failure as an exception. what() is Failure::text().
class Error : public std::runtime_error {
public:
    /// Of what a Result carries.
    explicit Error(const Failure& failure)
        : std::runtime_error(failure.text()), failure_(failure) {}

    /// The same as a value, and its parts.
    /// @{
    const Failure& failure() const noexcept { return failure_; }
    KELO_API_STATUS code() const noexcept { return failure_.code; }
    const char* function() const noexcept { return failure_.function; }
    std::optional<CAM_HANDLE> camera() const noexcept { return failure_.camera; }
    /// @}

private:
    Failure failure_;
};

/// A value or the Failure that stands in its place.
template <typename T>
class [[nodiscard]] Result {
public:
    /// Made of what a function returns: a value or a failure.
    /// @{
    Result(T value) : content_(std::in_place_index<0>, std::move(value)) {}
    Result(const Failure& failure) : content_(std::in_place_index<1>, failure) {}
    /// @}

    /// Whether there is a value.
    /// @{
    bool has_value() const noexcept { return content_.index() == 0; }
    explicit operator bool() const noexcept { return has_value(); }
    /// @}

    /// The value; throws Error if there is none.
    /// @{
    T& value() & {
        require();
        return *std::get_if<0>(&content_);
    }
    const T& value() const& {
        require();
        return *std::get_if<0>(&content_);
    }
    T value() && {
        require();
        return std::move(*std::get_if<0>(&content_));
    }
    /// @}

    /// The value, which must be there.
    /// @{
    T& operator*() & noexcept { return *std::get_if<0>(&content_); }
    const T& operator*() const& noexcept { return *std::get_if<0>(&content_); }
    T&& operator*() && noexcept { return std::move(*std::get_if<0>(&content_)); }
    T* operator->() noexcept { return std::get_if<0>(&content_); }
    const T* operator->() const noexcept { return std::get_if<0>(&content_); }
    /// @}

    /// The value, or another one in its place.
    T value_or(T other) && { return has_value() ? std::move(**this) : std::move(other); }

    /// The failure, which must be there.
    const Failure& failure() const noexcept { return *std::get_if<1>(&content_); }

private:
    void require() const {
        if (!has_value()) throw Error(failure());
    }

    std::variant<T, Failure> content_;
};

/// Success, or the Failure that stands in its place.
template <>
class [[nodiscard]] Result<void> {
public:
    /// Success, or a failure.
    /// @{
    Result() = default;
    Result(const Failure& failure) : failure_(failure) {}
    /// @}

    /// Whether it is success.
    /// @{
    bool has_value() const noexcept { return !failure_.has_value(); }
    explicit operator bool() const noexcept { return has_value(); }
    /// @}
    /// Throws Error if this is a failure.
    void value() const {
        if (failure_) throw Error(*failure_);
    }
    /// The failure, which must be there.
    const Failure& failure() const noexcept { return *failure_; }

private:
    std::optional<Failure> failure_;
};

// ---- Views, addresses -----------------------------------------------------------------------

/// Elements that belong to somebody else: a pointer and a count. What C++20 calls std::span, and
/// converts to it.
template <typename T>
class View {
public:
    /// @cond INSIDE
    using element_type = T;
    using value_type = std::remove_cv_t<T>;
    using iterator = T*;
    /// @endcond

    /// Of nothing, or of so many elements from an address on.
    /// @{
    constexpr View() noexcept = default;
    constexpr View(T* data, std::size_t size) noexcept : data_(data), size_(size) {}
    /// @}
    /// The elements of an array, a vector or the like.
    template <
        typename Container,
        typename = std::enable_if_t<std::is_convertible_v<
            std::remove_pointer_t<decltype(std::data(std::declval<Container&>()))> (*)[], T (*)[]>>>
    constexpr View(Container& container) noexcept
        : data_(std::data(container)), size_(std::size(container)) {}

    /// As in std::span. Indices are not checked.
    /// @{
    constexpr T* data() const noexcept { return data_; }
    constexpr std::size_t size() const noexcept { return size_; }
    constexpr bool empty() const noexcept { return size_ == 0; }
    constexpr T* begin() const noexcept { return data_; }
    constexpr T* end() const noexcept { return data_ + size_; }
    constexpr T& operator[](std::size_t index) const noexcept { return data_[index]; }
    /// @}

    /// The elements from offset on, at most so many; empty behind the end.
    constexpr View subview(
        std::size_t offset,
        std::size_t count = std::numeric_limits<std::size_t>::max()) const noexcept {
        offset = std::min(offset, size_);
        return View(data_ + offset, std::min(count, size_ - offset));
    }

private:
    T* data_ = nullptr;
    std::size_t size_ = 0;
};

/// The bytes of an image.
using Bytes = View<const std::uint8_t>;

/// An IPv4 address or subnet mask.
struct Ipv4Address {
    std::uint32_t value = 0;  ///< host byte order: 192.168.1.5 is 0xC0A80105

    /// As a number, or as it is written: Ipv4Address(192, 168, 1, 5).
    /// @{
    constexpr Ipv4Address() noexcept = default;
    constexpr explicit Ipv4Address(std::uint32_t address) noexcept : value(address) {}
    constexpr Ipv4Address(std::uint8_t a, std::uint8_t b, std::uint8_t c, std::uint8_t d) noexcept
        : value(std::uint32_t{a} << 24 | std::uint32_t{b} << 16 | std::uint32_t{c} << 8 | d) {}
    /// @}

    /// As in 192.168.1.5.
    std::string text() const {
        return std::to_string(value >> 24) + '.' + std::to_string(value >> 16 & 0xFF) + '.' +
               std::to_string(value >> 8 & 0xFF) + '.' + std::to_string(value & 0xFF);
    }

    /// @cond INSIDE
    friend constexpr bool operator==(Ipv4Address a, Ipv4Address b) noexcept {
        return a.value == b.value;
    }
    friend constexpr bool operator!=(Ipv4Address a, Ipv4Address b) noexcept { return !(a == b); }
    friend constexpr bool operator<(Ipv4Address a, Ipv4Address b) noexcept {
        return a.value < b.value;
    }
    /// @endcond
};

/// What a camera keeps when everything else about it changes.
struct MacAddress {
    std::array<std::uint8_t, 6> bytes{};  ///< first byte first

    /// As in 02:00:7f:00:00:0b.
    std::string text() const {
        char text[18];
        std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", bytes[0], bytes[1],
                      bytes[2], bytes[3], bytes[4], bytes[5]);
        return text;
    }

    /// @cond INSIDE
    friend bool operator==(const MacAddress& a, const MacAddress& b) noexcept {
        return a.bytes == b.bytes;
    }
    friend bool operator!=(const MacAddress& a, const MacAddress& b) noexcept { return !(a == b); }
    friend bool operator<(const MacAddress& a, const MacAddress& b) noexcept {
        return a.bytes < b.bytes;
    }
    /// @endcond
};

/// A camera that a discovery found.
struct CameraInfo {
    CAM_HANDLE handle = 0;    ///< changes with the address
    std::string description;  ///< the camera's own words
    Ipv4Address address;      ///< where it answers
    Ipv4Address subnet_mask;  ///< of its network, as it thinks
    MacAddress mac;           ///< tells one camera from another
};

// ---- Registers ------------------------------------------------------------------------------

/// How the 32 bits of a register are a T. Specialise it for types of your own.
template <typename T, typename Enable = void>
struct RegisterCodec;

/// Integers and enumerations of at most 32 bits, by value.
template <typename T>
struct RegisterCodec<T, std::enable_if_t<(std::is_integral_v<T> || std::is_enum_v<T>)&&sizeof(T) <=
                                         sizeof(std::uint32_t)>> {
    static constexpr T decode(std::uint32_t bits) noexcept { return static_cast<T>(bits); }
    static constexpr std::uint32_t encode(T value) noexcept {
        return static_cast<std::uint32_t>(value);
    }
};

/// The bits of an IEEE single, unchanged.
template <>
struct RegisterCodec<float> {
    static_assert(sizeof(float) == sizeof(std::uint32_t));
    static float decode(std::uint32_t bits) noexcept {
        float value = 0;
        std::memcpy(&value, &bits, sizeof value);
        return value;
    }
    static std::uint32_t encode(float value) noexcept {
        std::uint32_t bits = 0;
        std::memcpy(&bits, &value, sizeof bits);
        return bits;
    }
};

/// Addresses, in host byte order like everything else.
template <>
struct RegisterCodec<Ipv4Address> {
    static constexpr Ipv4Address decode(std::uint32_t bits) noexcept { return Ipv4Address(bits); }
    static constexpr std::uint32_t encode(Ipv4Address value) noexcept { return value.value; }
};

/// A register and the type of what it holds.
template <typename T>
struct Register {
    std::uint32_t number;

    /// The same register, read as another type: `reg::gain.as<float>()` for cameras that keep a
    /// float there.
    template <typename Other>
    constexpr Register<Other> as() const noexcept {
        return {number};
    }
};

/// A register that does something when 1 is written into it.
struct Command {
    std::uint32_t number;
};

/// The registers of one stream.
struct StreamRegisters {
    Register<std::uint32_t> format;
    Register<std::uint32_t> frame_size;
    Register<std::uint32_t> header_format;
    Register<std::uint32_t> header_size;
    Register<std::uint32_t> options;  ///< bits: KELO_STREAM_OPTIONS
};

/// The registers of kelo_registers.h by type. Which of them a camera has, which it lets be written,
/// and in which units they count, is in the camera's manual.
namespace reg {

using Number = Register<std::uint32_t>;  ///< a number
using Flag = Register<bool>;             ///< 0 or 1
using Ip = Register<Ipv4Address>;        ///< an address or a subnet mask

/// The register of this name in kelo_registers.h.
/// @{
inline constexpr Number sensor_width{REG_SENSORWIDTH};
inline constexpr Number sensor_height{REG_SENSORHEIGHT};
inline constexpr Number width{REG_WIDTH};
inline constexpr Number height{REG_HEIGHT};
inline constexpr Number offset_x{REG_OFFSETX};
inline constexpr Number offset_y{REG_OFFSETY};
inline constexpr Flag reverse_x{REG_REVERSEX};
inline constexpr Flag reverse_y{REG_REVERSEY};
inline constexpr Number pixel_format{REG_PIXELFORMAT};
inline constexpr Number acquisition_mode{REG_ACQUISITIONMODE};
inline constexpr Number acquisition_start{REG_ACQUISITIONSTART};
inline constexpr Number acquisition_stop{REG_ACQUISITIONSTOP};
inline constexpr Number acquisition_frames{REG_ACQUISITIONFRAMES};
inline constexpr Number frame_rate{REG_FRAMERATE};
inline constexpr Number trigger_mode{REG_TRIGGERMODE};
inline constexpr Command trigger_software{REG_TRIGGERSOFTWARE};
inline constexpr Number exposure_time{REG_EXPOSURETIME};
inline constexpr Flag hdr_enable{REG_HDR_ENABLE};
inline constexpr Number hdr_setting{REG_HDR_SETTING};
inline constexpr Number hdr_vlow2{REG_HDR_VLOW2};
inline constexpr Number hdr_vlow3{REG_HDR_VLOW3};
inline constexpr Number hdr_kp1_pos{REG_HDR_KP1_POS};
inline constexpr Number hdr_kp2_pos{REG_HDR_KP2_POS};
inline constexpr Number gain{REG_GAIN};
inline constexpr Number sensor_vramp{REG_SENSOR_VRAMP};
inline constexpr Number gain_tuning{REG_GAIN_TUNING};
inline constexpr Number black_level{REG_BLACKLEVEL};
inline constexpr Number device_firmware_version{REG_DEVICEFIRMWAREVERSION};
inline constexpr Number camera_settings_slot{REG_CAMERASETTINGSSLOT};
inline constexpr Number load_save_settings{REG_LOADSAVESETTINGS};
inline constexpr Number line_fix_offset{REG_LINEFIXOFFSET};
inline constexpr Flag line_fix_enable{REG_LINEFIXENABLE};
inline constexpr Number min_time{REG_MINTIME};
inline constexpr Number sensor_register_number{REG_SENSORREGISTERNUMBER};
inline constexpr Number sensor_register_value{REG_SENSORREGISTERVALUE};
inline constexpr Command image_pipeline_reset{REG_IMAGEPIPELINERESET};
inline constexpr Number device_temperature{REG_DEVICETEMPERATURE};
inline constexpr Number sensor_type{REG_SENSOR_TYPE};
inline constexpr Number trigger_selector{REG_TRIGGERSELECTOR};
inline constexpr Number trigger_source{REG_TRIGGERSOURCE};
inline constexpr Number trigger_activation{REG_TRIGGERACTIVATION};
inline constexpr Number trigger_delay{REG_TRIGGERDELAY};
inline constexpr Number trigger_divider{REG_TRIGGERDIVIDER};
inline constexpr Number trigger_frequency{REG_TRIGGERFREQUENCY};
inline constexpr Number trigger_debounce{REG_TRIGGERDEBOUNCE};
inline constexpr Number line_0_config{REG_LINE0CONFIG};
inline constexpr Number line_1_config{REG_LINE1CONFIG};
inline constexpr Number line_2_config{REG_LINE2CONFIG};
inline constexpr Number user_output_value{REG_USEROUTPUTVALUE};
inline constexpr Number timer_duration{REG_TIMERDURATION};
inline constexpr Number timer_delay{REG_TIMERDELAY};
inline constexpr Command timer_reset{REG_TIMERRESET};
inline constexpr Number timer_value{REG_TIMERVALUE};
inline constexpr Number timer_status{REG_TIMERSTATUS};
inline constexpr Number timer_trigger_source{REG_TIMERTRIGGERSOURCE};
inline constexpr Number timer_trigger_activation{REG_TIMERTRIGGERACTIVATION};
inline constexpr Number mac_0_high{REG_MAC_0_HIGH};
inline constexpr Number mac_0_low{REG_MAC_0_LOW};
inline constexpr Number curr_ip_config_0{REG_CURR_IP_CONFIG_0};
inline constexpr Ip curr_ip_addr_0{REG_CURR_IP_ADDR_0};
inline constexpr Ip curr_subnet_mask_0{REG_CURR_SUBNET_MASK_0};
inline constexpr Ip curr_gateway_0{REG_CURR_GATEWAY_0};
inline constexpr Number manufacturer_name{REG_MANUFACTURER_NAME};
inline constexpr Number model_name{REG_MODEL_NAME};
inline constexpr Number device_version{REG_DEVICE_VERSION};
inline constexpr Number serial_number{REG_SERIAL_NUMBER};
inline constexpr Number user_defined_name{REG_USER_DEFINED_NAME};
inline constexpr Number heartbeat_timeout{REG_HEARTBEAT_TIMEOUT};
inline constexpr Number timestamp_tick_freq_high{REG_TIMESTAMP_TICK_FREQ_HIGH};
inline constexpr Number timestamp_tick_freq_low{REG_TIMESTAMP_TICK_FREQ_LOW};
inline constexpr Number timestamp_control{REG_TIMESTAMP_CONTROL};
inline constexpr Number timestamp_value_high{REG_TIMESTAMP_VALUE_HIGH};
inline constexpr Number timestamp_value_low{REG_TIMESTAMP_VALUE_LOW};
inline constexpr Ip persist_ip_addr_0{REG_PERSIST_IP_ADDR_0};
inline constexpr Ip persist_subnet_mask_0{REG_PERSIST_SUBNET_MASK_0};
inline constexpr Ip persist_gateway_0{REG_PERSIST_GATEWAY_0};
inline constexpr Number link_speed_0{REG_LINK_SPEED_0};
inline constexpr Number control{REG_CONTROL};
inline constexpr Number stream_port{REG_STREAMPORT};
inline constexpr Number max_streams_mask{REG_MAX_STREAMS_MASK};
inline constexpr Number used_streams_mask{REG_USED_STREAMS_MASK};
inline constexpr Number tcp_stream_port{REG_TCP_STREAMPORT};
inline constexpr Number inter_frame_gap{REG_INTER_FRAME_GAP};
inline constexpr Number mtu{REG_MTU};
inline constexpr Command reboot{REG_REBOOT};
inline constexpr Flag camera_used{REG_CAMERA_USED};
inline constexpr Number device_temperature_2{REG_DEVICETEMPERATURE2};
inline constexpr Number num_sensor_channels{REG_NUM_SENSOR_CHANNELS};
inline constexpr Number trigger_frames_set{REG_TRIGGER_FRAMES_SET};
inline constexpr Number trigger_frames_get{REG_TRIGGER_FRAMES_GET};
inline constexpr Number firmware{KELO_CMD_FIRMWARE};
inline constexpr Number save_params_to_flash{KELO_CMD_SAVE_PARAMS_TO_FLASH};
inline constexpr Number save_calibration_to_flash{KELO_CMD_SAVE_CALIBRATION_TO_FLASH};
inline constexpr Number sensor_images_count_dropped{REG_SENSOR_IMAGES_COUNT_DROPED};
inline constexpr Number sensor_images_count_pending{REG_SENSOR_IMAGES_COUNT_PENDING};
inline constexpr Number inputs_status{REG_INPUTS_STATUS};
inline constexpr Number sys_status{REG_SYS_STATUS};
inline constexpr Command reboot_with_factory_settings{REG_REBOOT_WITH_FACTORY_SETTINGS};
inline constexpr Number imaging_problem_event_counter{REG_IMAGING_PROBLEM_EVENT_COUNTER};
inline constexpr Number io_test_output{REG_IO_TEST_OUTPUT};
inline constexpr Number hdr_sensor_exp_dual{REG_HDR_SENSOR_EXP_DUAL};
inline constexpr Number io_test_dirin{REG_IO_TEST_DIRIN};
inline constexpr Number io_test_input{REG_IO_TEST_INPUT};
inline constexpr Number hdr_sensor_exp_time2{REG_HDR_SENSOR_EXP_TIME2};
inline constexpr Number hdr_sensor_nr_slopes{REG_HDR_SENSOR_NR_SLOPES};
inline constexpr Number hdr_sensor_exp_step{REG_HDR_SENSOR_EXP_STEP};
inline constexpr Number hdr_sensor_exp_seq{REG_HDR_SENSOR_EXP_SEQ};
inline constexpr Flag hdr_sensor_enable_ext_exp_trigger{REG_HDR_SENSOR_ENABLE_EXT_EXP_TRIGGER};
inline constexpr Number bad_pixel_locations{REG_BAD_PIXEL_LOCATIONS};
inline constexpr Number binning_xy{REG_BINNING_XY};
inline constexpr Number binning_framerate{REG_BINNING_FRAMERATE};
inline constexpr Number binning_x{REG_BINNING_X};
inline constexpr Number binning_y{REG_BINNING_Y};
inline constexpr Number bus_access{REG_BUS_ACCESS};
/// @}

/// The registers of a stream, from 0.
constexpr StreamRegisters stream(std::uint8_t number) noexcept {
    const std::uint32_t block = (REG_STREAM1_FORMAT - REG_STREAM0_FORMAT) * std::uint32_t{number};
    return {{REG_STREAM0_FORMAT + block},
            {REG_STREAM0_FRAME_SIZE + block},
            {REG_STREAM0_HEADER_FORMAT + block},
            {REG_STREAM0_HEADER_SIZE + block},
            {REG_STREAM0_OPTIONS + block}};
}

}  // namespace reg

// ---- Inside ---------------------------------------------------------------------------------

class Library;
class Camera;
class Acquisition;
class Image;
class ImageRange;

/// @cond INSIDE
// Not for applications.
namespace detail {

using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::milliseconds;

constexpr std::uint32_t kMemoryRegistersMax = 128;
constexpr std::uint32_t kCamerasMax = 1024;
constexpr std::uint8_t kRunLengthFormat = 0x24;

// A parameter of this type takes its T from the other parameters.
template <typename T>
struct Identity {
    using type = T;
};
template <typename T>
using NoDeduction = typename Identity<T>::type;

inline Milliseconds clamp(Milliseconds time) noexcept {
    return std::clamp(time, Milliseconds(0), Milliseconds(std::numeric_limits<int>::max()));
}

inline Result<void> check(KELO_API_STATUS status, const Failure& failure) {
    if (status == KELO_STATUS_SUCCESS) return {};
    Failure failed = failure;
    failed.code = status;
    return failed;
}

inline Result<CameraInfo> camera_info(CAM_HANDLE handle) {
    EXT_CAM_INFO raw{};
    const KELO_API_STATUS status = keloGetCameraInfo(handle, &raw);
    if (status != KELO_STATUS_SUCCESS)
        return Failure{status, "keloGetCameraInfo", handle, {}, nullptr};
    CameraInfo info;
    info.handle = raw.camera_handle;
    info.description = raw.description;
    info.address = Ipv4Address(raw.camera_ip);
    info.subnet_mask = Ipv4Address(raw.camera_subnetmask);
    std::copy(std::begin(raw.camera_mac), std::end(raw.camera_mac), info.mac.bytes.begin());
    return info;
}

// How many users of the library there are in the program: the first starts it, the last ends it.
class LibraryCount {
public:
    static LibraryCount& instance() {
        // Never destroyed: objects with static lifetime may hold a Library.
        static LibraryCount& count = *new LibraryCount;
        return count;
    }
    KELO_API_STATUS add() {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (users_ == 0) {
            const KELO_API_STATUS status = keloInit();
            if (status != KELO_STATUS_SUCCESS) return status;
        }
        ++users_;
        return KELO_STATUS_SUCCESS;
    }
    void add_another() {
        const std::lock_guard<std::mutex> lock(mutex_);
        ++users_;
    }
    void remove() {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (--users_ == 0) keloRelease();
    }

private:
    std::mutex mutex_;
    int users_ = 0;
};

class Session;

// The sessions by handle, for the library's close callback, which tells nothing but a handle. A
// callback may come late, when its session has been closed and the camera opened again: each
// opening uses the next one of a few callbacks, which tells whose it is.
class SessionDirectory {
public:
    static constexpr std::size_t kSlots = 8;

    static SessionDirectory& instance() {
        // Never destroyed: the library's thread may call back while the program ends.
        static SessionDirectory& directory = *new SessionDirectory;
        return directory;
    }
    // False when the camera is open already.
    bool add(CAM_HANDLE handle, const std::shared_ptr<Session>& session,
             keloCameraCloseEvent*& callback);
    // Whether the session was there.
    bool remove(CAM_HANDLE handle, const Session* session);
    std::shared_ptr<Session> take(CAM_HANDLE handle, std::size_t slot);

private:
    struct Entry {
        const Session* session;
        std::weak_ptr<Session> owner;
        std::size_t slot;
    };

    std::mutex mutex_;
    std::size_t last_slot_ = 0;
    std::map<CAM_HANDLE, Entry> entries_;
};

}  // namespace detail
/// @endcond

// ---- Library --------------------------------------------------------------------------------

/// The library, started (keloInit) while there is at least one object of this class in the program,
/// and released (keloRelease) with the last one. A Camera holds one, too, until it is gone or
/// lost. Copies share. Do not mix with keloInit and keloRelease of your own.
///
/// Any thread may make, copy, use and destroy objects of this class. The last one should not go in
/// a close callback, which lets the library end on another thread some time later; nor should the
/// first one be made in one.
class Library {
public:
    /// Starts the library if it is not. Throws Error when the system refuses a thread, a socket or
    /// memory.
    Library() : Library(Started{}) {
        detail::check(detail::LibraryCount::instance().add(),
                      {KELO_STATUS_ERROR, "keloInit", {}, {}, nullptr})
            .value();
        user_ = true;
    }
    static Result<Library> try_start() {
        const KELO_API_STATUS status = detail::LibraryCount::instance().add();
        if (status != KELO_STATUS_SUCCESS) return Failure{status, "keloInit", {}, {}, nullptr};
        Library library{Started{}};
        library.user_ = true;
        return library;
    }

    Library(const Library& other) : user_(other.user_) {
        if (user_) detail::LibraryCount::instance().add_another();
    }
    Library(Library&& other) noexcept : user_(std::exchange(other.user_, false)) {}
    Library& operator=(Library other) noexcept {
        std::swap(user_, other.user_);
        return *this;
    }
    ~Library() {
        if (user_) detail::LibraryCount::instance().remove();
    }

    /// Log lines on standard output, on by default. For the whole program.
    static void log(bool on) noexcept { keloLogging(on ? 1 : 0); }

    /// As in "2.3.3".
    static std::string version() {
        const auto bits = static_cast<unsigned>(keloGetVersion());
        return std::to_string(bits >> 24) + '.' + std::to_string(bits >> 16 & 0xFF) + '.' +
               std::to_string(bits & 0xFFFF);
    }

    /// Options of image transports, see keloSetImagePacketCommunicatorOptions.
    /// @{
    Result<void> try_set_transport_options(const std::string& options) const {
        return detail::check(
            keloSetImagePacketCommunicatorOptions(options.c_str()),
            {KELO_STATUS_ERROR, "keloSetImagePacketCommunicatorOptions", {}, {}, nullptr});
    }
    void set_transport_options(const std::string& options) const {
        try_set_transport_options(options).value();
    }
    /// @}

    /// The cameras that answer within the time, on every interface. Never fails; takes as long as
    /// told. For the whole program: a camera that does not answer, or answers from another address,
    /// is forgotten, and closed if it was open. One discovery at a time.
    std::vector<CameraInfo> discover(
        std::chrono::milliseconds listen = std::chrono::milliseconds(500)) const {
        std::vector<CAM_HANDLE> handles(detail::kCamerasMax);
        const int count = keloDiscover(handles.data(), detail::kCamerasMax,
                                       static_cast<std::uint32_t>(detail::clamp(listen).count()));
        handles.resize(static_cast<std::size_t>(std::max(count, 0)));
        std::vector<CameraInfo> cameras;
        for (const CAM_HANDLE handle : handles) {
            // One may have gone since, by another discovery.
            if (Result<CameraInfo> info = try_info(handle)) cameras.push_back(*std::move(info));
        }
        return cameras;
    }

    /// What is known of a camera since the last discovery. KELO_STATUS_ERROR: nothing.
    /// @{
    Result<CameraInfo> try_info(CAM_HANDLE handle) const { return detail::camera_info(handle); }
    CameraInfo info(CAM_HANDLE handle) const { return try_info(handle).value(); }
    /// @}

    /// Tells a camera to take another address. It does not confirm: discover it again. An open one
    /// is closed first, and its close callback called.
    /// @{
    Result<void> try_set_address(CAM_HANDLE handle, Ipv4Address address, Ipv4Address mask) const {
        return detail::check(keloSetCameraIP(handle, address.value, mask.value),
                             {KELO_STATUS_ERROR, "keloSetCameraIP", handle, {}, nullptr});
    }
    void set_address(CAM_HANDLE handle, Ipv4Address address, Ipv4Address mask) const {
        try_set_address(handle, address, mask).value();
    }
    /// @}

    /// Opens a camera: see Camera.
    /// @{
    inline Result<Camera> try_open(CAM_HANDLE handle,
                                   std::function<void(CAM_HANDLE)> on_close = {}) const;
    inline Result<Camera> try_open(const CameraInfo& camera,
                                   std::function<void(CAM_HANDLE)> on_close = {}) const;
    inline Camera open(CAM_HANDLE handle, std::function<void(CAM_HANDLE)> on_close = {}) const;
    inline Camera open(const CameraInfo& camera,
                       std::function<void(CAM_HANDLE)> on_close = {}) const;
    /// @}

private:
    struct Started {};
    explicit Library(Started) noexcept {}

    bool user_ = false;
};

/// @cond INSIDE
namespace detail {

// An open camera. Camera, Acquisition and Image share it; the last one closes it.
class Session {
public:
    Session(Library library, CAM_HANDLE handle) : handle_(handle), library_(std::move(library)) {}
    ~Session() { close(); }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    CAM_HANDLE handle() const noexcept { return handle_; }

    Failure failure(const char* function, const char* reason = nullptr,
                    KELO_API_STATUS code = KELO_STATUS_ERROR) const {
        return {code, function, handle_, {}, reason};
    }
    Failure ended_failure(const char* function) const {
        return lost() ? failure(function, "the camera was lost", KELO_STATUS_NO_RESPONSE)
                      : failure(function, "the camera is closed");
    }

    // Ends the session if it is still there. Whoever comes second finds nothing to do.
    void close() {
        if (!SessionDirectory::instance().remove(handle_, this)) return;
        end(false);
        keloCloseCamera(handle_);
    }
    // The library has ended it.
    void on_lost() {
        // Before anybody knows: this thread, which is the library's, should not be the one that
        // happens to let go of it last.
        library_.reset();
        end(true);
        // Held while the callback runs: who takes it away waits until then.
        const std::lock_guard<std::recursive_mutex> lock(callback_mutex_);
        const std::function<void(CAM_HANDLE)> callback = std::exchange(on_close_, nullptr);
        if (!callback) return;
        try {
            callback(handle_);
        } catch (...) {
            // It is called by a C library, and nobody is there to catch.
        }
    }
    void set_callback(std::function<void(CAM_HANDLE)> callback) {
        const std::lock_guard<std::recursive_mutex> lock(callback_mutex_);
        on_close_.swap(callback);
    }

    bool ended() const {
        const std::lock_guard<std::mutex> lock(mutex_);
        return ended_;
    }
    bool lost() const {
        const std::lock_guard<std::mutex> lock(mutex_);
        return lost_;
    }
    void wait_for_end(Clock::time_point until) {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait_until(lock, until, [this] { return ended_; });
    }

    // One taker of a stream's images at a time: the library returns the same image to all.
    bool claim(std::uint8_t stream) noexcept { return !taken_[stream].exchange(true); }
    void unclaim(std::uint8_t stream) noexcept { taken_[stream] = false; }

private:
    void end(bool lost) {
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            ended_ = true;
            lost_ = lost;
        }
        changed_.notify_all();
    }

    const CAM_HANDLE handle_;
    std::optional<Library> library_;  // until the session is lost
    std::array<std::atomic<bool>, 256> taken_{};

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    bool ended_ = false;  // guarded by mutex_
    bool lost_ = false;   // guarded by mutex_

    std::recursive_mutex callback_mutex_;
    std::function<void(CAM_HANDLE)> on_close_;  // guarded by callback_mutex_
};

template <std::size_t Slot>
KELO_API_STATUS on_camera_closed(CAM_HANDLE handle) {
    // Holds the session until its callback has returned.
    if (const auto session = SessionDirectory::instance().take(handle, Slot)) session->on_lost();
    return KELO_STATUS_SUCCESS;
}

template <std::size_t... Slots>
keloCameraCloseEvent* callback_of(std::size_t slot, std::index_sequence<Slots...>) {
    static constexpr std::array<keloCameraCloseEvent*, sizeof...(Slots)> kCallbacks = {
        &on_camera_closed<Slots>...};
    return kCallbacks[slot];
}

inline bool SessionDirectory::add(CAM_HANDLE handle, const std::shared_ptr<Session>& session,
                                  keloCameraCloseEvent*& callback) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const std::size_t slot = (last_slot_ + 1) % kSlots;
    if (!entries_.emplace(handle, Entry{session.get(), session, slot}).second) return false;
    last_slot_ = slot;
    callback = callback_of(slot, std::make_index_sequence<kSlots>());
    return true;
}

inline bool SessionDirectory::remove(CAM_HANDLE handle, const Session* session) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = entries_.find(handle);
    if (found == entries_.end() || found->second.session != session) return false;
    entries_.erase(found);
    return true;
}

inline std::shared_ptr<Session> SessionDirectory::take(CAM_HANDLE handle, std::size_t slot) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = entries_.find(handle);
    if (found == entries_.end() || found->second.slot != slot) return nullptr;
    // None when the session is just being destroyed; then its destructor sees to the rest.
    std::shared_ptr<Session> session = found->second.owner.lock();
    if (session != nullptr) entries_.erase(found);
    return session;
}

}  // namespace detail
/// @endcond

// ---- Images ---------------------------------------------------------------------------------

/// How the decoding of a run-length coded image ended.
struct DecodeStatus {
    int code = 0;  ///< see keloGetNextDecodedImage

    /// The picture is what the camera coded.
    bool whole() const noexcept { return code == 1 || code == 2; }
    /// The data makes no sense from some place on; what is in front of it is decoded.
    bool damaged() const noexcept { return code >= 3 && code <= 13; }
};

/// A received image: the only owner of a place in its stream's queue, which it gives back
/// (keloPopImage) when it goes. Moved, never copied. After a move, and after give_back, it is
/// empty: its data is, and its numbers are zero.
class Image {
public:
    /// The other one is empty afterwards; an image that was here is given back.
    /// @{
    Image(Image&& other) noexcept
        : session_(std::move(other.session_)),
          info_(std::exchange(other.info_, nullptr)),
          stream_(other.stream_),
          timestamp_(other.timestamp_) {}
    Image& operator=(Image&& other) noexcept {
        if (this == &other) return *this;
        give_back();
        session_ = std::move(other.session_);
        info_ = std::exchange(other.info_, nullptr);
        stream_ = other.stream_;
        timestamp_ = other.timestamp_;
        return *this;
    }
    /// @}
    ~Image() { give_back(); }

    /// Gives the image back before its time. Does nothing to an empty one.
    void give_back() noexcept {
        if (info_ == nullptr) return;
        // What a session's end has taken away is not given back: the address may be another
        // image's.
        if (!session_->ended()) keloPopImage(session_->handle(), stream_, handle());
        session_->unclaim(stream_);
        info_ = nullptr;
        session_.reset();
    }

    /// Whether the data may be looked at: see convention 5.
    bool valid() const { return info_ != nullptr && !session_->ended(); }

    /// All that was received, in the library's own memory: the image header and what follows it,
    /// with zeros where packets were lost.
    Bytes data() const noexcept {
        if (info_ == nullptr) return {};
        const std::uint64_t extent = std::uint64_t{info_->bufferStatistics.bytesReceived} +
                                     info_->bufferStatistics.bytesLost;
        // Packets that came twice count twice.
        const std::uint64_t size = std::min(extent, std::uint64_t{info_->bufferLength});
        return {keloGetImageData(handle()), static_cast<std::size_t>(size)};
    }
    /// The bytes in front of the pixels; most cameras send none.
    Bytes header() const noexcept { return data().subview(0, header_size()); }
    /// The bytes behind the header.
    Bytes pixels() const noexcept { return data().subview(header_size()); }

    /// The camera's number of the image; wraps.
    std::uint32_t number() const noexcept { return info_ != nullptr ? info_->imageNumber : 0; }
    /// Of the picture, in pixels.
    /// @{
    std::uint16_t width() const noexcept {
        return info_ != nullptr ? info_->imageWidth : std::uint16_t{0};
    }
    std::uint16_t height() const noexcept {
        return info_ != nullptr ? info_->imageHeight : std::uint16_t{0};
    }
    /// @}
    /// The low 8 bits of the stream's format register.
    std::uint8_t format() const noexcept {
        return info_ != nullptr ? info_->streamFormat : std::uint8_t{0};
    }
    /// Whether try_decode makes a picture of it.
    bool run_length_coded() const noexcept { return format() == detail::kRunLengthFormat; }
    /// Of header(), in bytes.
    std::uint8_t header_size() const noexcept { return keloGetHeaderSize(handle()); }
    /// Where it came from.
    std::uint8_t stream() const noexcept { return stream_; }
    /// When this object took the image off the stream. The host's steady clock: images carry no
    /// time of the camera, unless its manual puts one into the header.
    std::chrono::steady_clock::time_point timestamp() const noexcept { return timestamp_; }

    /// 0 for a whole image. Bytes that were lost are zeros in data().
    std::uint32_t bytes_lost() const noexcept { return losses().bytesLost; }
    /// Whether every packet of it came.
    bool whole() const noexcept { return losses().errorFlag == 0; }
    /// All that is known of what did not come.
    BufferStatistics losses() const noexcept {
        return info_ != nullptr ? info_->bufferStatistics : BufferStatistics{};
    }
    /// The stream's counters when the image was completed.
    StreamStatistics statistics() const noexcept {
        return info_ != nullptr ? info_->streamStatistics : StreamStatistics{};
    }

    /// Decodes a run-length coded image into width times height bytes, or so many as told; what the
    /// data does not reach is zero. The vector keeps its memory: use one for many images. Damage is
    /// not an error, but a status. KELO_STATUS_ERROR for an image that is not coded, that is too
    /// short to hold anything, or is empty.
    /// @{
    Result<DecodeStatus> try_decode(std::vector<std::uint8_t>& pixels, std::size_t size = 0) const {
        if (!valid()) return failure("there is no image");
        if (!run_length_coded()) return failure("the image is not run-length coded");
        if (size == 0) size = std::size_t{width()} * height();
        // Far more than the image can hold is what only a broken camera asks for.
        if (size >= std::min(kDecodedMax, data().size() * kRunMax + 1)) {
            return failure("the picture is larger than its data can make it");
        }
        pixels.assign(size + 1, 0);
        DecodeStatus status;
        const IMAGE_BUFFER_HANDLE decoded =
            keloGetNextDecodedImage(session_->handle(), stream_, pixels.data(), header_size(),
                                    static_cast<int>(size), &status.code);
        pixels.resize(size);
        if (decoded != info_) return failure("the image is too short to be decoded");
        return status;
    }
    DecodeStatus decode(std::vector<std::uint8_t>& pixels, std::size_t size = 0) const {
        return try_decode(pixels, size).value();
    }
    /// @}

    /// For functions of the C interface, but not for keloPopImage. Null for an empty image.
    IMAGE_BUFFER_HANDLE handle() const noexcept { return info_; }

private:
    friend class Camera;

    static constexpr std::size_t kDecodedMax = std::numeric_limits<int>::max();
    // The pixels of the longest run, which takes three bytes.
    static constexpr std::size_t kRunMax = 65536;

    Image(std::shared_ptr<detail::Session> session, IMAGE_BUFFER_HANDLE image, std::uint8_t stream)
        : session_(std::move(session)), info_(static_cast<BufferInfo*>(image)), stream_(stream) {}

    Failure failure(const char* reason) const {
        if (session_ != nullptr) return session_->failure("keloGetNextDecodedImage", reason);
        return {KELO_STATUS_ERROR, "keloGetNextDecodedImage", {}, {}, reason};
    }

    std::shared_ptr<detail::Session> session_;
    BufferInfo* info_;
    std::uint8_t stream_;
    std::chrono::steady_clock::time_point timestamp_ = std::chrono::steady_clock::now();
};

/// The images of a stream, for a range-based for loop. Each image is given back when the loop asks
/// for the next one. The loop ends when none comes in time; when the camera is closed or lost, it
/// throws Error, or ends if it was made by a function with `try_`, and failure() tells.
///
///     for (kelo::Image& image : camera.stream(0, std::chrono::seconds(2))) use(image.pixels());
///
/// It may be gone through more than once: the stream goes on where it was left.
class ImageRange {
public:
    /// Marks the end.
    struct Sentinel {};

    /// Single pass.
    class Iterator {
    public:
        /// @cond INSIDE
        using iterator_category = std::input_iterator_tag;
        using value_type = Image;
        using difference_type = std::ptrdiff_t;
        using pointer = Image*;
        using reference = Image&;

        Image& operator*() const { return *range_->image_; }
        Image* operator->() const { return &*range_->image_; }
        Iterator& operator++() {
            range_->advance();
            return *this;
        }
        void operator++(int) { range_->advance(); }
        friend bool operator==(const Iterator& it, Sentinel) { return it.at_end(); }
        friend bool operator!=(const Iterator& it, Sentinel end) { return !(it == end); }
        /// @endcond

    private:
        friend class ImageRange;
        explicit Iterator(ImageRange* range) : range_(range) {}
        bool at_end() const noexcept { return !range_->image_; }
        ImageRange* range_;
    };

    /// Gives the next image, none when none came in time, or a failure.
    using Source = std::function<Result<std::optional<Image>>()>;

    /// Made by Camera::stream and its like; of use for sources of your own.
    ImageRange(Source next, bool throws) : next_(std::move(next)), throws_(throws) {}

    /// Waits for the first image.
    Iterator begin() {
        advance();
        return Iterator(this);
    }
    /// Waits for nothing.
    Sentinel end() const noexcept { return {}; }

    /// Why the loop ended; none when no image came in time.
    const std::optional<Failure>& failure() const noexcept { return failure_; }

private:
    void advance() {
        failure_.reset();
        // First of all: the next one is not to be had before.
        image_.reset();
        Result<std::optional<Image>> next = next_();
        if (next) {
            if (next->has_value()) image_.emplace(**std::move(next));
            return;
        }
        failure_ = next.failure();
        if (throws_) throw Error(*failure_);
    }

    Source next_;
    bool throws_;
    std::optional<Image> image_;
    std::optional<Failure> failure_;
};

// ---- Cameras --------------------------------------------------------------------------------

/// A running acquisition, stopped at the end of its life. Keeps its camera's session.
class Acquisition {
public:
    /// The other one stops nothing any more; one that was here is stopped.
    /// @{
    Acquisition(Acquisition&& other) noexcept = default;
    Acquisition& operator=(Acquisition&& other) noexcept {
        if (this != &other) {
            stop();
            session_ = std::move(other.session_);
        }
        return *this;
    }
    /// @}
    ~Acquisition() { stop(); }

    /// Stops before its time. Images that have been received stay. A camera that does not answer is
    /// not waited for longer than a request takes: 2.5 s.
    void stop() noexcept {
        if (session_ == nullptr) return;
        if (!session_->ended()) (void)keloStopImageAcquisition(session_->handle());
        session_.reset();
    }

private:
    friend class Camera;
    explicit Acquisition(std::shared_ptr<detail::Session> session) : session_(std::move(session)) {}

    std::shared_ptr<detail::Session> session_;
};

/// What a firmware run's progress function is given.
class FirmwareProgress {
public:
    /// 0 to 100.
    int percent() const noexcept { return percent_; }
    /// Asks the run to end. Heeded until the camera has begun to write its flash.
    void abort() noexcept { aborted_ = true; }

private:
    friend class Camera;
    explicit FirmwareProgress(int percent) : percent_(percent) {}
    int percent_;
    bool aborted_ = false;
};

/// An open camera, closed at the end of its life, but not before its images and acquisitions are
/// gone. Made by Library::open. One Camera in the program for each camera: opening it a second time
/// is an error.
///
/// The close callback runs on a thread of the library when the camera is lost: it stopped
/// answering, a discovery dropped it, or it was given another address. It may use the library, this
/// Camera included, and may destroy it. When close, on_close or the destructor has returned on
/// another thread, the callback is not running and will not; a lock that it takes must not be held
/// there. What it throws is dropped.
class Camera {
public:
    /// The other one may only be destroyed or assigned to.
    /// @{
    Camera(Camera&& other) noexcept = default;
    Camera& operator=(Camera&& other) noexcept {
        if (this != &other) {
            detach();
            session_ = std::move(other.session_);
        }
        return *this;
    }
    /// @}
    ~Camera() { detach(); }

    /// For functions of the C interface; not for keloCloseCamera.
    CAM_HANDLE handle() const noexcept { return session_->handle(); }
    /// What is known of it since the last discovery; fails when that did not find it.
    /// @{
    Result<CameraInfo> try_info() const { return detail::camera_info(handle()); }
    CameraInfo info() const { return try_info().value(); }
    /// @}

    /// False once the camera was closed or lost.
    bool is_open() const { return session_ != nullptr && !session_->ended(); }
    /// Whether the library has closed it. Turns true just before the close callback runs.
    bool lost() const { return session_ != nullptr && session_->lost(); }

    /// Closes the camera now. Its images are no longer valid.
    void close() {
        session_->set_callback({});
        session_->close();
    }

    /// Another close callback, or none. See above.
    void on_close(std::function<void(CAM_HANDLE)> callback) {
        session_->set_callback(std::move(callback));
    }

    // Registers

    /// Reads a register. KELO_STATUS_OUT_OF_RANGE: the camera does not have it.
    /// @{
    template <typename T>
    Result<T> try_get(Register<T> reg) const {
        std::uint32_t bits = 0;
        const KELO_API_STATUS status = keloGetRegisterInt(handle(), reg.number, &bits);
        if (status != KELO_STATUS_SUCCESS)
            return register_failure(status, "keloGetRegisterInt", reg.number);
        return RegisterCodec<T>::decode(bits);
    }
    template <typename T>
    T get(Register<T> reg) const {
        return try_get(reg).value();
    }
    template <typename T = std::uint32_t>
    Result<T> try_get(std::uint32_t number) const {
        return try_get(Register<T>{number});
    }
    template <typename T = std::uint32_t>
    T get(std::uint32_t number) const {
        return try_get<T>(number).value();
    }
    /// @}

    /// Writes a register and returns what the camera now holds, which may differ.
    /// KELO_STATUS_ERROR: it may not be written.
    /// @{
    template <typename T>
    Result<T> try_set(Register<T> reg, detail::NoDeduction<T> value) const {
        std::uint32_t bits = RegisterCodec<T>::encode(value);
        const KELO_API_STATUS status = keloSetRegisterInt(handle(), reg.number, &bits);
        if (status != KELO_STATUS_SUCCESS)
            return register_failure(status, "keloSetRegisterInt", reg.number);
        return RegisterCodec<T>::decode(bits);
    }
    template <typename T>
    T set(Register<T> reg, detail::NoDeduction<T> value) const {
        return try_set(reg, value).value();
    }
    Result<std::uint32_t> try_set(std::uint32_t number, std::uint32_t value) const {
        return try_set(Register<std::uint32_t>{number}, value);
    }
    std::uint32_t set(std::uint32_t number, std::uint32_t value) const {
        return try_set(number, value).value();
    }
    /// @}

    /// Makes the camera do something, as in `camera.execute(kelo::reg::trigger_software)`.
    /// @{
    Result<void> try_execute(Command command) const {
        std::uint32_t one = 1;
        const KELO_API_STATUS status = keloSetRegisterInt(handle(), command.number, &one);
        if (status != KELO_STATUS_SUCCESS)
            return register_failure(status, "keloSetRegisterInt", command.number);
        return {};
    }
    void execute(Command command) const { try_execute(command).value(); }
    /// @}

    /// Reads registers in a row, any number. Fewer come back when the camera gives fewer.
    /// @{
    Result<std::vector<std::uint32_t>> try_read_memory(std::uint32_t first,
                                                       std::size_t count) const {
        std::vector<std::uint32_t> values;
        std::array<std::uint32_t, detail::kMemoryRegistersMax> piece{};
        while (values.size() < count) {
            const std::uint32_t wanted = piece_of(count - values.size());
            const std::uint32_t start = first + static_cast<std::uint32_t>(values.size());
            std::uint32_t got = wanted;
            const KELO_API_STATUS status = keloReadMemory(handle(), start, &got, piece.data());
            if (status != KELO_STATUS_SUCCESS)
                return register_failure(status, "keloReadMemory", start);
            // The camera tells the count, and may tell anything.
            got = std::min(got, wanted);
            values.insert(values.end(), piece.begin(), piece.begin() + got);
            if (got < wanted) break;
        }
        return values;
    }
    std::vector<std::uint32_t> read_memory(std::uint32_t first, std::size_t count) const {
        return try_read_memory(first, count).value();
    }
    /// @}

    /// Writes registers in a row, any number, and returns how many the camera wrote.
    /// @{
    Result<std::size_t> try_write_memory(std::uint32_t first,
                                         View<const std::uint32_t> values) const {
        std::array<std::uint32_t, detail::kMemoryRegistersMax> piece{};
        std::size_t done = 0;
        while (done < values.size()) {
            const std::uint32_t wanted = piece_of(values.size() - done);
            std::copy_n(values.begin() + done, wanted, piece.begin());
            const std::uint32_t start = first + static_cast<std::uint32_t>(done);
            std::uint32_t written = wanted;
            const KELO_API_STATUS status = keloWriteMemory(handle(), start, &written, piece.data());
            if (status != KELO_STATUS_SUCCESS)
                return register_failure(status, "keloWriteMemory", start);
            done += std::min(written, wanted);
            if (written < wanted) break;
        }
        return done;
    }
    std::size_t write_memory(std::uint32_t first, View<const std::uint32_t> values) const {
        return try_write_memory(first, values).value();
    }
    /// @}

    // Images

    /// Sets the streams up from the camera's registers and starts them. The acquisition stops when
    /// what is returned goes.
    /// @{
    Result<Acquisition> try_start() const {
        const KELO_API_STATUS status = keloStartImageAcquisition(handle());
        if (status != KELO_STATUS_SUCCESS) {
            return session_->failure("keloStartImageAcquisition", nullptr, status);
        }
        return Acquisition(session_);
    }
    [[nodiscard]] Acquisition start() const { return try_start().value(); }
    /// @}

    /// The oldest image of a stream; waits for one up to the time-out. None when none came. Fails
    /// when the camera was closed or lost (KELO_STATUS_NO_RESPONSE), and when an image of the
    /// stream has not been given back or is being waited for (KELO_STATUS_ERROR).
    /// @{
    Result<std::optional<Image>> try_next(std::uint8_t stream,
                                          std::chrono::milliseconds timeout) const {
        return take(session_, stream, timeout);
    }
    std::optional<Image> next(std::uint8_t stream, std::chrono::milliseconds timeout) const {
        return try_next(stream, timeout).value();
    }
    /// @}

    /// The images of a stream, one after the other, until none comes within the time-out.
    /// @{
    ImageRange stream(std::uint8_t stream, std::chrono::milliseconds timeout) const {
        return range(stream, timeout, true);
    }
    ImageRange try_stream(std::uint8_t stream, std::chrono::milliseconds timeout) const {
        return range(stream, timeout, false);
    }
    /// @}

    /// Images that wait; 0 once the camera is closed.
    std::size_t pending(std::uint8_t stream) const noexcept {
        return static_cast<std::size_t>(std::max(0, keloGetPendingImageCount(handle(), stream)));
    }

    /// Drops the images that wait. KELO_STATUS_ERROR while one of them is held or waited for.
    /// @{
    Result<void> try_clear(std::uint8_t stream) const {
        if (!session_->claim(stream)) return session_->failure("keloClearBuffer", kHeld);
        keloClearBuffer(handle(), stream);
        session_->unclaim(stream);
        return {};
    }
    void clear(std::uint8_t stream) const { try_clear(stream).value(); }
    /// @}

    // Firmware

    /// Programs new firmware and returns when the camera has it and reboots. The function, which
    /// may be empty, is called on this thread with the progress. The run is aborted, and its end
    /// waited for, when the function says so or throws; what it throws goes on. While the camera
    /// writes its flash there is no abort: up to 190 s.
    ///
    /// KELO_STATUS_ERROR: the file is not valid, a run is going on for this camera, the run failed
    /// or was aborted. KELO_STATUS_NO_RESPONSE: the camera stopped answering.
    ///
    /// The session does not survive the reboot: close the camera and discover it again.
    /// @{
    Result<void> try_program_firmware(
        const std::string& file, const std::function<void(FirmwareProgress&)>& on_progress = {},
        std::chrono::milliseconds interval = std::chrono::milliseconds(20)) const {
        const KELO_API_STATUS status = keloFirmwareProgram(handle(), file.c_str());
        if (status != KELO_STATUS_SUCCESS)
            return session_->failure("keloFirmwareProgram", nullptr, status);
        try {
            return follow_firmware(on_progress, interval);
        } catch (...) {
            // The run must not outlive this call.
            (void)keloFirmwareProgramAbort(handle());
            (void)follow_firmware({}, interval);
            throw;
        }
    }
    void program_firmware(
        const std::string& file, const std::function<void(FirmwareProgress&)>& on_progress = {},
        std::chrono::milliseconds interval = std::chrono::milliseconds(20)) const {
        try_program_firmware(file, on_progress, interval).value();
    }
    /// @}

private:
    friend class Library;

    static constexpr const char* kHeld = "an image of the stream is held or waited for";

    explicit Camera(std::shared_ptr<detail::Session> session) : session_(std::move(session)) {}

    // The session may live on in images, its callback does not.
    void detach() noexcept {
        if (session_ == nullptr) return;
        session_->set_callback({});
        session_.reset();
    }

    Failure register_failure(KELO_API_STATUS status, const char* function,
                             std::uint32_t number) const {
        return {status, function, handle(), number, nullptr};
    }
    static std::uint32_t piece_of(std::size_t count) noexcept {
        return static_cast<std::uint32_t>(
            std::min<std::size_t>(count, detail::kMemoryRegistersMax));
    }

    static Result<std::optional<Image>> take(const std::shared_ptr<detail::Session>& session,
                                             std::uint8_t stream,
                                             std::chrono::milliseconds timeout) {
        static constexpr const char* kFunction = "keloGetNextImageTimeout";
        // A library that gives nothing before the time is over has closed the camera, or was not
        // told to start: it is asked again after a while.
        static constexpr auto kPause = std::chrono::milliseconds(10);
        // A camera that a discovery drops is not closed as long as somebody waits in the library.
        static constexpr auto kWaitMax = std::chrono::milliseconds(200);
        if (!session->claim(stream)) return session->failure(kFunction, kHeld);
        const auto deadline = detail::Clock::now() + detail::clamp(timeout);
        while (!session->ended()) {
            const auto asked = detail::Clock::now();
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - asked);
            const auto wait_ms = static_cast<int>(detail::clamp(std::min(left, kWaitMax)).count());
            // The image unclaims the stream when it goes.
            if (void* image = keloGetNextImageTimeout(session->handle(), stream, wait_ms)) {
                return std::optional<Image>(Image(session, image, stream));
            }
            const auto now = detail::Clock::now();
            if (now >= deadline) {
                session->unclaim(stream);
                return std::optional<Image>();
            }
            if (now < asked + std::chrono::milliseconds(wait_ms)) {
                session->wait_for_end(std::min(deadline, now + kPause));
            }
        }
        session->unclaim(stream);
        return session->ended_failure(kFunction);
    }

    ImageRange range(std::uint8_t stream, std::chrono::milliseconds timeout, bool throws) const {
        return ImageRange(
            [session = session_, stream, timeout] { return take(session, stream, timeout); },
            throws);
    }

    Result<void> follow_firmware(const std::function<void(FirmwareProgress&)>& on_progress,
                                 std::chrono::milliseconds interval) const {
        for (int percent = 0;;) {
            const KELO_API_STATUS status = keloFirmwareGetProgress(handle(), &percent);
            if (status != KELO_STATUS_SUCCESS) {
                return session_->failure("keloFirmwareGetProgress",
                                         status == KELO_STATUS_ERROR ? "the run failed" : nullptr,
                                         status);
            }
            FirmwareProgress progress(percent);
            if (on_progress) on_progress(progress);
            if (percent >= 100) return {};
            if (progress.aborted_) (void)keloFirmwareProgramAbort(handle());
            std::this_thread::sleep_for(interval);
        }
    }

    std::shared_ptr<detail::Session> session_;
};

/// @cond INSIDE
inline Result<Camera> Library::try_open(CAM_HANDLE handle,
                                        std::function<void(CAM_HANDLE)> on_close) const {
    const auto session = std::make_shared<detail::Session>(*this, handle);
    session->set_callback(std::move(on_close));
    keloCameraCloseEvent* callback = nullptr;
    if (!detail::SessionDirectory::instance().add(handle, session, callback)) {
        return session->failure("keloOpenCamera", "another Camera object has opened it");
    }
    const KELO_API_STATUS status = keloOpenCamera(handle, callback);
    if (status == KELO_STATUS_SUCCESS) return Camera(session);
    // Something may have been opened nevertheless.
    session->set_callback({});
    session->close();
    return session->failure("keloOpenCamera", nullptr, status);
}

inline Result<Camera> Library::try_open(const CameraInfo& camera,
                                        std::function<void(CAM_HANDLE)> on_close) const {
    return try_open(camera.handle, std::move(on_close));
}

inline Camera Library::open(CAM_HANDLE handle, std::function<void(CAM_HANDLE)> on_close) const {
    return try_open(handle, std::move(on_close)).value();
}

inline Camera Library::open(const CameraInfo& camera,
                            std::function<void(CAM_HANDLE)> on_close) const {
    return try_open(camera.handle, std::move(on_close)).value();
}

/// @endcond

// ---- A session that comes back --------------------------------------------------------------

/// A break between two images of a stream, as ResilientSession reports it.
struct Gap {
    std::uint8_t stream = 0;  ///< where the images are missing
    /// Whether the camera was lost and opened again in between; else images were lost on the way.
    bool reconnected = false;
    std::uint32_t number_before = 0;  ///< of the last image that was taken
    std::uint32_t number_after = 0;   ///< of the one that ends the gap
    /// Images that were not taken, by their numbers. None when the numbers do not go on, as with
    /// cameras that count anew at each start: then nothing tells how many there were.
    std::optional<std::uint32_t> images_missed;
    /// From the last image to the one that ends the gap, both as they were taken.
    std::chrono::steady_clock::duration duration{};
    Ipv4Address address_before;  ///< of the camera
    Ipv4Address address_after;   ///< another one if it moved
};

/// How a ResilientSession behaves.
struct ResilientOptions {
    /// How long each search listens for answers.
    std::chrono::milliseconds discovery{500};
    /// After so long without an image the camera is asked whether it still belongs to this session:
    /// one that rebooted quickly answers every request, but sends nothing.
    std::chrono::milliseconds check_after{1000};
    /// Called each time that the camera was opened, before it is started: a camera that rebooted
    /// has lost its settings. A kelo::Error counts as a failed attempt; other exceptions leave
    /// next().
    std::function<void(Camera&)> configure;
    /// Called with each gap, right before next() returns the image that ends it.
    std::function<void(const Gap&)> on_gap;
};

/// Images of one camera, known by its MAC address, for as long as it takes: when it is lost, has
/// rebooted or has moved to another address, it is searched for, opened and started again, inside
/// of next(). No thread of its own: nothing happens between two calls.
///
/// A search is a discovery, and closes other cameras that do not answer it; see
/// Library::discover. A step that has begun (a search, an opening, a request that is tried again)
/// is not cut short by a time-out.
///
/// One thread at a time. When a camera is given up, its images that are still held become invalid,
/// see convention 5.
class ResilientSession {
public:
    /// Does not connect; the first call of next() does.
    ResilientSession(Library library, const MacAddress& mac, ResilientOptions options = {})
        : library_(std::move(library)), mac_(mac), options_(std::move(options)) {}
    ResilientSession(const ResilientSession&) = delete;
    ResilientSession& operator=(const ResilientSession&) = delete;

    /// The next image of a stream; waits for it up to the time-out, over any number of losses. None
    /// when none came. A lost camera is no failure; KELO_STATUS_ERROR when an image of the stream
    /// has not been given back.
    /// @{
    Result<std::optional<Image>> try_next(std::uint8_t stream, std::chrono::milliseconds timeout) {
        const auto deadline = detail::Clock::now() + detail::clamp(timeout);
        do {
            if (!camera_ && !reconnect()) continue;
            const auto left =
                std::chrono::ceil<std::chrono::milliseconds>(deadline - detail::Clock::now());
            auto image = camera_->try_next(stream, std::min(left, until_check()));
            if (!image) {
                if (camera_->is_open()) return image;
                give_up();
            } else if (image->has_value()) {
                note(**image);
                return image;
            } else if (until_check() <= std::chrono::milliseconds(0) && !still_ours()) {
                give_up();
            }
        } while (detail::Clock::now() < deadline);
        return std::optional<Image>();
    }
    std::optional<Image> next(std::uint8_t stream, std::chrono::milliseconds timeout) {
        return try_next(stream, timeout).value();
    }
    /// @}

    /// The images of a stream until none comes within the time-out, losses included. The session
    /// must outlive the range.
    ImageRange stream(std::uint8_t stream, std::chrono::milliseconds timeout) {
        return ImageRange([this, stream, timeout] { return try_next(stream, timeout); }, true);
    }

    /// The gap in front of the image that next() returned last, if there is one.
    const std::optional<Gap>& gap() const noexcept { return gap_; }

    /// The camera, null while it is being searched for. Valid until the next call of next().
    Camera* camera() noexcept { return camera_ ? &*camera_ : nullptr; }

    /// How often the camera has been opened.
    unsigned connections() const noexcept { return connections_; }

private:
    struct Last {
        std::uint32_t number;
        std::chrono::steady_clock::time_point time;
        unsigned connection;
        Ipv4Address address;
    };

    // One attempt.
    bool reconnect() {
        for (const CameraInfo& found : library_.discover(options_.discovery)) {
            if (found.mac == mac_) return connect(found);
        }
        return false;
    }

    bool connect(const CameraInfo& found) {
        Result<Camera> camera = library_.try_open(found);
        if (!camera) return false;
        try {
            if (options_.configure) options_.configure(*camera);
        } catch (const Error&) {
            return false;
        }
        Result<Acquisition> acquisition = camera->try_start();
        const Result<std::uint32_t> port = camera->try_get(reg::stream_port);
        if (!acquisition || !port) return false;
        camera_.emplace(*std::move(camera));
        acquisition_.emplace(*std::move(acquisition));
        stream_port_ = *port;
        address_ = found.address;
        ++connections_;
        last_sign_ = detail::Clock::now();
        return true;
    }

    // Closed before the acquisition goes: a camera that is not there need not be told to stop.
    void give_up() {
        camera_->close();
        acquisition_.reset();
        camera_.reset();
    }

    std::chrono::milliseconds until_check() const {
        const auto silent = std::chrono::duration_cast<std::chrono::milliseconds>(
            detail::Clock::now() - last_sign_);
        return detail::clamp(options_.check_after) - silent;
    }

    // A camera that has rebooted is free, one that another host has taken sends its images there.
    bool still_ours() {
        const Result<bool> used = camera_->try_get(reg::camera_used);
        if (!used) return false;
        const Result<std::uint32_t> port = camera_->try_get(reg::stream_port);
        if (!port) return false;
        last_sign_ = detail::Clock::now();
        return *used && *port == stream_port_;
    }

    void note(const Image& image) {
        last_sign_ = image.timestamp();
        gap_.reset();
        const Last now{image.number(), image.timestamp(), connections_, address_};
        const auto [entry, first] = last_.emplace(image.stream(), now);
        if (first) return;
        const Last before = std::exchange(entry->second, now);
        const std::uint32_t between = now.number - before.number - 1;
        if (before.connection == now.connection && between == 0) return;
        Gap gap;
        gap.stream = image.stream();
        gap.reconnected = before.connection != now.connection;
        gap.number_before = before.number;
        gap.number_after = now.number;
        // Numbers wrap: from half of them on a step counts as one back.
        if (between < 0x80000000U) gap.images_missed = between;
        gap.duration = now.time - before.time;
        gap.address_before = before.address;
        gap.address_after = now.address;
        gap_ = gap;
        if (options_.on_gap) options_.on_gap(gap);
    }

    const Library library_;
    const MacAddress mac_;
    const ResilientOptions options_;
    std::optional<Camera> camera_;
    std::optional<Acquisition> acquisition_;
    std::uint32_t stream_port_ = 0;  // of this host, as the camera keeps it
    Ipv4Address address_;
    unsigned connections_ = 0;
    std::chrono::steady_clock::time_point last_sign_;  // of an image or a check
    std::map<std::uint8_t, Last> last_;                // by stream
    std::optional<Gap> gap_;
};

}  // namespace v1
}  // namespace kelo

#endif  // KELO_HPP
