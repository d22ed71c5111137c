// Runs a fuzz target's entry point once over every input named on the command
// line (files, or directories whose regular files are taken in name order),
// so that the corpora replay in ordinary builds and under any compiler. A
// broken invariant aborts inside the target; this driver fails on its own
// only when an input cannot be read or there is no input at all, so that an
// empty or misnamed corpus never passes as a replay.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

bool readFile(const std::filesystem::path& path, std::vector<uint8_t>& bytes)
{
    std::ifstream in(path, std::ios::binary);
    if (!in)
        return false;
    bytes.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    return !in.bad();
}

} // namespace

int main(int argc, char** argv)
{
    std::vector<std::filesystem::path> inputs;
    for (int i = 1; i < argc; ++i) {
        std::error_code error;
        const std::filesystem::path path(argv[i]);
        if (std::filesystem::is_directory(path, error)) {
            std::vector<std::filesystem::path> files;
            for (const auto& entry : std::filesystem::directory_iterator(path, error))
                if (entry.is_regular_file())
                    files.push_back(entry.path());
            std::sort(files.begin(), files.end());
            inputs.insert(inputs.end(), files.begin(), files.end());
        } else if (std::filesystem::is_regular_file(path, error)) {
            inputs.push_back(path);
        } else {
            std::fprintf(stderr, "%s: no such file or directory\n", argv[i]);
            return 2;
        }
    }
    if (inputs.empty()) {
        std::fprintf(stderr, "no inputs to replay\n");
        return 2;
    }
    std::vector<uint8_t> bytes;
    for (const auto& path : inputs) {
        if (!readFile(path, bytes)) {
            std::fprintf(stderr, "%s: cannot read\n", path.c_str());
            return 2;
        }
        // Fuzzers never hand over a null pointer, not even for no bytes.
        static const uint8_t kNothing = 0;
        if (LLVMFuzzerTestOneInput(bytes.empty() ? &kNothing : bytes.data(), bytes.size()) != 0) {
            std::fprintf(stderr, "%s: rejected by the target\n", path.c_str());
            return 1;
        }
    }
    std::printf("replayed %zu inputs\n", inputs.size());
    return 0;
}
