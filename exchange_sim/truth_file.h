#pragma once

// The truth of a session as a file beside its capture: every change of every instrument with the
// whole record that it leaves, and the final records. Little-endian.
//
//   header   64 bytes: "VORNTRU1", u32 version, u32 instruments, u64 changes, u64 offset of the
//            final records, u64 seed, zeros
//   instruments, 24 bytes each: u32 number, u16 exchange (0 SHFE, 1 INE), u16 zero, char[16] id
//   changes, in the order in which they were made: u16 instrument (index into the above), u48 mask
//            of the 8-byte words of its record that changed (bit 0 is word 0), then those words
//   final records, 336 bytes each, in the order of the instruments
//
// A record of 336 bytes is 42 words; an instrument's first change starts from zeros. That takes
// about 60 bytes a change.

#include "exchange_sim/record_bytes.h"

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

namespace exchange_sim {

class Session;

struct TruthInstrument {
    uint32_t number = 0;
    uint16_t exchange = 0; // 0 SHFE, 1 INE
    std::string id;
};

class TruthWriter {
public:
    // Writes to a file that the caller has opened for writing and keeps open until finish(). Throws
    // std::runtime_error when it cannot be written, here and below.
    TruthWriter(std::FILE* file, const Session& session);

    // One change, in the order in which they are made.
    void change(std::size_t instrument, const ExpectedRecord& record);
    // The final records and the header. Nothing may be written afterwards.
    void finish();

    uint64_t changes() const { return changes_; }

private:
    void put(const void* bytes, std::size_t size);

    std::FILE* file_;
    uint64_t seed_;
    uint64_t changes_ = 0;
    uint64_t offset_ = 0;
    std::vector<RecordBytes> last_;
};

struct TruthChange {
    std::size_t instrument = 0;
    const RecordBytes* record = nullptr; // valid until the next call of next()
};

class TruthReader {
public:
    // Throws std::runtime_error with a text for the user when the file is no truth file or is not
    // whole.
    explicit TruthReader(const std::string& path);
    ~TruthReader();
    TruthReader(const TruthReader&) = delete;
    TruthReader& operator=(const TruthReader&) = delete;

    const std::vector<TruthInstrument>& instruments() const { return instruments_; }
    uint64_t changes() const { return changes_; }
    uint64_t seed() const { return seed_; }
    // By instrument, at the end of the session.
    const std::vector<RecordBytes>& final_records() const { return final_; }

    // The next change, or false after the last. Throws std::runtime_error on a damaged file.
    bool next(TruthChange& change);

private:
    void get(void* bytes, std::size_t size);

    std::string path_;
    std::FILE* file_ = nullptr;
    uint64_t seed_ = 0;
    uint64_t changes_ = 0;
    uint64_t read_ = 0;
    std::vector<TruthInstrument> instruments_;
    std::vector<RecordBytes> current_;
    std::vector<RecordBytes> final_;
};

} // namespace exchange_sim
