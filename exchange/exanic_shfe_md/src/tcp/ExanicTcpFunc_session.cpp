// Sessions: one passive receiver per local TCP port. A session starts at the first segment of a
// snapshot round, takes segments in sequence order, keeps early ones, and joins messages that
// straddle segments.
//
// Sequence numbers compare as plain unsigned numbers, so a stream that wraps stalls. With recovery
// they compare by their distance, an incomplete message does not stop the drain of held segments,
// and a session that starts again keeps nothing of the one before.

#include "tcp/ExanicTcpFunc.h"

#include "CommonLog.h"
#include "MdMonitor.h"
#include "WireRead.h"
#include "tcp/FrameLayout.h"

#include <cstdlib>
#include <cstring>

namespace {

constexpr char LOG_FILE_TAG[] = "ExanicTcpFunc";

constexpr uint32_t MIN_SNAPSHOT_START = 45; // bytes that a round's first segment has at least

// Where the TCP segment of a checked frame stands.
struct FrameView {
    uint32_t seq;
    const char* payload;
    uint32_t payloadSize;
};

FrameView ViewHeldFrame(const TcpLostBuf& held) {
    const char* ip = reinterpret_cast<const char*>(held.buf) + ETHERNET_SIZE;
    const char* tcp = ip + IpHeaderLen(ip);
    return {TcpSequence(tcp), tcp + TcpHeaderLen(tcp),
            IpTotalLen(ip) - IpHeaderLen(ip) - TcpHeaderLen(tcp)};
}

uint32_t SequenceOf(const TcpLostBuf& held) {
    return ViewHeldFrame(held).seq;
}

// The first two bytes of a message decide; a single byte is never enough.
bool IsMessageStart(const void* data, size_t size) {
    if (size < 2) {
        return false;
    }
    const auto* bytes = static_cast<const uint8_t*>(data);
    return (bytes[0] & ~MDQP_FLAG_MORE) == MDQP_FLAG_LAST && bytes[1] == MDQP_TYPE_SNAPSHOT;
}

// Size of the message that begins at `data`, or 0 when not all of it is there.
uint32_t WholeMessageSize(const char* data, uint32_t available) {
    if (available < sizeof(MdqpHeader)) {
        return 0;
    }
    const uint32_t size = ReadRecord<MdqpHeader>(data).length + uint32_t{sizeof(MdqpHeader)};
    return size <= available ? size : 0;
}

TcpLostBuf* HoldFrame(const char* frame, uint32_t frameLen) {
    if (frameLen > sizeof(TcpLostBuf::buf)) {
        return nullptr; // larger than any frame that is received
    }
    auto* node = static_cast<TcpLostBuf*>(malloc(sizeof(TcpLostBuf)));
    if (node == nullptr) {
        MD_LOG_AS("_PacketHandler", LOG_ERROR, "failed to malloc buffer to store tcp lost frame");
        return nullptr;
    }
    memcpy(node->buf, frame, frameLen);
    memset(node->buf + frameLen, 0, sizeof(node->buf) - frameLen);
    node->len = frameLen;
    node->next = nullptr;
    node->before = nullptr;
    return node;
}

void InsertBefore(TcpSession& session, TcpLostBuf* node, TcpLostBuf* successor) {
    node->next = successor;
    node->before = successor->before;
    if (successor->before != nullptr) {
        successor->before->next = node;
    } else {
        session.lost_buf_head = node;
    }
    successor->before = node;
    ++session.lost_buf_size;
}

void AppendAfter(TcpSession& session, TcpLostBuf* node, TcpLostBuf* last) {
    node->before = last;
    last->next = node;
    ++session.lost_buf_size;
}

void DropHead(TcpSession& session) {
    TcpLostBuf* head = session.lost_buf_head;
    session.lost_buf_head = head->next;
    free(head);
    --session.lost_buf_size; // may wrap: a session's start resets the count but not the list
    if (session.lost_buf_head == nullptr) {
        session.lost_flag = 0;
        session.lost_buf_size = 0;
    } else {
        session.lost_buf_head->before = nullptr;
    }
}

} // namespace

void CExanicTcpFunc::ResetSession(TcpSession& session) {
    _DropLeftovers(session);
    session.init = 0;
    session.frag_buf_offset = 0;
    free(session.frag_buf);
    session.frag_buf = nullptr;
    session.lost_buf_size = 0;
    session.em_dqp_data_type = MDQP_DATA_TYPE_UNKNOW;
}

// Forgets fragments and held segments, and nothing else.
void CExanicTcpFunc::_DropLeftovers(TcpSession& session) {
    while (session.lost_buf_head != nullptr) {
        TcpLostBuf* next = session.lost_buf_head->next;
        free(session.lost_buf_head);
        session.lost_buf_head = next;
    }
    session.lost_flag = 0;
    session.frag_flag = 0;
}

bool CExanicTcpFunc::_IsBefore(uint32_t seq, uint32_t other) const {
    return m_refConfigData.recovery ? static_cast<int32_t>(seq - other) < 0 : seq < other;
}

CExanicTcpFunc::FrameEnd CExanicTcpFunc::_StartSession(TcpSession& session,
                                                       const Segment& segment) {
    if (session.frag_buf == nullptr) {
        session.frag_buf = static_cast<uint8_t*>(calloc(1, FRAG_BUF_SIZE));
        if (session.frag_buf == nullptr) {
            MD_LOG_AS("_PacketHandler", LOG_ERROR,
                      "failed to allocate memcory for fragment memory.");
            exit(-1);
        }
    }
    session.src_host = segment.srcHost;
    session.dst_host = segment.dstHost;
    session.src_port = segment.srcPort;
    session.dst_port = segment.dstPort;
    if (m_refConfigData.recovery) {
        _DropLeftovers(session);
    }
    session.lost_buf_size = 0;
    session.frag_buf_offset = 0;

    const auto* bytes = reinterpret_cast<const uint8_t*>(segment.payload);
    if (segment.payloadSize < MIN_SNAPSHOT_START || bytes[0] != MDQP_FLAG_FIRST ||
        bytes[1] != MDQP_TYPE_SNAPSHOT) {
        g_mdMonitor.CountFate(VORN_MD_FATE_UNSTARTED);
        return FrameEnd::Finish;
    }
    session.current_seq = segment.seq;
    session.next_expt_seq = segment.seq + segment.payloadSize;
    const bool walked = _WalkFirstFields(session, segment);
    g_mdMonitor.CountFate(walked && session.init != 0 ? VORN_MD_FATE_STARTED
                                                      : VORN_MD_FATE_UNSTARTED);
    if (!walked) {
        session.init = 0;
        session.em_dqp_data_type = MDQP_DATA_TYPE_UNKNOW;
        return FrameEnd::Stop;
    }
    return _SplitMessages(session, segment.payload, segment.payloadSize, segment.dstPort)
               ? FrameEnd::Finish
               : FrameEnd::Stop;
}

// Looks for the topic that names the feed. The walk takes the whole payload for one message, so a
// second message's header is read as if it were a field. False ends the start.
bool CExanicTcpFunc::_WalkFirstFields(TcpSession& session, const Segment& segment) {
    const uint32_t size = segment.payloadSize;
    const uint32_t maxFields = size / 4 + 1;
    uint32_t iter = 0;
    for (uint32_t offset = sizeof(MdqpHeader); offset + sizeof(FieldHeader) <= size; ++iter) {
        const auto field = ReadRecord<FieldHeader>(segment.payload + offset);
        if (field.field_size == 0 || iter >= maxFields) {
            MD_LOG_AS("_PacketHandler", LOG_WARNING,
                      "invalid field data, break field iteration, iter=%d payloadSize=%d",
                      static_cast<int>(iter), static_cast<int>(size));
            return false;
        }
        if (field.field_id == FIELD_SNAP && field.field_size == sizeof(SnapField)) {
            const auto snap = ReadRecord<SnapField>(segment.payload + offset + sizeof(FieldHeader));
            MD_LOG_AS("_PacketHandler", LOG_DEBUG_EX, "topic ID: %d, snap No: %d, TCP dst port: %d",
                      snap.topic_id, snap.snap_no, segment.dstPort);
            if (!_SelectFeed(session, snap)) {
                return false;
            }
        }
        offset += static_cast<uint32_t>(sizeof(FieldHeader)) + field.field_size;
    }
    return true;
}

bool CExanicTcpFunc::_SelectFeed(TcpSession& session, const SnapField& snap) const {
    const ExanicMdConfigData& config = m_refConfigData;
    const struct {
        int16_t topicId;
        uint8_t mask;
        EMdqpDataType type;
    } feeds[] = {
        {config.ine2ps_topic_id, MASK_INE_2PS, INE_2PS},
        {config.shfe2ps_topic_id, MASK_SHFE_2PS, SHFE_2PS},
        {config.shfe4ps_topic_id, MASK_SHFE_4PS, SHFE_4PS},
        {config.ine4ps_topic_id, MASK_INE_4PS, INE_4PS},
    };
    const uint8_t wanted = static_cast<uint8_t>(m_refEnabledMask.mask & ~_Finished());
    for (const auto& feed : feeds) {
        if (snap.topic_id == feed.topicId && (wanted & feed.mask) != 0) {
            session.init = 1;
            session.em_dqp_data_type = feed.type;
            return true;
        }
    }
    return false;
}

CExanicTcpFunc::FrameEnd CExanicTcpFunc::_ContinueSession(TcpSession& session,
                                                          const Segment& segment) {
    if (segment.srcHost != session.src_host || segment.dstHost != session.dst_host) {
        g_mdMonitor.CountFate(VORN_MD_FATE_FOREIGN);
        return FrameEnd::Finish;
    }
    const uint32_t expected = session.next_expt_seq;
    if (_IsBefore(segment.seq, expected)) {
        g_mdMonitor.CountFate(VORN_MD_FATE_OLD);
        return FrameEnd::Finish;
    }
    if (segment.seq != expected) {
        return _HoldEarlySegment(session, segment);
    }
    g_mdMonitor.CountFate(VORN_MD_FATE_IN_ORDER);
    session.next_expt_seq = expected + segment.payloadSize;
    if (session.frag_flag != 0) {
        // A message that is still incomplete ends the frame: nothing is drained, and what is held
        // becomes stale, unless recovery is on.
        const AppendResult result = _AppendToMessage(session, segment.payload, segment.payloadSize,
                                                     segment.dstPort, MAX_JOINED_SIZE);
        const bool goOn = result == AppendResult::Decoded ||
                          (result == AppendResult::Incomplete && m_refConfigData.recovery);
        if (!goOn) {
            return FrameEnd::Stop;
        }
    } else {
        if (!IsMessageStart(segment.payload, segment.payloadSize)) {
            return FrameEnd::Stop;
        }
        _SplitMessages(session, segment.payload, segment.payloadSize, segment.dstPort);
    }
    return _DrainHeldSegments(session, segment.dstPort);
}

// Keeps the list in sequence order. A segment equal to one that the walk stands on is dropped; one
// equal to a successor is inserted before it.
CExanicTcpFunc::FrameEnd CExanicTcpFunc::_HoldEarlySegment(TcpSession& session,
                                                           const Segment& segment) {
    if (session.lost_flag == 0) {
        TcpLostBuf* node = HoldFrame(segment.frame, segment.frameLen);
        if (node == nullptr) {
            g_mdMonitor.CountFate(VORN_MD_FATE_DROPPED);
            return FrameEnd::Stop;
        }
        g_mdMonitor.CountFate(VORN_MD_FATE_HELD);
        session.lost_buf_head = node;
        session.lost_flag = 1;
        ++session.lost_buf_size;
        return FrameEnd::Finish;
    }
    if (session.lost_buf_size >= MAX_LOST_BUF_SIZE) {
        MD_LOG_AS("_PacketHandler", LOG_ERROR, "break tcp seq detected. expt: %u, got: %u",
                  session.next_expt_seq, segment.seq);
        g_mdMonitor.CountFate(VORN_MD_FATE_DROPPED);
        g_mdMonitor.worker.wipes.Add();
        _Cleandata();
        return FrameEnd::Stop;
    }
    TcpLostBuf* node = HoldFrame(segment.frame, segment.frameLen);
    if (node == nullptr) {
        g_mdMonitor.CountFate(VORN_MD_FATE_DROPPED);
        return FrameEnd::Stop;
    }
    TcpLostBuf* at = session.lost_buf_head;
    while (true) {
        const uint32_t seq = SequenceOf(*at);
        if (_IsBefore(segment.seq, seq)) {
            g_mdMonitor.CountFate(VORN_MD_FATE_HELD);
            InsertBefore(session, node, at);
            return FrameEnd::Finish;
        }
        if (segment.seq == seq) {
            g_mdMonitor.CountFate(VORN_MD_FATE_OLD);
            free(node);
            return FrameEnd::Finish;
        }
        if (at->next == nullptr) {
            g_mdMonitor.CountFate(VORN_MD_FATE_HELD);
            AppendAfter(session, node, at);
            return FrameEnd::Finish;
        }
        if (!_IsBefore(SequenceOf(*at->next), segment.seq)) {
            g_mdMonitor.CountFate(VORN_MD_FATE_HELD);
            InsertBefore(session, node, at->next);
            return FrameEnd::Finish;
        }
        at = at->next;
    }
}

CExanicTcpFunc::FrameEnd CExanicTcpFunc::_DrainHeldSegments(TcpSession& session, uint16_t dstPort) {
    while (session.lost_flag != 0) {
        const FrameView held = ViewHeldFrame(*session.lost_buf_head);
        if (_IsBefore(session.next_expt_seq, held.seq)) {
            return FrameEnd::Finish; // the gap is still open
        }
        if (held.seq != session.next_expt_seq) {
            DropHead(session); // stale
            continue;
        }
        session.next_expt_seq += held.payloadSize;
        memcpy(m_heldPayload, held.payload, held.payloadSize);
        memset(m_heldPayload + held.payloadSize, 0, DECODE_SLACK);
        DropHead(session);

        bool goodStart = true;
        if (session.frag_flag != 0) {
            // Not bound by MAX_JOINED_SIZE. A message is at most 65543 bytes and is decoded once it
            // is whole, so that this limit is out of reach of a stream in order.
            const AppendResult result = _AppendToMessage(session, m_heldPayload, held.payloadSize,
                                                         dstPort, FRAG_BUF_SIZE - DECODE_SLACK);
            if (result == AppendResult::Cleared) {
                return FrameEnd::Stop;
            }
            goodStart = result != AppendResult::BadHeader;
        } else {
            goodStart = IsMessageStart(m_heldPayload, held.payloadSize);
            if (goodStart) {
                _SplitMessages(session, m_heldPayload, held.payloadSize, dstPort);
            }
        }
        if (!goodStart) {
            MD_LOG_AS("_PacketHandler", LOG_ERROR, "not a mdqp header, check program logic");
            return FrameEnd::Stop;
        }
    }
    return FrameEnd::Finish;
}

CExanicTcpFunc::AppendResult CExanicTcpFunc::_AppendToMessage(TcpSession& session,
                                                              const char* payload,
                                                              uint32_t payloadSize,
                                                              uint16_t dstPort, size_t limit) {
    const size_t joined = static_cast<size_t>(session.frag_buf_offset) + payloadSize;
    if (joined > limit) {
        MD_LOG_AS("_PacketHandler", LOG_WARNING, "ignore tcp message!");
        g_mdMonitor.worker.wipes.Add();
        _Cleandata();
        return AppendResult::Cleared;
    }
    memcpy(session.frag_buf + session.frag_buf_offset, payload, payloadSize);
    memset(session.frag_buf + joined, 0, DECODE_SLACK);
    session.frag_buf_offset = static_cast<int32_t>(joined);
    if (!IsMessageStart(session.frag_buf, joined)) {
        return AppendResult::BadHeader;
    }
    char* data = reinterpret_cast<char*>(session.frag_buf);
    const uint32_t size = static_cast<uint32_t>(joined);
    if (WholeMessageSize(data, size) == 0) {
        return AppendResult::Incomplete;
    }
    const uint32_t used = _DecodeWholeMessages(data, size, dstPort);
    _KeepRest(session, data + used, size - used);
    return AppendResult::Decoded;
}

bool CExanicTcpFunc::_SplitMessages(TcpSession& session, char* payload, uint32_t payloadSize,
                                    uint16_t dstPort) {
    const uint32_t firstSize = WholeMessageSize(payload, payloadSize);
    if (firstSize == 0) {
        _KeepRest(session, payload, payloadSize);
        return false;
    }
    const uint32_t used = _DecodeWholeMessages(payload, payloadSize, dstPort);
    // A payload that is one whole message leaves the joining state alone, also a stale one.
    if (firstSize != payloadSize) {
        _KeepRest(session, payload + used, payloadSize - used);
    }
    return true;
}

// Decodes messages from `data` on until the rest is not a whole one; returns the bytes used.
uint32_t CExanicTcpFunc::_DecodeWholeMessages(char* data, uint32_t size, uint16_t dstPort) {
    uint32_t used = 0;
    while (const uint32_t messageSize = WholeMessageSize(data + used, size - used)) {
        _ParseMdqp(reinterpret_cast<MdqpHeader*>(data + used), dstPort);
        used += messageSize;
    }
    return used;
}

// The rest becomes the start of an unfinished message; without one, nothing is unfinished.
void CExanicTcpFunc::_KeepRest(TcpSession& session, const char* rest, uint32_t size) {
    memmove(session.frag_buf, rest, size); // the rest may lie in the same buffer
    session.frag_flag = size != 0 ? 1 : 0;
    session.frag_buf_offset = static_cast<int32_t>(size);
}
