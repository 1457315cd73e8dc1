// Without libFuzzer: runs the fuzz target once over every file of the given corpus directories.
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv)
{
    size_t inputs = 0;
    for (int i = 1; i < argc; ++i) {
        for (const auto& entry : std::filesystem::directory_iterator(argv[i])) {
            std::ifstream in(entry.path(), std::ios::binary);
            const std::vector<char> bytes((std::istreambuf_iterator<char>(in)),
                                          std::istreambuf_iterator<char>());
            (void)LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()),
                                         bytes.size());
            ++inputs;
        }
    }
    std::cout << "replayed " << inputs << " inputs\n";
    return inputs > 0 ? 0 : 1;
}
