#pragma once

// The files of a recording: whole records, written in blocks, in one file or in numbered ones.
//
// A file is NAME.part until it is finished. Whatever happens, what stands in it are whole records,
// but for the last block of a process that was killed: when the disk takes only a part of a block,
// the file is cut back to the last whole record, what did not fit is counted, and the next block is
// tried again, so that the recording goes on once there is room.
//
// One thread. After the constructor nothing throws: a recording must not take the feed down.

#include "tools/vorn/part_file.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace vorn_cli {

struct RecordTarget {
    std::string path; // "session.pcap"; with rotation "session.0001.pcap" and so on
    bool force = false;
    std::string head;          // of every file
    uint64_t rotate_bytes = 0; // no file becomes larger; 0: no bound
    uint64_t rotate_ns = 0;    // no file holds more than this by its time stamps; 0: no bound
    bool rotates() const { return rotate_bytes != 0 || rotate_ns != 0; }
};

class RecordFiles {
public:
    static constexpr std::size_t kBlockSize = std::size_t{256} * 1024;
    static constexpr std::chrono::milliseconds kBlockAge{100};

    // Makes the first file. Throws Failure: it exists, or a .part of an earlier recording does (and
    // not `force`), or it cannot be written.
    explicit RecordFiles(RecordTarget target);

    // Told of the first trouble when it comes, on the thread that writes.
    void on_trouble(std::function<void(const std::string&)> tell) { tell_ = std::move(tell); }

    // The record's bytes are appended to the block that begin_record() returns.
    std::string& begin_record(uint64_t time_ns);
    void end_record();

    void flush();
    void flush_if_due(); // when the oldest record of the block has waited for kBlockAge
    // Finishes the last file, or removes it when the recording holds nothing and `keep_empty` is
    // false.
    void close(bool keep_empty = true);

    uint64_t records() const { return records_; } // in files
    uint64_t lost() const { return lost_; }
    uint64_t bytes() const { return bytes_; }
    const std::vector<std::string>& names() const { return names_; } // finished files
    // Of the first block that did not fit; empty if there was none.
    const std::string& trouble() const { return trouble_; }
    // A file could not get its name; its .part stays.
    bool unnamed() const { return unnamed_; }

private:
    using Clock = std::chrono::steady_clock;

    std::string name_of(unsigned number) const;
    void refuse_leftovers() const;
    void open_next();
    void finish_file();
    bool write_head();
    std::size_t write_some(std::string_view bytes, int& reason);
    void cut_back(std::size_t written);
    void note_trouble(const std::string& text);
    void rotate_if_due(uint64_t time_ns, std::size_t record_size);

    const RecordTarget target_;
    std::unique_ptr<PartFile> file_;
    unsigned number_ = 0;
    bool direct_ = false; // no regular file: cannot be cut back
    bool unnamed_ = false;
    bool broken_ = false; // nothing can be written any more
    bool has_head_ = false;
    uint64_t file_bytes_ = 0; // whole records and head in the current file
    uint64_t file_records_ = 0;
    uint64_t file_first_ns_ = 0;

    std::string block_;
    std::vector<std::size_t> ends_; // of the block's records
    uint64_t record_time_ns_ = 0;
    Clock::time_point block_since_{};

    uint64_t records_ = 0;
    uint64_t lost_ = 0;
    uint64_t bytes_ = 0;
    std::vector<std::string> names_;
    std::string trouble_;
    std::function<void(const std::string&)> tell_;
};

} // namespace vorn_cli
