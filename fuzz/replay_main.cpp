// Replays a corpus through a fuzz target without a fuzz engine: every file of the directories
// given, and each of its prefixes of up to 64 bytes.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

void replay(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    const std::vector<char> bytes{std::istreambuf_iterator<char>(in), {}};
    const std::vector<std::uint8_t> data(bytes.begin(), bytes.end());
    LLVMFuzzerTestOneInput(data.data(), data.size());
    for (std::size_t n = 0; n < std::min<std::size_t>(data.size(), 64); ++n) {
        LLVMFuzzerTestOneInput(data.data(), n);
    }
}

} // namespace

int main(int argc, char** argv) {
    std::size_t files = 0;
    for (int i = 1; i < argc; ++i) {
        for (const auto& entry : std::filesystem::directory_iterator(argv[i])) {
            replay(entry.path());
            ++files;
        }
    }
    std::printf("%zu inputs replayed\n", files);
    return files > 0 ? 0 : 1;
}
