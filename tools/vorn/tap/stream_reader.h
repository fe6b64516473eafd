#pragma once

// Reads the stream of `vorn fanout` in its order, each message once. It knows the number of the
// last message it has handed out; whatever happens to connections, servers and the server's own
// idea of this reader, it begins anew behind that.
//
// One thread.

#include "tools/vorn/fanout/nats_link.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace vorn_cli {

enum class ReadFrom : uint8_t {
    kNow,       // what comes from now on
    kLast,      // the newest message of each subject, then what comes
    kBeginning, // all that the stream holds
};

struct StreamMessage {
    NatsPtr<natsMsg> bytes;
    std::string_view subject;
    std::string_view payload;
    std::string_view id;   // Nats-Msg-Id; empty when there is none
    uint64_t sequence = 0; // of the stream
};

class StreamReader {
public:
    // Nothing is asked of a server yet.
    StreamReader(const NatsLink& link, std::string stream, std::string subject, ReadFrom from);
    ~StreamReader();
    StreamReader(const StreamReader&) = delete;
    StreamReader& operator=(const StreamReader&) = delete;
    // Goes on behind a message that was read earlier, whatever `from` was.
    void resume_behind(uint64_t sequence);

    // The next message, if one comes within about so long.
    bool next(StreamMessage& message, int64_t wait_ms);

    bool opened() const { return opened_; } // at least once
    // All that the stream held when it was opened has been handed out.
    bool caught_up() const { return caught_up_; }
    uint64_t position() const { return position_; } // sequence of the last message, 0: none
    uint64_t reopened() const { return reopened_; }
    const std::string& trouble() const { return trouble_; }

private:
    bool open();
    bool add_consumer(std::string& trouble);
    void give_up(const std::string& why);
    bool is_status(natsMsg* message) const;
    bool take(StreamMessage& message);

    const NatsLink& link_;
    const std::string stream_;
    const std::string subject_;
    const ReadFrom from_;
    NatsPtr<natsSubscription> subscription_;
    std::string consumer_; // what the server calls this reader
    uint64_t position_ = 0;
    bool resumed_ = false;
    bool opened_ = false;
    bool caught_up_ = false;
    bool past_last_ = false; // of kLast: the newest ones of then have been handed out
    uint64_t then_last_ = 0; // newest message of the subject when the stream was opened
    uint64_t expected_ = 0;  // number that the server's next message to this reader has
    uint64_t reopened_ = 0;
    uint64_t next_open_ns_ = 0;
    uint64_t heard_ns_ = 0; // when the server last sent anything
    std::string trouble_;
};

} // namespace vorn_cli
