// The cache of decode buffers: receive, replay, start over, forget.
//
// In any order and at any place of its 200 MiB, with a second account of offsets and counts beside
// it.
//
// Byte 0: the rig's control; bit 7 allows one clearing, which writes all of the cache. Then
// operations of a byte each, with their numbers behind it.

#include "support/fuzz_input.h"
#include "support/incremental_rig.h"
#include "wirekit/bytes.h"

#include <algorithm>
#include <utility>
#include <vector>

namespace {

constexpr int kMaxOperations = 256;
constexpr int64_t kHeader = 8;

class Run {
public:
    explicit Run(fuzz::Input input) : input_(input) {}

    void go() {
        const uint8_t control = input_.u8();
        rig_.begin(control);
        may_clear_ = (control & 128) != 0;
        recovery_ = (control & 64) != 0;
        place(0, 0, 0);
        for (int i = 0; i < kMaxOperations && input_.left() > 0; ++i) {
            operation();
            REQUIRE(cached_.piOffset == put_ && cached_.ciOffset == taken_);
            REQUIRE(cached_.cachedCount == count_);
        }
        for (const auto& [at, size] : written_) {
            std::fill_n(cached_.pCacheBuf + at, size, char{0});
        }
        rig_.end();
    }

private:
    void operation() {
        const uint8_t kind = input_.u8();
        switch (kind & 7) {
        case 0:
        case 1:
            receive(input_.take(input_.u16() & 0xFFFU));
            break;
        case 2:
            receive_as_is(kind);
            break;
        case 3:
        case 4:
            process();
            break;
        case 5: // a replay starts over
            taken_ = 0;
            cached_.ciOffset = 0;
            break;
        case 6: // near the end, or anywhere
            jump(kind);
            break;
        default:
            other(kind);
            break;
        }
    }

    void receive(std::span<const uint8_t> bytes) {
        rig_.arrive(bytes);
        const int64_t size = static_cast<int64_t>(bytes.size());
        if (size >= 24 && size <= RECV_BUF_SIZE) {
            if (put_ + kHeader + RECV_BUF_SIZE > CACHE_BUF_SIZE) {
                put_ = taken_ = count_ = 0;
            }
            written_.emplace_back(put_, kHeader + size);
            put_ += kHeader + size;
            ++count_;
        }
        rig_.cache();
    }

    // A poll that brings no frame, or one of a message's size without its bytes.
    void receive_as_is(uint8_t kind) {
        const int statuses[] = {0, -1, -256, -257, 7, 23, 2049, 4096};
        rig_.arrive_status(statuses[kind >> 3 & 7]);
        rig_.cache();
    }

    void process() {
        if (count_ < 1) {
            rig_.replay({});
            return;
        }
        const bool header_fits = taken_ + kHeader <= CACHE_BUF_SIZE;
        const auto* entry = reinterpret_cast<const uint8_t*>(cached_.pCacheBuf) + taken_;
        const int64_t size = header_fits ? wirekit::get_le32(entry) : 0;
        if (!header_fits || taken_ + kHeader + size > CACHE_BUF_SIZE) {
            if (std::exchange(may_clear_, false)) {
                put_ = taken_ = count_ = 0;
                rig_.replay({});
            } else {
                place(0, 0, 0);
            }
            return;
        }
        taken_ += kHeader + size;
        --count_;
        rig_.replay({entry + kHeader, static_cast<std::size_t>(size)});
    }

    void jump(uint8_t kind) {
        const int64_t from_end = input_.u16();
        const int64_t offset =
            (kind & 8) != 0 ? CACHE_BUF_SIZE - from_end : from_end * int64_t{3200};
        const int64_t taken = (kind & 16) != 0 ? offset : taken_;
        const int64_t put = (kind & 32) != 0 ? taken_ : offset;
        place(std::clamp<int64_t>(put, 0, CACHE_BUF_SIZE), taken, (kind & 64) != 0 ? 3 : count_);
    }

    void other(uint8_t kind) {
        if ((kind & 8) != 0) {
            const int32_t count = rig_.table().ine_inst_cnt;
            rig_.table().ine_inst_cnt = (kind & 32) != 0 ? 0 : count;
            rig_.core().PrefetchCalcInfo();
            rig_.table().ine_inst_cnt = count;
        } else if ((kind & 16) != 0 && std::exchange(may_clear_, false)) {
            rig_.core().ClearCache();
            put_ = taken_ = count_ = 0;
        } else {
            rig_.core().ForgetCached();
            if (recovery_) {
                put_ = taken_ = count_ = 0;
            }
        }
    }

    void place(int64_t put, int64_t taken, int64_t count) {
        cached_.piOffset = static_cast<int32_t>(put_ = put);
        cached_.ciOffset = static_cast<int32_t>(taken_ = taken);
        cached_.cachedCount = static_cast<int32_t>(count_ = count);
    }

    fuzz::Input input_;
    fuzz::IncrementalRig& rig_ = fuzz::IncrementalRig::instance();
    CacheBufInfo& cached_ = rig_.cached();
    int64_t put_ = 0;
    int64_t taken_ = 0;
    int64_t count_ = 0;
    bool may_clear_ = false;
    bool recovery_ = false;
    std::vector<std::pair<int64_t, int64_t>> written_;
};

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    Run(fuzz::Input(data, size)).go();
    return 0;
}

int LLVMFuzzerInitialize(int*, char***) {
    fuzz::IncrementalRig::instance();
    return 0;
}
