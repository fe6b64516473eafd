#include "tools/vorn/record/record_files.h"

#include "tools/vorn/exit_code.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

namespace vorn_cli {

namespace {

namespace fs = std::filesystem;

// Whether `name` is "STEM.NNNN.SUFFIX", perhaps with ".part", of the target.
bool is_numbered(const std::string& name, const fs::path& target) {
    std::string_view rest = name;
    const std::string stem = target.stem().string() + ".";
    if (!rest.starts_with(stem)) {
        return false;
    }
    rest.remove_prefix(stem.size());
    if (rest.ends_with(".part")) {
        rest.remove_suffix(5);
    }
    const std::string suffix = target.extension().string();
    if (!rest.ends_with(suffix)) {
        return false;
    }
    rest.remove_suffix(suffix.size());
    return rest.size() >= 4 &&
           std::all_of(rest.begin(), rest.end(), [](char c) { return c >= '0' && c <= '9'; });
}

[[noreturn]] void refuse_part(const std::string& path) {
    throw Failure(kUsage, fmt::format("{} exists, left by a recording that was killed; it can be "
                                      "replayed as it is. Rename it to keep it; -f replaces it",
                                      path));
}

} // namespace

RecordFiles::RecordFiles(RecordTarget target) : target_(std::move(target)) {
    refuse_leftovers();
    open_next();
    if (!write_head()) {
        throw Failure(kFailed, trouble_);
    }
}

std::string RecordFiles::name_of(unsigned number) const {
    if (!target_.rotates()) {
        return target_.path;
    }
    const fs::path path = target_.path;
    return (path.parent_path() /
            fmt::format("{}.{:04}{}", path.stem().string(), number, path.extension().string()))
        .string();
}

// A recording never mixes with the rest of another one: by force, numbered files that an earlier
// recording of this name left are removed.
void RecordFiles::refuse_leftovers() const {
    if (!target_.rotates()) {
        const std::string part = target_.path + ".part";
        if (!target_.force && fs::exists(part)) {
            refuse_part(part);
        }
        return;
    }
    const fs::path path = target_.path;
    const fs::path folder = path.has_parent_path() ? path.parent_path() : fs::path(".");
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(folder, error)) {
        const std::string name = entry.path().filename().string();
        if (!is_numbered(name, path)) {
            continue;
        }
        if (!target_.force) {
            throw Failure(kUsage, fmt::format("{} exists, from an earlier recording; -f removes "
                                              "all numbered files of that name",
                                              (path.parent_path() / name).string()));
        }
        fs::remove(entry.path(), error);
    }
}

void RecordFiles::open_next() {
    ++number_;
    file_ = std::make_unique<PartFile>(name_of(number_), target_.force);
    struct stat status {};
    direct_ = ::fstat(file_->descriptor(), &status) != 0 || !S_ISREG(status.st_mode);
    has_head_ = false;
    file_bytes_ = 0;
    file_records_ = 0;
}

void RecordFiles::note_trouble(const std::string& text) {
    if (trouble_.empty()) {
        trouble_ = text;
        if (tell_) {
            tell_(text);
        }
    }
}

// As much as can be written; the reason why it was not all.
std::size_t RecordFiles::write_some(std::string_view bytes, int& reason) {
    std::size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t written =
            ::write(file_->descriptor(), bytes.data() + done, bytes.size() - done);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            reason = written < 0 ? errno : ENOSPC;
            break;
        }
        done += static_cast<std::size_t>(written);
    }
    return done;
}

// Back to whole records: `written` bytes of the block are to stay.
void RecordFiles::cut_back(std::size_t written) {
    const auto size = static_cast<off_t>(file_bytes_ + written);
    if (direct_ || ::ftruncate(file_->descriptor(), size) != 0 ||
        ::lseek(file_->descriptor(), size, SEEK_SET) < 0) {
        broken_ = true;
    }
}

bool RecordFiles::write_head() {
    if (has_head_) {
        return true;
    }
    int reason = 0;
    const std::size_t done = write_some(target_.head, reason);
    if (done < target_.head.size()) {
        note_trouble(
            fmt::format("{}: cannot be written: {}", file_->path(), std::strerror(reason)));
        cut_back(0);
        return false;
    }
    has_head_ = true;
    file_bytes_ = done;
    bytes_ += done;
    return true;
}

void RecordFiles::flush() {
    if (ends_.empty()) {
        return;
    }
    std::size_t kept = 0; // records
    if (!broken_ && write_head()) {
        int reason = 0;
        const std::size_t done = write_some(block_, reason);
        const auto end = std::upper_bound(ends_.begin(), ends_.end(), done);
        kept = static_cast<std::size_t>(end - ends_.begin());
        const std::size_t kept_bytes = kept == 0 ? 0 : ends_[kept - 1];
        if (done < block_.size()) {
            note_trouble(
                fmt::format("{}: cannot be written: {}", file_->path(), std::strerror(reason)));
            cut_back(kept_bytes);
        }
        file_bytes_ += kept_bytes;
        file_records_ += kept;
        bytes_ += kept_bytes;
        records_ += kept;
    }
    lost_ += ends_.size() - kept;
    block_.clear();
    ends_.clear();
}

void RecordFiles::flush_if_due() {
    if (!ends_.empty() && Clock::now() - block_since_ >= kBlockAge) {
        flush();
    }
}

std::string& RecordFiles::begin_record(uint64_t time_ns) {
    record_time_ns_ = time_ns;
    return block_;
}

void RecordFiles::end_record() {
    const std::size_t begin = ends_.empty() ? 0 : ends_.back();
    if (target_.rotates()) {
        rotate_if_due(record_time_ns_, block_.size() - begin);
    }
    if (ends_.empty()) {
        block_since_ = Clock::now();
    }
    if (file_records_ == 0 && ends_.empty()) {
        file_first_ns_ = record_time_ns_;
    }
    ends_.push_back(block_.size());
    if (block_.size() >= kBlockSize) {
        flush();
    }
}

// The record at the end of the block goes to the next file when this one would become too large or
// too long with it.
void RecordFiles::rotate_if_due(uint64_t time_ns, std::size_t record_size) {
    if (file_records_ == 0 && ends_.empty()) {
        return;
    }
    const uint64_t head = has_head_ ? 0 : target_.head.size();
    const bool too_large =
        target_.rotate_bytes != 0 && file_bytes_ + head + block_.size() > target_.rotate_bytes;
    const bool too_long = target_.rotate_ns != 0 && time_ns - file_first_ns_ >= target_.rotate_ns;
    if (!too_large && !too_long) {
        return;
    }
    const std::string record = block_.substr(block_.size() - record_size);
    block_.resize(block_.size() - record_size);
    flush();
    finish_file();
    try {
        open_next();
    } catch (const Failure& failure) {
        note_trouble(failure.what());
        broken_ = true;
    }
    block_ = record;
}

void RecordFiles::finish_file() {
    if (file_ == nullptr) {
        return;
    }
    try {
        file_->commit();
        names_.push_back(file_->target());
    } catch (const Failure& failure) {
        note_trouble(fmt::format("{}; what was recorded is in {}", failure.what(), file_->path()));
        unnamed_ = true;
        file_->keep();
    }
    file_.reset();
}

void RecordFiles::close(bool keep_empty) {
    flush();
    if (!keep_empty && records_ == 0) {
        file_.reset();
        return;
    }
    finish_file();
}

} // namespace vorn_cli
