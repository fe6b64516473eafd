#pragma once

#include <filesystem>
#include <string>

namespace support {

// A directory of its own for one test, removed at its end.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::filesystem::path& path() const { return path_; }
    // Writes a file below the directory and returns its path.
    std::string write(const std::string& name, const std::string& content) const;

private:
    std::filesystem::path path_;
};

std::string read_file(const std::filesystem::path& path);

} // namespace support
