#include "softcard/registers/store_trap.h"

#include "support.h"

#include <cerrno>
#include <csetjmp>
#include <csignal>
#include <cstdio>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <thread>
#include <unistd.h>

namespace softcard {
namespace {

using test::new_window;

sigjmp_buf recovery;
volatile sig_atomic_t handled;
void* volatile handled_address;

void recover(int, siginfo_t* info, void*) {
    handled = handled + 1;
    handled_address = info->si_addr;
    siglongjmp(recovery, 1);
}

void count_plainly(int) {
    handled = handled + 1;
}

// Puts a handler in place before any window exists, as a program that links the card might.
class EarlierHandler {
public:
    EarlierHandler(int number, struct sigaction action) : number_(number) {
        sigaction(number_, &action, &before_);
        handled = 0;
        handled_address = nullptr;
    }
    ~EarlierHandler() { sigaction(number_, &before_, nullptr); }
    EarlierHandler(const EarlierHandler&) = delete;
    EarlierHandler& operator=(const EarlierHandler&) = delete;

private:
    int number_;
    struct sigaction before_ {};
};

struct sigaction recovering() {
    struct sigaction action {};
    action.sa_flags = SA_SIGINFO;
    action.sa_sigaction = recover;
    return action;
}

struct sigaction counting(int flags = 0) {
    struct sigaction action {};
    action.sa_flags = flags;
    action.sa_handler = count_plainly;
    return action;
}

// A page that nobody may touch.
class ForbiddenPage {
public:
    ForbiddenPage() : page_(mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)) {}
    ~ForbiddenPage() { munmap(page_, 4096); }
    ForbiddenPage(const ForbiddenPage&) = delete;
    ForbiddenPage& operator=(const ForbiddenPage&) = delete;
    volatile int* at() const { return static_cast<volatile int*>(page_); }

private:
    void* page_;
};

void expect_stores_seen(RegisterWindow& window, uint32_t number) {
    window.program_view()[kShfeAddressWord] = number;
    window.program_view()[kShfeDataWord] = 1;
    EXPECT_TRUE(window.filter_entry(Exchange::kShfe, number));
}

TEST(StoreTrap, LeavesForeignFaultsToTheEarlierHandler) {
    const EarlierHandler earlier(SIGSEGV, recovering());
    const ForbiddenPage page;
    const auto window = new_window();
    expect_stores_seen(*window, 1);
    for (int round = 1; round <= 3; ++round) {
        if (sigsetjmp(recovery, 1) == 0) {
            *page.at() = 1;
            FAIL() << "the store went through";
        }
        EXPECT_EQ(handled, round);
        EXPECT_EQ(handled_address, const_cast<int*>(page.at()));
    }
    expect_stores_seen(*window, 2);
    EXPECT_EQ(handled, 3);
}

TEST(StoreTrap, LeavesForeignTrapsToTheEarlierHandler) {
    const EarlierHandler earlier(SIGTRAP, counting());
    const auto window = new_window();
    asm volatile("int3");
    EXPECT_EQ(handled, 1);
    raise(SIGTRAP);
    EXPECT_EQ(handled, 2);
    expect_stores_seen(*window, 3);
    EXPECT_EQ(handled, 2);
}

TEST(StoreTrap, PassesASentSignalOn) {
    const EarlierHandler earlier(SIGSEGV, counting());
    const auto window = new_window();
    raise(SIGSEGV);
    EXPECT_EQ(handled, 1);
    expect_stores_seen(*window, 4);
}

TEST(StoreTrap, HonoursASentSignalThatWasIgnored) {
    struct sigaction ignored {};
    ignored.sa_handler = SIG_IGN;
    const EarlierHandler earlier(SIGSEGV, ignored);
    const auto window = new_window();
    raise(SIGSEGV);
    expect_stores_seen(*window, 5);
}

TEST(StoreTrap, GivesTheEarlierHandlerItsOwnMask) {
    static sigset_t seen;
    struct sigaction action {};
    sigemptyset(&action.sa_mask);
    sigaddset(&action.sa_mask, SIGUSR1);
    action.sa_handler = [](int) {
        handled = handled + 1;
        pthread_sigmask(SIG_SETMASK, nullptr, &seen);
    };
    const EarlierHandler earlier(SIGSEGV, action);
    const auto window = new_window();
    raise(SIGSEGV);
    EXPECT_EQ(handled, 1);
    EXPECT_EQ(sigismember(&seen, SIGUSR1), 1);
    EXPECT_EQ(sigismember(&seen, SIGSEGV), 1);
    EXPECT_EQ(sigismember(&seen, SIGUSR2), 0);
    sigset_t after;
    pthread_sigmask(SIG_SETMASK, nullptr, &after);
    EXPECT_EQ(sigismember(&after, SIGUSR1), 0);
}

TEST(StoreTrap, PutsTheEarlierHandlersBackWithTheLastWindow) {
    const EarlierHandler earlier(SIGSEGV, counting());
    auto first = new_window();
    auto second = new_window();
    struct sigaction current {};
    first.reset();
    sigaction(SIGSEGV, nullptr, &current);
    EXPECT_NE(current.sa_handler, count_plainly);
    second.reset();
    sigaction(SIGSEGV, nullptr, &current);
    EXPECT_EQ(current.sa_handler, count_plainly);
}

TEST(StoreTrap, StaysBehindAHandlerThatCameLater) {
    static struct sigaction behind;
    auto window = new_window();
    struct sigaction later {};
    later.sa_flags = SA_SIGINFO;
    later.sa_sigaction = [](int number, siginfo_t* info, void* context) {
        handled = handled + 1;
        behind.sa_sigaction(number, info, context);
    };
    handled = 0;
    sigaction(SIGSEGV, &later, &behind);
    expect_stores_seen(*window, 6);
    EXPECT_EQ(handled, 2);
    window.reset(); // must not take the later handler away
    struct sigaction current {};
    sigaction(SIGSEGV, nullptr, &current);
    EXPECT_EQ(current.sa_sigaction, later.sa_sigaction);
    window = new_window();
    expect_stores_seen(*window, 7);
    EXPECT_EQ(handled, 4);
    sigaction(SIGSEGV, &behind, nullptr);
}

TEST(StoreTrap, LeavesErrnoAlone) {
    const auto window = new_window();
    volatile uint32_t* const at = &window->program_view()[kShfeAddressWord];
    errno = EDOM;
    *at = 1;
    EXPECT_EQ(errno, EDOM);
    uint32_t value = 2;
    asm volatile("xchgl %0, %1" : "+r"(value), "+m"(*at));
    EXPECT_EQ(errno, EDOM);
}

TEST(StoreTrap, KeepsOtherSignalsOutOfTheStepAndDeliversThemAfter) {
    const EarlierHandler earlier(SIGUSR1, counting());
    const auto window = new_window();
    volatile uint32_t* const at = &window->program_view()[kShfeAddressWord];
    sigset_t blocked, before;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGUSR2);
    pthread_sigmask(SIG_BLOCK, &blocked, &before);
    for (uint32_t i = 0; i < 100; ++i) {
        raise(SIGUSR1);
        uint32_t value = i;
        asm volatile("xchgl %0, %1" : "+r"(value), "+m"(*at));
    }
    EXPECT_EQ(handled, 100);
    sigset_t after;
    pthread_sigmask(SIG_SETMASK, &before, &after);
    EXPECT_EQ(sigismember(&after, SIGUSR2), 1);
    EXPECT_EQ(sigismember(&after, SIGTRAP), 0);
    EXPECT_EQ(sigismember(&after, SIGUSR1), 0);
}

TEST(StoreTrap, StepsARepeatedStoreThatThenFaultsElsewhere) {
    const EarlierHandler earlier(SIGSEGV, recovering());
    const ForbiddenPage page;
    const auto window = new_window();
    volatile uint32_t* const at = &window->program_view()[kShfeAddressWord];
    // The second page of two cannot be read: one word is copied, then the source faults.
    void* const pages = mmap(nullptr, 8192, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    char* const border = static_cast<char*>(pages) + 4096;
    mprotect(border, 4096, PROT_NONE);
    *at = 5;
    if (sigsetjmp(recovery, 1) == 0) {
        void* to = const_cast<uint32_t*>(at);
        const void* from = border - 4;
        uint64_t count = 2;
        asm volatile("rep movsl" : "+D"(to), "+S"(from), "+c"(count) : : "memory");
        FAIL() << "the copy went through";
    }
    EXPECT_EQ(handled, 1);
    EXPECT_EQ(handled_address, border);
    EXPECT_EQ(*at, 0u);
    munmap(pages, 8192);
    uint32_t value = 12;
    asm volatile("xchgl %0, %1" : "+r"(value), "+m"(*at));
    EXPECT_EQ(*at, 12u);
    expect_stores_seen(*window, 13);
}

TEST(StoreTrap, WorksOnEveryThread) {
    const auto window = new_window();
    for (uint32_t number = 20; number < 28; ++number) {
        std::thread([&] { expect_stores_seen(*window, number); }).join();
    }
}

class StoreTrapDeathTest : public testing::Test {
protected:
    StoreTrapDeathTest() { testing::GTEST_FLAG(death_test_style) = "threadsafe"; }
};

// Sanitizers report a fault in their own words, so only the end of the process is looked at.
TEST_F(StoreTrapDeathTest, AForeignFaultStillEndsTheProcess) {
    EXPECT_DEATH(
        {
            const ForbiddenPage page;
            const auto window = new_window();
            window->program_view()[kShfeAddressWord] = 1;
            *page.at() = 1;
        },
        "");
}

TEST_F(StoreTrapDeathTest, AForeignFaultWithoutAHandlerHasTheDefaultEffect) {
    EXPECT_EXIT(
        {
            std::signal(SIGSEGV, SIG_DFL);
            const ForbiddenPage page;
            const auto window = new_window();
            window->program_view()[kShfeAddressWord] = 1;
            *page.at() = 1;
        },
        testing::KilledBySignal(SIGSEGV), "");
}

TEST_F(StoreTrapDeathTest, AnIgnoredFaultEndsTheProcessAllTheSame) {
    EXPECT_EXIT(
        {
            std::signal(SIGSEGV, SIG_IGN);
            const ForbiddenPage page;
            const auto window = new_window();
            *page.at() = 1;
        },
        testing::KilledBySignal(SIGSEGV), "");
}

TEST_F(StoreTrapDeathTest, ABreakpointWithoutAHandlerHasTheDefaultEffect) {
    EXPECT_EXIT(
        {
            std::signal(SIGTRAP, SIG_DFL);
            const auto window = new_window();
            asm volatile("int3");
        },
        testing::KilledBySignal(SIGTRAP), "");
}

TEST_F(StoreTrapDeathTest, ASentSignalWithoutAHandlerHasTheDefaultEffect) {
    EXPECT_EXIT(
        {
            std::signal(SIGSEGV, SIG_DFL);
            const auto window = new_window();
            raise(SIGSEGV);
        },
        testing::KilledBySignal(SIGSEGV), "");
}

TEST_F(StoreTrapDeathTest, AWildStoreBehindTheWindowIsAFault) {
    EXPECT_EXIT(
        {
            std::signal(SIGSEGV, SIG_DFL);
            volatile uint32_t* registers = nullptr;
            {
                const auto window = new_window();
                registers = window->program_view();
            }
            registers[kShfeAddressWord] = 1; // unmapped with its window
        },
        testing::KilledBySignal(SIGSEGV), "");
}

} // namespace
} // namespace softcard
