#include "tools/vorn/fanout/lanes.h"

namespace vorn_cli {

Lanes::Lanes(std::size_t capacity) : capacity_(capacity), lanes_(kLanes) {}

void Lanes::push(uint32_t lane, const Outgoing& message, uint64_t now_ns) {
    uint32_t node = 0;
    if (free_.empty()) {
        node = static_cast<uint32_t>(nodes_.size());
        nodes_.emplace_back();
    } else {
        node = free_.back();
        free_.pop_back();
    }
    nodes_[node].entry = {message, ++pushed_, now_ns, 0};
    nodes_[node].next = kNone;
    ++size_;
    Lane& queue = lanes_[lane];
    if (queue.state == State::kEmpty) {
        queue = {node, node, State::kReady};
        ready_.push_back(lane);
    } else {
        nodes_[queue.last].next = node;
        queue.last = node;
    }
}

uint32_t Lanes::next(uint64_t now_ns) {
    uint32_t lane = kLanes;
    if (!later_.empty() && later_.top().due_ns <= now_ns) {
        lane = later_.top().lane;
        later_.pop();
    } else if (!ready_.empty()) {
        lane = ready_.front();
        ready_.pop_front();
    } else {
        return kLanes;
    }
    lanes_[lane].state = State::kUnderWay;
    ++under_way_;
    return lane;
}

void Lanes::leave(uint32_t lane, State state) {
    lanes_[lane].state = state;
    --under_way_;
}

void Lanes::done(uint32_t lane) {
    Lane& queue = lanes_[lane];
    free_.push_back(queue.first);
    queue.first = nodes_[queue.first].next;
    --size_;
    if (queue.first == kNone) {
        leave(lane, State::kEmpty);
    } else {
        leave(lane, State::kReady);
        ready_.push_back(lane);
    }
}

void Lanes::later(uint32_t lane, uint64_t due_ns) {
    leave(lane, State::kLater);
    later_.push({due_ns, lane});
}

void Lanes::aside(uint32_t lane) {
    leave(lane, State::kAside);
    aside_.push_back(lane);
}

void Lanes::release() {
    for (const uint32_t lane : aside_) {
        lanes_[lane].state = State::kReady;
        ready_.push_back(lane);
    }
    aside_.clear();
}

} // namespace vorn_cli
