#pragma once

// The snapshot channel as plainly as its description reads, for streams in order: each check in
// turn, the checksum over a scratch copy with a pseudo-header in front and two bytes at a time,
// messages joined in a growing buffer, every log line formatted before its level is tested,
// identifiers compared as strings. It gives the same tables and register stores.

#include "ExanicMdTypes.h"
#include "bench/reference/literal_live.h"
#include "tcp/ExanicTcpFunc.h"

#include <cstdint>
#include <map>
#include <memory>
#include <vector>

namespace bench {

class LiteralSnapshot {
public:
    LiteralSnapshot(Market& market, volatile uint32_t* registers);

    // Forgets sessions and tables.
    void clean();
    // One frame of `length` bytes with zero bytes behind it.
    void handle(char* frame, uint32_t length);
    uint8_t finished() const { return finished_; }

private:
    struct Session {
        bool started = false;
        bool shfe = false;
        uint32_t next_seq = 0;
        std::vector<char> joined;
    };

    bool checksum_is_right(const char* ip, const char* tcp, uint32_t size);
    bool start(Session& session, const char* payload, uint32_t size);
    void decode(Session& session, char* message);
    void field(Session& session, uint16_t id, uint16_t previous, char* data);
    void inst_info(Session& session, const char* data);
    void deal_info(Session& session, const char* data);
    void price_detail(Session& session, uint16_t previous, const char* data);
    instrument* record_of(const Session& session, int32_t number, int64_t& slot);

    Market& market_;
    volatile uint32_t* registers_;
    LiteralLog log_;
    std::map<uint16_t, Session> sessions_;
    std::vector<inter_info> limits_;
    uint8_t finished_ = 0;
};

} // namespace bench
