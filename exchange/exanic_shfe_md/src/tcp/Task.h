#ifndef TASK_H
#define TASK_H

#include <cstddef>
#include <new>
#include <type_traits>
#include <utility>

// A call to be made later, once: any callable that can be moved. Small ones are kept in place, so
// that queueing them allocates nothing.
class Task {
public:
    Task() = default; // cppcheck-suppress uninitMemberVar ; m_place is set with m_actions

    // Never hides the move constructor: see `requires`.
    template <typename Callable>
    requires(!std::is_same_v<std::decay_t<Callable>, Task>) // NOLINTNEXTLINE
        explicit Task(Callable&& callable) {
        using Kept = std::decay_t<Callable>;
        if constexpr (FitsInPlace<Kept>()) {
            new (m_place) Kept(std::forward<Callable>(callable));
            m_actions = &IN_PLACE<Kept>;
        } else {
            *reinterpret_cast<Kept**>(m_place) = new Kept(std::forward<Callable>(callable));
            m_actions = &ON_HEAP<Kept>;
        }
    }
    Task(Task&& other) noexcept : m_actions(other.m_actions) {
        if (m_actions != nullptr) {
            m_actions->move(m_place, other.m_place);
            other.m_actions = nullptr;
        }
    }
    Task& operator=(Task&& other) noexcept {
        if (this != &other) {
            Reset();
            if (other.m_actions != nullptr) {
                other.m_actions->move(m_place, other.m_place);
                m_actions = std::exchange(other.m_actions, nullptr);
            }
        }
        return *this;
    }
    Task(const Task&) = delete;
    Task& operator=(const Task&) = delete;
    ~Task() { Reset(); }

    // The task must hold a call.
    void Run() { m_actions->run(m_place); }

    // Drops the call and what it owns.
    void Reset() {
        if (m_actions != nullptr) {
            std::exchange(m_actions, nullptr)->destroy(m_place);
        }
    }

private:
    static constexpr size_t PLACE_SIZE = 40;

    struct Actions {
        void (*run)(void* place);
        void (*move)(void* to, void* from); // leaves nothing at `from`
        void (*destroy)(void* place);
    };

    template <typename Kept>
    static constexpr bool FitsInPlace() {
        return sizeof(Kept) <= PLACE_SIZE && alignof(Kept) <= alignof(void*) &&
               std::is_nothrow_move_constructible_v<Kept>;
    }

    template <typename Kept>
    static constexpr Actions IN_PLACE = {[](void* place) { (*static_cast<Kept*>(place))(); },
                                         [](void* to, void* from) {
                                             new (to) Kept(std::move(*static_cast<Kept*>(from)));
                                             static_cast<Kept*>(from)->~Kept();
                                         },
                                         [](void* place) { static_cast<Kept*>(place)->~Kept(); }};

    template <typename Kept>
    static constexpr Actions ON_HEAP = {
        [](void* place) { (**static_cast<Kept**>(place))(); },
        [](void* to, void* from) { *static_cast<Kept**>(to) = *static_cast<Kept**>(from); },
        [](void* place) { delete *static_cast<Kept**>(place); }};

    const Actions* m_actions = nullptr;
    alignas(void*) unsigned char m_place[PLACE_SIZE];
};

#endif
