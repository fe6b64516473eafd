#include "exchange_sim/record_bytes.h"

#include "wirekit/bytes.h"

#include <cstring>

namespace exchange_sim {

using wirekit::put_le16;
using wirekit::put_le32;
using wirekit::put_le_f64;

RecordBytes record_bytes(const ExpectedRecord& record) {
    RecordBytes bytes{};
    uint8_t* const at = bytes.data();
    std::memcpy(at, record.inst_id.data(), record.inst_id.size());
    put_le_f64(at + 16, record.last_px);
    put_le32(at + 24, record.volume);
    put_le32(at + 28, record.update_time);
    put_le16(at + 32, record.update_milli_sec);
    put_le16(at + 34, record.type);
    put_le32(at + 36, record.change_no);
    put_le_f64(at + 40, record.turnover);
    put_le_f64(at + 48, record.open_interest);
    put_le32(at + 56, static_cast<uint32_t>(record.bid_totvol));
    put_le32(at + 60, static_cast<uint32_t>(record.ask_totvol));
    put_le_f64(at + 64, record.bid_totamount);
    put_le_f64(at + 72, record.ask_totamount);
    put_le_f64(at + 80, record.highest_price);
    put_le_f64(at + 88, record.lowest_price);
    for (std::size_t i = 0; i < kDepth; ++i) {
        put_le_f64(at + 96 + 8 * i, record.bid_px[i]);
        put_le32(at + 176 + 4 * i, static_cast<uint32_t>(record.bid_vol[i]));
        put_le32(at + 216 + 4 * i, static_cast<uint32_t>(record.ask_vol[i]));
        put_le_f64(at + 256 + 8 * i, record.ask_px[i]);
    }
    return bytes;
}

std::span<const RecordField> record_fields() {
    using Type = RecordField::Type;
    static constexpr RecordField kFields[] = {
        {"inst_id", Type::kText, 0, 16},         {"last_px", Type::kF64, 16, 1},
        {"volume", Type::kU32, 24, 1},           {"update_time", Type::kU32, 28, 1},
        {"update_milli_sec", Type::kU16, 32, 1}, {"type", Type::kU16, 34, 1},
        {"change_no", Type::kU32, 36, 1},        {"turnover", Type::kF64, 40, 1},
        {"open_interest", Type::kF64, 48, 1},    {"bid_totvol", Type::kI32, 56, 1},
        {"ask_totvol", Type::kI32, 60, 1},       {"bid_totamount", Type::kF64, 64, 1},
        {"ask_totamount", Type::kF64, 72, 1},    {"highest_price", Type::kF64, 80, 1},
        {"lowest_price", Type::kF64, 88, 1},     {"bid_px", Type::kF64, 96, kDepth},
        {"bid_vol", Type::kI32, 176, kDepth},    {"ask_vol", Type::kI32, 216, kDepth},
        {"ask_px", Type::kF64, 256, kDepth},
    };
    return kFields;
}

std::size_t field_width(RecordField::Type type) {
    switch (type) {
    case RecordField::Type::kText:
        return 1;
    case RecordField::Type::kU16:
        return 2;
    case RecordField::Type::kU32:
    case RecordField::Type::kI32:
        return 4;
    default:
        return 8;
    }
}

} // namespace exchange_sim
