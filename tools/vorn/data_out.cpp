#include "tools/vorn/data_out.h"

#include "tools/vorn/exit_code.h"

#include <cerrno>
#include <cstring>
#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <unistd.h>

namespace vorn_cli {

namespace {

constexpr std::size_t kBufferSize = 65536;

} // namespace

std::string json_line(const nlohmann::json& object) {
    return object.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

DataOut::DataOut(int descriptor) : descriptor_(descriptor), name_("standard output") {}

DataOut::DataOut(const std::string& path, bool force, int descriptor) : DataOut(descriptor) {
    if (!path.empty() && path != "-") {
        file_ = std::make_unique<PartFile>(path, force);
        descriptor_ = file_->descriptor();
        name_ = file_->path();
    }
}

DataOut::~DataOut() = default;

void DataOut::write(std::string_view bytes) {
    buffer_ += bytes;
    if (buffer_.size() >= kBufferSize) {
        flush();
    }
}

void DataOut::line(std::string_view text) {
    write(text);
    write("\n");
}

void DataOut::json(const nlohmann::json& object) {
    line(json_line(object));
}

void DataOut::flush() {
    std::string_view left = buffer_;
    while (!left.empty()) {
        const ssize_t written = ::write(descriptor_, left.data(), left.size());
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written < 0 && errno == EPIPE) {
            throw ReaderGone();
        }
        if (written < 0) {
            throw Failure(kFailed,
                          fmt::format("{}: cannot be written: {}", name_, std::strerror(errno)));
        }
        left.remove_prefix(static_cast<std::size_t>(written));
    }
    buffer_.clear();
}

std::string DataOut::keep() {
    if (file_ == nullptr) {
        return {};
    }
    file_->keep();
    return file_->path();
}

void DataOut::close() {
    flush();
    if (file_ != nullptr) {
        file_->commit();
    }
}

} // namespace vorn_cli
