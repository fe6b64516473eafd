// Recordings of the recorder as research files.

#include "convert_program.h"

using vorn_cli::ResearchRow;
using vorn_cli::RowEvent;
using vorn_convert::inst_id_of;
using vorn_convert::ResearchFile;
using vorn_session::contains;
using vorn_session::lines;

namespace {

class ConvertCsv : public vorn_convert::ConvertProgram {
protected:
    void SetUp() override {
        sim("s");
        convert({"s.pcap", "-o", "s.csv"});
        csv_ = content("s.csv");
    }
    // Line `number` (1 is the header), without its end.
    std::string line(std::size_t number) const {
        std::size_t at = 0;
        for (std::size_t i = 1; i < number; ++i) {
            at = csv_.find('\n', at) + 1;
        }
        return csv_.substr(at, csv_.find('\n', at) - at);
    }
    std::string header() const { return line(1) + "\n"; }

    std::string csv_;
};

TEST_F(ConvertCsv, RowsHaveTheTimeOfTheirUpdateAndSaySo) {
    const ResearchFile file = rows("s", {"s.csv"});
    ASSERT_GT(file.updates().size(), 2000u);
    for (const ResearchRow& row : file.updates()) {
        EXPECT_EQ(row.flags, vorn_cli::kRowFromCsv);
        EXPECT_EQ(row.slot, vorn_cli::kNoRowSlot);
        EXPECT_EQ(row.receive_time_ns, row.record.update_time * uint64_t{1'000'000'000} +
                                           row.record.update_milli_sec * uint64_t{1'000'000});
    }
}

// A recording has no events, but a hole in it shows in the change numbers.
TEST_F(ConvertCsv, AHoleInTheNumbersIsARow) {
    const std::string row =
        "0,cu2603,1768438800,500,7,1.00,1,1.00,1.00,1,1.00,1,1.00,1,1.00,1,1.00,"
        "1,1.00,1,1.00,1,1.00,1,1.00,1,1.00,1,1.00,1,1.00,1,1.00,1.00,1.00\n";
    const auto numbered = [&](const char* id, const char* number) {
        std::string result = row;
        result.replace(result.find(",7,"), 3, std::string(",") + number + ",");
        return result.replace(result.find("cu2603"), 6, id);
    };
    const auto skips = [&](const std::string& body) {
        directory_.write("hole.csv", header() + body);
        return rows("hole", {"hole.csv"});
    };
    EXPECT_EQ(skips(numbered("cu2603", "7") + numbered("au2606", "1") + numbered("cu2603", "8"))
                  .events()
                  .size(),
              0u);
    for (const char* next : {"10", "7", "3"}) {
        const ResearchFile file =
            skips(numbered("cu2603", "7") + numbered("au2606", "1") + numbered("cu2603", next));
        ASSERT_EQ(file.rows.size(), 4u) << next;
        const ResearchRow& skip = file.rows[2];
        EXPECT_EQ(skip.event, static_cast<uint16_t>(RowEvent::kSkip));
        EXPECT_EQ(skip.flags, vorn_cli::kRowEvent | vorn_cli::kRowFromCsv);
        EXPECT_EQ(inst_id_of(skip), "cu2603");
        EXPECT_EQ(skip.expected, 8u);
        EXPECT_EQ(skip.received, static_cast<uint32_t>(std::stoul(next)));
        EXPECT_EQ(skip.receive_time_ns, 1'768'438'800'500'000'000u);
    }
    // A restart that is there explains the skip of every instrument behind it.
    const std::string restart =
        "103,,1768438800,500,0,0.00,0,0.00,1.00,1,0.00,0,0.00,0,0.00,-1,0.00,"
        "0,0.00,0,0.00,0,0.00,0,0.00,0,0.00,0,0.00,0,0.00,0,0.00,0.00,0.00\n";
    const ResearchFile explained =
        skips(numbered("cu2603", "7") + restart + numbered("cu2603", "9"));
    ASSERT_EQ(explained.events().size(), 1u);
    EXPECT_EQ(explained.events()[0].event, VORN_MD_EVENT_RESTART);
    EXPECT_EQ(explained.events()[0].count, 1u);
}

TEST_F(ConvertCsv, ALineThatAKillHasTornIsLeftOutAndSaid) {
    directory_.write("torn.csv", csv_.substr(0, csv_.size() - 10));
    const auto run = vorn({"convert", "torn.csv", "-o", "torn.npy"});
    EXPECT_EQ(run.exit_status, 0);
    EXPECT_TRUE(contains(run.err, "ends in the middle of line " + std::to_string(lines(csv_)) +
                                      ", which is left out"))
        << run.err;
    EXPECT_EQ(read("torn.npy").rows.size(), lines(csv_) - 2);
}

TEST_F(ConvertCsv, AWrongRowIsNamed) {
    const std::string good = line(20);
    const struct {
        std::string row;
        const char* says;
    } cases[] = {
        {good.substr(0, good.rfind(',')), "it has 34 columns instead of 35"},
        {good + ",1", "it has more than 35 columns"},
        {"x" + good, "column 1, 'x0', is no number"},
        {"0,0123456789abcdef" + good.substr(good.find(',', 2)),
         "column 2, '0123456789abcdef', is longer than 15 characters"},
        {good.substr(0, good.rfind(',')) + ",1.2.3", "column 35, '1.2.3', is no number"},
        {"", "is no number"},
    };
    for (const auto& row : cases) {
        std::string wrong = row.row;
        if (wrong.starts_with("x")) {
            wrong = "x0" + good.substr(1);
        }
        directory_.write("bad.csv", header() + good + "\n" + wrong + "\n");
        const auto run = vorn({"convert", "bad.csv", "-o", "bad.npy"});
        EXPECT_EQ(run.exit_status, 1);
        EXPECT_EQ(lines(run.err), 1u);
        EXPECT_TRUE(contains(run.err, "bad.csv, line 3: ")) << run.err;
        EXPECT_TRUE(contains(run.err, row.says)) << run.err;
    }
}

} // namespace
