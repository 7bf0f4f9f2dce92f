#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);

/// Feeds every file of the folders and files named on the command line to the fuzzed function.
int main(int count, char **words)
{
    std::size_t replayed = 0;
    const auto replay = [&](const std::filesystem::path &path) {
        std::ifstream file(path, std::ios::binary);
        const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
        LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t *>(bytes.data()), bytes.size());
        ++replayed;
    };
    for (int i = 1; i < count; ++i) {
        if (!std::filesystem::is_directory(words[i])) {
            replay(words[i]);
            continue;
        }
        for (const auto &entry : std::filesystem::directory_iterator(words[i]))
            if (entry.is_regular_file())
                replay(entry.path());
    }
    std::printf("%zu inputs replayed\n", replayed);
    return replayed > 0 ? 0 : 1;
}
