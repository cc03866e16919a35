#pragma once

// How image data is transported. Only UDP can be chosen.
class TImageOptions {
public:
    enum TType {
        TYPE_UDP = 0,
        TYPE_PCAP = 1,  // reserved: no option selects it
    };

    virtual ~TImageOptions() = default;

    // Applies a line "UDP [factor]"; the factor is 1 when absent. False when the line is not
    // understood, or the factor is outside 0.3 to 100 and therefore left as it was.
    bool Parse(const char* line);

    TType Type = TYPE_UDP;
    // Kept for hosts that set it; nothing here reads it. 0 until a valid line was given.
    double KernelMemoryFactor = 0;
};
