#pragma once

#include <filesystem>
#include <fstream>
#include <string>

#include <sys/types.h>

namespace kelo::test {

// What the system says a thread of this process does: 'S' when it sleeps, '?' when there is none.
inline char ThreadState(pid_t thread) {
    std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
    std::string text;
    std::getline(file, text);
    const size_t name_end = text.rfind(") ");
    return name_end == std::string::npos ? '?' : text[name_end + 2];
}

// A thread of this process by its name; 0 when there is none.
inline pid_t ThreadNamed(const std::string& wanted) {
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string name;
        std::getline(std::ifstream(task.path() / "comm") >> std::ws, name);
        if (name == wanted) return std::stoi(task.path().filename());
    }
    return 0;
}

}  // namespace kelo::test
