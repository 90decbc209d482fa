// The fuzz targets outside libFuzzer: feeds each file named on the command
// line (or each file in a folder named there) to LLVMFuzzerTestOneInput
// once, in name order. A target reports a fault by aborting; finding no
// input at all is an error too, so that a moved folder cannot pass.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
// Takes apart what a target kept across inputs (fuzz_support.h), if it did.
extern "C" __attribute__((weak)) void FuzzTearDown();

int main(int argc, char** argv) {
    std::vector<std::filesystem::path> files;
    for (int i = 1; i < argc; ++i) {
        std::filesystem::path path(argv[i]);
        if (std::filesystem::is_directory(path)) {
            for (const auto& entry : std::filesystem::directory_iterator(path))
                if (entry.is_regular_file())
                    files.push_back(entry.path());
        } else {
            files.push_back(path);
        }
    }
    std::sort(files.begin(), files.end());
    if (files.empty()) {
        std::fprintf(stderr, "no inputs\n");
        return 2;
    }
    for (const std::filesystem::path& file : files) {
        std::ifstream in(file, std::ios::binary);
        if (!in) {
            std::fprintf(stderr, "%s: cannot read\n", file.c_str());
            return 2;
        }
        std::vector<char> bytes((std::istreambuf_iterator<char>(in)),
                                std::istreambuf_iterator<char>());
        std::printf("%s (%zu bytes)\n", file.c_str(), bytes.size());
        std::fflush(stdout);
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
    }
    if (FuzzTearDown)
        FuzzTearDown();
    std::printf("%zu inputs, no fault\n", files.size());
    return 0;
}
