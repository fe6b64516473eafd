#pragma once

// The files of the built page. What is asked for comes from outside, so that a path is held against
// strict rules first, and then opened one folder at a time without following a link.

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vorn_cli {

// The folders and the file that a decoded request path names, "/" being index.html. None when a
// part is empty, begins with a dot, or has anything but letters, digits, '-', '_' and '.'.
std::optional<std::vector<std::string>> static_path(std::string_view path);

// By suffix; null when files of this kind are not served.
const char* content_type_of(std::string_view file);

struct StaticFile {
    std::string content;
    const char* content_type = nullptr;
    std::string etag; // quoted; of the content
};

// A folder that is opened once: where it leads does not change under a server. Threads may read at
// the same time.
class StaticFiles {
public:
    // Throws Failure when there is no such folder.
    explicit StaticFiles(const std::string& directory);
    ~StaticFiles();
    StaticFiles(const StaticFiles&) = delete;
    StaticFiles& operator=(const StaticFiles&) = delete;

    // None for what is not there or may not be served.
    std::optional<StaticFile> read(std::string_view path) const;

private:
    int directory_;
};

} // namespace vorn_cli
