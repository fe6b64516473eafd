#include "tools/vorn/serve/static_files.h"

#include "tools/vorn/exit_code.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace vorn_cli {

namespace {

constexpr std::size_t kLongestPath = 255;
constexpr off_t kLargestFile = 16 << 20;
constexpr std::string_view kPartCharacters =
    "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-_.";

// Closes itself.
class Descriptor {
public:
    explicit Descriptor(int descriptor) : descriptor_(descriptor) {}
    ~Descriptor() {
        if (descriptor_ >= 0) {
            ::close(descriptor_);
        }
    }
    Descriptor(Descriptor&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(descriptor_, other.descriptor_);
        return *this;
    }
    int get() const { return descriptor_; }

private:
    int descriptor_;
};

std::optional<std::string> read_whole(int file) {
    struct stat status {};
    if (::fstat(file, &status) != 0 || !S_ISREG(status.st_mode) || status.st_size > kLargestFile) {
        return std::nullopt;
    }
    std::string content(static_cast<std::size_t>(status.st_size), '\0');
    std::size_t have = 0;
    while (have < content.size()) {
        const ssize_t got = ::read(file, content.data() + have, content.size() - have);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            break;
        }
        have += static_cast<std::size_t>(got);
    }
    content.resize(have);
    return content;
}

// FNV-1a: tells versions of a file apart, no more.
std::string etag_of(std::string_view content) {
    uint64_t hash = 0xcbf29ce484222325u;
    for (const char c : content) {
        hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001b3u;
    }
    return fmt::format("\"{:016x}\"", hash);
}

} // namespace

std::optional<std::vector<std::string>> static_path(std::string_view path) {
    if (!path.starts_with('/') || path.size() > kLongestPath) {
        return std::nullopt;
    }
    if (path == "/") {
        return std::vector<std::string>{"index.html"};
    }
    std::vector<std::string> parts;
    while (!path.empty()) {
        path.remove_prefix(1); // the slash
        const std::string_view part = path.substr(0, path.find('/'));
        if (part.empty() || part.starts_with('.') ||
            part.find_first_not_of(kPartCharacters) != std::string_view::npos) {
            return std::nullopt;
        }
        parts.emplace_back(part);
        path.remove_prefix(part.size());
    }
    return parts;
}

const char* content_type_of(std::string_view file) {
    constexpr std::pair<std::string_view, const char*> kTypes[] = {
        {".html", "text/html; charset=utf-8"},
        {".js", "text/javascript; charset=utf-8"},
        {".css", "text/css; charset=utf-8"},
        {".svg", "image/svg+xml"},
        {".png", "image/png"},
        {".woff2", "font/woff2"},
        {".txt", "text/plain; charset=utf-8"},
        {".webmanifest", "application/manifest+json"},
    };
    for (const auto& [suffix, type] : kTypes) {
        if (file.ends_with(suffix)) {
            return type;
        }
    }
    return nullptr;
}

StaticFiles::StaticFiles(const std::string& directory)
    : directory_(::open(directory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)) {
    if (directory_ < 0) {
        throw Failure(kUsage, fmt::format("--web {}: {}", directory, std::strerror(errno)));
    }
}

StaticFiles::~StaticFiles() {
    ::close(directory_);
}

std::optional<StaticFile> StaticFiles::read(std::string_view path) const {
    const auto parts = static_path(path);
    if (!parts) {
        return std::nullopt;
    }
    const char* type = content_type_of(parts->back());
    if (type == nullptr) {
        return std::nullopt;
    }
    Descriptor at(-1);
    int folder = directory_;
    for (std::size_t i = 0; i < parts->size(); ++i) {
        const bool last = i + 1 == parts->size();
        // O_NONBLOCK: a pipe put there holds nobody up.
        const int flags =
            O_NOFOLLOW | O_CLOEXEC | (last ? O_RDONLY | O_NONBLOCK : O_PATH | O_DIRECTORY);
        at = Descriptor(::openat(folder, (*parts)[i].c_str(), flags));
        if (at.get() < 0) {
            return std::nullopt;
        }
        folder = at.get();
    }
    auto content = read_whole(at.get());
    if (!content) {
        return std::nullopt;
    }
    std::string etag = etag_of(*content);
    return StaticFile{std::move(*content), type, std::move(etag)};
}

} // namespace vorn_cli
