#include "scripted_card.h"

#include "register_window.h"

#include <exanic/exanic.h>
#include <exanic/fifo_rx.h>
#include <exanic/util.h>

#include <array>
#include <atomic>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <stdexcept>

namespace support {
namespace {

constexpr int kPorts = 2;
constexpr ssize_t kFrameTooLarge = -257;

// One answer of a port: a frame, or `polls` times the same status.
struct Answer {
    wirekit::Bytes frame;
    ssize_t result = 0;
    uint64_t polls = 1;
};

using Hook = std::function<void(int, uint64_t)>;

// A lock for each port, not one for the card: the two ports are polled by two threads, and a common
// lock would order everything that they do, so that a race detector could find nothing.
struct Port {
    mutable std::mutex lock;
    std::deque<Answer> answers;
    std::shared_ptr<const Hook> hook;
    std::atomic<uint64_t> polls{0};
};

struct FakeRx {
    int port;
};

struct State {
    std::array<Port, kPorts> ports;
    mutable std::mutex lock; // guards what follows
    std::vector<std::string> calls;
    std::deque<FakeRx> rx_buffers; // a deque: addresses stay
    std::array<std::string, 3> failures;
    int failing_rx_port = -1;
    std::string last_error;
    std::array<FakeRx, kPorts> fixed_rx{FakeRx{0}, FakeRx{1}};
    char handle = 0; // its address is the card's handle
};

State& state() {
    static State& the_state = *new State; // polled by threads that may outlive main
    return the_state;
}

Port& port_of(int port) {
    if (port < 0 || port >= kPorts) {
        throw std::out_of_range("the card has ports 0 and 1");
    }
    return state().ports[static_cast<std::size_t>(port)];
}

void push_answer(int port, Answer answer) {
    Port& target = port_of(port);
    const std::lock_guard<std::mutex> guard(target.lock);
    target.answers.push_back(std::move(answer));
}

// True when the call is scripted to fail; the text is then the library's last error. Caller holds
// the lock.
bool fails(State& card, ScriptedCard::Call call) {
    const std::string& text = card.failures[static_cast<std::size_t>(call)];
    if (text.empty()) {
        return false;
    }
    card.last_error = text;
    return true;
}

ssize_t receive(int port, char* buffer, std::size_t size) {
    Port& from = port_of(port);
    const uint64_t poll = from.polls.fetch_add(1, std::memory_order_relaxed) + 1;
    std::shared_ptr<const Hook> hook;
    {
        const std::lock_guard<std::mutex> guard(from.lock);
        hook = from.hook;
    }
    if (hook) {
        (*hook)(port, poll);
    }
    const std::lock_guard<std::mutex> guard(from.lock);
    if (from.answers.empty()) {
        return 0;
    }
    Answer& answer = from.answers.front();
    ssize_t result = answer.result;
    if (!answer.frame.empty()) {
        result = kFrameTooLarge;
        if (answer.frame.size() <= size) {
            std::memcpy(buffer, answer.frame.data(), answer.frame.size());
            result = static_cast<ssize_t>(answer.frame.size());
        }
    }
    if (--answer.polls == 0) {
        from.answers.pop_front();
    }
    return result;
}

} // namespace

ScriptedCard::ScriptedCard() {
    reset();
}

ScriptedCard& ScriptedCard::instance() {
    static ScriptedCard& card = *new ScriptedCard;
    return card;
}

void ScriptedCard::reset() {
    for (Port& port : state().ports) {
        const std::lock_guard<std::mutex> guard(port.lock);
        port.answers.clear();
        port.hook.reset();
        port.polls = 0;
    }
    {
        State& card = state();
        const std::lock_guard<std::mutex> guard(card.lock);
        card.calls.clear();
        card.rx_buffers.clear();
        card.failures = {};
        card.failing_rx_port = -1;
        card.last_error.clear();
    }
    RegisterWindow& window = RegisterWindow::instance();
    window.zero();
    window.clear_records();
    window.record(true);
}

void ScriptedCard::push(int port, wirekit::Bytes frame) {
    push_answer(port, {.frame = std::move(frame)});
}

void ScriptedCard::push_nothing(int port, int polls) {
    if (polls > 0) {
        push_answer(port, {.frame = {}, .result = 0, .polls = static_cast<uint64_t>(polls)});
    }
}

void ScriptedCard::push_result(int port, ssize_t result) {
    push_answer(port, {.frame = {}, .result = result});
}

void ScriptedCard::on_poll(Hook hook) {
    const auto shared = hook ? std::make_shared<const Hook>(std::move(hook)) : nullptr;
    for (Port& port : state().ports) {
        const std::lock_guard<std::mutex> guard(port.lock);
        port.hook = shared;
    }
}

uint64_t ScriptedCard::polls(int port) const {
    return port_of(port).polls.load();
}

std::size_t ScriptedCard::left(int port) const {
    const Port& of = port_of(port);
    const std::lock_guard<std::mutex> guard(of.lock);
    std::size_t sum = 0;
    for (const Answer& answer : of.answers) {
        sum += answer.polls;
    }
    return sum;
}

void ScriptedCard::fail(Call call, const std::string& text, int port) {
    State& card = state();
    const std::lock_guard<std::mutex> guard(card.lock);
    card.failures[static_cast<std::size_t>(call)] = text;
    if (call == Call::kRxBuffer) {
        card.failing_rx_port = port;
    }
}

void ScriptedCard::record_stores(bool on) {
    RegisterWindow::instance().record(on);
}

std::vector<RegisterStore> ScriptedCard::stores() const {
    const RegisterWindow& window = RegisterWindow::instance();
    std::vector<RegisterStore> result;
    result.reserve(window.size());
    for (std::size_t i = 0; i < window.size(); ++i) {
        result.push_back({window.records()[i].word, window.records()[i].value});
    }
    return result;
}

std::size_t ScriptedCard::dropped_stores() const {
    return RegisterWindow::instance().dropped();
}

std::size_t ScriptedCard::unusual_stores() const {
    return RegisterWindow::instance().unusual();
}

void ScriptedCard::clear_stores() {
    RegisterWindow::instance().clear_records();
}

uint32_t ScriptedCard::reg(uint32_t word) const {
    return RegisterWindow::instance().writable()[word];
}

void ScriptedCard::set_reg(uint32_t word, uint32_t value) {
    RegisterWindow::instance().writable()[word] = value;
}

volatile uint32_t* ScriptedCard::registers() {
    return RegisterWindow::instance().guarded();
}

std::vector<std::string> ScriptedCard::calls() const {
    const State& card = state();
    const std::lock_guard<std::mutex> guard(card.lock);
    return card.calls;
}

::exanic_rx* ScriptedCard::rx(int port) {
    return reinterpret_cast<::exanic_rx*>(&state().fixed_rx.at(static_cast<std::size_t>(port)));
}

} // namespace support

// --- The seven calls.

using support::ScriptedCard;

extern "C" {

exanic_t* exanic_acquire_handle(const char* device_name) {
    support::State& card = support::state();
    const std::lock_guard<std::mutex> guard(card.lock);
    card.calls.push_back(std::string("acquire_handle ") + device_name);
    // One handle, whatever the name: the library shares and counts handles.
    return fails(card, ScriptedCard::Call::kAcquireHandle)
               ? nullptr
               : reinterpret_cast<exanic_t*>(&card.handle);
}

void exanic_release_handle(exanic_t*) {
    support::State& card = support::state();
    const std::lock_guard<std::mutex> guard(card.lock);
    card.calls.emplace_back("release_handle");
}

const char* exanic_get_last_error(void) {
    support::State& card = support::state();
    const std::lock_guard<std::mutex> guard(card.lock);
    return card.last_error.c_str();
}

volatile uint32_t* exanic_get_devkit_registers(exanic_t*) {
    support::State& card = support::state();
    const std::lock_guard<std::mutex> guard(card.lock);
    return fails(card, ScriptedCard::Call::kRegisters) ? nullptr
                                                       : ScriptedCard::instance().registers();
}

exanic_rx_t* exanic_acquire_rx_buffer(exanic_t*, int port_number, int buffer_number) {
    support::State& card = support::state();
    const std::lock_guard<std::mutex> guard(card.lock);
    card.calls.push_back("acquire_rx " + std::to_string(port_number) + " " +
                         std::to_string(buffer_number));
    if (port_number == card.failing_rx_port && fails(card, ScriptedCard::Call::kRxBuffer)) {
        return nullptr;
    }
    card.rx_buffers.push_back({port_number});
    return reinterpret_cast<exanic_rx_t*>(&card.rx_buffers.back());
}

void exanic_release_rx_buffer(exanic_rx_t* rx) {
    support::State& card = support::state();
    const std::lock_guard<std::mutex> guard(card.lock);
    card.calls.push_back("release_rx " +
                         std::to_string(reinterpret_cast<support::FakeRx*>(rx)->port));
}

ssize_t exanic_receive_frame(exanic_rx_t* rx, char* rx_buf, size_t rx_buf_size,
                             exanic_cycles32_t* timestamp) {
    if (timestamp != nullptr) {
        *timestamp = 0;
    }
    return support::receive(reinterpret_cast<support::FakeRx*>(rx)->port, rx_buf, rx_buf_size);
}
}
