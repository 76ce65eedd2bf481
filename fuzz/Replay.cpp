// TARGET FOLDER: runs the target with every file of the folder.
#include <filesystem>
#include <fstream>
#include <string>

#include "Fuzz.h"

int main(int argc, char** argv) {
    int inputs = 0;
    for (const auto& entry : std::filesystem::directory_iterator(argv[argc - 1])) {
        std::ifstream file(entry.path(), std::ios::binary);
        const std::string data{std::istreambuf_iterator<char>(file), {}};
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(data.data()), data.size());
        ++inputs;
    }
    return inputs == 0;
}
