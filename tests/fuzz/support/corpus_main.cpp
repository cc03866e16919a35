// Runs a fuzz target over files, for compilers that bring no fuzzer: every corpus is a test.
//   TARGET FILE_OR_FOLDER...

#include <algorithm>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <vector>

#include "fuzz.h"

namespace {

std::vector<std::filesystem::path> FilesOf(int argc, char** argv) {
    std::vector<std::filesystem::path> files;
    for (int i = 1; i < argc; ++i) {
        if (!std::filesystem::is_directory(argv[i])) {
            files.emplace_back(argv[i]);
            continue;
        }
        for (const auto& entry : std::filesystem::directory_iterator(argv[i])) {
            if (entry.is_regular_file()) files.push_back(entry.path());
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

void RunFile(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) kelo::fuzz::Fail("cannot read " + path.string());
    const std::vector<char> content{std::istreambuf_iterator<char>(file), {}};
    // A copy of exactly the right size, for the address sanitizer.
    const auto bytes = std::make_unique<uint8_t[]>(content.size());
    std::copy(content.begin(), content.end(), bytes.get());
    LLVMFuzzerTestOneInput(bytes.get(), content.size());
}

}  // namespace

int main(int argc, char** argv) {
    LLVMFuzzerInitialize(&argc, &argv);
    try {
        const auto files = FilesOf(argc, argv);
        if (files.empty()) kelo::fuzz::Fail("there are no inputs");
        for (const auto& path : files) {
            // Before the run: the last name is that of the input that fails.
            fprintf(stderr, "%s\n", path.c_str());
            RunFile(path);
        }
    } catch (const std::exception& exception) {
        kelo::fuzz::Fail(exception.what());
    }
    return 0;
}
