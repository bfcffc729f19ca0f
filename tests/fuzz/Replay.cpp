// SPDX-License-Identifier: Apache-2.0
// Replay FILE|FOLDER...           runs a fuzz target with each file
// Replay --random FIRST LAST      runs it with random bytes, one input for each seed
// Prints each input's name before it runs, so that the last line names the one that fails.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "tests/fuzz/FuzzTarget.h"

namespace {

using Input = std::vector<uint8_t>;

void run(const std::string& name, const Input& input) {
    std::printf("%s\n", name.c_str());
    std::fflush(stdout);
    LLVMFuzzerTestOneInput(input.data(), input.size());
}

void runFile(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        std::fprintf(stderr, "cannot read %s\n", path.c_str());
        std::exit(2);
    }
    run(path, Input(std::istreambuf_iterator<char>(file), {}));
}

void runPath(const std::filesystem::path& path) {
    if (!std::filesystem::is_directory(path)) {
        runFile(path);
        return;
    }
    std::vector<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(path)) {
        if (entry.is_regular_file()) {
            files.push_back(entry.path());
        }
    }
    std::sort(files.begin(), files.end());
    std::for_each(files.begin(), files.end(), runFile);
}

void runRandom(unsigned long seed) {
    constexpr size_t kMostBytes = 400;
    std::mt19937_64 random(seed);
    Input input(random() % kMostBytes);
    std::generate(input.begin(), input.end(), [&] { return static_cast<uint8_t>(random()); });
    run("random " + std::to_string(seed), input);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 4 && std::strcmp(argv[1], "--random") == 0) {
        const unsigned long last = std::strtoul(argv[3], nullptr, 10);
        for (unsigned long seed = std::strtoul(argv[2], nullptr, 10); seed <= last; ++seed) {
            runRandom(seed);
        }
        return 0;
    }
    std::for_each(argv + 1, argv + argc, runPath);
    return argc > 1 ? 0 : 2;
}
