// Runs the target over the files and folders named on the command line: the corpus as a test, for
// compilers without a fuzzing engine.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "common/xel_int.h"

extern "C" int LLVMFuzzerTestOneInput(const u8* bytes, size_t size);

namespace
{

std::vector<std::filesystem::path> FilesOf(int argc, char** argv)
{
    std::vector<std::filesystem::path> files;
    for (int i = 1; i < argc; ++i) {
        const std::filesystem::path path(argv[i]);
        if (!std::filesystem::is_directory(path)) {
            files.push_back(path);
            continue;
        }
        for (const auto& entry : std::filesystem::directory_iterator(path)) {
            files.push_back(entry.path());
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

} // namespace

int main(int argc, char** argv)
{
    const std::vector<std::filesystem::path> files = FilesOf(argc, argv);
    for (const auto& file : files) {
        std::ifstream stream(file, std::ios::binary);
        if (!stream) {
            fprintf(stderr, "%s cannot be read\n", file.c_str());
            return 1;
        }
        const std::vector<char> bytes{std::istreambuf_iterator<char>(stream), {}};
        printf("%s\n", file.filename().c_str());
        fflush(stdout); // the last name printed is the input that failed
        (void)LLVMFuzzerTestOneInput(reinterpret_cast<const u8*>(bytes.data()), bytes.size());
    }
    printf("%zu inputs\n", files.size());
    return files.empty() ? 1 : 0;
}
