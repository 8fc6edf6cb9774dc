// Runs a target without the fuzzer, as an ordinary test: on each kept input, on all its
// truncations, and with each of its bits flipped.
//   replay_TARGET FOLDER
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);

namespace {

long given = 0;

void give(const std::string& input) {
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(input.data()), input.size());
    ++given;
}

void give_changes(std::string input) {
    give(input);
    for (size_t i = 0; i < input.size(); ++i) {
        give(input.substr(0, i));
        for (int bit = 0; bit < 8; ++bit) {
            input[i] = static_cast<char>(input[i] ^ 1 << bit);
            give(input);
            input[i] = static_cast<char>(input[i] ^ 1 << bit);
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (LLVMFuzzerInitialize != nullptr) {
        LLVMFuzzerInitialize(&argc, &argv);
    }
    std::vector<std::string> files;
    for (const auto& file : std::filesystem::directory_iterator(argc == 2 ? argv[1] : ".")) {
        files.push_back(file.path());
    }
    std::sort(files.begin(), files.end());
    // The daemon's output is not wanted here.
    if (freopen("/dev/null", "w", stdout) == nullptr ||
        freopen("/dev/null", "w", stderr) == nullptr) {
        return 1;
    }
    for (const std::string& file : files) {
        std::ifstream stream(file, std::ios::binary);
        give_changes({std::istreambuf_iterator<char>(stream), {}});
    }
    return given > 0 ? 0 : 1;
}
