/// @file
/// Runs a fuzz target over the files of its corpus, so that what was once found is tried in every build, with any
/// compiler. The fuzzer itself is started by tools/fuzz.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

std::vector<uint8_t> Content(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw std::runtime_error("cannot read " + path.string());
    return {std::istreambuf_iterator<char>(in), {}};
}

size_t Replay(const std::filesystem::path& directory) {
    size_t files = 0;
    for (const auto& entry : std::filesystem::directory_iterator(directory)) {
        const std::vector<uint8_t> input = Content(entry.path());
        LLVMFuzzerTestOneInput(input.data(), input.size());
        // Every beginning of it too, where that is quick: inputs that stop in the middle of something.
        for (size_t length = 0; length < std::min<size_t>(input.size(), 64); ++length)
            LLVMFuzzerTestOneInput(input.data(), length);
        ++files;
    }
    return files;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        size_t files = 0;
        for (int i = 1; i < argc; ++i)
            files += Replay(argv[i]);
        printf("%zu inputs replayed\n", files);
        return files != 0 ? 0 : 1;  // an empty corpus proves nothing
    } catch (const std::exception& e) {
        fprintf(stderr, "%s\n", e.what());
        return 1;
    }
}
