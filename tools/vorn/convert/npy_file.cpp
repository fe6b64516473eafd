#include "tools/vorn/convert/npy_file.h"

#include "tools/vorn/exit_code.h"

#include <cerrno>
#include <charconv>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <string_view>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace vorn_cli {

namespace {

constexpr char kMagic[] = "\x93NUMPY\x01"; // version 1.0; its second zero is the terminator
constexpr std::size_t kPreamble = 10;      // magic, version and the length of the text behind it
static_assert(sizeof(kMagic) == 8);

const char* npy_type(RowColumn::Type type) {
    switch (type) {
    case RowColumn::Type::kU16:
        return "<u2";
    case RowColumn::Type::kU32:
        return "<u4";
    case RowColumn::Type::kI32:
        return "<i4";
    case RowColumn::Type::kU64:
        return "<u8";
    default:
        return "<f8";
    }
}

std::string description() {
    std::string text;
    for (const RowColumn& column : row_columns()) {
        if (column.type == RowColumn::Type::kText) {
            text += fmt::format("('{}', '|S{}'), ", column.name, column.count);
        } else if (column.count == 1) {
            text += fmt::format("('{}', '{}'), ", column.name, npy_type(column.type));
        } else {
            text += fmt::format("('{}', '{}', ({},)), ", column.name, npy_type(column.type),
                                column.count);
        }
    }
    text.resize(text.size() - 2);
    return text;
}

// What stands in front of the count.
const std::string& text_before_count() {
    static const std::string text =
        fmt::format("{{'descr': [{}], 'fortran_order': False, 'shape': (", description());
    return text;
}

[[noreturn]] void refuse(const std::string& path, const std::string& why) {
    throw Failure(kFailed, fmt::format("{}: {}", path, why));
}

} // namespace

std::string npy_header(uint64_t rows) {
    std::string header(kMagic, sizeof(kMagic));
    constexpr std::size_t kText = kNpyHeaderSize - kPreamble;
    header += static_cast<char>(kText & 0xFF);
    header += static_cast<char>(kText >> 8);
    header += fmt::format("{}{},), }}", text_before_count(), rows);
    header.resize(kNpyHeaderSize - 1, ' ');
    header += '\n';
    return header;
}

NpyFile::NpyFile(const std::string& target, bool force) : file_(target, force) {
    if (::lseek(file_.descriptor(), 0, SEEK_CUR) < 0) {
        throw Failure(kUsage, fmt::format("{}: an .npy file is written in two places and cannot go "
                                          "into a pipe; name a file",
                                          target));
    }
    waiting_.reserve(kStep);
    const std::string header = npy_header(0);
    write_at(header.data(), header.size(), 0);
}

void NpyFile::write_at(const char* bytes, std::size_t size, uint64_t offset) {
    while (size != 0) {
        const ssize_t written =
            ::pwrite(file_.descriptor(), bytes, size, static_cast<off_t>(offset));
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written < 0) {
            throw Failure(kFailed, fmt::format("{}: cannot be written: {}", file_.path(),
                                               std::strerror(errno)));
        }
        bytes += written;
        size -= static_cast<std::size_t>(written);
        offset += static_cast<uint64_t>(written);
    }
}

void NpyFile::flush() {
    if (waiting_.empty()) {
        return;
    }
    write_at(reinterpret_cast<const char*>(waiting_.data()), waiting_.size() * sizeof(ResearchRow),
             bytes());
    const std::string header = npy_header(written_ + waiting_.size());
    write_at(header.data(), header.size(), 0);
    written_ += waiting_.size();
    waiting_.clear();
}

void NpyFile::commit() {
    flush();
    file_.commit();
}

NpyRows::NpyRows(const std::string& path) {
    const int file = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat status {};
    if (file < 0 || ::fstat(file, &status) != 0) {
        const int reason = errno;
        if (file >= 0) {
            ::close(file);
        }
        throw Failure(kFailed, fmt::format("cannot read {}: {}", path, std::strerror(reason)));
    }
    size_ = static_cast<std::size_t>(status.st_size);
    void* const address = size_ >= kNpyHeaderSize
                              ? ::mmap(nullptr, size_, PROT_READ, MAP_PRIVATE, file, 0)
                              : MAP_FAILED;
    ::close(file);
    if (address == MAP_FAILED) {
        refuse(path, "it is too short for a research file");
    }
    address_ = address;
    const std::string_view header(static_cast<const char*>(address), kNpyHeaderSize);
    const std::size_t at = kPreamble + text_before_count().size();
    uint64_t rows = 0;
    std::from_chars(header.data() + at, header.data() + header.size(), rows);
    const char* problem = nullptr;
    if (header != npy_header(rows)) {
        problem = "its columns are not those of a research file of this version";
    } else if (rows > (size_ - kNpyHeaderSize) / sizeof(ResearchRow)) {
        problem = "it was cut short: it has fewer rows than its header says";
    }
    if (problem != nullptr) {
        ::munmap(address_, size_);
        refuse(path, problem);
    }
    ::madvise(address_, size_, MADV_SEQUENTIAL);
    rows_ = {
        reinterpret_cast<const ResearchRow*>(static_cast<const char*>(address) + kNpyHeaderSize),
        static_cast<std::size_t>(rows)};
}

NpyRows::~NpyRows() {
    ::munmap(address_, size_);
}

} // namespace vorn_cli
