#pragma once

// The exchange's end of one snapshot connection on a real network: a queue of segments and a thread
// that writes them to the client as it takes them. A slow client fills the queue and holds up
// nobody else; one that lets it fill up is given up.

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <span>
#include <string>
#include <thread>
#include <vector>

namespace vorn_cli {

class SnapshotConnection {
public:
    // Takes the connected socket over. `name` is for messages ("SHFE").
    SnapshotConnection(std::string name, int socket);
    // Drops what has not been written.
    ~SnapshotConnection();
    SnapshotConnection(const SnapshotConnection&) = delete;
    SnapshotConnection& operator=(const SnapshotConnection&) = delete;

    // Never waits. Each call is a TCP segment of its own, or several when it exceeds the
    // connection's segment size; it never shares one with another. Throws Failure when the client
    // has gone or leaves too much unread.
    void send(std::span<const uint8_t> segment);

    // Writes what is queued, ends the stream and waits until the client has closed its side. Throws
    // Failure when that does not come about in time. `keep_waiting` is asked ten times a second.
    template <typename KeepWaiting>
    void close(KeepWaiting keep_waiting) {
        begin_close();
        while (!closed() && keep_waiting()) {
        }
    }

private:
    void begin_close();
    bool closed(); // within a tenth of a second; throws Failure
    void run();
    bool take(std::vector<uint8_t>& segment);
    bool write_all(std::span<const uint8_t> bytes);
    void await_end();
    void fail(int error);

    const std::string name_;
    const int socket_;

    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<std::vector<uint8_t>> queue_;
    std::size_t queued_bytes_ = 0;
    bool closing_ = false;
    bool abandoned_ = false;
    bool done_ = false;
    std::string failure_;

    std::thread thread_; // last: uses the above
};

} // namespace vorn_cli
