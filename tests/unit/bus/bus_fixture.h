#pragma once

#include "bus/bus_reader.h"
#include "bus/bus_writer.h"
#include "tests/support/bus_records.h"

#include <gtest/gtest.h>

#include <memory>

// A bus of its own, with the smallest ring. The writer may be ended and made again.
class BusFixture : public testing::Test {
protected:
    static constexpr uint64_t kRing = 1024;

    BusFixture() : name_(support::own_bus_name()) { start(); }
    ~BusFixture() override {
        writer_.reset();
        vorn_bus::remove_bus(name_);
    }
    void start() {
        writer_.reset();
        writer_ = std::make_unique<vorn_bus::BusWriter>(vorn_bus::WriterOptions{name_, kRing});
    }
    // Publishes the records numbered `from` to `to`, each into the slot of its number.
    void publish(uint64_t from, uint64_t to) {
        for (uint64_t number = from; number <= to; ++number) {
            writer_->publish(support::numbered_record(number),
                             static_cast<uint32_t>(number % INSTRUMENT_SLOT_CNT));
        }
    }

    std::string name_;
    std::unique_ptr<vorn_bus::BusWriter> writer_;
};
