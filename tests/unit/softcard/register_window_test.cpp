#include "softcard/registers/register_window.h"

#include "support.h"

#include <barrier>
#include <gtest/gtest.h>
#include <thread>

namespace softcard {
namespace {

using test::new_window;

// Stores of a shape that the decoder leaves to the single step.
void store_by_exchange(volatile uint32_t* at, uint32_t value) {
    asm volatile("xchgl %0, %1" : "+r"(value), "+m"(*at));
}

// The compiler's own form of the assignment, out of line so that it is the same for every caller.
[[gnu::noinline]] void set_entry(volatile uint32_t* registers, uint32_t address_word,
                                 uint32_t number, uint32_t value) {
    registers[address_word] = number;
    registers[address_word + 1] = value;
}

uint32_t count_entries(const RegisterWindow& window, Exchange exchange, uint32_t numbers) {
    uint32_t count = 0;
    for (uint32_t number = 0; number < numbers; ++number) {
        count += window.filter_entry(exchange, number) ? 1 : 0;
    }
    return count;
}

TEST(RegisterWindow, SaysWhichFirmwareItIs) {
    const auto window = new_window();
    const volatile uint32_t* const registers = window->program_view();
    EXPECT_EQ(registers[kVersionWord], kVersionValue);
    EXPECT_EQ(registers[kBuildWord], kBuildValue);
}

TEST(RegisterWindow, IsPlainMemoryOutsideOfTheFilterPage) {
    const auto window = new_window();
    volatile uint32_t* const registers = window->program_view();
    for (const uint32_t word : {0u, 5u, 12u, 16u, 512u, 528u, 1023u, 2048u, 4096u, 32767u}) {
        EXPECT_EQ(registers[word], 0u) << word;
        registers[word] = word + 7;
        EXPECT_EQ(window->read(word), word + 7) << word;
    }
}

TEST(RegisterWindow, SeesAllFilterEntriesInOrder) {
    const auto window = new_window();
    volatile uint32_t* const registers = window->program_view();
    const uint32_t generation = window->filter_generation();
    // Each entry depends on the address stored right before it.
    for (uint32_t number = 0; number < kIneEntries; ++number) {
        registers[kIneAddressWord] = number;
        registers[kIneDataWord] = number % 3 == 0;
    }
    for (uint32_t number = 0; number < kShfeEntries; ++number) {
        registers[kShfeAddressWord] = number;
        registers[kShfeDataWord] = number % 5 == 0;
    }
    for (uint32_t number = 0; number < kIneEntries; ++number) {
        ASSERT_EQ(window->filter_entry(Exchange::kIne, number), number % 3 == 0) << number;
    }
    for (uint32_t number = 0; number < kShfeEntries; ++number) {
        ASSERT_EQ(window->filter_entry(Exchange::kShfe, number), number % 5 == 0) << number;
    }
    EXPECT_EQ(window->stores_seen(kIneAddressWord), kIneEntries);
    EXPECT_EQ(window->stores_seen(kIneDataWord), kIneEntries);
    EXPECT_EQ(window->stores_seen(kShfeAddressWord), kShfeEntries);
    EXPECT_EQ(window->stores_seen(kShfeDataWord), kShfeEntries);
    EXPECT_EQ(window->filter_generation() - generation, kIneEntries + kShfeEntries);
}

TEST(RegisterWindow, SeesStoresOfOtherShapesInOrder) {
    const auto window = new_window();
    volatile uint32_t* const registers = window->program_view();
    for (uint32_t number = 0; number < kShfeEntries; number += 3) {
        store_by_exchange(&registers[kShfeAddressWord], number);
        store_by_exchange(&registers[kShfeDataWord], 1);
    }
    for (uint32_t number = 0; number < kShfeEntries; ++number) {
        ASSERT_EQ(window->filter_entry(Exchange::kShfe, number), number % 3 == 0) << number;
    }
    EXPECT_EQ(window->stores_seen(kShfeDataWord), (kShfeEntries + 2) / 3);
    // The page is closed again: a plain store is still seen.
    set_entry(registers, kShfeAddressWord, 1, 1);
    EXPECT_TRUE(window->filter_entry(Exchange::kShfe, 1));
}

TEST(RegisterWindow, ExchangeReturnsWhatStoodThere) {
    const auto window = new_window();
    volatile uint32_t* const registers = window->program_view();
    registers[kShfeAddressWord] = 77;
    uint32_t value = 78;
    asm volatile("xchgl %0, %1" : "+r"(value), "+m"(registers[kShfeAddressWord]));
    EXPECT_EQ(value, 77u);
    EXPECT_EQ(registers[kShfeAddressWord], 78u);
}

TEST(RegisterWindow, SeesBothHalvesOfAWideStore) {
    const auto window = new_window();
    volatile uint32_t* const registers = window->program_view();
    for (uint64_t number = 100; number < 110; ++number) { // the data half never changes
        const uint64_t both = uint64_t{1} << 32 | number;
        asm volatile("movq %1, %0"
                     : "=m"(*const_cast<uint64_t*>(
                         reinterpret_cast<volatile uint64_t*>(&registers[kIneAddressWord])))
                     : "r"(both));
    }
    EXPECT_EQ(count_entries(*window, Exchange::kIne, kIneEntries), 10u);
    EXPECT_TRUE(window->filter_entry(Exchange::kIne, 109));
}

TEST(RegisterWindow, SeesEveryStoreOfARepeatedOne) {
    const auto window = new_window();
    volatile uint32_t* const registers = window->program_view();
    // 1792 to 1797: an address and a data store for each of the tables, all with the value 1.
    void* at = const_cast<uint32_t*>(&registers[kShfeAddressWord]);
    uint64_t count = 6;
    asm volatile("rep stosl" : "+D"(at), "+c"(count) : "a"(1) : "memory");
    EXPECT_EQ(count, 0u);
    EXPECT_TRUE(window->filter_entry(Exchange::kShfe, 1));
    EXPECT_TRUE(window->filter_entry(Exchange::kIne, 1));
    for (uint32_t word = kShfeAddressWord; word <= kIneDataWord; ++word) {
        EXPECT_EQ(registers[word], 1u) << word;
    }
}

TEST(RegisterWindow, SeesAVectorStore) {
    const auto window = new_window();
    volatile uint32_t* const registers = window->program_view();
    alignas(16) const uint32_t values[4] = {5, 1, 0, 0};
    asm volatile("movdqa %0, %%xmm0\n\tmovdqu %%xmm0, (%1)"
                 :
                 : "m"(values), "r"(&registers[kShfeAddressWord])
                 : "xmm0", "memory");
    EXPECT_TRUE(window->filter_entry(Exchange::kShfe, 5));
}

TEST(RegisterWindow, KeepsWhatIsStoredInTheFilterPage) {
    const auto window = new_window();
    volatile uint32_t* const registers = window->program_view();
    for (const uint32_t word : {1024u, 1398u, 1792u, 1799u, 2047u}) {
        registers[word] = word * 3;
        EXPECT_EQ(registers[word], word * 3) << word;
        EXPECT_EQ(window->stores_seen(word), 1u) << word;
    }
}

TEST(RegisterWindow, CountsNothingOutsideOfTheFilterPage) {
    const auto window = new_window();
    window->program_view()[512] = 1;
    EXPECT_EQ(window->stores_seen(512), 0u);
    EXPECT_EQ(window->stores_seen(kWindowWords + 1), 0u);
}

TEST(RegisterWindow, LetsADataStoreUseTheLastAddress) {
    const auto window = new_window();
    volatile uint32_t* const registers = window->program_view();
    registers[kShfeAddressWord] = 5;
    registers[kShfeAddressWord] = 6;
    registers[kShfeDataWord] = 1;
    EXPECT_FALSE(window->filter_entry(Exchange::kShfe, 5));
    EXPECT_TRUE(window->filter_entry(Exchange::kShfe, 6));
    registers[kShfeDataWord] = 0; // without an address of its own
    EXPECT_FALSE(window->filter_entry(Exchange::kShfe, 6));
    registers[kShfeDataWord] = 2; // only 1 lets an instrument through
    EXPECT_FALSE(window->filter_entry(Exchange::kShfe, 6));
}

TEST(RegisterWindow, IgnoresAddressesOutsideOfTheTables) {
    const auto window = new_window();
    volatile uint32_t* const registers = window->program_view();
    set_entry(registers, kIneAddressWord, kIneEntries, 1);
    set_entry(registers, kIneAddressWord, 0xFFFFFFFF, 1);
    set_entry(registers, kShfeAddressWord, kShfeEntries, 1);
    set_entry(registers, kShfeAddressWord, 0x80000000, 1);
    EXPECT_EQ(count_entries(*window, Exchange::kIne, 2 * kIneEntries), 0u);
    EXPECT_EQ(count_entries(*window, Exchange::kShfe, 2 * kShfeEntries), 0u);
    set_entry(registers, kIneAddressWord, kIneEntries - 1, 1);
    set_entry(registers, kShfeAddressWord, kShfeEntries - 1, 1);
    EXPECT_TRUE(window->filter_entry(Exchange::kIne, kIneEntries - 1));
    EXPECT_TRUE(window->filter_entry(Exchange::kShfe, kShfeEntries - 1));
}

TEST(RegisterWindow, ReadsEntriesBack) {
    const auto window = new_window();
    volatile uint32_t* const registers = window->program_view();
    set_entry(registers, kShfeAddressWord, 40, 1);
    set_entry(registers, kIneAddressWord, 41, 1);
    registers[kShfeReadAddressWord] = 40;
    EXPECT_EQ(registers[kShfeReadDataWord], 1u);
    registers[kShfeReadAddressWord] = 41;
    EXPECT_EQ(registers[kShfeReadDataWord], 0u);
    registers[kIneReadAddressWord] = 41;
    EXPECT_EQ(registers[kIneReadDataWord], 1u);
}

TEST(RegisterWindow, SeesTheStoresOfTwoThreads) {
    const auto window = new_window();
    volatile uint32_t* const registers = window->program_view();
    std::barrier start(2);
    std::thread other([&] {
        start.arrive_and_wait();
        for (uint32_t number = 0; number < kIneEntries; ++number) {
            registers[kIneAddressWord] = number;
            registers[kIneDataWord] = 1;
        }
    });
    start.arrive_and_wait();
    for (uint32_t number = 0; number < kShfeEntries; ++number) {
        registers[kShfeAddressWord] = number;
        registers[kShfeDataWord] = 1;
    }
    other.join();
    EXPECT_EQ(count_entries(*window, Exchange::kIne, kIneEntries), kIneEntries);
    EXPECT_EQ(count_entries(*window, Exchange::kShfe, kShfeEntries), kShfeEntries);
}

TEST(RegisterWindow, SeesTwoThreadsThatBothNeedTheSingleStep) {
    const auto window = new_window();
    volatile uint32_t* const registers = window->program_view();
    constexpr uint32_t kNumbers = 500;
    std::barrier start(2);
    const auto store_all = [&](uint32_t address_word) {
        start.arrive_and_wait();
        for (uint32_t number = 0; number < kNumbers; ++number) {
            store_by_exchange(&registers[address_word], number);
            // An entry is never stored twice with one value in between: the data word changes
            // each time, so that a store within the other thread's step shows.
            store_by_exchange(&registers[address_word + 1], 1);
            store_by_exchange(&registers[address_word + 1], 0);
            store_by_exchange(&registers[address_word + 1], 1);
        }
    };
    std::thread other(store_all, kIneAddressWord);
    store_all(kShfeAddressWord);
    other.join();
    // Whatever was seen of the traffic in between, the window ends closed and consistent.
    set_entry(registers, kShfeAddressWord, 4000, 1);
    set_entry(registers, kIneAddressWord, 4000, 1);
    EXPECT_TRUE(window->filter_entry(Exchange::kShfe, 4000));
    EXPECT_TRUE(window->filter_entry(Exchange::kIne, 4000));
    EXPECT_EQ(registers[kShfeAddressWord], 4000u);
}

TEST(RegisterWindow, KeepsSeveralWindowsApart) {
    const auto first = new_window();
    const auto second = new_window();
    set_entry(first->program_view(), kShfeAddressWord, 3, 1);
    set_entry(second->program_view(), kShfeAddressWord, 4, 1);
    store_by_exchange(&second->program_view()[kIneAddressWord], 9);
    EXPECT_EQ(count_entries(*first, Exchange::kShfe, kShfeEntries), 1u);
    EXPECT_EQ(count_entries(*second, Exchange::kShfe, kShfeEntries), 1u);
    EXPECT_TRUE(first->filter_entry(Exchange::kShfe, 3));
    EXPECT_TRUE(second->filter_entry(Exchange::kShfe, 4));
    EXPECT_EQ(first->stores_seen(kIneAddressWord), 0u);
}

TEST(RegisterWindow, RefusesMoreWindowsThanItCanWatch) {
    std::vector<std::unique_ptr<RegisterWindow>> windows;
    std::string error;
    while (auto window = RegisterWindow::create(error)) {
        windows.push_back(std::move(window));
        ASSERT_LT(windows.size(), 1000u);
    }
    EXPECT_EQ(windows.size(), 64u);
    EXPECT_EQ(error, "too many devices are open; at most 64 can be");
    windows.pop_back();
    EXPECT_NE(RegisterWindow::create(error), nullptr);
}

} // namespace
} // namespace softcard
