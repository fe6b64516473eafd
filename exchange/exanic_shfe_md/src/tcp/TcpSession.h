#ifndef TCP_SESSION_H
#define TCP_SESSION_H

// Reassembly state of the snapshot channel, one session per local TCP port. Touched only by the
// channel's worker thread.

#include "ExanicMdTypes.h"

#include <cstddef>
#include <cstdint>

// The feed of a session. The exchange is the value with bit 1 cleared: 0 SHFE, 1 INE.
enum EMdqpDataType : int32_t {
    MDQP_DATA_TYPE_UNKNOW = -1,
    SHFE_2PS = 0,
    INE_2PS = 1,
    SHFE_4PS = 2,
    INE_4PS = 3
};

inline constexpr size_t FRAG_BUF_SIZE = 100000;  // bytes of a session's joining buffer
inline constexpr size_t MAX_JOINED_SIZE = 65535; // bytes that segments in order may join
// Zero bytes behind every frame copy, every held segment and the joined data while they are
// decoded. A field that begins inside a message is decoded even if its record runs on, at most 162
// bytes (header and data of the longest record) from where it begins.
inline constexpr size_t DECODE_SLACK = 256;

// A segment that arrived early: a copy of the whole Ethernet frame. Allocated with malloc.
struct TcpLostBuf {
    uint8_t buf[RECV_BUF_SIZE];
    uint32_t len;
    TcpLostBuf* next;   // toward higher sequence numbers
    TcpLostBuf* before; // toward lower sequence numbers
};

struct TcpSession {
    uint32_t src_host; // IPv4 addresses as found in the frame
    uint32_t dst_host;
    uint16_t src_port; // host order
    uint16_t dst_port;
    TcpLostBuf* lost_buf_head; // early segments, lowest sequence number first
    uint8_t* frag_buf;         // FRAG_BUF_SIZE bytes, from the first segment on
    uint32_t lost_buf_size;    // early segments held
    int32_t frag_buf_offset;   // bytes held in frag_buf
    uint32_t next_expt_seq;
    uint32_t current_seq; // sequence number of the segment that started the session
    uint8_t frag_flag;    // 1 while frag_buf holds the start of an unfinished message
    uint8_t lost_flag;    // 1 while the list is in use
    uint8_t init;         // 1 once started
    uint8_t reserved;
    EMdqpDataType em_dqp_data_type;
};

static_assert(offsetof(TcpLostBuf, len) == 2048);
static_assert(sizeof(TcpLostBuf) == 2072);
static_assert(offsetof(TcpSession, lost_buf_head) == 16);
static_assert(offsetof(TcpSession, lost_buf_size) == 32);
static_assert(offsetof(TcpSession, frag_flag) == 48);
static_assert(sizeof(TcpSession) == 56);

#endif
