#include "tools/vorn/fanout/subjects.h"

#include "tests/unit/vorn_cli/bus_support.h"
#include "tools/vorn/exit_code.h"

#include <gtest/gtest.h>

using namespace vorn_cli;

namespace {

Outgoing update(const std::string& inst_id, uint32_t slot, uint32_t change_no = 5) {
    Outgoing message;
    message.slot = slot;
    message.record = bus_support::record_of(inst_id, change_no);
    return message;
}

Outgoing event(uint32_t type, uint64_t sequence, uint64_t count = 0) {
    Outgoing message;
    message.is_event = true;
    message.generation = 3;
    message.sequence = sequence;
    message.event = bus_support::event_of(type, 1, VORN_MD_PHASE_LIVE);
    message.event.count = count;
    return message;
}

const Stamp kStamp{"hosta", "20260115"};

TEST(Subject, NamesExchangeAndInstrument) {
    EXPECT_EQ(subject_of(update("cu2603", 0)), "md.shfe.cu2603");
    EXPECT_EQ(subject_of(update("cu2603", 16383)), "md.shfe.cu2603");
    EXPECT_EQ(subject_of(update("sc2603", 16384)), "md.ine.sc2603");
    EXPECT_EQ(subject_of(event(VORN_MD_EVENT_GAP, 1)), "md.event.gap");
    EXPECT_EQ(subject_of(event(kEventDropped, 1)), "md.event.dropped");
}

TEST(Subject, HoldsAnyIdentifierAsOneToken) {
    EXPECT_EQ(subject_of(update("SP cu&al", 0)), "md.shfe.SP%20cu&al");
    EXPECT_EQ(subject_of(update("a.b*c>d%e?f/", 0)), "md.shfe.a%2Eb%2Ac%3Ed%25e%3Ff%2F");
    EXPECT_EQ(subject_of(update("\x01\xff", 0)), "md.shfe.%01%FF");
    EXPECT_EQ(subject_of(update("", 0)), "md.shfe.%00");
}

TEST(MessageId, IsTheSameAtEveryPublisherForAnUpdate) {
    const Outgoing a = update("cu2603", 7, 1234);
    Outgoing b = a;
    b.receive_time_ns = 99;
    b.sequence = 5;
    b.generation = 9;
    b.flags = kPayloadReplay;
    EXPECT_EQ(message_id_of(a, kStamp), "20260115/shfe/cu2603/1234");
    EXPECT_EQ(message_id_of(b, {"hostb", "20260115"}), message_id_of(a, kStamp));
}

TEST(MessageId, TellsApartWhatIsNotTheSame) {
    const std::string id = message_id_of(update("cu2603", 7, 1234), kStamp);
    EXPECT_NE(id, message_id_of(update("cu2603", 7, 1234), {"hosta", "20260116"}));
    EXPECT_NE(id, message_id_of(update("cu2603", 20000, 1234), kStamp)) << "the other exchange";
    EXPECT_NE(id, message_id_of(update("cu2604", 7, 1234), kStamp));
    EXPECT_NE(id, message_id_of(update("cu2603", 7, 1235), kStamp));
    Outgoing value = update("cu2603", 7, 1234);
    value.flags = kPayloadValue;
    EXPECT_EQ(message_id_of(value, kStamp), id + "v");
}

TEST(MessageId, OfAnEventIsItsPlaceAtItsPublisher) {
    EXPECT_EQ(message_id_of(event(VORN_MD_EVENT_GAP, 44), kStamp), "20260115/event/hosta/3/44");
    EXPECT_EQ(message_id_of(event(kEventOpened, 44, 3), kStamp), "20260115/event/hosta/3/opened3");
    EXPECT_NE(message_id_of(event(VORN_MD_EVENT_GAP, 44), {"hostb", "20260115"}),
              message_id_of(event(VORN_MD_EVENT_GAP, 44), kStamp));
}

TEST(MessageId, IsReadBack) {
    const auto parsed = parse_update_id("20260115/shfe/cu2603/1234");
    ASSERT_TRUE(parsed);
    EXPECT_EQ(parsed->label, "20260115");
    EXPECT_EQ(parsed->change_no, 1234u);
    EXPECT_FALSE(parsed->is_value);
    EXPECT_TRUE(parse_update_id("x/ine/sc/4294967295v")->is_value);
    for (const char* other : {"", "a", "a/b", "x/event/hosta/3/44", "x/shfe/cu/", "x/shfe/cu/1x",
                              "x/shfe/cu/4294967296", "x/shfe/cu/v"}) {
        EXPECT_FALSE(parse_update_id(other)) << other;
    }
}

struct FilterCase {
    std::vector<std::string> patterns;
    const char* server;
    std::vector<const char*> wanted;
    std::vector<const char*> unwanted;
};

TEST(SubjectFilter, LetsTheServerChooseAsFarAsItCan) {
    const FilterCase cases[] = {
        {{}, "md.>", {"md.shfe.cu2603", "md.event.gap"}, {}},
        {{"md.shfe.cu2603"}, "md.shfe.cu2603", {"md.shfe.cu2603"}, {"md.ine.cu2603"}},
        {{"md.shfe.cu*"},
         "md.shfe.*",
         {"md.shfe.cu2603", "md.shfe.cu"},
         {"md.shfe.au2603", "md.ine.cu2603", "md.shfe.acu", "md.shfe.cu.x"}},
        {{"cu*"}, "md.*.*", {"md.shfe.cu2603", "md.ine.cu1"}, {"md.shfe.au2603"}},
        {{"*C7?000"}, "md.*.*", {"md.shfe.cu2603C70000"}, {"md.shfe.cu2603C7000"}},
        {{"a*b*c"}, "md.*.*", {"md.ine.abbc", "md.ine.aXbYbZc"}, {"md.ine.abcd", "md.ine.acb"}},
        {{"md.event.>"}, "md.event.>", {"md.event.gap"}, {"md.event", "md.shfe.gap"}},
        {{">"}, "md.>", {"md.shfe.cu2603"}, {}},
        {{"cu*", "au*"}, "md.*.*", {"md.shfe.cu1", "md.shfe.au1"}, {"md.shfe.ag1"}},
        {{"md.shfe.cu1", "md.ine.>"}, "md.*.>", {"md.shfe.cu1", "md.ine.sc1"}, {"md.shfe.cu2"}},
        {{"md.shfe.cu1", "md.shfe.cu2"}, "md.shfe.*", {"md.shfe.cu1"}, {"md.shfe.cu3"}},
    };
    for (const FilterCase& row : cases) {
        const SubjectFilter filter(row.patterns);
        EXPECT_EQ(filter.server_subject(), row.server);
        for (const char* subject : row.wanted) {
            EXPECT_TRUE(filter.matches(subject)) << row.server << ' ' << subject;
        }
        for (const char* subject : row.unwanted) {
            EXPECT_FALSE(filter.matches(subject)) << row.server << ' ' << subject;
        }
    }
}

TEST(SubjectFilter, RefusesWhatNoSubjectCanBe) {
    for (const char* pattern :
         {"md..x", ".", "md.shfe.", "md.>.x", "md.x>", "md.shfe.a b", "x.y"}) {
        EXPECT_THROW(SubjectFilter({pattern}), Failure) << pattern;
    }
}

} // namespace
