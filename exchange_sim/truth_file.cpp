#include "exchange_sim/truth_file.h"

#include "exchange_sim/session.h"
#include "wirekit/bytes.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace exchange_sim {

namespace {

using wirekit::get_le16;
using wirekit::get_le32;
using wirekit::get_le64;
using wirekit::put_le16;
using wirekit::put_le32;
using wirekit::put_le64;

constexpr char kMagic[8] = {'V', 'O', 'R', 'N', 'T', 'R', 'U', '1'};
constexpr uint32_t kVersion = 1;
constexpr std::size_t kHeaderSize = 64;
constexpr std::size_t kInstrumentSize = 24;
constexpr std::size_t kIdSize = 16;
constexpr std::size_t kWords = kRecordSize / 8;
constexpr std::size_t kChangeHead = 8; // u16 instrument, u48 mask
constexpr uint32_t kMostInstruments = 20480;

} // namespace

TruthWriter::TruthWriter(std::FILE* file, const Session& session)
    : file_(file), seed_(session.options().seed), last_(session.instruments().size()) {
    const uint8_t header[kHeaderSize] = {}; // written by finish()
    put(header, sizeof(header));
    for (const Instrument& instrument : session.instruments()) {
        uint8_t entry[kInstrumentSize] = {};
        put_le32(entry, instrument.number);
        put_le16(entry + 4, instrument.exchange == Exchange::kShfe ? 0 : 1);
        wirekit::put_text(entry + 8, kIdSize, instrument.id);
        put(entry, sizeof(entry));
    }
}

void TruthWriter::change(std::size_t instrument, const ExpectedRecord& record) {
    const RecordBytes bytes = record_bytes(record);
    RecordBytes& last = last_[instrument];
    uint8_t entry[kChangeHead + kRecordSize];
    std::size_t size = kChangeHead;
    uint64_t mask = 0;
    for (std::size_t word = 0; word < kWords; ++word) {
        if (std::memcmp(&bytes[8 * word], &last[8 * word], 8) != 0) {
            mask |= uint64_t{1} << word;
            std::memcpy(entry + size, &bytes[8 * word], 8);
            size += 8;
        }
    }
    put_le64(entry, mask << 16 | instrument);
    put(entry, size);
    last = bytes;
    ++changes_;
}

void TruthWriter::finish() {
    const uint64_t final_offset = offset_;
    for (const RecordBytes& record : last_) {
        put(record.data(), record.size());
    }
    uint8_t header[kHeaderSize] = {};
    std::memcpy(header, kMagic, sizeof(kMagic));
    put_le32(header + 8, kVersion);
    put_le32(header + 12, static_cast<uint32_t>(last_.size()));
    put_le64(header + 16, changes_);
    put_le64(header + 24, final_offset);
    put_le64(header + 32, seed_);
    if (std::fseek(file_, 0, SEEK_SET) != 0) {
        throw std::runtime_error(std::string("cannot seek in the truth file: ") +
                                 std::strerror(errno));
    }
    put(header, sizeof(header));
    if (std::fflush(file_) != 0) {
        throw std::runtime_error(std::string("cannot write the truth file: ") +
                                 std::strerror(errno));
    }
}

void TruthWriter::put(const void* bytes, std::size_t size) {
    if (std::fwrite(bytes, 1, size, file_) != size) {
        throw std::runtime_error(std::string("cannot write the truth file: ") +
                                 std::strerror(errno));
    }
    offset_ += size;
}

TruthReader::TruthReader(const std::string& path) : path_(path) {
    file_ = std::fopen(path.c_str(), "rb");
    if (file_ == nullptr) {
        throw std::runtime_error("cannot read " + path + ": " + std::strerror(errno));
    }
    try {
        uint8_t header[kHeaderSize];
        get(header, sizeof(header));
        const uint32_t count = get_le32(header + 12);
        const uint64_t final_offset = get_le64(header + 24);
        if (std::memcmp(header, kMagic, sizeof(kMagic)) != 0 || get_le32(header + 8) != kVersion ||
            count > kMostInstruments) {
            throw std::runtime_error(path + " is not a truth file of this version");
        }
        changes_ = get_le64(header + 16);
        seed_ = get_le64(header + 32);
        for (uint32_t i = 0; i < count; ++i) {
            uint8_t entry[kInstrumentSize];
            get(entry, sizeof(entry));
            const char* id = reinterpret_cast<const char*>(entry + 8);
            instruments_.push_back(
                {get_le32(entry), get_le16(entry + 4), std::string(id, strnlen(id, kIdSize))});
        }
        const long changes_begin = std::ftell(file_);
        current_.resize(count);
        final_.resize(count);
        if (final_offset > static_cast<uint64_t>(INT64_MAX) ||
            fseeko(file_, static_cast<off_t>(final_offset), SEEK_SET) != 0) {
            throw std::runtime_error(path + " is damaged: it names no place for its end");
        }
        for (RecordBytes& record : final_) {
            get(record.data(), record.size());
        }
        if (std::fseek(file_, changes_begin, SEEK_SET) != 0) {
            throw std::runtime_error("cannot seek in " + path + ": " + std::strerror(errno));
        }
    } catch (...) {
        std::fclose(file_);
        throw;
    }
}

TruthReader::~TruthReader() {
    std::fclose(file_);
}

bool TruthReader::next(TruthChange& change) {
    if (read_ == changes_) {
        return false;
    }
    uint8_t head[kChangeHead];
    get(head, sizeof(head));
    const uint64_t packed = get_le64(head);
    const std::size_t instrument = packed & 0xFFFF;
    const uint64_t mask = packed >> 16;
    if (instrument >= current_.size() || mask >> kWords != 0) {
        throw std::runtime_error(path_ + " is damaged: change " + std::to_string(read_ + 1) +
                                 " names no instrument or no word of a record");
    }
    RecordBytes& record = current_[instrument];
    for (uint64_t left = mask; left != 0; left &= left - 1) {
        get(&record[8 * static_cast<std::size_t>(std::countr_zero(left))], 8);
    }
    ++read_;
    change.instrument = instrument;
    change.record = &record;
    return true;
}

void TruthReader::get(void* bytes, std::size_t size) {
    if (std::fread(bytes, 1, size, file_) != size) {
        if (std::ferror(file_) != 0) {
            throw std::runtime_error("cannot read " + path_ + ": " + std::strerror(errno));
        }
        throw std::runtime_error(path_ + " is no whole truth file: it ends too early");
    }
}

} // namespace exchange_sim
