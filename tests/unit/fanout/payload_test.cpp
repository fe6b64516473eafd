#include "tools/vorn/fanout/payload.h"

#include "tests/unit/vorn_cli/bus_support.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cstring>
#include <fstream>
#include <iterator>
#include <regex>

using namespace vorn_cli;

namespace {

const Stamp kStamp{"hosta", "20260115"};

Outgoing update() {
    Outgoing message;
    message.receive_time_ns = 0x0102030405060708;
    message.sequence = 0x1112131415161718;
    message.generation = 0x2122232425262728;
    message.flags = kPayloadReplay;
    message.slot = 0x1234;
    message.record = bus_support::record_of("cu2603", 77);
    return message;
}

Outgoing event() {
    Outgoing message;
    message.is_event = true;
    message.slot = 0xffffffff;
    message.event = bus_support::event_of(VORN_MD_EVENT_RESTART, 99, VORN_MD_PHASE_LIVE);
    message.event.count = 3;
    return message;
}

uint64_t number_at(const std::string& bytes, std::size_t offset, std::size_t size) {
    uint64_t value = 0;
    for (std::size_t i = size; i-- > 0;) {
        value = value << 8 | static_cast<unsigned char>(bytes[offset + i]);
    }
    return value;
}

// A table of docs/fanout.md: offset and bytes by the name of the field.
std::map<std::string, std::pair<std::size_t, std::size_t>> documented_layout() {
    std::ifstream file(VORN_FANOUT_DOC);
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    std::map<std::string, std::pair<std::size_t, std::size_t>> fields;
    const std::regex row("\\| `(\\w+)` \\| (\\d+) \\| (\\d+) \\|");
    for (std::sregex_iterator at(text.begin(), text.end(), row), end; at != end; ++at) {
        fields[(*at)[1]] = {std::stoul((*at)[2]), std::stoul((*at)[3])};
    }
    return fields;
}

TEST(Payload, LiesAsTheDocumentSays) {
    const std::string bytes = encode_payload(update(), kStamp, PayloadFormat::kBinary);
    const auto fields = documented_layout();
    const auto at = [&](const char* name) {
        return number_at(bytes, fields.at(name).first, fields.at(name).second);
    };
    EXPECT_EQ(bytes.size(), fields.at("record").first + fields.at("record").second);
    EXPECT_EQ(bytes.substr(fields.at("magic").first, fields.at("magic").second), "VORN");
    EXPECT_EQ(at("version"), 1u);
    EXPECT_EQ(at("kind"), 1u);
    EXPECT_EQ(at("flags"), 1u);
    EXPECT_EQ(at("slot"), 0x1234u);
    EXPECT_EQ(at("receive_time_ns"), 0x0102030405060708u);
    EXPECT_EQ(at("sequence"), 0x1112131415161718u);
    EXPECT_EQ(at("generation"), 0x2122232425262728u);
    EXPECT_STREQ(bytes.data() + fields.at("source").first, "hosta");
    EXPECT_STREQ(bytes.data() + fields.at("label").first, "20260115");
    const instrument record = update().record;
    EXPECT_EQ(std::memcmp(bytes.data() + fields.at("record").first, &record, sizeof(record)), 0);

    const std::string told = encode_payload(event(), kStamp, PayloadFormat::kBinary);
    EXPECT_EQ(told.size(), fields.at("event").first + fields.at("event").second);
    EXPECT_EQ(number_at(told, fields.at("kind").first, 2), 2u);
    const vorn_md_event_t sent = event().event;
    EXPECT_EQ(std::memcmp(told.data() + fields.at("event").first, &sent, sizeof(sent)), 0);
}

TEST(Payload, ComesBackAsItWent) {
    for (const Outgoing& message : {update(), event()}) {
        const std::string bytes = encode_payload(message, kStamp, PayloadFormat::kBinary);
        const auto back = decode_payload(bytes);
        ASSERT_TRUE(back);
        EXPECT_EQ(back->stamp.source, "hosta");
        EXPECT_EQ(back->stamp.label, "20260115");
        EXPECT_EQ(encode_payload(back->message, back->stamp, PayloadFormat::kBinary), bytes);
    }
}

TEST(Payload, IsRefusedUnlessWholeAndKnown) {
    const std::string bytes = encode_payload(update(), kStamp, PayloadFormat::kBinary);
    for (std::size_t size = 0; size < bytes.size(); ++size) {
        EXPECT_FALSE(decode_payload(std::string_view(bytes).substr(0, size))) << size;
    }
    EXPECT_FALSE(decode_payload(bytes + "x"));
    const auto with = [&](std::size_t offset, char value) {
        std::string changed = bytes;
        changed[offset] = value;
        return decode_payload(changed).has_value();
    };
    EXPECT_FALSE(with(0, 'X')) << "magic";
    EXPECT_FALSE(with(4, 2)) << "version";
    EXPECT_FALSE(with(6, 2)) << "an event of this length";
    EXPECT_FALSE(with(6, 3)) << "kind";
    EXPECT_FALSE(with(14, 1)) << "slot beyond the table";
    EXPECT_TRUE(with(300, 1)) << "contents are not judged";
    EXPECT_FALSE(decode_payload(encode_payload(update(), kStamp, PayloadFormat::kJson)));
}

TEST(Payload, SaysInJsonWhatItSaysInBinary) {
    const auto object =
        nlohmann::json::parse(encode_payload(update(), kStamp, PayloadFormat::kJson));
    EXPECT_EQ(object["type"], "update");
    EXPECT_EQ(object["version"], 1);
    EXPECT_EQ(object["label"], "20260115");
    EXPECT_EQ(object["source"], "hosta");
    EXPECT_EQ(object["exchange"], "SHFE");
    EXPECT_EQ(object["inst_id"], "cu2603");
    EXPECT_EQ(object["change_no"], 77);
    EXPECT_EQ(object["replay"], true);
    EXPECT_EQ(object["time_ns"], 0x0102030405060708u);
    EXPECT_EQ(object["bids"][0]["price"], 100);
    EXPECT_EQ(object["asks"][4]["volume"], 11);
    Outgoing value = update();
    value.flags = kPayloadValue;
    EXPECT_EQ(payload_json(value, kStamp)["type"], "value");

    const auto told = payload_json(event(), kStamp);
    EXPECT_EQ(told["type"], "event");
    EXPECT_EQ(told["kind"], "restart");
    EXPECT_EQ(told["count"], 3);
    Outgoing gap = event();
    gap.event.type = VORN_MD_EVENT_GAP;
    std::memcpy(gap.event.inst_id, "au2606", 6);
    gap.event.expected = 5;
    gap.event.received = 8;
    EXPECT_EQ(payload_json(gap, kStamp)["inst_id"], "au2606");
    EXPECT_EQ(payload_json(gap, kStamp)["received"], 8);
}

TEST(Payload, NamesFitIntoItsFields) {
    EXPECT_TRUE(is_stamp_name("20260115_night-"));
    EXPECT_FALSE(is_stamp_name(""));
    EXPECT_FALSE(is_stamp_name("sixteen-letters-"));
    EXPECT_FALSE(is_stamp_name("a.b"));
    EXPECT_FALSE(is_stamp_name("a/b"));
}

} // namespace
