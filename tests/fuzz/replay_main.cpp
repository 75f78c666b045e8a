// Runs a fuzz target over its seed corpus without libFuzzer: every file named
// on the command line, or found in a directory named there, is one input.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int main(int argc, char** argv) {
    std::vector<std::filesystem::path> inputs;
    for (int i = 1; i < argc; ++i) {
        const std::filesystem::path arg(argv[i]);
        if (!std::filesystem::is_directory(arg)) {
            inputs.push_back(arg);
            continue;
        }
        for (const auto& entry : std::filesystem::recursive_directory_iterator(arg))
            if (entry.is_regular_file()) inputs.push_back(entry.path());
    }
    for (const auto& path : inputs) {
        std::ifstream in(path, std::ios::binary);
        if (!in) {
            std::fprintf(stderr, "cannot read %s\n", path.c_str());
            return 1;
        }
        const std::vector<char> bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
        LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
    }
    std::printf("%zu inputs replayed\n", inputs.size());
    // An empty corpus would make the replay test pass without running anything.
    return inputs.empty() ? 1 : 0;
}
