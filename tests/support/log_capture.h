#pragma once

// What the feed's logger wrote while the capture was open. Takes over file descriptor 1.

#include <string>
#include <vector>

namespace support {

struct LogLine {
    char level;           // 'E', 'W', 'I', 'D', 'X' or 'N'
    std::string thread;   // thread id as printed
    std::string file;     // tag of the source
    int line;             // source line
    std::string function; // tag of the function
    std::string message;  // may contain line feeds
};

// The log lines in `text`; anything between them is skipped. A line that was not written through
// the call-site pattern has empty tags, one without a proper head has the level '?'.
std::vector<LogLine> parse_log(const std::string& text);

class LogCapture {
public:
    // Redirects standard output to a temporary file; `mask` becomes the logger's level mask (-1:
    // leave it). The destructor restores standard output and the mask 15.
    explicit LogCapture(int mask = 31);
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::string text() const;           // raw bytes so far
    std::vector<LogLine> lines() const; // parsed so far
    // "E ExanicUdpFunc _ParseMirp packet length too small: 7", one string a line.
    std::vector<std::string> summary() const;
    // The same, only lines at one of the given levels, e.g. "EWI".
    std::vector<std::string> summary(const std::string& levels) const;
    // Number of lines whose message equals `message`.
    std::size_t count(const std::string& message) const;
    bool contains(const std::string& message) const { return count(message) > 0; }

private:
    int saved_fd_;
    int file_fd_;
};

} // namespace support
