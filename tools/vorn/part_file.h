#pragma once

// A file that exists under its name only when it is whole. It is written as NAME.part and renamed
// by commit(); when the object goes without that, the .part goes too. A .part that an earlier run
// left behind (power, kill -9) is taken over; one that another process is writing is refused.
//
// A target that exists and is no regular file (a FIFO, /dev/null) is written directly.

#include <cstdio>
#include <string>

namespace vorn_cli {

class PartFile {
public:
    // Refuses an existing target unless `force`. Throws Failure, here and below.
    PartFile(const std::string& target, bool force);
    ~PartFile();
    PartFile(const PartFile&) = delete;
    PartFile& operator=(const PartFile&) = delete;

    // To be written to; or, for libraries that open files by name, path(). The latter must have
    // closed it again before commit().
    int descriptor() const { return descriptor_; }
    const std::string& path() const { return path_; }
    const std::string& target() const { return target_; }

    // Makes the file durable and gives it its name. Without `force` a file that has come to exist
    // under that name meanwhile is not replaced.
    void commit();
    // Leaves the .part where it is, for somebody to look after.
    void keep();

private:
    void open_part();

    std::string target_; // links followed
    std::string path_;   // what is written: target_ + ".part", or target_ itself
    bool force_ = false;
    bool direct_ = false;
    int descriptor_ = -1;
};

} // namespace vorn_cli
