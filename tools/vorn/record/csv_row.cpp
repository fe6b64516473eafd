#include "tools/vorn/record/csv_row.h"

#include "tools/session_report/recording.h"
#include "tools/vorn/record/two_decimals.h"

#include <charconv>
#include <cstring>

namespace vorn_cli {

namespace {

constexpr std::size_t kRowLevels = 5; // of the record's ten

constexpr std::size_t kIntegers = 18;
constexpr std::size_t kDoubles = 17;
constexpr std::size_t kLongestInteger = 11;
// With the comma or the line feed behind each.
constexpr std::size_t kLongestRow = kIntegers * (kLongestInteger + 1) +
                                    kDoubles * (kLongestTwoDecimals + 1) +
                                    sizeof(instrument::inst_id) + 1;

// Writes one row from its columns, each with a comma behind it.
class Row {
public:
    explicit Row(char* begin) : end_(begin) {}

    template <typename Integer>
    void integer(Integer value) {
        end_ = std::to_chars(end_, end_ + kLongestInteger, value).ptr;
        *end_++ = ',';
    }
    void two_decimals(double value) {
        end_ = put_two_decimals(end_, value);
        *end_++ = ',';
    }
    void text(const unsigned char* bytes, std::size_t most) { // ends at a zero byte
        const std::size_t length = strnlen(reinterpret_cast<const char*>(bytes), most);
        std::memcpy(end_, bytes, length);
        end_ += length;
        *end_++ = ',';
    }
    char* finish() { // the last comma gives way
        end_[-1] = '\n';
        return end_;
    }

private:
    char* end_;
};

} // namespace

std::string_view csv_header() {
    static const std::string header = std::string(session_report::kCsvHeader) + "\n";
    return header;
}

void append_csv_row(std::string& block, const instrument& record) {
    const instrument& r = record;
    char bytes[kLongestRow];
    Row row(bytes);
    row.integer(static_cast<uint32_t>(r.type));
    row.text(r.inst_id, sizeof(r.inst_id));
    row.integer(r.update_time);
    row.integer(static_cast<int32_t>(r.update_milli_sec));
    row.integer(static_cast<int32_t>(r.change_no));
    row.two_decimals(r.last_px);
    row.integer(static_cast<int32_t>(r.volume));
    row.two_decimals(r.turnover);
    row.two_decimals(r.open_interest);
    for (std::size_t level = 0; level < kRowLevels; ++level) {
        row.integer(static_cast<int32_t>(r.bid_vol[level]));
        row.two_decimals(r.bid_px[level]);
    }
    for (std::size_t level = 0; level < kRowLevels; ++level) {
        row.integer(static_cast<int32_t>(r.ask_vol[level]));
        row.two_decimals(r.ask_px[level]);
    }
    row.integer(static_cast<int32_t>(r.bid_totvol));
    row.two_decimals(r.bid_totamount);
    row.integer(static_cast<int32_t>(r.ask_totvol));
    row.two_decimals(r.ask_totamount);
    row.two_decimals(r.highest_price);
    row.two_decimals(r.lowest_price);
    block.append(bytes, static_cast<std::size_t>(row.finish() - bytes));
}

} // namespace vorn_cli
