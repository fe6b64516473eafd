#pragma once

// A connection to a NATS server, or to any one of a cluster: made once, then kept up by the client
// library, which goes to another server when one is lost. Nothing here is called by the library's
// threads.

#include <CLI/App.hpp>
#include <nats/nats.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace vorn_cli {

struct NatsDelete {
    void operator()(natsConnection* p) const { natsConnection_Destroy(p); }
    void operator()(natsOptions* p) const { natsOptions_Destroy(p); }
    void operator()(natsSubscription* p) const { natsSubscription_Destroy(p); }
    void operator()(natsMsg* p) const { natsMsg_Destroy(p); }
    void operator()(natsStatistics* p) const { natsStatistics_Destroy(p); }
    void operator()(jsCtx* p) const { jsCtx_Destroy(p); }
    void operator()(jsStreamInfo* p) const { jsStreamInfo_Destroy(p); }
    void operator()(jsMsgMetaData* p) const { jsMsgMetaData_Destroy(p); }
    void operator()(kvStore* p) const { kvStore_Destroy(p); }
    void operator()(kvEntry* p) const { kvEntry_Destroy(p); }
};
template <typename T>
using NatsPtr = std::unique_ptr<T, NatsDelete>;

// Takes what a call of the library makes: make([&](T** to) { return call(to, ...); }, ptr).
template <typename T, typename Call>
natsStatus nats_make(NatsPtr<T>& to, const Call& call) {
    T* made = nullptr;
    const natsStatus status = call(&made);
    to.reset(made);
    return status;
}

// What went wrong in the last call of this thread, for a message.
std::string nats_text(natsStatus status);

struct NatsOptions {
    std::string servers = "nats://127.0.0.1:4222"; // URLs, with commas between
    std::string credentials;                       // file; empty: none
    double wait_s = 10;                            // for the first connection
    // Otherwise the library waits a millisecond for more to send: faster by the batch, but a
    // message that waits for the acknowledgement of another waits longer.
    bool send_at_once = true;
};
void add_nats_options(CLI::App& sub, NatsOptions& options);

class NatsLink {
public:
    // Waits for a server to answer. `name` is what servers show. Throws Failure: kUsage for a URL
    // that is none, kTimedOut when nobody answers, kFailed when the server refuses. Ends early,
    // unconnected, when `running` says so.
    NatsLink(const NatsOptions& options, const std::string& name,
             const std::function<bool()>& running);
    ~NatsLink();
    NatsLink(const NatsLink&) = delete;
    NatsLink& operator=(const NatsLink&) = delete;

    bool made() const { return connection_ != nullptr; }
    natsConnection* connection() const { return connection_.get(); }
    jsCtx* jetstream() const { return jetstream_.get(); }

    bool connected() const; // at this moment
    uint64_t reconnects() const;
    std::string server() const; // URL of the one it is connected to; empty when it is not

private:
    // Ends the library's threads when the last link has gone.
    class Library {
    public:
        Library();
        ~Library();
        Library(const Library&) = delete;
        Library& operator=(const Library&) = delete;

    private:
        static inline std::atomic<int> users_{0};
    };

    Library library_; // outlives the rest
    NatsPtr<natsConnection> connection_;
    NatsPtr<jsCtx> jetstream_;
};

} // namespace vorn_cli
