// The logger: lines of any level, length and content, under any level mask.
//
// What a line adds to the file is compared with what it should be.
//
// Each operation: a byte (bits 0 and 1 what, see Operation), then for a mask 32 bits; for a line
// the level in a byte, a 16-bit number of bytes (bit 15: times 8) and the text.

#include "support/fuzz_input.h"

#include "CommonLog.h"

#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <string>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace {

constexpr char LOG_FILE_TAG[] = "log";
constexpr char kTail[] = "\x1b[0m \n";
constexpr std::size_t kMaxLine = 16384;
constexpr std::size_t kMaxMessage = 4095; // of a call site's line
constexpr int kMaxOperations = 32;

enum Operation : uint8_t { kMask, kText, kFormatted, kCallSite };

CCommonLog& logger() {
    return *CCommonLog::GetInstance();
}

int log_file() {
    return logger().m_logHandler == nullptr ? -1 : ::fileno(logger().m_logHandler);
}

int64_t file_size() {
    struct stat status {};
    return log_file() < 0 || ::fstat(log_file(), &status) != 0 ? 0 : status.st_size;
}

std::string tail_of_file(std::size_t size) {
    std::string text(size, '\0');
    const int fd = ::open(("/proc/self/fd/" + std::to_string(log_file())).c_str(), O_RDONLY);
    const ssize_t got = ::pread(fd, text.data(), size, file_size() - static_cast<int64_t>(size));
    ::close(fd);
    REQUIRE(got == static_cast<ssize_t>(size));
    return text;
}

// A text with `size` bytes made of those of the input, again and again.
std::string text_of(fuzz::Input& input) {
    const uint16_t shape = input.u16();
    const auto bytes = input.take(shape & 0x0FFFU);
    std::string text;
    const std::size_t size = bytes.size() * ((shape & 0x8000) != 0 ? 8 : 1);
    while (text.size() < size) {
        text.append(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    }
    text.resize(std::min(size, kMaxLine));
    return text;
}

void write_line(uint8_t kind, int level, const std::string& text) {
    const int64_t before = file_size();
    const auto which = static_cast<ELOGLEVEL>(level);
    std::string expected = text;
    if ((kind & 3) == kText) {
        logger().WriteText(which, text.data(), text.size());
    } else {
        expected = text.c_str(); // up to its first NUL
        if ((kind & 3) == kFormatted) {
            logger().WriteLog(which, "%s", text.c_str());
        } else {
            MD_LOG_AS("site", which, "%s", text.c_str());
            expected.resize(std::min(expected.size(), kMaxMessage));
        }
    }
    const int64_t added = file_size() - before;
    if (!CCommonLog::IsEnabled(level)) {
        REQUIRE(added == 0);
        return;
    }
    expected += kTail;
    REQUIRE(added > static_cast<int64_t>(expected.size()));
    REQUIRE(added < static_cast<int64_t>(expected.size()) + 128);
    REQUIRE(tail_of_file(expected.size()) == expected);
    REQUIRE(logger().m_wholeBytes == file_size());
}

// Long names of files and functions are cut, not written past their place.
void write_named(int level, const std::string& name) {
    const int64_t before = file_size();
    MdWriteLine(static_cast<ELOGLEVEL>(level), name.c_str(), level, name.c_str(), "%s", "text");
    const int64_t added = file_size() - before;
    REQUIRE(CCommonLog::IsEnabled(level) ? added > 40 && added < 800 : added == 0);
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    fuzz::Input input(data, size);
    logger().SetLogLevel(static_cast<ELOGLEVEL>(31));
    for (int i = 0; i < kMaxOperations && input.left() > 0; ++i) {
        const uint8_t kind = input.u8();
        if ((kind & 3) == kMask) {
            const auto mask = static_cast<int32_t>(input.u32());
            logger().SetLogLevel(static_cast<ELOGLEVEL>(mask));
            REQUIRE(logger().GetLogLevel() == static_cast<ELOGLEVEL>(mask));
            continue;
        }
        const int level = input.u8();
        const std::string text = text_of(input);
        if ((kind & 7) == 7) {
            write_named(level, text);
        } else {
            write_line(kind, level, text);
        }
    }
    if (log_file() >= 0) {
        REQUIRE(::ftruncate(log_file(), 0) == 0);
        std::rewind(logger().m_logHandler);
        logger().m_wholeBytes = 0;
    }
    return 0;
}

int LLVMFuzzerInitialize(int*, char***) {
    static std::string directory =
        (std::filesystem::temp_directory_path() / "vorn-fuzz-log-XXXXXX").string();
    REQUIRE(::mkdtemp(directory.data()) != nullptr);
    logger().SetLogPath(directory);
    // Lines go to standard output too. Standard error is the fuzzer's.
    const int nowhere = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    REQUIRE(::dup2(nowhere, STDOUT_FILENO) >= 0);
    ::close(nowhere);
    std::atexit([] {
        std::error_code ignored;
        std::filesystem::remove_all(directory, ignored);
    });
    return 0;
}
