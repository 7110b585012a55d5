// Runs a fuzz target over the files of the given directories, without a fuzzing engine. No files are an error.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pbData, std::size_t cbData);

int main(int argc, char** argv) {
    int cInputs = 0;
    for (int i = 1; i < argc; ++i) {
        for (const auto& entry : std::filesystem::directory_iterator(argv[i])) {
            std::ifstream file(entry.path(), std::ios::binary);
            const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
            LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
            ++cInputs;
        }
    }
    std::printf("%d inputs replayed\n", cInputs);
    return cInputs > 0 ? 0 : 1;
}
