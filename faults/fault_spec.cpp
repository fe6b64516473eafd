#include "faults/fault_spec.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>

namespace faults {

namespace {

constexpr double kLongestSeconds = 1e9;

constexpr std::array kKinds = {
    KindInfo{Kind::kGap, "gap", "a change is lost on both lines"},
    KindInfo{Kind::kDuplicate, "duplicate", "a datagram arrives twice"},
    KindInfo{Kind::kReorder, "reorder", "a change arrives behind its instrument's next one"},
    KindInfo{Kind::kLineALoss, "line-a-loss", "line A loses COUNT datagrams in a row"},
    KindInfo{Kind::kLineBLoss, "line-b-loss", "line B loses COUNT datagrams in a row"},
    KindInfo{Kind::kOverflow, "overflow", "the card's reader is lapped and loses COUNT frames"},
    KindInfo{Kind::kBadChecksum, "bad-checksum", "a snapshot segment arrives with a flipped bit"},
    KindInfo{Kind::kTruncate, "truncate", "a change is cut inside its header, on both lines"},
    KindInfo{Kind::kTcpLoss, "tcp-loss", "a snapshot segment is lost"},
    KindInfo{Kind::kTcpReorder, "tcp-reorder", "a snapshot segment is overtaken by one to three"},
    KindInfo{Kind::kTcpDuplicate, "tcp-duplicate", "a snapshot segment arrives twice"},
    KindInfo{Kind::kRstAck, "rst-ack", "an RST+ACK with payload in a snapshot stream"},
    KindInfo{Kind::kBadBook, "bad-book", "a change leaves a crossed book, on both lines"},
    KindInfo{Kind::kPriceCheck, "price-check", "a price beyond its limit in a snapshot round"},
    KindInfo{Kind::kWrongTopic, "wrong-topic", "an extra datagram of a topic nobody knows"},
    KindInfo{Kind::kUnknownField, "unknown-field",
             "fields that nobody knows in a round and in a change"},
    KindInfo{Kind::kBigNumber, "big-number", "an extra change of an instrument beyond all limits"},
    KindInfo{Kind::kLateSnapshot, "late-snapshot", "a snapshot round arrives 100 ms late"},
};

std::string quoted(std::string_view text) {
    return "\"" + std::string(text) + "\"";
}

// Insertions, deletions and replacements that lead from one to the other.
std::size_t distance(std::string_view a, std::string_view b) {
    std::vector<std::size_t> row(b.size() + 1);
    for (std::size_t j = 0; j <= b.size(); ++j) {
        row[j] = j;
    }
    for (std::size_t i = 1; i <= a.size(); ++i) {
        std::size_t diagonal = row[0];
        row[0] = i;
        for (std::size_t j = 1; j <= b.size(); ++j) {
            const std::size_t replace = diagonal + (a[i - 1] == b[j - 1] ? 0 : 1);
            diagonal = row[j];
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, replace});
        }
    }
    return row[b.size()];
}

std::string unknown_kind(std::string_view name) {
    constexpr std::size_t kLongestName = 32; // nobody mistypes a page
    std::string text = "unknown fault " + quoted(name);
    if (name.size() <= kLongestName) {
        const auto nearer = [name](const KindInfo& a, const KindInfo& b) {
            return distance(name, a.name) < distance(name, b.name);
        };
        const KindInfo& best = *std::min_element(kKinds.begin(), kKinds.end(), nearer);
        if (distance(name, best.name) <= std::max<std::size_t>(name.size() / 3, 1)) {
            text += ", did you mean " + std::string(best.name) + "?";
        }
    }
    text += "; there are";
    for (const KindInfo& info : kKinds) {
        text += std::string(info.kind == kKinds.front().kind ? " " : ", ") + info.name;
    }
    return text;
}

template <typename Number>
bool parse_number(std::string_view text, Number& number) {
    const char* const end = text.data() + text.size();
    const auto [stop, status] = std::from_chars(text.data(), end, number);
    return !text.empty() && status == std::errc() && stop == end;
}

bool parse_time(std::string_view text, FaultSpec& spec) {
    double seconds = 0;
    if (!parse_number(text, seconds) || !(seconds >= 0 && seconds <= kLongestSeconds)) {
        return false;
    }
    spec.at_ns = static_cast<uint64_t>(std::llround(seconds * 1e9));
    return true;
}

bool parse_fault(std::string_view text, FaultSpec& spec, std::string& error) {
    const std::size_t colon = std::min(text.find(':'), text.size());
    const std::size_t at = std::min(text.find('@'), text.size());
    const std::string_view name = text.substr(0, std::min(at, colon));
    const auto found = std::find_if(kKinds.begin(), kKinds.end(),
                                    [name](const KindInfo& info) { return info.name == name; });
    if (found == kKinds.end()) {
        error = unknown_kind(name);
        return false;
    }
    spec.kind = found->kind;
    if (at > colon && at != text.size()) {
        error = "fault " + quoted(text) + ": the time comes before the count, as in " +
                found->name + "@2.5:3";
        return false;
    }
    if (at != text.size() && !parse_time(text.substr(at + 1, colon - at - 1), spec)) {
        error = "fault " + quoted(text) + ": behind @ stand seconds from the first frame, as in " +
                found->name + "@2.5";
        return false;
    }
    if (colon != text.size() &&
        (!parse_number(text.substr(colon + 1), spec.count) || spec.count == 0)) {
        error = "fault " + quoted(text) + ": behind : stands a whole number from 1, as in " +
                found->name + ":3";
        return false;
    }
    return true;
}

} // namespace

std::span<const KindInfo> all_kinds() {
    return kKinds;
}

const char* name_of(Kind kind) {
    return kKinds[static_cast<std::size_t>(kind)].name;
}

bool fits_into_a_capture(Kind kind) {
    return kind != Kind::kOverflow;
}

bool parse_faults(std::string_view text, std::vector<FaultSpec>& faults, std::string& error) {
    for (;;) {
        const std::size_t plus = std::min(text.find('+'), text.size());
        FaultSpec spec;
        if (!parse_fault(text.substr(0, plus), spec, error)) {
            return false;
        }
        faults.push_back(spec);
        if (plus == text.size()) {
            return true;
        }
        text.remove_prefix(plus + 1);
    }
}

} // namespace faults
