#pragma once

// Rows as an array of numpy: a header of 4096 bytes that names the columns and says how many rows
// there are, then the rows.
//
// The count in the header is never larger than what the file holds: rows are written first, the
// header after them, step by step. So a process that is killed leaves a NAME.npy.part that
// numpy.load takes as it is, short of at most the rows that had not been written.

#include "tools/vorn/convert/research_row.h"
#include "tools/vorn/part_file.h"

#include <cstdint>
#include <string>
#include <vector>

namespace vorn_cli {

inline constexpr std::size_t kNpyHeaderSize = 4096;

// The header for so many rows: kNpyHeaderSize bytes.
std::string npy_header(uint64_t rows);

class NpyFile {
public:
    // Writes TARGET.part. Throws Failure, here and below.
    NpyFile(const std::string& target, bool force);

    void put(const ResearchRow& row) {
        waiting_.push_back(row);
        if (waiting_.size() == kStep) {
            flush();
        }
    }
    // Everything put so far is in the file, and its header says so.
    void flush();
    // Flushes and gives the file its name.
    void commit();
    // Leaves TARGET.part behind, with the rows that were flushed.
    void keep() { file_.keep(); }

    uint64_t rows() const { return written_ + waiting_.size(); }
    uint64_t rows_in_file() const { return written_; }
    uint64_t bytes() const { return kNpyHeaderSize + written_ * sizeof(ResearchRow); }
    const std::string& path() const { return file_.path(); } // TARGET.part until commit()

private:
    static constexpr std::size_t kStep = 1024; // rows written at once

    void write_at(const char* bytes, std::size_t size, uint64_t offset);

    PartFile file_;
    std::vector<ResearchRow> waiting_;
    uint64_t written_ = 0;
};

// Such a file, mapped. Throws Failure when it is none, or not as this program writes them.
class NpyRows {
public:
    explicit NpyRows(const std::string& path);
    ~NpyRows();
    NpyRows(const NpyRows&) = delete;
    NpyRows& operator=(const NpyRows&) = delete;

    std::span<const ResearchRow> rows() const { return rows_; }

private:
    void* address_ = nullptr;
    std::size_t size_ = 0;
    std::span<const ResearchRow> rows_;
};

} // namespace vorn_cli
