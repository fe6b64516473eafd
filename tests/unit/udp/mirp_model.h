#pragma once

// A second decoder for decode buffers, written from the rules of the incremental channel and from
// nothing else: it shares no header with the feed. The wire is read by byte offset, a record is
// this file's own structure, and record_image() lays it out byte by byte as consumers address it.
// The random test drives both decoders with the same buffers and compares everything they leave
// behind. Written to be compared with the rules line by line, not to be fast.

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace mirp_model {

constexpr std::size_t kRecordSize = 336;
constexpr int kDepth = 10; // entries of a side

struct Entry {
    double price = 0.0;
    int32_t volume = 0;
};
using BookSide = std::array<Entry, kDepth>;

struct Record {
    std::array<uint8_t, 16> id{};
    double last_price = 0.0;
    uint32_t volume = 0;
    uint32_t update_time = 0;
    uint16_t update_millisec = 0;
    uint16_t exchange_type = 0;
    uint32_t change_no = 0;
    double turnover = 0.0;
    double open_interest = 0.0;
    int32_t bid_total_volume = 0;
    int32_t ask_total_volume = 0;
    double bid_total_amount = 0.0;
    double ask_total_amount = 0.0;
    double highest_price = 0.0;
    double lowest_price = 0.0;
    BookSide bid{};
    BookSide ask{};
};

using RecordImage = std::array<uint8_t, kRecordSize>;
RecordImage record_image(const Record& record);

struct Scaling {
    double tick = 0.0;
    double codec_price = 0.0;
    int32_t volume_multiple = 0;
};

struct Settings {
    int16_t shfe_2ps_topic = 0;
    int16_t shfe_4ps_topic = 0;
    int16_t ine_2ps_topic = 0;
    int16_t ine_4ps_topic = 0;
    int8_t options = 0;
};

// How often each way through the decoder was taken, so that a test can tell whether its input
// reached it.
enum class Path {
    kShort,
    kUnknownTopic,
    kOutOfRange,
    kUnsubscribed,
    kOption,
    kOtherField,
    kStale,
    kGap,
    kBadBid,
    kBadAsk,
    kCrossed,
    kUncheckedTas,
    kApplied,
    // Within a message:
    kDeal,
    kBidTotals,
    kAskTotals,
    kHighest,
    kLowest,
    kAbnormalField,
    kBadLevel,
    kBadEvent,
    kBadEntryType,
    kInsertShifting,
    kInsertInPlace,
    kInsertAtFullDepth,
    kInsertKeepingDepth,
    kUpdate,
    kDelete,
    kDeleteBeyondDepth,
    kDeleteAtDepthZero,
    kCount
};

class Model {
public:
    explicit Model(const Settings& settings);

    // Applies one decode buffer and returns 1, 0 or -1.
    int32_t parse(const uint8_t* packet, uint32_t len);

    std::map<uint32_t, Record> records;   // by slot; a slot that is missing is all zero
    std::map<uint32_t, Scaling> scalings; // by slot
    uint32_t slot = 0;                    // of the last message that named one
    int32_t shfe_packet_no = 0;
    int32_t ine_packet_no = 0;
    uint32_t snap_time_register = 0;
    uint64_t snap_time_stores = 0;
    bool keep_log = false;
    std::vector<std::string> log; // "E ExanicUdpFunc _ParseMirp packet length too small: 7"
    std::array<uint64_t, static_cast<std::size_t>(Path::kCount)> taken{};

private:
    void took(Path path) { ++taken[static_cast<std::size_t>(path)]; }
    void line(char level, const char* format, ...) __attribute__((format(printf, 3, 4)));
    void apply_fields(Record& record, const Scaling& scaling, const uint8_t* packet, uint32_t len);
    void apply_price_change(Record& record, const Scaling& scaling, const uint8_t* field,
                            int& bid_depth, int& ask_depth);
    bool book_is_good(const Record& record);

    Settings settings_;
    bool warn_shfe_ = true;
    bool warn_ine_ = true;
};

} // namespace mirp_model
