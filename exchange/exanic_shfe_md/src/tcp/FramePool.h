#ifndef FRAME_POOL_H
#define FRAME_POOL_H

#include "ExanicMdTypes.h"
#include "tcp/TcpSession.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <utility>

// Buffers for frames on their way from the decoder thread to the worker. One thread takes them, one
// gives them back; a buffer is allocated only when none has come back yet, so that the pool grows
// to the longest backlog and no further.
class FramePool {
public:
    struct Buffer {
        Buffer* next;
        char bytes[RECV_BUF_SIZE + DECODE_SLACK]; // not initialised
    };
    struct GiveBack {
        FramePool* pool;
        void operator()(Buffer* buffer) const { pool->_Give(buffer); }
    };
    using Handle = std::unique_ptr<Buffer, GiveBack>;

    FramePool() = default;
    FramePool(const FramePool&) = delete;
    FramePool& operator=(const FramePool&) = delete;
    ~FramePool() { Release(); }

    // The taking thread. Throws std::bad_alloc.
    Handle Take() {
        if (m_taken == nullptr) {
            m_taken = m_given.exchange(nullptr, std::memory_order_acquire);
        }
        Buffer* buffer = m_taken;
        if (buffer != nullptr) {
            m_taken = buffer->next;
        } else {
            buffer = new Buffer;
        }
        return Handle(buffer, GiveBack{this});
    }

    // Frees what has come back. The taking thread, or after both have ended.
    void Release() {
        _Free(std::exchange(m_taken, nullptr));
        _Free(m_given.exchange(nullptr, std::memory_order_acquire));
    }

private:
    // Any thread. The taker only ever takes the whole list, so a buffer cannot come back between
    // the load and the exchange of another one.
    void _Give(Buffer* buffer) {
        buffer->next = m_given.load(std::memory_order_relaxed);
        while (!m_given.compare_exchange_weak(buffer->next, buffer, std::memory_order_release,
                                              std::memory_order_relaxed)) {
        }
    }
    static void _Free(Buffer* buffer) {
        while (buffer != nullptr) {
            delete std::exchange(buffer, buffer->next);
        }
    }

    Buffer* m_taken = nullptr;             // the taking thread's own
    std::atomic<Buffer*> m_given{nullptr}; // come back since
};

#endif
