#include "tools/vorn/serve/market_watch.h"

#include "tests/unit/serve/written_bus.h"
#include "tools/vorn/serve/event_stream.h"

#include <chrono>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <nlohmann/json.hpp>
#include <thread>

using namespace vorn_cli;
using serve_test::record_of;
using serve_test::WrittenBus;

namespace {

// Until it holds; the time limit of the test program ends one that never does.
void wait_until(const std::function<bool()>& condition) {
    while (!condition()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
}

TEST(TradeSpotter, SeesATradeWhereTheVolumeGrows) {
    TradeSpotter spotter;
    EXPECT_FALSE(spotter.note(3, record_of("cu2603", 100, 5), 1)); // nothing to compare with
    EXPECT_FALSE(spotter.note(3, record_of("cu2603", 100, 5), 2));
    const auto trade = spotter.note(3, record_of("cu2603", 101, 9), 3);
    ASSERT_TRUE(trade);
    EXPECT_EQ(trade->volume, 4u);
    EXPECT_EQ(trade->price, 101);
    EXPECT_EQ(trade->time_ns, 3u);
}

TEST(TradeSpotter, KnowsTheSideByTheBookOfBefore) {
    TradeSpotter spotter;
    uint32_t volume = 1;
    const auto side_at = [&](double price) { // against 99 bid, 101 ask
        spotter.note(0, record_of("cu2603", 100, volume), 1);
        return spotter.note(0, record_of("cu2603", price, ++volume), 2)->side;
    };
    EXPECT_EQ(side_at(101), 'b');
    EXPECT_EQ(side_at(102), 'b');
    EXPECT_EQ(side_at(99), 's');
    EXPECT_EQ(side_at(98), 's');
    EXPECT_EQ(side_at(100), '-');
}

TEST(TradeSpotter, MakesNoTradeOfWhatItDidNotSee) {
    TradeSpotter spotter;
    spotter.note(0, record_of("cu2603", 100, 5), 1);
    spotter.forget_all();
    EXPECT_FALSE(spotter.note(0, record_of("cu2603", 101, 90), 2));
    EXPECT_TRUE(spotter.note(0, record_of("cu2603", 101, 91), 3));
    EXPECT_FALSE(spotter.note(0, record_of("cu2603", 101, 2), 4)); // a new day
}

TEST(MarketWatch, SaysAbsentWithoutABus) {
    const serve_test::BusName name;
    const MarketWatch watch(name.view());
    wait_until([&] { return !watch.status().problem.empty(); });
    EXPECT_EQ(watch.status().state, FeedState::kAbsent);
    EXPECT_FALSE(watch.instrument_at(0));
    EXPECT_EQ(watch.sequence(0), 0u);
}

TEST(MarketWatch, FollowsABusThatAppears) {
    const serve_test::BusName name;
    const MarketWatch watch(name.view());
    WrittenBus bus(name);
    bus.go_live();
    bus.writer().publish(record_of("cu2603", 100, 5), 7);
    bus.writer().publish(record_of("cu2603", 101, 8), 7);
    wait_until([&] { return !watch.trades(7, 0).empty(); });
    EXPECT_EQ(watch.trades(7, 0).back().volume, 3u);
    EXPECT_TRUE(watch.trades(7, watch.trades(7, 0).back().id).empty());
    ASSERT_TRUE(watch.instrument_at(7));
    EXPECT_EQ(watch.instrument_at(7)->record.last_px, 101);
    wait_until([&] {
        bus.go_live(); // a heartbeat, without which the writer counts as dead before long
        return watch.status().state == FeedState::kLive;
    });
}

TEST(MarketWatch, KeepsNoMoreTradesThanItsBound) {
    const serve_test::BusName name;
    const MarketWatch watch(name.view());
    WrittenBus bus(name);
    for (uint32_t volume = 1; volume <= 200; ++volume) {
        bus.writer().publish(record_of("cu2603", 100, volume), 7);
    }
    wait_until([&] { return watch.status().ring_head == 200; });
    EXPECT_EQ(watch.trades(7, 0).size(), MarketWatch::kTrades);
}

TEST(MarketWatch, ForgetsWhatAnEarlierWriterShowed) {
    const serve_test::BusName name;
    const MarketWatch watch(name.view());
    {
        WrittenBus bus(name);
        bus.writer().publish(record_of("cu2603", 100, 5), 7);
        bus.writer().publish(record_of("cu2603", 101, 8), 7);
        wait_until([&] { return !watch.trades(7, 0).empty(); });
    }
    const WrittenBus bus(name);
    wait_until([&] { return watch.openings() == 2; });
    EXPECT_TRUE(watch.trades(7, 0).empty());
    EXPECT_FALSE(watch.instrument_at(7));
}

TEST(MarketWatch, KeepsEventsWithinTheirBound) {
    const serve_test::BusName name;
    FeedViewOptions options = name.view();
    options.events = 4;
    const MarketWatch watch(options);
    WrittenBus bus(name);
    for (uint32_t gap = 1; gap <= 10; ++gap) {
        bus.gap("cu2603", 7, gap);
    }
    wait_until(
        [&] { return !watch.events(0, 100).empty() && watch.events(0, 100).back().count == 10; });
    EXPECT_EQ(watch.events(0, 100).size(), 4u);
    EXPECT_EQ(watch.events(0, 2).size(), 2u);
    const uint64_t last = watch.events(0, 100).back().id;
    EXPECT_EQ(watch.events(last - 1, 100).size(), 1u);
    EXPECT_TRUE(watch.events(last, 100).empty());
}

// What is due, by name of the event.
std::map<std::string, nlohmann::json> messages_of(const std::string& text) {
    std::map<std::string, nlohmann::json> messages;
    std::size_t at = 0;
    while (at < text.size()) {
        const std::size_t end = text.find("\n\n", at);
        const std::string message = text.substr(at, end - at);
        const std::size_t line = message.find('\n');
        messages[message.substr(7, line - 7)] = nlohmann::json::parse(message.substr(line + 7));
        at = end + 2;
    }
    return messages;
}

bool sends(const std::string& name, const std::string& messages) {
    return messages_of(messages).count(name) != 0;
}

class Stream : public testing::Test {
protected:
    Stream() : watch_(name_.view()), bus_(name_) {
        bus_.go_live();
        bus_.writer().publish(record_of("cu2603", 100, 5), 7);
        bus_.writer().publish(record_of("cu2603", 101, 8), 7);
        bus_.writer().publish(record_of("au2606", 500, 1), 8);
        wait_until([&] {
            const auto list = watch_.instruments();
            return list && list->size() == 2 && !watch_.trades(7, 0).empty();
        });
    }

    const serve_test::BusName name_;
    const MarketWatch watch_;
    WrittenBus bus_;
};

TEST_F(Stream, BeginsWithAllThatIsKnown) {
    EventStream stream(watch_, {"cu2603", true, "AU", 10});
    auto messages = messages_of(stream.due(1));
    EXPECT_EQ(messages.at("status").at("type"), "status");
    EXPECT_TRUE(messages.at("events").at("reset"));
    EXPECT_EQ(messages.at("events").at("events").at(0).at("kind"), "opened");
    EXPECT_EQ(messages.at("book").at("inst_id"), "cu2603");
    EXPECT_EQ(messages.at("trades").at("trades").size(), 1u);
    EXPECT_TRUE(messages.at("trades").at("reset"));
    EXPECT_EQ(messages.at("chart").at("inst_id"), "cu2603");
    EXPECT_EQ(messages.at("instruments").at("found"), 1);
    EXPECT_EQ(messages.at("instruments").at("total"), 2);
    EXPECT_EQ(messages.at("instruments").at("instruments").at(0).at("inst_id"), "au2606");
}

TEST_F(Stream, SendsABookWhenItHasChangedAndNotTooOften) {
    EventStream stream(watch_, {"cu2603", false, "", 10});
    stream.due(1);
    EXPECT_FALSE(sends("book", stream.due(EventStream::kBookIntervalNs + 1))); // nothing changed
    bus_.writer().publish(record_of("cu2603", 102, 8), 7);
    EXPECT_FALSE(sends("book", stream.due(EventStream::kBookIntervalNs + 2))); // too soon
    bus_.writer().publish(record_of("cu2603", 103, 8), 7);
    const auto messages = messages_of(stream.due(2 * EventStream::kBookIntervalNs + 2));
    EXPECT_EQ(messages.at("book").at("last_px"), 103.0); // the newest, not one after the other
}

TEST_F(Stream, SendsTheStatusEverySecond) {
    EventStream stream(watch_, {"", false, "", 10});
    EXPECT_TRUE(sends("status", stream.due(1)));
    EXPECT_FALSE(sends("status", stream.due(EventStream::kStatusIntervalNs)));
    EXPECT_TRUE(sends("status", stream.due(EventStream::kStatusIntervalNs + 1)));
}

TEST_F(Stream, SendsNewEventsOnce) {
    EventStream stream(watch_, {"", false, "", 10});
    stream.due(1);
    const uint64_t before = watch_.events(0, 100).back().id;
    bus_.gap("cu2603", 7, 1);
    wait_until([&] { return !watch_.events(before, 100).empty(); });
    const auto messages = messages_of(stream.due(2));
    EXPECT_FALSE(messages.at("events").at("reset"));
    EXPECT_EQ(messages.at("events").at("events").at(0).at("id"), before + 1);
    EXPECT_EQ(stream.due(3).find("\"gap\""), std::string::npos);
}

TEST_F(Stream, TakesAnInstrumentThatIsNotThereForOneThatMayCome) {
    EventStream stream(watch_, {"zz9999", false, "", 10});
    const auto messages = messages_of(stream.due(1));
    EXPECT_EQ(messages.count("book"), 0u);
    EXPECT_EQ(messages.count("status"), 1u);
}

TEST(SseMessage, HasALineForEachLineOfItsData) {
    EXPECT_EQ(sse_message("book", "{}"), "event: book\ndata: {}\n\n");
    EXPECT_EQ(sse_message("x", "a\nb"), "event: x\ndata: a\ndata: b\n\n");
    EXPECT_EQ(sse_message("x", ""), "event: x\ndata: \n\n");
}

} // namespace
