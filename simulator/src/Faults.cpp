#include "kelosim/faults.h"

#include <algorithm>
#include <sstream>

#include "FaultPlan.h"

namespace kelosim {
namespace {

uint64_t Mix(uint64_t value) {
    value += 0x9E3779B97F4A7C15u;
    value = (value ^ value >> 30) * 0xBF58476D1CE4E5B9u;
    value = (value ^ value >> 27) * 0x94D049BB133111EBu;
    return value ^ value >> 31;
}

template <typename T>
bool Matches(const std::optional<T>& wanted, T value) {
    return !wanted || *wanted == value;
}

template <typename T>
void Override(T& field, const std::optional<T>& lie) {
    if (lie) field = *lie;
}

double Rate(const Faults& faults, PacketFault::Kind kind) {
    switch (kind) {
        case PacketFault::Kind::kDrop:
            return faults.drop_rate;
        case PacketFault::Kind::kDuplicate:
            return faults.duplicate_rate;
        case PacketFault::Kind::kDelay:
            return faults.delay_rate;
        case PacketFault::Kind::kReorder:
            return faults.reorder_rate;
    }
    return 0;
}

bool HasRates(const Faults& faults) {
    return faults.drop_rate > 0 || faults.duplicate_rate > 0 || faults.delay_rate > 0 ||
           faults.reorder_rate > 0;
}

// Collects "name value" pairs of everything that is not zero.
class Printer {
public:
    template <typename T>
    Printer& Add(const char* name, const T& value) {
        if (value != T{}) Separate() << name << ' ' << value;
        return *this;
    }
    Printer& Flag(const char* name, bool set) {
        if (set) Separate() << name;
        return *this;
    }
    template <typename T>
    Printer& Maybe(const char* name, const std::optional<T>& value) {
        if (value) Separate() << name << ' ' << +*value;
        return *this;
    }
    std::string Text() const { return text_.str().empty() ? "none" : text_.str(); }

private:
    std::ostream& Separate() {
        if (text_.tellp() > 0) text_ << ", ";
        return text_;
    }
    std::ostringstream text_;
};

const char* Name(PacketFault::Kind kind) {
    switch (kind) {
        case PacketFault::Kind::kDrop:
            return "drop image";
        case PacketFault::Kind::kDuplicate:
            return "duplicate image";
        case PacketFault::Kind::kDelay:
            return "delay image";
        case PacketFault::Kind::kReorder:
            return "reorder image";
    }
    return "?";
}

void PrintImages(Printer& out, const Faults& faults) {
    out.Add("drop rate", faults.drop_rate)
        .Add("duplicate rate", faults.duplicate_rate)
        .Add("delay rate", faults.delay_rate)
        .Add("reorder rate", faults.reorder_rate);
    for (const PacketFault& fault : faults.packets) {
        std::ostringstream where;
        where << fault.image;
        if (fault.packet && fault.count == 1) where << " packet " << *fault.packet;
        if (fault.packet && fault.count != 1) {
            where << " packets " << *fault.packet << " to " << *fault.packet + fault.count - 1;
        }
        if (fault.stream) where << " stream " << +*fault.stream;
        out.Add(Name(fault.kind), where.str());
    }
    for (const NumberJump& jump : faults.jumps) {
        std::ostringstream text;
        text << jump.image << " by " << jump.by;
        out.Add("jump at image", text.str());
    }
    for (const HeaderLie& lie : faults.headers) {
        out.Flag("header lie:", true)
            .Maybe("of image", lie.image)
            .Maybe("of packet", lie.packet)
            .Maybe("of stream", lie.stream)
            .Maybe("magic", lie.magic)
            .Maybe("stream number", lie.stream_number)
            .Maybe("image number", lie.image_number)
            .Maybe("packet", lie.current_packet)
            .Maybe("packets", lie.all_packets)
            .Maybe("width", lie.width)
            .Maybe("height", lie.height)
            .Maybe("cut to", lie.truncate_to);
    }
}

void PrintControl(Printer& out, const Faults& faults) {
    out.Add("lose replies", faults.drop_replies)
        .Maybe("lose replies of register", faults.drop_replies_register)
        .Add("lose reply rate", faults.drop_reply_rate)
        .Add("reply delay ms", faults.reply_delay_ms)
        .Add("reject starts", faults.refused_starts)
        .Flag("ignore discovery", faults.ignore_discovery)
        .Flag("silent", faults.silent);
    for (const ReplyLie& lie : faults.replies) {
        out.Flag("reply lie:", true)
            .Maybe("of register", lie.only_register)
            .Maybe("magic", lie.magic)
            .Maybe("command", lie.command)
            .Add("number +", lie.number_offset)
            .Maybe("status", lie.status)
            .Maybe("value", lie.value)
            .Maybe("registers", lie.registers)
            .Maybe("cut to", lie.truncate_to)
            .Add("extra bytes", lie.extra_bytes);
    }
    for (const auto& [number, status] : faults.refused_registers) {
        std::ostringstream text;
        text << number << " with status " << status;
        out.Add("refuse register", text.str());
    }
}

void PrintTcp(Printer& out, const TcpFaults& tcp) {
    out.Flag("refuse connections", tcp.accept == TcpFaults::Accept::kRefuse)
        .Flag("let connections hang", tcp.accept == TcpFaults::Accept::kHang)
        .Add("reset connections", tcp.reset_connections)
        .Add("split bytes", tcp.split_bytes)
        .Add("oversize bytes", tcp.oversize_bytes)
        .Add("garbage bytes", tcp.garbage_bytes)
        .Flag("sync messages", tcp.sync_messages)
        .Add("wrong magic bytes", tcp.wrong_magic_bytes)
        .Maybe("claimed size", tcp.claimed_size);
    for (const TcpClose& close : tcp.closes) {
        std::ostringstream text;
        text << close.image << " after " << close.after_bytes << " bytes";
        out.Add("close in image", text.str());
    }
}

bool IsAmong(const PacketFault& fault, uint16_t packet) {
    return !fault.packet || (packet >= *fault.packet && packet - *fault.packet < fault.count);
}

}  // namespace

void ImageHeader::Store(uint8_t* out) const {
    const auto put16 = [](uint8_t* at, uint16_t value) {
        at[0] = static_cast<uint8_t>(value >> 8);
        at[1] = static_cast<uint8_t>(value);
    };
    out[0] = magic;
    out[1] = stream;
    put16(out + 2, static_cast<uint16_t>(image_number >> 16));
    put16(out + 4, static_cast<uint16_t>(image_number));
    put16(out + 6, current_packet);
    put16(out + 8, all_packets);
    put16(out + 10, width);
    put16(out + 12, height);
}

double Chance(uint64_t seed, uint64_t salt, uint64_t a, uint64_t b) {
    const uint64_t mixed = Mix(Mix(Mix(Mix(seed) ^ salt) ^ a) ^ b);
    return static_cast<double>(mixed >> 11) * 0x1p-53;
}

bool TouchesImage(const Faults& faults, uint8_t stream, uint32_t image) {
    const auto touched = [&](const auto& fault) {
        return fault.image == image && Matches(fault.stream, stream);
    };
    const auto lied = [&](const HeaderLie& lie) {
        return Matches(lie.image, image) && Matches(lie.stream, stream);
    };
    return HasRates(faults) || std::any_of(faults.packets.begin(), faults.packets.end(), touched) ||
           std::any_of(faults.headers.begin(), faults.headers.end(), lied);
}

bool PacketHit(const Faults& faults, PacketFault::Kind kind, const ImageHeader& packet) {
    const bool listed =
        std::any_of(faults.packets.begin(), faults.packets.end(), [&](const auto& f) {
            return f.kind == kind && f.image == packet.image_number &&
                   IsAmong(f, packet.current_packet) && Matches(f.stream, packet.stream);
        });
    if (listed) return true;
    const double rate = Rate(faults, kind);
    if (rate <= 0) return false;
    const uint64_t place = uint64_t{packet.stream} << 32 | packet.current_packet;
    return Chance(faults.seed, static_cast<uint64_t>(kind), packet.image_number, place) < rate;
}

std::optional<uint32_t> ApplyLies(const Faults& faults, ImageHeader& header) {
    const ImageHeader truth = header;
    std::optional<uint32_t> cut;
    for (const HeaderLie& lie : faults.headers) {
        if (!Matches(lie.image, truth.image_number) || !Matches(lie.packet, truth.current_packet) ||
            !Matches(lie.stream, truth.stream)) {
            continue;
        }
        Override(header.magic, lie.magic);
        Override(header.stream, lie.stream_number);
        Override(header.image_number, lie.image_number);
        Override(header.current_packet, lie.current_packet);
        Override(header.all_packets, lie.all_packets);
        Override(header.width, lie.width);
        Override(header.height, lie.height);
        if (lie.truncate_to) cut = lie.truncate_to;
    }
    return cut;
}

uint32_t JumpedNumber(const Faults& faults, uint32_t number) {
    uint32_t jumped = number;
    for (const NumberJump& jump : faults.jumps) {
        if (number >= jump.image) jumped += jump.by;
    }
    return jumped;
}

std::string ToString(const Faults& faults) {
    Printer out;
    PrintImages(out, faults);
    PrintControl(out, faults);
    PrintTcp(out, faults.tcp);
    const std::string text = out.Text();
    const bool chance = HasRates(faults) || faults.drop_reply_rate > 0;
    return chance ? "seed " + std::to_string(faults.seed) + ": " + text : text;
}

}  // namespace kelosim
