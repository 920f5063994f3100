// replay.cpp: runs a fuzz target once over every file of the directories named; ends with 1 when there was
// none.
#include "surroundings.h"

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

namespace {

void replay(const std::filesystem::path& path)
{
    std::printf("%s\n", path.c_str());
    std::fflush(stdout);
    std::ifstream stream(path, std::ios::binary);
    const std::vector<char> input{std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(input.data()), input.size());
}

} // namespace

int main(int argc, char** argv)
{
    int inputs = 0;
    for (int i = 1; i < argc; i++) {
        if (!std::filesystem::is_directory(argv[i]))
            continue;
        for (const auto& entry : std::filesystem::directory_iterator(argv[i])) {
            replay(entry.path());
            inputs++;
        }
    }
    return inputs > 0 ? 0 : 1;
}
