// Ethernet, IPv4 and TCP checks of one raw frame. The Ethernet header is not looked at and no VLAN
// tag is expected. Every length is tested before what it bounds is read.

#include "tcp/ExanicTcpFunc.h"

#include "CommonLog.h"
#include "MdMonitor.h"
#include "WireRead.h"
#include "tcp/Checksum.h"
#include "tcp/FrameLayout.h"

#include <algorithm>

namespace {

constexpr char LOG_FILE_TAG[] = "ExanicTcpFunc";

constexpr uint32_t MIN_IP_HEADER = 20;
constexpr uint32_t MIN_TCP_HEADER = 20;
constexpr uint32_t MAX_HEADER = 60;
constexpr uint32_t MAX_TCP_SEGMENT = 2036; // bytes whose checksum is verified: header and payload

constexpr uint8_t PROTOCOL_ICMP = 1;
constexpr uint8_t PROTOCOL_IGMP = 2;
constexpr uint8_t PROTOCOL_TCP = 6;
constexpr uint8_t PROTOCOL_UDP = 17;

// The sum over pseudo-header, TCP header with its checksum, and payload must be all ones.
bool ChecksumIsRight(const char* ip, const char* tcp, uint32_t segmentLen) {
    constexpr uint32_t SOURCE_ADDRESS = 12;
    uint64_t sum = SumWords(ip + SOURCE_ADDRESS, 8) + SumWords(tcp, segmentLen);
    sum += __builtin_bswap16(PROTOCOL_TCP);
    sum += __builtin_bswap16(static_cast<uint16_t>(segmentLen));
    return FoldSum(sum) == 0xFFFF;
}

// Counts what became of the frame, for a check that has failed.
bool Refuse(uint32_t fate) {
    g_mdMonitor.CountFate(fate);
    return false;
}

} // namespace

bool CExanicTcpFunc::_CheckFrame(char* packet, uint32_t packetLen, Segment& segment) const {
    if (packetLen < ETHERNET_SIZE + MIN_IP_HEADER) {
        MD_LOG_AS("_PacketHandler", LOG_DEBUG_EX, "packet too short for IP, packetLen=%u",
                  packetLen);
        return Refuse(VORN_MD_FATE_MALFORMED);
    }
    const char* ip = packet + ETHERNET_SIZE;
    const uint32_t ipHdrLen = IpHeaderLen(ip);
    if (ipHdrLen < MIN_IP_HEADER || ipHdrLen > MAX_HEADER || packetLen < ETHERNET_SIZE + ipHdrLen) {
        MD_LOG_AS("_PacketHandler", LOG_DEBUG_EX, "invalid IP header, ip_hdr_len=%d packetLen=%u",
                  static_cast<int>(ipHdrLen), packetLen);
        return Refuse(VORN_MD_FATE_MALFORMED);
    }
    const uint8_t protocol = IpProtocol(ip);
    if (protocol != PROTOCOL_TCP) {
        if (protocol != PROTOCOL_ICMP && protocol != PROTOCOL_IGMP && protocol != PROTOCOL_UDP) {
            MD_LOG_AS("_PacketHandler", LOG_DEBUG_EX, "ip_p [%d]", protocol);
        }
        return Refuse(VORN_MD_FATE_FOREIGN);
    }
    if (packetLen < ETHERNET_SIZE + ipHdrLen + MIN_TCP_HEADER) {
        MD_LOG_AS("_PacketHandler", LOG_DEBUG_EX, "packet too short for TCP header");
        return Refuse(VORN_MD_FATE_MALFORMED);
    }
    const char* tcp = ip + ipHdrLen;
    // The exchange's port selects the stream, the local port the session.
    segment.srcPort = TcpSourcePort(tcp);
    if (segment.srcPort != m_refConfigData.md2ps_snap_port &&
        segment.srcPort != m_refConfigData.md4ps_snap_port) {
        return Refuse(VORN_MD_FATE_FOREIGN);
    }
    const uint32_t tcpHdrLen = TcpHeaderLen(tcp);
    if (tcpHdrLen < MIN_TCP_HEADER || tcpHdrLen > MAX_HEADER ||
        packetLen < ETHERNET_SIZE + ipHdrLen + tcpHdrLen) {
        MD_LOG_AS("_PacketHandler", LOG_DEBUG_EX, "invalid TCP header or truncated packet");
        return Refuse(VORN_MD_FATE_MALFORMED);
    }
    const int32_t present = static_cast<int32_t>(packetLen - ETHERNET_SIZE - ipHdrLen - tcpHdrLen);
    const int32_t ipTotalLen = IpTotalLen(ip);
    const int32_t payloadSize =
        std::min(present, ipTotalLen - static_cast<int32_t>(ipHdrLen + tcpHdrLen));
    if (payloadSize <= 0) {
        MD_LOG_AS("_PacketHandler", LOG_DEBUG_EX, "payloadSize<=0, max_payload=%d", present);
        return Refuse(VORN_MD_FATE_EMPTY);
    }
    // At least the TCP header's length, because there is a payload.
    const uint32_t segmentLen = static_cast<uint32_t>(ipTotalLen) - ipHdrLen;
    if (packetLen - ETHERNET_SIZE - ipHdrLen < segmentLen || segmentLen > MAX_TCP_SEGMENT ||
        !ChecksumIsRight(ip, tcp, segmentLen)) {
        MD_LOG_AS("_PacketHandler", LOG_DEBUG, "tcp checksum is not correct");
        return Refuse(VORN_MD_FATE_CHECKSUM);
    }

    segment.frame = packet;
    segment.frameLen = packetLen;
    segment.srcHost = ReadRecord<uint32_t>(ip + 12);
    segment.dstHost = ReadRecord<uint32_t>(ip + 16);
    segment.dstPort = TcpDestinationPort(tcp);
    segment.seq = TcpSequence(tcp);
    segment.flags = TcpFlags(tcp);
    segment.payload = packet + ETHERNET_SIZE + ipHdrLen + tcpHdrLen;
    segment.payloadSize = static_cast<uint32_t>(payloadSize);
    return true;
}
