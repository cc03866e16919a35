#pragma once

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

#include "sanitizers.h"
#include "system_fixture.h"

namespace kelo::test {

// What sanitizers cost: loads that are a matter of speed are made so much smaller.
#if defined(KELO_WITH_SANITIZER)
inline constexpr uint32_t kSlowness = 10;
#else
inline constexpr uint32_t kSlowness = 1;
#endif

// Whether the long forms of the tests are wanted.
inline bool LongForms() {
    return std::getenv("KELO_LONG_TESTS") != nullptr;
}

// Datagrams that the kernel dropped in this network because a socket's buffer was full.
inline uint64_t DropsOfFullBuffers() {
    std::ifstream file("/proc/thread-self/net/snmp");
    std::string names;
    std::string values;
    while (std::getline(file, names) && std::getline(file, values)) {
        std::istringstream name_words(names);
        std::istringstream value_words(values);
        std::string name;
        std::string value;
        while (name_words >> name && value_words >> value) {
            if (name == "Udp:" && value != "Udp:") break;
            if (name == "RcvbufErrors" && names.rfind("Udp:", 0) == 0) return std::stoull(value);
        }
    }
    throw std::runtime_error("the system does not tell what it drops");
}

class FaultTest : public SystemTest {
protected:
    // The lines of the log, from the given one on, that begin with one of these texts.
    std::vector<std::string> LinesThatBegin(const std::vector<std::string>& texts,
                                            size_t since_line = 0) const {
        std::vector<std::string> found;
        const std::vector<std::string> lines = log.Lines();
        for (size_t i = since_line; i < lines.size(); ++i) {
            const bool begins = std::any_of(texts.begin(), texts.end(), [&](const auto& text) {
                return lines[i].rfind(text, 0) == 0;
            });
            if (begins) found.push_back(lines[i]);
        }
        return found;
    }
    static size_t Pending(CAM_HANDLE handle, uint8_t stream = 0) {
        return static_cast<size_t>(keloGetPendingImageCount(handle, stream));
    }
    // Opens all cameras and starts their acquisitions, side by side.
    std::vector<CAM_HANDLE> OpenAndStartAll() {
        const std::vector<CAM_HANDLE> known = DiscoverAll(simulator.size());
        std::vector<CAM_HANDLE> handles(simulator.size());
        std::vector<std::thread> starters;
        for (size_t i = 0; i < handles.size(); ++i) {
            handles[i] = Among(known, simulator[i].address());
            starters.emplace_back([handle = handles[i]] { OpenAndStart(handle); });
        }
        for (std::thread& starter : starters)
            starter.join();
        return handles;
    }
};

}  // namespace kelo::test
