// The stand-in for the card itself: these tests vouch for what the others build on.

#include "tests/support/child_process.h"
#include "tests/support/scripted_card.h"
#include "tests/support/temp_dir.h"

#include <exanic/fifo_rx.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <sys/mman.h>
#include <thread>
#include <vector>

namespace {

using support::RegisterStore;
using support::ScriptedCard;
using testing::ElementsAre;
using testing::IsEmpty;

ScriptedCard& fresh_card() {
    ScriptedCard& card = ScriptedCard::instance();
    card.reset();
    return card;
}

TEST(ScriptedCardRegisters, RecordEveryStoreInOrder) {
    ScriptedCard& card = fresh_card();
    volatile uint32_t* registers = card.registers();
    registers[0] = 1;
    registers[32767] = 0xFFFFFFFF;
    for (uint32_t i = 0; i < 100; ++i) {
        registers[1792] = i;
        registers[1793] = i & 1;
    }
    std::vector<RegisterStore> expected = {{0, 1}, {32767, 0xFFFFFFFF}};
    for (uint32_t i = 0; i < 100; ++i) {
        expected.push_back({1792, i});
        expected.push_back({1793, i & 1});
    }
    EXPECT_EQ(card.stores(), expected);
    EXPECT_EQ(card.reg(1792), 99U);
    EXPECT_EQ(registers[32767], 0xFFFFFFFF);
    EXPECT_EQ(card.unusual_stores(), 0U);
}

TEST(ScriptedCardRegisters, SeeStoresThatAreNoPlainMove) {
    ScriptedCard& card = fresh_card();
    auto* registers = const_cast<uint32_t*>(card.registers());
    __atomic_exchange_n(registers + 700, 7U, __ATOMIC_SEQ_CST);
    __atomic_fetch_add(registers + 700, 3U, __ATOMIC_SEQ_CST);
    *reinterpret_cast<volatile uint8_t*>(registers + 701) = 0xAB;
    EXPECT_THAT(card.stores(), ElementsAre(RegisterStore{700, 7}, RegisterStore{700, 10},
                                           RegisterStore{701, 0xAB}));
    EXPECT_EQ(card.unusual_stores(), 3U);
    const_cast<volatile uint32_t*>(registers)[702] = 1; // and the page is guarded again
    EXPECT_EQ(card.stores().size(), 4U);
}

TEST(ScriptedCardRegisters, SeeTheStoresOfAnotherThread) {
    ScriptedCard& card = fresh_card();
    volatile uint32_t* registers = card.registers();
    std::atomic<int> turn{0};
    const auto store_in_turn = [&](int who) {
        for (uint32_t i = 0; i < 50; ++i) {
            while (turn.load() != who) {
                std::this_thread::yield();
            }
            registers[600 + static_cast<uint32_t>(who)] = i;
            turn = 1 - who;
        }
    };
    std::thread other(store_in_turn, 1);
    store_in_turn(0);
    other.join();
    const std::vector<RegisterStore> stores = card.stores();
    ASSERT_EQ(stores.size(), 100U);
    for (uint32_t i = 0; i < 100; ++i) {
        EXPECT_EQ(stores[i], (RegisterStore{600 + i % 2, i / 2}));
    }
}

TEST(ScriptedCardRegisters, AreQuietWhenTheTestItselfWrites) {
    ScriptedCard& card = fresh_card();
    card.set_reg(1, 5);
    EXPECT_EQ(card.registers()[1], 5U);
    EXPECT_THAT(card.stores(), IsEmpty());
    card.registers()[1] = 6;
    card.clear_stores();
    EXPECT_THAT(card.stores(), IsEmpty());
    card.record_stores(false);
    card.registers()[1] = 7;
    EXPECT_THAT(card.stores(), IsEmpty());
    EXPECT_EQ(card.reg(1), 7U);
    card.record_stores(true);
    card.registers()[1] = 8;
    EXPECT_EQ(card.stores().size(), 1U);
    card.reset();
    EXPECT_EQ(card.reg(1), 0U);
}

TEST(ScriptedCardRegisters, CountWhatTheyCannotKeep) {
    ScriptedCard& card = fresh_card();
    for (uint32_t i = 0; i < 200003; ++i) {
        card.registers()[4] = i;
    }
    EXPECT_EQ(card.stores().size(), 200000U);
    EXPECT_EQ(card.stores().back(), (RegisterStore{4, 199999}));
    EXPECT_EQ(card.dropped_stores(), 3U);
    EXPECT_EQ(card.reg(4), 200002U);
}

TEST(ScriptedCardRegisters, LeaveOtherFaultsDeadly) {
    (void)fresh_card();
    const support::TempDir dir;
    void* const page = ::mmap(nullptr, 4096, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(page, MAP_FAILED);
    const support::ChildRun store =
        support::run_child(dir.path(), [page] { *static_cast<volatile uint32_t*>(page) = 1; });
    EXPECT_NE(store.exit_status, 0);
    const support::ChildRun trap = support::run_child(dir.path(), [] { ::raise(SIGTRAP); });
    EXPECT_NE(trap.exit_status, 0);
    ::munmap(page, 4096);
}

TEST(ScriptedCardPolls, AnswerTheScriptAndThenNothing) {
    ScriptedCard& card = fresh_card();
    card.push(0, {1, 2, 3});
    card.push_nothing(0, 2);
    card.push_result(0, -256);
    card.push_result(0, 5000);
    card.push(0, wirekit::Bytes(2049, 7));
    card.push(1, {9});
    EXPECT_EQ(card.left(0), 6U);
    char buffer[2048] = {};
    const auto poll = [&](int port) {
        return ::exanic_receive_frame(card.rx(port), buffer, sizeof buffer, nullptr);
    };
    EXPECT_EQ(poll(0), 3);
    EXPECT_EQ(std::vector<char>(buffer, buffer + 4), (std::vector<char>{1, 2, 3, 0}));
    EXPECT_EQ(poll(0), 0);
    EXPECT_EQ(poll(1), 1);
    EXPECT_EQ(poll(0), 0);
    EXPECT_EQ(poll(0), -256);
    EXPECT_EQ(poll(0), 5000);
    EXPECT_EQ(poll(0), -257);
    EXPECT_EQ(poll(0), 0);
    EXPECT_EQ(card.left(0), 0U);
    EXPECT_EQ(card.polls(0), 7U);
    EXPECT_EQ(card.polls(1), 1U);
}

TEST(ScriptedCardPolls, CallTheHookFirstWhichMayExtendTheScript) {
    ScriptedCard& card = fresh_card();
    std::vector<uint64_t> seen;
    card.on_poll([&](int port, uint64_t poll) {
        seen.push_back(poll);
        card.push(port, wirekit::Bytes(poll, 1));
    });
    char buffer[2048];
    EXPECT_EQ(::exanic_receive_frame(card.rx(0), buffer, sizeof buffer, nullptr), 1);
    EXPECT_EQ(::exanic_receive_frame(card.rx(0), buffer, sizeof buffer, nullptr), 2);
    EXPECT_THAT(seen, ElementsAre(1U, 2U));
}

} // namespace
