#include "exchange_sim/truth_file.h"

#include "exchange_sim/session.h"
#include "wirekit/bytes.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <stdexcept>
#include <unistd.h>
#include <utility>
#include <vector>

namespace exchange_sim {
namespace {

constexpr std::size_t kHeader = 64;
constexpr std::size_t kEntry = 24; // of an instrument

SessionOptions short_session() {
    SessionOptions options;
    options.seed = 11;
    options.instruments = 24;
    options.changes = 1500;
    return options;
}

// The working directory is the test program's own; each test has a directory below it.
class TruthFile : public ::testing::Test {
protected:
    TruthFile() { std::filesystem::create_directory(directory_); }
    ~TruthFile() override { std::filesystem::remove_all(directory_); }
    std::string path(const std::string& name = "session.truth") const {
        return (directory_ / name).string();
    }

    // Writes the session's truth and keeps what on_change saw.
    void write(const SessionOptions& options) {
        std::FILE* const file = std::fopen(path().c_str(), "wb");
        ASSERT_NE(file, nullptr);
        Session session(options);
        TruthWriter writer(file, session);
        session.on_change([&](std::size_t index, const ExpectedRecord& record) {
            writer.change(index, record);
            seen_.emplace_back(index, record_bytes(record));
        });
        for (WireFrame frame; session.next(frame);) {
        }
        writer.finish();
        std::fclose(file);
        EXPECT_EQ(writer.changes(), seen_.size());
        EXPECT_EQ(writer.changes(), session.counters().changes);
        for (const Instrument& instrument : session.instruments()) {
            instruments_.push_back(instrument);
            finals_.push_back(record_bytes(session.truth(finals_.size())));
        }
    }

    std::string content() const {
        std::ifstream file(path(), std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    void put(const std::string& bytes) const {
        std::ofstream file(path("damaged.truth"), std::ios::binary | std::ios::trunc);
        file << bytes;
    }
    // What reading the damaged file to its end says; empty if nothing is wrong.
    std::string complaint() const {
        try {
            TruthReader reader(path("damaged.truth"));
            for (TruthChange change; reader.next(change);) {
            }
        } catch (const std::runtime_error& error) {
            EXPECT_NE(std::string(error.what()).find("damaged.truth"), std::string::npos)
                << error.what();
            return error.what();
        }
        return {};
    }
    std::size_t changes_begin() const { return kHeader + kEntry * instruments_.size(); }

    std::vector<std::pair<std::size_t, RecordBytes>> seen_;
    std::vector<Instrument> instruments_;
    std::vector<RecordBytes> finals_;

private:
    std::filesystem::path directory_ =
        std::filesystem::temp_directory_path() /
        ("vorn-truth-" + std::to_string(::getpid()) + "-" +
         ::testing::UnitTest::GetInstance()->current_test_info()->name());
};

uint8_t* at(std::string& bytes, std::size_t offset) {
    return reinterpret_cast<uint8_t*>(&bytes[offset]);
}

TEST_F(TruthFile, ReadsBackEveryChangeAsItWasMade) {
    ASSERT_NO_FATAL_FAILURE(write(short_session()));
    TruthReader reader(path());
    EXPECT_EQ(reader.seed(), 11u);
    ASSERT_EQ(reader.changes(), seen_.size());
    EXPECT_GE(seen_.size(), 1500u);
    TruthChange change;
    for (std::size_t i = 0; i < seen_.size(); ++i) {
        ASSERT_TRUE(reader.next(change)) << i;
        ASSERT_EQ(change.instrument, seen_[i].first) << i;
        ASSERT_EQ(*change.record, seen_[i].second) << i;
    }
    EXPECT_FALSE(reader.next(change));
    EXPECT_FALSE(reader.next(change));
}

TEST_F(TruthFile, HasTheInstrumentsAndTheirFinalRecords) {
    ASSERT_NO_FATAL_FAILURE(write(short_session()));
    const TruthReader reader(path());
    ASSERT_EQ(reader.instruments().size(), instruments_.size());
    bool both[2] = {};
    for (std::size_t i = 0; i < instruments_.size(); ++i) {
        const TruthInstrument& entry = reader.instruments()[i];
        EXPECT_EQ(entry.number, instruments_[i].number);
        EXPECT_EQ(entry.exchange, instruments_[i].exchange == Exchange::kShfe ? 0 : 1);
        EXPECT_EQ(entry.id, instruments_[i].id);
        both[entry.exchange == 0 ? 0 : 1] = true;
    }
    EXPECT_TRUE(both[0] && both[1]);
    EXPECT_EQ(reader.final_records(), finals_);
}

TEST_F(TruthFile, OnlyWordsThatChangedAreStored) {
    ASSERT_NO_FATAL_FAILURE(write(short_session()));
    const std::size_t changes = content().size() - changes_begin() - kRecordSize * finals_.size();
    EXPECT_LT(changes, seen_.size() * 120);
}

TEST_F(TruthFile, AMissingFileIsNamed) {
    try {
        const TruthReader reader(path("damaged.truth"));
        FAIL();
    } catch (const std::runtime_error& error) {
        EXPECT_EQ(std::string(error.what()),
                  "cannot read " + path("damaged.truth") + ": No such file or directory");
    }
}

TEST_F(TruthFile, ADirectoryIsNoTruth) {
    std::filesystem::create_directory(path("damaged.truth"));
    EXPECT_NE(complaint().find("Is a directory"), std::string::npos) << complaint();
}

TEST_F(TruthFile, ATruncatedFileIsRefusedAtOnceWhereverItEnds) {
    ASSERT_NO_FATAL_FAILURE(write(short_session()));
    const std::string whole = content();
    for (std::size_t size = 0; size < whole.size();
         size += size < changes_begin() + 200 ? 1 : whole.size() / 97) {
        put(whole.substr(0, size));
        EXPECT_THROW(TruthReader(path("damaged.truth")), std::runtime_error) << size;
        EXPECT_NE(complaint().find("it ends too early"), std::string::npos) << size;
    }
    put(whole.substr(0, whole.size() - 1));
    EXPECT_NE(complaint().find("it ends too early"), std::string::npos);
    put(whole);
    EXPECT_EQ(complaint(), "");
}

TEST_F(TruthFile, AnotherMagicOrVersionIsRefused) {
    ASSERT_NO_FATAL_FAILURE(write(short_session()));
    for (const std::size_t offset : {0u, 7u, 8u, 11u}) {
        std::string bytes = content();
        *at(bytes, offset) ^= 0x40;
        put(bytes);
        EXPECT_NE(complaint().find("is not a truth file of this version"), std::string::npos)
            << offset;
    }
}

TEST_F(TruthFile, AFileThatWasNeverFinishedIsRefused) {
    ASSERT_NO_FATAL_FAILURE(write(short_session()));
    std::string bytes = content();
    bytes.replace(0, kHeader, kHeader, '\0');
    put(bytes);
    EXPECT_NE(complaint().find("is not a truth file of this version"), std::string::npos);
}

TEST_F(TruthFile, AnImpossibleNumberOfInstrumentsIsRefused) {
    ASSERT_NO_FATAL_FAILURE(write(short_session()));
    for (const uint32_t count : {20481u, 0xFFFFFFFFu}) {
        std::string bytes = content();
        wirekit::put_le32(at(bytes, 12), count);
        put(bytes);
        EXPECT_NE(complaint().find("is not a truth file of this version"), std::string::npos);
    }
}

TEST_F(TruthFile, AnEndThatLiesOutsideIsRefused) {
    ASSERT_NO_FATAL_FAILURE(write(short_session()));
    for (const uint64_t offset : {uint64_t{1} << 40, uint64_t{1} << 63, ~uint64_t{0}}) {
        std::string bytes = content();
        wirekit::put_le64(at(bytes, 24), offset);
        put(bytes);
        EXPECT_NE(complaint(), "") << offset;
    }
}

TEST_F(TruthFile, AChangeOfNoInstrumentIsDamage) {
    ASSERT_NO_FATAL_FAILURE(write(short_session()));
    for (const std::size_t instrument : {instruments_.size(), std::size_t{0xFFFF}}) {
        std::string bytes = content();
        wirekit::put_le16(at(bytes, changes_begin()), static_cast<uint16_t>(instrument));
        put(bytes);
        EXPECT_NE(complaint().find("is damaged: change 1 names no instrument"), std::string::npos)
            << complaint();
    }
}

TEST_F(TruthFile, AMaskBeyondTheRecordIsDamage) {
    ASSERT_NO_FATAL_FAILURE(write(short_session()));
    for (std::size_t word = 42; word < 48; ++word) {
        std::string bytes = content();
        *at(bytes, changes_begin() + 2 + word / 8) |= static_cast<uint8_t>(1u << (word % 8));
        put(bytes);
        EXPECT_NE(complaint().find("is damaged: change 1 names no instrument or no word"),
                  std::string::npos)
            << word;
    }
}

TEST_F(TruthFile, MoreChangesThanThereAreIsAnError) {
    ASSERT_NO_FATAL_FAILURE(write(short_session()));
    std::string bytes = content();
    wirekit::put_le64(at(bytes, 16), ~uint64_t{0});
    put(bytes);
    EXPECT_NE(complaint(), "");
}

// A full disk is told when it is met, not when the file is read.
TEST_F(TruthFile, AFileThatCannotBeWrittenIsToldToTheWriter) {
    std::FILE* const full = std::fopen("/dev/full", "wb");
    ASSERT_NE(full, nullptr);
    Session session(short_session());
    EXPECT_THROW(
        {
            TruthWriter writer(full, session);
            session.on_change([&](std::size_t index, const ExpectedRecord& record) {
                writer.change(index, record);
            });
            for (WireFrame frame; session.next(frame);) {
            }
            writer.finish();
        },
        std::runtime_error);
    std::fclose(full);
}

} // namespace
} // namespace exchange_sim
