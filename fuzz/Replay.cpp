// Runs every file of the folders named on the command line through the program's entry point once: what was
// found stays found, in every build.
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>

#include "fuzz/Fuzz.h"

int main(int argc, char** argv) {
    std::size_t count = 0;
    for (int index = 1; index < argc; ++index) {
        for (const auto& entry : std::filesystem::directory_iterator(argv[index])) {
            std::ifstream file(entry.path(), std::ios::binary);
            const std::string content{std::istreambuf_iterator<char>(file), {}};
            std::cout << entry.path().filename().string() << std::endl;
            LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(content.data()), content.size());
            ++count;
        }
    }
    std::cout << count << " inputs" << std::endl;
    return count == 0 ? 1 : 0;
}
