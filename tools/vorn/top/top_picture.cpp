#include "tools/vorn/top/top_picture.h"

#include "tools/vorn/feed/feed_text.h"
#include "tools/vorn/top/top_ladder.h"
#include "tools/vorn/top/top_text.h"

#include <algorithm>
#include <cctype>
#include <fmt/format.h>

namespace vorn_cli {

namespace {

constexpr int kGap = 3;              // columns between two things in the status
constexpr int kLeastTwoColumns = 36; // width from which list and ladder are beside each other
constexpr int kLeastThreeColumns = 120;
constexpr int kLeastForEvents = 18; // height of the body from which events are below the list

Style style_of(FeedState state) {
    switch (state) {
    case FeedState::kLive:
        return Style::kGood;
    case FeedState::kDead:
        return Style::kBad;
    case FeedState::kStopped:
        return Style::kBold;
    case FeedState::kLoading:
    case FeedState::kStale:
    case FeedState::kAbsent:
        break;
    }
    return Style::kWarning;
}

std::string upper(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    return text;
}

std::string spaced(std::string text) {
    std::replace(text.begin(), text.end(), '_', ' ');
    return text;
}

// --- Status

struct Item {
    std::string label;
    std::string value;
    Style style = Style::kBold;
};

Item counted(const char* label, uint64_t count, Style style_if_any) {
    return {label, grouped(count), count > 0 ? style_if_any : Style::kBold};
}

uint64_t since_epoch(const FeedStatus& status, uint64_t time_ns) {
    return time_ns == 0 ? 0 : time_ns + static_cast<uint64_t>(status.realtime_offset_ns);
}

// What matters most comes first: what finds no room is left out.
std::vector<Item> status_items(const FeedStatus& status) {
    std::vector<Item> items;
    const uint64_t since = status.phase_since_ns;
    items.push_back({"phase", spaced(feed_phase_name(status.phase)) +
                                  (since != 0 && status.time_ns > since
                                       ? " for " + duration_text(status.time_ns - since)
                                       : std::string())});
    const bool stale = status.state == FeedState::kStale || status.state == FeedState::kDead;
    items.push_back(
        {"last update",
         status.last_update_ns == 0 ? std::string("none") : duration_text(status.age_ns) + " ago",
         stale ? style_of(status.state) : Style::kBold});
    items.push_back({"updates/s", rate_text(status.updates_per_s)});
    items.push_back({"frames/s", rate_text(status.frames_per_s)});
    if (!status.has_counters) {
        return items;
    }
    const vorn_md_counters_t& counters = status.counters;
    items.push_back(counted("gaps", counters.gaps, Style::kWarning));
    items.push_back(counted("restarts", counters.restarts, Style::kWarning));
    items.push_back(counted("dropped", counters.overflows + counters.cache_dropped, Style::kBad));
    items.push_back({"cached", grouped(counters.cached)});
    items.push_back({"replayed", grouped(counters.replayed)});
    if (const vorn_md_gap_t& gap = counters.last_gap; gap.time_ns != 0) {
        items.push_back(
            {"last gap", fmt::format("{} expected {}, came {} at {}", instrument_text(gap.inst_id),
                                     gap.expected, gap.received,
                                     clock_text(since_epoch(status, gap.time_ns)))});
    }
    items.push_back({"updates", grouped(counters.updates)});
    items.push_back({"stale", grouped(counters.stale)});
    items.push_back({"unsubscribed", grouped(counters.unsubscribed)});
    items.push_back(counted("restored books", counters.restored_books, Style::kWarning));
    items.push_back(counted("refused", counters.refused, Style::kWarning));
    items.push_back({"writer", fmt::format("{}, run {}", status.writer_pid, status.generation)});
    if (status.ring_lost > 0) {
        items.push_back({"not seen here", grouped(status.ring_lost), Style::kWarning});
    }
    return items;
}

// Returns the row behind the last one used. `begin` and `end` are rows.
int draw_status(Screen& screen, int begin, int end, const FeedStatus& status) {
    int row = begin;
    int column = 0;
    for (const Item& item : status_items(status)) {
        const int length = static_cast<int>(item.label.size() + 1 + item.value.size());
        if (length > screen.width()) {
            continue;
        }
        if (column + length > screen.width()) {
            ++row;
            column = 0;
        }
        if (row >= end) {
            return end;
        }
        screen.put(row, column, item.label, Style::kDim);
        screen.put(row, column + static_cast<int>(item.label.size()) + 1, item.value, item.style);
        column += length + kGap;
    }
    return row + 1;
}

void draw_title(Screen& screen, const FeedStatus& status) {
    const std::string clock = clock_text(status.time_ns);
    int column = screen.put(0, 0, "vorn top", Style::kBold) + 2;
    column = screen.put(0, column, upper(feed_state_name(status.state)), style_of(status.state));
    const int room = screen.width() - static_cast<int>(clock.size()) - 1;
    if (column < room) {
        screen.put_right(0, room + 1, screen.width(), clock, Style::kDim);
    }
    screen.put(0, column + 2, std::max(room, column), "bus " + status.bus);
}

// --- Body

void draw_rule(Screen& screen, int row, bool unicode) {
    for (int column = 0; column < screen.width(); ++column) {
        screen.put_glyph(row, column, unicode ? U'\u2500' : U'-', Style::kDim);
    }
}

void draw_divider(Screen& screen, const Area& body, int column, bool unicode, bool has_rule) {
    for (int row = body.top; row < body.bottom; ++row) {
        screen.put_glyph(row, column, unicode ? U'\u2502' : U'|', Style::kDim);
    }
    if (has_rule) {
        screen.put_glyph(body.top - 1, column, unicode ? U'\u252C' : U'+', Style::kDim);
    }
}

void draw_list(Screen& screen, const Area& area, const TopModel& model) {
    const std::string heading = model.searching   ? "/" + model.search
                                : model.automatic ? "busiest"
                                                  : "instruments";
    screen.put(area.top, area.left + 1, area.right, heading, Style::kBold);
    screen.put_right(area.top, area.left + 1 + static_cast<int>(heading.size()) + 1, area.right,
                     grouped(model.rows.size()), Style::kDim);
    const int room = area.height() - 1;
    const int rows = static_cast<int>(model.rows.size());
    const int chosen = static_cast<int>(model.chosen);
    const int first = std::clamp(chosen - room / 2, 0, std::max(rows - room, 0));
    for (int i = first; i < std::min(rows, first + room); ++i) {
        const TopRow& line = model.rows[static_cast<std::size_t>(i)];
        const int row = area.top + 1 + i - first;
        const std::string rate =
            line.updates_per_s > 0 ? rate_text(line.updates_per_s) + "/s" : std::string();
        const bool is_shown = i == chosen && model.shown.has_value();
        const int column =
            screen.put(row, area.left + 1, area.right, line.inst_id, Style::kPlain) + 1;
        screen.put_right(row, column, area.right, rate, Style::kPlain);
        if (is_shown) {
            screen.put(row, area.left, ">");
            screen.restyle(row, area.left, area.right, Style::kChosen);
        }
    }
    if (rows == 0 && room > 0) {
        screen.put(area.top + 1, area.left + 1, area.right,
                   model.searching ? "nothing found" : "none yet", Style::kDim);
    }
}

std::string event_text(const FeedEvent& event) {
    switch (event.kind) {
    case FeedEventKind::kPhase:
        return "phase " + spaced(feed_phase_name(event.phase));
    case FeedEventKind::kGap:
        return fmt::format("gap {}: {} for {}", event.inst_id, event.received, event.expected);
    case FeedEventKind::kRestart:
        return "restart " + grouped(event.count);
    case FeedEventKind::kRound:
        return fmt::format("{} loaded, {}", spaced(feed_name(event.feed)), grouped(event.count));
    case FeedEventKind::kOverflow:
        return "overflow " + grouped(event.count);
    case FeedEventKind::kOpened:
        return "writer's run " + grouped(event.count);
    case FeedEventKind::kDead:
        return "writer has died";
    case FeedEventKind::kClosed:
        return "writer has ended";
    case FeedEventKind::kRevived:
        return "writer is back";
    }
    return {};
}

Style style_of(FeedEventKind kind) {
    switch (kind) {
    case FeedEventKind::kGap:
    case FeedEventKind::kRestart:
        return Style::kWarning;
    case FeedEventKind::kOverflow:
    case FeedEventKind::kDead:
        return Style::kBad;
    default:
        return Style::kPlain;
    }
}

void draw_events(Screen& screen, const Area& area, const TopModel& model) {
    screen.put(area.top, area.left + 1, area.right, "events", Style::kBold);
    int row = area.top + 1;
    for (const FeedEvent& event : model.events) {
        if (row >= area.bottom) {
            break;
        }
        const int column =
            screen.put(row, area.left + 1, area.right, clock_text(event.time_ns), Style::kDim) + 1;
        screen.put(row++, column, area.right, event_text(event), style_of(event.kind));
    }
}

void draw_shown(Screen& screen, const Area& area, const TopModel& model, bool unicode) {
    if (model.shown) {
        draw_ladder(screen, area, *model.shown, unicode);
    } else {
        screen.put(area.top, area.left + 1, area.right, "no instrument", Style::kDim);
    }
}

// Beside each other: list, ladder, and events where there is room for a third; else the events are
// below the list, or nowhere.
void draw_body(Screen& screen, const Area& body, const TopModel& model,
               const PictureOptions& options, bool has_rule) {
    const bool third = body.width() >= kLeastThreeColumns;
    const int list_width = third ? 34 : std::clamp(body.width() * 2 / 5, 14, 34);
    Area list = {body.top, body.left, body.bottom, body.left + list_width};
    Area ladder = {body.top, list.right + 1, body.bottom, body.right};
    draw_divider(screen, body, list.right, options.unicode, has_rule);
    if (third) {
        const Area events = {body.top, body.right - 42, body.bottom, body.right};
        ladder.right = events.left - 1;
        draw_divider(screen, body, ladder.right, options.unicode, has_rule);
        draw_events(screen, events, model);
    } else if (body.height() >= kLeastForEvents) {
        const Area events = {body.bottom - body.height() / 3, list.left, body.bottom, list.right};
        list.bottom = events.top - 1;
        draw_events(screen, events, model);
    }
    draw_list(screen, list, model);
    draw_shown(screen, ladder, model, options.unicode);
}

void draw_narrow_body(Screen& screen, const Area& body, const TopModel& model,
                      const PictureOptions& options) {
    if (model.searching) {
        draw_list(screen, body, model);
    } else {
        draw_shown(screen, body, model, options.unicode);
    }
}

// What is wrong with a bus that cannot be opened, word by word into the area.
void draw_problem(Screen& screen, const Area& area, const std::string& problem) {
    int row = area.top;
    int column = area.left;
    std::size_t at = 0;
    while (at < problem.size()) {
        const std::size_t end = std::min(problem.find(' ', at), problem.size());
        const std::string word = problem.substr(at, end - at);
        if (column > area.left && column + static_cast<int>(word.size()) > area.right) {
            ++row;
            column = area.left;
        }
        if (row >= area.bottom) {
            return;
        }
        column = screen.put(row, column, area.right, word) + 1;
        at = end + 1;
    }
    if (row + 2 < area.bottom) {
        screen.put(row + 2, area.left, area.right, "waiting for it", Style::kDim);
    }
}

void draw_keys(Screen& screen, const TopModel& model) {
    struct KeyHelp {
        const char* key;
        const char* meaning;
    };
    static constexpr KeyHelp kSearchKeys[] = {
        {"Enter", "show"}, {"Esc", "leave"}, {"up/down", "choose"}};
    static constexpr KeyHelp kKeys[] = {
        {"q", "quit"}, {"/", "search"}, {"up/down", "choose"}, {"a", "busiest"}, {"Enter", "keep"}};
    const int row = screen.height() - 1;
    int column = 0;
    if (model.searching) {
        column = screen.put(row, column, "/" + model.search + "_", Style::kBold) + 2;
    }
    const auto put = [&](const KeyHelp& help) {
        const std::string key = help.key;
        const std::string meaning = help.meaning;
        if (column + static_cast<int>(key.size() + 1 + meaning.size()) > screen.width()) {
            return;
        }
        column = screen.put(row, column, key, Style::kBold) + 1;
        column = screen.put(row, column, meaning, Style::kDim) + 2;
    };
    if (model.searching) {
        std::for_each(std::begin(kSearchKeys), std::end(kSearchKeys), put);
    } else {
        std::for_each(std::begin(kKeys), std::end(kKeys), put);
    }
}

int most_status_rows(int height) {
    return height < 10 ? 2 : height < 16 ? 3 : height < 24 ? 4 : 6;
}

} // namespace

Screen draw_top(const TopModel& model, int width, int height, const PictureOptions& options) {
    Screen screen(width, height);
    if (width < kLeastWidth || height < kLeastHeight) {
        screen.put(0, 0, fmt::format("too small: {}x{} at least", kLeastWidth, kLeastHeight));
        return screen;
    }
    draw_title(screen, model.status);
    Area body = {1, 0, height - (options.keys ? 1 : 0), width};
    if (options.keys) {
        draw_keys(screen, model);
    }
    if (model.status.state == FeedState::kAbsent) {
        draw_problem(screen, body, model.status.problem);
        return screen;
    }
    body.top = draw_status(screen, 1, 1 + most_status_rows(height), model.status);
    const bool has_rule = height >= 10;
    if (has_rule) {
        draw_rule(screen, body.top++, options.unicode);
    }
    if (width < kLeastTwoColumns) {
        draw_narrow_body(screen, body, model, options);
    } else {
        draw_body(screen, body, model, options, has_rule);
    }
    return screen;
}

} // namespace vorn_cli
