#include "tools/vorn/serve/instrument_list.h"

#include "tests/unit/serve/written_bus.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

using namespace vorn_cli;
using serve_test::record_of;

namespace {

InstrumentList four_instruments() {
    return InstrumentList({{{1, 2, 3, record_of("cu2603", 100, 5)}, 7},
                           {{2, 2, 3, record_of("au2606", 500, 50)}, 9},
                           {{3, 2, 3, record_of("cu2604", 101, 20)}, 0},
                           {{4, 2, 3, record_of("cu2603C70000", 1, 0)}, 0}});
}

std::vector<std::string> names(const InstrumentList& list, const std::string& query,
                               std::size_t limit) {
    std::vector<std::string> found;
    const nlohmann::json answer = nlohmann::json::parse(*list.json(query, limit));
    for (const auto& row : answer.at("instruments")) {
        found.push_back(row.at("inst_id"));
    }
    return found;
}

using Names = std::vector<std::string>;

TEST(InstrumentList, BeginsWithTheMostTraded) {
    EXPECT_EQ(names(four_instruments(), "", 10),
              (Names{"au2606", "cu2604", "cu2603", "cu2603C70000"}));
}

TEST(InstrumentList, FindsPartsOfIdentifiersInAnyCase) {
    EXPECT_EQ(names(four_instruments(), "CU2603", 10), (Names{"cu2603", "cu2603C70000"}));
    EXPECT_EQ(names(four_instruments(), "c7", 10), Names{"cu2603C70000"});
    EXPECT_EQ(names(four_instruments(), "zz", 10), Names{});
    EXPECT_EQ(names(four_instruments(), "\" \\ \xff", 10), Names{});
}

TEST(InstrumentList, SaysHowManyThereAreBeyondItsLimit) {
    const auto list = four_instruments();
    const auto answer = nlohmann::json::parse(*list.json("cu", 1));
    EXPECT_EQ(answer.at("total"), 4);
    EXPECT_EQ(answer.at("found"), 3);
    EXPECT_EQ(answer.at("instruments").size(), 1u);
    EXPECT_EQ(answer.at("instruments").at(0).at("updates"), 0);
}

TEST(InstrumentList, AnswersTheSameQuestionWithTheSameText) {
    const auto list = four_instruments();
    EXPECT_EQ(list.json("cu", 5), list.json("CU", 5));
    EXPECT_NE(list.json("cu", 5), list.json("cu", 6));
    for (int i = 0; i < 1000; ++i) { // more questions than are kept
        EXPECT_NE(list.json(std::to_string(i), 5), nullptr);
    }
}

TEST(InstrumentList, KnowsSlotsByWholeIdentifiers) {
    EXPECT_EQ(four_instruments().slot_of("cu2603"), 1u);
    EXPECT_EQ(four_instruments().slot_of("cu260"), std::nullopt);
    EXPECT_EQ(four_instruments().slot_of("CU2603"), std::nullopt);
}

} // namespace
