// Runs a fuzz target's entry point once on every file it is given (directories: every file in
// them, by name), without libFuzzer. The test builds use it to replay the seed corpora and the
// inputs that once broke a target, with whatever sanitizers that build has; a broken property
// aborts, as it does under the fuzzer.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace {

bool replay(const std::filesystem::path &file) {
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        (void)std::fprintf(stderr, "cannot read %s\n", file.c_str());
        return false;
    }
    const std::vector<char> bytes((std::istreambuf_iterator<char>(in)),
                                  std::istreambuf_iterator<char>());
    // An empty vector's data() may be null; the fuzzer always passes a valid pointer.
    static const uint8_t kNothing = 0;
    const auto *data = bytes.empty() ? &kNothing : reinterpret_cast<const uint8_t *>(bytes.data());
    (void)LLVMFuzzerTestOneInput(data, bytes.size());
    return true;
}

} // namespace

int main(int argc, char **argv) {
    size_t replayed = 0;
    for (int i = 1; i < argc; ++i) {
        std::vector<std::filesystem::path> files;
        const std::filesystem::path arg = argv[i];
        if (std::filesystem::is_directory(arg)) {
            for (const auto &entry : std::filesystem::directory_iterator(arg)) {
                if (entry.is_regular_file()) {
                    files.push_back(entry.path());
                }
            }
            std::sort(files.begin(), files.end());
        } else {
            files.push_back(arg);
        }
        for (const auto &file : files) {
            if (!replay(file)) {
                return 1;
            }
            ++replayed;
        }
    }
    (void)std::printf("replayed %zu inputs\n", replayed);
    // Nothing replayed means the corpus went missing: that is a failure, not a pass.
    return replayed > 0 ? 0 : 1;
}
