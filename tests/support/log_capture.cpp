#include "log_capture.h"

#include "CommonLog.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <sys/mman.h>
#include <system_error>
#include <unistd.h>

namespace support {
namespace {

constexpr char kEndOfLine[] = "\x1b[0m \n";

void write_all(int fd, const std::string& text) {
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t written = ::write(fd, text.data() + done, text.size() - done);
        if (written < 0 && errno != EINTR) {
            return;
        }
        done += written > 0 ? static_cast<std::size_t>(written) : 0;
    }
}

// Takes `expected` off the front of `text`.
bool skip(std::string_view& text, std::string_view expected) {
    if (text.substr(0, expected.size()) != expected) {
        return false;
    }
    text.remove_prefix(expected.size());
    return true;
}

// Takes what stands before `stop`, and `stop`, off the front of `text`.
bool take_until(std::string_view& text, char stop, std::string& taken) {
    const std::size_t at = text.find(stop);
    if (at == std::string_view::npos) {
        return false;
    }
    taken = text.substr(0, at);
    text.remove_prefix(at + 1);
    return true;
}

bool is_number(const std::string& text, std::size_t digits = 0) {
    return !text.empty() && (digits == 0 || text.size() == digits) &&
           text.find_first_not_of("0123456789") == std::string::npos;
}

bool take_number(std::string_view& text, char stop, std::string& taken, std::size_t digits = 0) {
    return take_until(text, stop, taken) && is_number(taken, digits);
}

// Colour, level tag, date, time, thread id: "ESC[31;1m [E] [20260818][10:04:05][140230] ".
bool take_head(std::string_view& text, LogLine& line) {
    std::string part;
    if (!skip(text, "\x1b[3") || !take_number(text, ';', part, 1) || !skip(text, "1m [") ||
        text.empty()) {
        return false;
    }
    line.level = text.front();
    text.remove_prefix(1);
    return skip(text, "] [") && take_number(text, ']', part, 8) && skip(text, "[") &&
           take_number(text, ':', part, 2) && take_number(text, ':', part, 2) &&
           take_number(text, ']', part, 2) && skip(text, "[") &&
           take_number(text, ']', line.thread) && skip(text, " ");
}

// "[file:line][function]".
bool take_origin(std::string_view& text, LogLine& line) {
    std::string number;
    if (!skip(text, "[") || !take_until(text, ':', line.file) ||
        !take_number(text, ']', number, 0) || !skip(text, "[") ||
        !take_until(text, ']', line.function)) {
        return false;
    }
    line.line = std::atoi(number.c_str());
    return true;
}

LogLine parse(std::string_view text) {
    LogLine line{};
    std::string_view rest = text;
    if (!take_head(rest, line)) {
        line = {};
        line.level = '?';
        line.message = text;
        return line;
    }
    std::string_view message = rest;
    if (!take_origin(message, line)) {
        line.file.clear();
        line.function.clear();
        message = rest;
    }
    line.message = message;
    return line;
}

} // namespace

std::vector<LogLine> parse_log(const std::string& text) {
    std::vector<LogLine> result;
    std::size_t at = 0;
    while ((at = text.find("\x1b[", at)) != std::string::npos) {
        const std::size_t end = text.find(kEndOfLine, at);
        if (end == std::string::npos) {
            break;
        }
        result.push_back(parse(std::string_view(text).substr(at, end - at)));
        at = end + sizeof kEndOfLine - 1;
    }
    return result;
}

LogCapture::LogCapture(int mask) {
    std::fflush(stdout);
    saved_fd_ = ::dup(STDOUT_FILENO);
    file_fd_ = ::memfd_create("log-capture", MFD_CLOEXEC);
    if (saved_fd_ < 0 || file_fd_ < 0 || ::dup2(file_fd_, STDOUT_FILENO) < 0) {
        throw std::system_error(errno, std::generic_category(), "cannot capture standard output");
    }
    if (mask != -1) {
        CCommonLog::GetInstance()->SetLogLevel(static_cast<ELOGLEVEL>(mask));
    }
}

LogCapture::~LogCapture() {
    std::fflush(stdout);
    // Failed assertions report on standard output too: hand everything on, so that they are seen
    // together with the log they are about.
    if (::testing::Test::HasFailure()) {
        write_all(saved_fd_, text());
    }
    ::dup2(saved_fd_, STDOUT_FILENO);
    ::close(saved_fd_);
    ::close(file_fd_);
    CCommonLog::GetInstance()->SetLogLevel(static_cast<ELOGLEVEL>(15));
}

std::string LogCapture::text() const {
    std::string all;
    char block[65536];
    for (;;) {
        const ssize_t got = ::pread(file_fd_, block, sizeof block, static_cast<off_t>(all.size()));
        if (got <= 0) {
            return all;
        }
        all.append(block, static_cast<std::size_t>(got));
    }
}

std::vector<LogLine> LogCapture::lines() const {
    return parse_log(text());
}

std::vector<std::string> LogCapture::summary() const {
    return summary("EWIDXN?");
}

std::vector<std::string> LogCapture::summary(const std::string& levels) const {
    std::vector<std::string> result;
    for (const LogLine& line : lines()) {
        if (levels.find(line.level) != std::string::npos) {
            result.push_back(std::string(1, line.level) + " " + line.file + " " + line.function +
                             " " + line.message);
        }
    }
    return result;
}

std::size_t LogCapture::count(const std::string& message) const {
    std::size_t found = 0;
    for (const LogLine& line : lines()) {
        found += line.message == message ? 1 : 0;
    }
    return found;
}

} // namespace support
