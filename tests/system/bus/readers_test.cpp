// Readers in processes of their own, beside a writer that never waits: no record is torn, and what
// a reader misses is what the record numbers say. The readers hold that themselves (stage.cpp).

#include "process.h"
#include "tests/support/bus_records.h"

#include "bus/bus_reader.h"
#include "bus/bus_writer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <thread>
#include <vector>

namespace {

using bus_test::becomes_true;
using bus_test::Process;
using bus_test::value_of;

double seconds() {
    const char* text = std::getenv("VORN_BUS_SECONDS");
    return text != nullptr ? std::atof(text) : 1;
}

TEST(BusReaders, SeeWholeRecordsAtFullRate) {
    const std::string name = support::own_bus_name();
    Process writer({BUS_STAGE, "write", name});
    Process ring({BUS_STAGE, "ring", name});
    Process late({BUS_STAGE, "late", name});
    Process table({BUS_STAGE, "table", name});
    std::vector<Process*> readers = {&ring, &late, &table};
#ifdef VORN_NUMPY_PYTHON
    ::setenv("PYTHONPATH", VORN_PYTHON_PACKAGES, 1);
    Process python_ring({VORN_NUMPY_PYTHON, PYTHON_STAGE, "ring", name});
    Process python_table({VORN_NUMPY_PYTHON, PYTHON_STAGE, "table", name});
    readers.insert(readers.end(), {&python_ring, &python_table});
#endif
    ASSERT_TRUE(becomes_true([&] {
        return std::all_of(readers.begin(), readers.end(),
                           [](const Process* reader) { return !reader->out().empty(); });
    }));
    // Long enough, and also much enough for the late reader to be lapped.
    const vorn_bus::BusReader bus(name);
    const uint64_t enough = bus.ring_head() + 20 * bus.ring_records();
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds()));
    ASSERT_TRUE(becomes_true([&] { return bus.ring_head() > enough; }));
    writer.send(SIGTERM);

    const auto& written = writer.wait();
    EXPECT_EQ(written.status, 0) << written.err;
    std::cout << "writer: " << written.out;
    for (Process* reader : readers) {
        const auto& ended = reader->wait();
        EXPECT_EQ(ended.status, 0) << ended.out << ended.err;
        EXPECT_EQ(value_of(ended.out, "torn"), 0U);
        EXPECT_GT(value_of(ended.out, "taken"), 0U);
        std::cout << ended.out;
    }
    EXPECT_EQ(value_of(ring.wait().out, "head"), value_of(written.out, "written"));
    EXPECT_GT(value_of(late.wait().out, "laps"), 0U);
    vorn_bus::remove_bus(name);
}

TEST(BusReaders, ReadTheExampleOfTheDocumentation) {
    const std::string name = support::own_bus_name();
    auto writer = std::make_unique<vorn_bus::BusWriter>(vorn_bus::WriterOptions{name, 1024});
    instrument record{};
    std::memcpy(record.inst_id, "cu2603", 6);
    record.bid_px[0] = 71230;
    record.ask_px[0] = 71240;
    writer->publish(record, 3);
    Process example({BUS_EXAMPLE, name, "3"});
    // The example follows from when it came; it ends when the bus closes.
    writer.reset();
    const auto& ended = example.wait();
    EXPECT_EQ(ended.status, 0) << ended.err;
    EXPECT_NE(ended.out.find("cu2603 71230 | 71240"), std::string::npos) << ended.out;
    vorn_bus::remove_bus(name);
}

} // namespace
