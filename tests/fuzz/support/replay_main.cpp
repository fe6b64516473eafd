// Runs a target over files and the files of folders, without a fuzzer: the corpus as a test, or one
// finding under a debugger. Says which input was the last one when the process dies.

#include "fuzz_input.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

namespace fs = std::filesystem;

char current[4096];

void name_input(int number) {
    const char text[] = "while replaying ";
    // What is lost here is lost: the process is about to end.
    [[maybe_unused]] ssize_t put = ::write(STDERR_FILENO, text, sizeof text - 1);
    put = ::write(STDERR_FILENO, current, std::strlen(current));
    put = ::write(STDERR_FILENO, "\n", 1);
    std::signal(number, SIG_DFL);
    ::raise(number);
}

std::vector<fs::path> inputs_of(int count, char** names) {
    std::vector<fs::path> inputs;
    for (int i = 1; i < count; ++i) {
        if (!fs::is_directory(names[i])) {
            inputs.emplace_back(names[i]);
            continue;
        }
        for (const auto& entry : fs::directory_iterator(names[i])) {
            inputs.push_back(entry.path());
        }
    }
    std::sort(inputs.begin(), inputs.end());
    return inputs;
}

void replay(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        std::fprintf(stderr, "%s: cannot be read\n", path.c_str());
        std::exit(1);
    }
    const std::string bytes((std::istreambuf_iterator<char>(file)), {});
    std::snprintf(current, sizeof current, "%s", path.c_str());
    // A block of exactly this size, so that a sanitizer sees a read behind it.
    const auto exact = std::make_unique<uint8_t[]>(bytes.size());
    if (!bytes.empty()) {
        std::memcpy(exact.get(), bytes.data(), bytes.size());
    }
    LLVMFuzzerTestOneInput(exact.get(), bytes.size());
}

} // namespace

int main(int argc, char** argv) {
    const std::vector<fs::path> inputs = inputs_of(argc, argv);
    if (inputs.empty()) {
        std::fprintf(stderr, "usage: %s FILE_OR_FOLDER...   (nothing to replay)\n", argv[0]);
        return 2;
    }
    LLVMFuzzerInitialize(&argc, &argv);
    for (const int number : {SIGABRT, SIGSEGV, SIGBUS, SIGFPE, SIGILL}) {
        std::signal(number, name_input);
    }
    fuzz::always_check_deeply();
    for (const fs::path& path : inputs) {
        replay(path);
    }
    std::printf("%zu inputs replayed\n", inputs.size());
    return 0;
}
