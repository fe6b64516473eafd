// Files that are no bus, or a bus whose header lies: refusals with a reason, never a crash, and
// whatever is not refused can be read through.

#include "tests/support/bus_look.h"

#include "bus_fixture.h"
#include "tests/support/temp_dir.h"

#include <gmock/gmock.h>

#include <cstddef>
#include <fstream>
#include <random>

namespace {

using testing::HasSubstr;
using vorn_bus::Header;

class HostileBus : public BusFixture {
protected:
    HostileBus() {
        publish(1, 3000);
        writer_.reset();
        std::ifstream file(vorn_bus::bus_path(name_), std::ios::binary);
        bytes_.assign(std::istreambuf_iterator<char>(file), {});
        path_ = (dir_.path() / "hostile.bus").string();
    }
    void write(const std::string& bytes) const {
        std::ofstream(path_, std::ios::binary | std::ios::trunc) << bytes;
    }
    // The refusal of this file, empty when it is read.
    std::string refusal() const { return support::look_through(path_); }

    std::string refusal_with(std::size_t at, uint64_t value, std::size_t size) const {
        std::string bytes = bytes_;
        std::memcpy(bytes.data() + at, &value, size);
        write(bytes);
        return refusal();
    }

    support::TempDir dir_;
    std::string bytes_;
    std::string path_;
};

TEST_F(HostileBus, IsReadWhenNothingIsWrongWithIt) {
    write(bytes_);
    EXPECT_EQ(refusal(), "");
}

TEST_F(HostileBus, IsRefusedWithTheReason) {
    const struct {
        const char* why;
        std::size_t at;
        uint64_t value;
        std::size_t size;
        const char* reason;
    } rows[] = {
        {"magic", 0, 0x4e524f57, 4, "begins otherwise"},
        {"version", offsetof(Header, version), 2, 4, "layout version 2, this reader knows 1"},
        {"header", offsetof(Header, header_size), 64, 4, "header of 64"},
        {"record", offsetof(Header, record_size), 344, 4, "records of 344 bytes"},
        {"size", offsetof(Header, file_size), 1, 8, "its header says 1"},
        {"slots", offsetof(Header, table_slots), 20481, 4, "20481 slots"},
        {"no ring", offsetof(Header, ring_records), 0, 8, "ring of 0 records"},
        {"ring of three", offsetof(Header, ring_records), 3, 8, "ring of 3 records"},
        {"large ring", offsetof(Header, ring_records), 2048, 8, "ring records reach beyond"},
        {"huge ring", offsetof(Header, ring_records), uint64_t{1} << 63, 8, "reach beyond"},
        {"ring at the end", offsetof(Header, ring_offset), UINT64_MAX - 63, 8, "reach beyond"},
        {"table at the end", offsetof(Header, table_offset), UINT64_MAX - 63, 8, "reach beyond"},
        {"table in the header", offsetof(Header, table_offset), 64, 8, "slots reach beyond"},
        {"crooked table", offsetof(Header, table_offset), 8193, 8, "slots reach beyond"},
        {"crooked slots", offsetof(Header, slot_size), 392, 4, "size of slots: 392"},
        {"no slots", offsetof(Header, slot_size), 0, 4, "size of slots: 0"},
        {"small records", offsetof(Header, ring_record_size), 64, 4, "size of ring records: 64"},
        {"huge records", offsetof(Header, ring_record_size), 0xffffffc0, 4, "size of ring records"},
        {"counters", offsetof(Header, counters_size), 0, 4, "size of counters: 0"},
        {"counters' place", offsetof(Header, counters_offset), 0, 8, "counters reach beyond"},
    };
    for (const auto& row : rows) {
        EXPECT_THAT(refusal_with(row.at, row.value, row.size), HasSubstr(row.reason)) << row.why;
    }
}

TEST_F(HostileBus, IsRefusedWhenItIsShorterThanItSays) {
    for (const std::size_t size : {std::size_t{0}, std::size_t{4095}, std::size_t{4096},
                                   bytes_.size() - 4096, bytes_.size() - 1}) {
        write(bytes_.substr(0, size));
        EXPECT_THAT(refusal(), HasSubstr("not a bus")) << size;
    }
}

TEST_F(HostileBus, IsNothingButARegularFile) {
    path_ = dir_.path().string();
    EXPECT_THAT(refusal(), HasSubstr("not a regular file"));
    path_ = "/dev/null";
    EXPECT_THAT(refusal(), HasSubstr("not a regular file"));
    path_ = (dir_.path() / "missing").string();
    EXPECT_THAT(refusal(), HasSubstr("there is no bus"));
    path_ = (dir_.path() / "link").string();
    ASSERT_EQ(::symlink(vorn_bus::bus_path(name_).c_str(), path_.c_str()), 0);
    EXPECT_THAT(refusal(), HasSubstr("cannot open"));
    path_ = (dir_.path() / "fifo").string();
    ASSERT_EQ(::mkfifo(path_.c_str(), 0600), 0);
    EXPECT_THAT(refusal(), HasSubstr("not a regular file"));
}

// The members that change while the bus lives may hold anything.
TEST_F(HostileBus, IsReadWhateverItsHeadAndStateSay) {
    for (const std::size_t at : {offsetof(Header, state), offsetof(Header, heartbeat_ns),
                                 offsetof(Header, ring_head), offsetof(Header, writer_pid)}) {
        for (const uint64_t value : {uint64_t{0}, uint64_t{1}, uint64_t{2999}, uint64_t{3001},
                                     uint64_t{1} << 63, UINT64_MAX - 1, UINT64_MAX}) {
            EXPECT_EQ(refusal_with(at, value, 8), "") << at << ": " << value;
        }
    }
}

TEST_F(HostileBus, NeverEndsItsReader) {
    const uint32_t seed = 20260818;
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    write(bytes_);
    std::fstream file(path_, std::ios::binary | std::ios::in | std::ios::out);
    int refused = 0;
    constexpr int kRounds = 3000;
    for (int round = 0; round < kRounds; ++round) {
        std::string header = bytes_.substr(0, sizeof(Header));
        for (auto change = random() % 3 + 1; change > 0; --change) {
            const std::size_t at = random() % header.size();
            header[at] =
                static_cast<char>(random() % 2 == 0 ? random() : header[at] ^ 1 << random() % 8);
        }
        file.seekp(0).write(header.data(), static_cast<std::streamsize>(header.size())).flush();
        refused += refusal().empty() ? 0 : 1;
    }
    EXPECT_GT(refused, kRounds / 10) << "the changes did something";
    EXPECT_LT(refused, kRounds) << "and some were looked through";
}

} // namespace
