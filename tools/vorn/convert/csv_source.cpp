// Rows of a CSV recording.

#include "tools/session_report/recording.h"
#include "tools/vorn/convert/csv_event.h"
#include "tools/vorn/convert/row_sources.h"
#include "tools/vorn/exit_code.h"
#include "tools/vorn/run_flag.h"

#include <cerrno>
#include <charconv>
#include <cstring>
#include <fmt/format.h>
#include <fstream>
#include <unordered_map>
#include <vector>

namespace vorn_cli {

namespace {

constexpr std::size_t kCsvLevels = 5; // of the record's ten
constexpr std::size_t kReadSize = std::size_t{1} << 20;

// The columns of one line, in order. After the first that is not as it must be nothing is read any
// more.
class Columns {
public:
    explicit Columns(std::string_view line) : rest_(line) {}

    template <typename Number>
    void number(Number& value) {
        const std::string_view text = next();
        const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
        if (error != std::errc() || end != text.data() + text.size()) {
            fail("is no number");
        }
    }
    // The recorder writes unsigned members as signed ones.
    void wrapped(uint32_t& value) {
        int32_t number_read = 0;
        number(number_read);
        value = static_cast<uint32_t>(number_read);
    }
    void identifier(unsigned char (&to)[16]) {
        const std::string_view text = next();
        if (text.size() >= sizeof(to)) {
            fail("is longer than 15 characters");
        } else {
            text.copy(reinterpret_cast<char*>(to), text.size()); // which may be none
        }
    }
    // What is wrong, or nothing.
    std::string finish() {
        if (problem_.empty() && !ended_) {
            return fmt::format("it has more than {} columns", count_);
        }
        return problem_;
    }

private:
    std::string_view next() {
        ++count_;
        if (ended_) {
            if (problem_.empty()) {
                problem_ = fmt::format("it has {} columns instead of {}", count_ - 1,
                                       session_report::kCsvColumns);
            }
            return {};
        }
        const std::size_t comma = rest_.find(',');
        text_ = rest_.substr(0, comma);
        ended_ = comma == std::string_view::npos;
        rest_ = ended_ ? std::string_view() : rest_.substr(comma + 1);
        return text_;
    }
    void fail(const char* what) {
        if (problem_.empty()) {
            problem_ = fmt::format("column {}, '{}', {}", count_, text_.substr(0, 32), what);
        }
    }

    std::string_view rest_;
    std::string_view text_;
    bool ended_ = false;
    std::size_t count_ = 0;
    std::string problem_;
};

std::string parse(std::string_view line, instrument& r) {
    r = {};
    Columns columns(line);
    columns.number(r.type);
    columns.identifier(r.inst_id);
    columns.number(r.update_time);
    columns.number(r.update_milli_sec);
    columns.wrapped(r.change_no);
    columns.number(r.last_px);
    columns.wrapped(r.volume);
    columns.number(r.turnover);
    columns.number(r.open_interest);
    for (std::size_t level = 0; level < kCsvLevels; ++level) {
        columns.number(r.bid_vol[level]);
        columns.number(r.bid_px[level]);
    }
    for (std::size_t level = 0; level < kCsvLevels; ++level) {
        columns.number(r.ask_vol[level]);
        columns.number(r.ask_px[level]);
    }
    columns.number(r.bid_totvol);
    columns.number(r.bid_totamount);
    columns.number(r.ask_totvol);
    columns.number(r.ask_totamount);
    columns.number(r.highest_price);
    columns.number(r.lowest_price);
    return columns.finish();
}

// Finds where change numbers skip. A restart explains a skip: the feed has a new snapshot behind
// it.
class SkipFinder {
public:
    void event() { ++restarts_; }
    // Whether the row is not the one behind the last of its instrument; `expected` is its number.
    bool skips(const instrument& record, uint32_t& expected) {
        const auto* const inst_id = reinterpret_cast<const char*>(record.inst_id);
        Last& last = last_[std::string(inst_id, strnlen(inst_id, sizeof(record.inst_id)))];
        expected = last.change_no + 1;
        const bool skip = last.seen && last.restarts == restarts_ && record.change_no != expected;
        last = {record.change_no, restarts_, true};
        return skip;
    }

private:
    struct Last {
        uint32_t change_no = 0;
        uint64_t restarts = 0;
        bool seen = false;
    };
    std::unordered_map<std::string, Last> last_;
    uint64_t restarts_ = 0;
};

class CsvRows {
public:
    explicit CsvRows(RowTaker& taker) : taker_(taker) {}

    // Returns what is wrong with the line, or nothing.
    std::string take(std::string_view line) {
        instrument record;
        std::string problem = parse(line, record);
        if (!problem.empty()) {
            return problem;
        }
        if (record.type >= kCsvEventType) {
            const ResearchRow event = event_of_csv_record(record);
            if (event.event == VORN_MD_EVENT_RESTART ||
                event.event == static_cast<uint16_t>(RowEvent::kLost) ||
                event.event == static_cast<uint16_t>(RowEvent::kSkip)) {
                skips_.event();
            }
            taker_.put(event);
            return {};
        }
        ResearchRow row = update_row(record, kNoRowSlot);
        row.flags = kRowFromCsv;
        row.receive_time_ns = csv_time_ns(record);
        uint32_t expected = 0;
        if (skips_.skips(record, expected)) {
            ResearchRow skip = event_row(RowEvent::kSkip);
            skip.flags |= kRowFromCsv;
            skip.receive_time_ns = row.receive_time_ns;
            skip.expected = expected;
            skip.received = record.change_no;
            std::memcpy(skip.record.inst_id, record.inst_id, sizeof(record.inst_id));
            taker_.put(skip);
        }
        taker_.put(row);
        return {};
    }

private:
    RowTaker& taker_;
    SkipFinder skips_;
};

} // namespace

SourceEnd rows_of_csv(const std::string& path, RowTaker& taker) {
    std::vector<char> buffer(kReadSize);
    std::ifstream file;
    file.rdbuf()->pubsetbuf(buffer.data(), static_cast<std::streamsize>(buffer.size()));
    file.open(path, std::ios::binary);
    std::string line;
    if (!file || !std::getline(file, line)) {
        throw Failure(kFailed, fmt::format("cannot read {}: {}", path, std::strerror(errno)));
    }
    if (line != session_report::kCsvHeader) {
        throw Failure(kFailed, fmt::format("{} is not a recording: its first line is not the "
                                           "recorder's header",
                                           path));
    }
    const RunFlag run;
    CsvRows rows(taker);
    SourceEnd end;
    for (uint64_t number = 2; !taker.done() && std::getline(file, line); ++number) {
        if (!run.running()) {
            end.interrupted = true;
            break;
        }
        if (file.eof()) {
            end.remark =
                fmt::format("{} ends in the middle of line {}, which is left out", path, number);
            break;
        }
        const std::string problem = rows.take(line);
        if (!problem.empty()) {
            throw Failure(kFailed, fmt::format("{}, line {}: {}", path, number, problem));
        }
    }
    return end;
}

} // namespace vorn_cli
