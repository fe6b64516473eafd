// main of every test program. The feed's log file is created in the working directory, so each
// process gets a directory of its own, which is removed at its end.

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>
#include <unistd.h>

// When the feed cannot start, it returns with its buffers still allocated: the process is expected
// to end. Nothing else may leak.
extern "C" const char* __lsan_default_suppressions();
extern "C" const char* __lsan_default_suppressions() {
    return "leak:^vorn_recv$\n";
}
extern "C" const char* __lsan_default_options();
extern "C" const char* __lsan_default_options() {
    return "print_suppressions=0";
}

namespace {

// Set for child processes that run this main again (death tests): their directory lies below the
// parent's, because a child that dies cannot remove it.
constexpr char kParentDirectory[] = "VORN_TEST_PARENT_DIRECTORY";

std::string make_directory() {
    const char* parent = std::getenv(kParentDirectory);
    const std::filesystem::path base =
        parent != nullptr ? std::filesystem::path(parent) : std::filesystem::temp_directory_path();
    std::string name = (base / "vorn-run-XXXXXX").string();
    if (::mkdtemp(name.data()) == nullptr) {
        throw std::system_error(errno, std::generic_category(), "mkdtemp " + name);
    }
    return name;
}

} // namespace

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    if (::testing::GTEST_FLAG(list_tests)) {
        return RUN_ALL_TESTS();
    }
    const std::filesystem::path start = std::filesystem::current_path();
    const std::string directory = make_directory();
    std::filesystem::current_path(directory);
    ::setenv(kParentDirectory, directory.c_str(), 1);

    const int result = RUN_ALL_TESTS();

    std::filesystem::current_path(start);
    std::error_code ignored;
    std::filesystem::remove_all(directory, ignored);
    return result;
}
