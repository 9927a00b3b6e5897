// Runs a fuzzing target on every file of a corpus, once each: replay CORPUS-DIR
// Fails when there is no file: a corpus that was lost would pass otherwise.

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>
#include <vector>

#include "fuzz_input.h"

namespace {

std::vector<std::filesystem::path> FilesOf(const char* folder)
{
    std::vector<std::filesystem::path> files;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(folder, error)) {
        if (entry.is_regular_file()) {
            files.push_back(entry.path());
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

gaktest::Bytes ContentOf(const std::filesystem::path& file)
{
    std::ifstream stream(file, std::ios::binary);
    FUZZ_CHECK(stream.is_open());
    return gaktest::Bytes(std::istreambuf_iterator<char>(stream), {});
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        fprintf(stderr, "usage: %s CORPUS-DIR\n", argv[0]);
        return 2;
    }
    LLVMFuzzerInitialize(&argc, &argv);
    const std::vector<std::filesystem::path> files = FilesOf(argv[1]);
    for (const std::filesystem::path& file : files) {
        const gaktest::Bytes content = ContentOf(file);
        fprintf(stderr, "%s\n", file.filename().c_str());  // the last one named is the one that fails
        LLVMFuzzerTestOneInput(content.data(), content.size());
    }
    printf("%zu files replayed\n", files.size());
    return files.empty() ? EXIT_FAILURE : EXIT_SUCCESS;
}
