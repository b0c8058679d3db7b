// Replays saved fuzz inputs through a fuzz target without libFuzzer: every file named on the
// command line, and every file in every directory named, in name order. Used to keep crash
// regressions and the seed corpora running as ordinary tests in every build.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int main(int argc, char** argv) {
    namespace fs = std::filesystem;
    std::vector<fs::path> files;
    for (int i = 1; i < argc; ++i) {
        const fs::path arg(argv[i]);
        std::error_code ec;
        if (!fs::is_directory(arg, ec)) {
            if (fs::exists(arg, ec)) files.push_back(arg);
            continue;
        }
        const std::size_t first = files.size();
        for (const auto& entry : fs::directory_iterator(arg))
            if (entry.is_regular_file() && entry.path().filename().string().front() != '.')
                files.push_back(entry.path());
        std::sort(files.begin() + static_cast<std::ptrdiff_t>(first), files.end());
    }
    for (const fs::path& file : files) {
        std::ifstream in(file, std::ios::binary);
        const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        std::printf("replaying %s (%zu bytes)\n", file.string().c_str(), bytes.size());
        std::fflush(stdout);
        LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
    }
    std::printf("replayed %zu inputs, none crashed\n", files.size());
    return 0;
}
