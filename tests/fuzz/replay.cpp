// Runs a fuzz target on files, and on the files of folders, in the order of their names: what the
// fuzzer has found stays found, also where there is no fuzzer.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
extern "C" int LLVMFuzzerInitialize(int* count, char*** arguments);

// The targets' mutators are linked, and not called.
extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t maxSize)
{
    static_cast<void>(data);
    return std::min(size, maxSize);
}

static void addFiles(const std::string& name, std::vector<std::string>& files)
{
    if (!std::filesystem::is_directory(name)) {
        files.push_back(name);
        return;
    }
    for (const auto& entry : std::filesystem::directory_iterator(name))
        if (entry.is_regular_file()) files.push_back(entry.path().string());
}

static bool replay(const std::string& file)
{
    std::ifstream stream(file, std::ios::binary);
    if (!stream) {
        std::fprintf(stderr, "replay: %s cannot be read\n", file.c_str());
        return false;
    }
    std::string bytes{std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
    // A block of just that size shows what is read behind its end.
    std::vector<std::uint8_t> input(bytes.begin(), bytes.end());
    LLVMFuzzerTestOneInput(input.data(), input.size());
    return true;
}

int main(int argc, char** argv)
{
    std::vector<std::string> files;
    for (int i = 1; i < argc; ++i) addFiles(argv[i], files);
    std::sort(files.begin(), files.end());
    if (files.empty()) {
        std::fprintf(stderr, "Usage: %s FILE|FOLDER...\n", argv[0]);
        return 2;
    }
    LLVMFuzzerInitialize(&argc, &argv);
    bool good = true;
    for (const std::string& file : files) good = replay(file) && good;
    std::printf("%zu inputs\n", files.size());
    return good ? 0 : 1;
}
