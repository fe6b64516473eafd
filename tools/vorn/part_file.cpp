#include "tools/vorn/part_file.h"

#include "tools/vorn/exit_code.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace vorn_cli {

namespace {

[[noreturn]] void fail(const std::string& path, const char* doing, int reason) {
    throw Failure(kFailed, fmt::format("{}: {}: {}", path, doing, std::strerror(reason)));
}

[[noreturn]] void refuse(const std::string& target) {
    throw Failure(kUsage, target + " exists; -f replaces it");
}

// Renaming over a symbolic link would replace the link.
std::string follow_links(const std::string& path) {
    std::error_code error;
    const std::filesystem::path real = std::filesystem::canonical(path, error);
    return error ? path : real.string();
}

bool same_file(int descriptor, const std::string& path) {
    struct stat opened {};
    struct stat named {};
    return ::fstat(descriptor, &opened) == 0 && ::stat(path.c_str(), &named) == 0 &&
           opened.st_dev == named.st_dev && opened.st_ino == named.st_ino;
}

} // namespace

PartFile::PartFile(const std::string& target, bool force)
    : target_(follow_links(target)), force_(force) {
    struct stat status {};
    if (::stat(target_.c_str(), &status) == 0) {
        if (S_ISDIR(status.st_mode)) {
            throw Failure(kUsage, target + " is a directory; name a file in it");
        }
        direct_ = !S_ISREG(status.st_mode);
        if (!direct_ && !force) {
            refuse(target);
        }
    }
    path_ = direct_ ? target_ : target_ + ".part";
    open_part();
}

void PartFile::open_part() {
    if (direct_) {
        descriptor_ = ::open(path_.c_str(), O_WRONLY | O_CLOEXEC);
        if (descriptor_ < 0) {
            fail(path_, "cannot be opened", errno);
        }
        return;
    }
    // The lock tells a .part that is being written from one that was left behind. Between opening
    // and locking, the writer that had it may have renamed or removed it: then start over.
    do {
        if (descriptor_ >= 0) {
            ::close(descriptor_);
        }
        descriptor_ = ::open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0666);
        if (descriptor_ < 0) {
            fail(path_, "cannot be created", errno);
        }
        if (::flock(descriptor_, LOCK_EX | LOCK_NB) != 0) {
            ::close(descriptor_);
            throw Failure(kFailed, path_ + " is being written by another process");
        }
    } while (!same_file(descriptor_, path_));
    if (::ftruncate(descriptor_, 0) != 0) {
        const int reason = errno;
        ::unlink(path_.c_str());
        ::close(descriptor_);
        fail(path_, "cannot be emptied", reason);
    }
}

PartFile::~PartFile() {
    if (descriptor_ < 0) {
        return;
    }
    if (!direct_) {
        ::unlink(path_.c_str());
    }
    ::close(descriptor_);
}

void PartFile::keep() {
    ::close(std::exchange(descriptor_, -1));
}

void PartFile::commit() {
    if (!direct_) {
        if (::fsync(descriptor_) != 0) {
            fail(path_, "cannot be written", errno);
        }
        if (force_) {
            if (::rename(path_.c_str(), target_.c_str()) != 0) {
                fail(target_, "cannot be renamed from its .part", errno);
            }
        } else if (::link(path_.c_str(), target_.c_str()) == 0) {
            // link() is the rename that does not replace; where there are no hard links, look
            // first.
            ::unlink(path_.c_str());
        } else if (errno == EEXIST || ::access(target_.c_str(), F_OK) == 0) {
            refuse(target_);
        } else if (::rename(path_.c_str(), target_.c_str()) != 0) {
            fail(target_, "cannot be renamed from its .part", errno);
        }
    }
    const int descriptor = std::exchange(descriptor_, -1);
    if (::close(descriptor) != 0) {
        fail(target_, "cannot be closed", errno);
    }
}

} // namespace vorn_cli
