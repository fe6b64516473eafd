#include "tools/vorn/fanout/ack_inbox.h"

#include "tools/vorn/exit_code.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <charconv>

namespace vorn_cli {

namespace {

// "PREFIX.LANE.NUMBER.ATTEMPT"
bool parse_reply(std::string_view subject, std::size_t prefix, Ack& ack) {
    if (subject.size() <= prefix) {
        return false;
    }
    const char* at = subject.data() + prefix;
    const char* const end = subject.data() + subject.size();
    const auto number = [&](auto& value) {
        if (at == end || *at != '.') {
            return false;
        }
        const auto [behind, error] = std::from_chars(at + 1, end, value);
        at = behind;
        return error == std::errc();
    };
    return number(ack.lane) && number(ack.number) && number(ack.attempt) && at == end;
}

} // namespace

AckResult parse_ack(std::string_view text, std::string& reason) {
    // {"stream":"VORN","seq":5} is by far the most frequent.
    if (text.find("\"error\"") == std::string_view::npos &&
        text.find("\"seq\"") != std::string_view::npos) {
        return text.find("\"duplicate\"") == std::string_view::npos ? AckResult::kStored
                                                                    : AckResult::kDuplicate;
    }
    const nlohmann::json answer = nlohmann::json::parse(text, nullptr, false);
    if (answer.is_object() && answer.contains("error") && answer["error"].is_object()) {
        const auto& error = answer["error"];
        const int code = error.value("err_code", 0);
        if (code == JSStreamWrongLastSequenceErr) {
            return AckResult::kSuperseded;
        }
        reason = error.value("description", std::string("no reason given"));
        return AckResult::kRefused;
    }
    reason = "an answer that is no acknowledgement: " + std::string(text.substr(0, 100));
    return AckResult::kRefused;
}

AckInbox::AckInbox(natsConnection* connection) {
    natsInbox* inbox = nullptr;
    natsStatus status = natsInbox_Create(&inbox);
    if (status == NATS_OK) {
        prefix_ = inbox;
        natsInbox_Destroy(inbox);
        status = nats_make(subscription_, [&](natsSubscription** to) {
            return natsConnection_SubscribeSync(to, connection, (prefix_ + ".>").c_str());
        });
    }
    if (status == NATS_OK) {
        // Bounded by what is under way; the library drops what goes beyond a limit of its own.
        status = natsSubscription_SetPendingLimits(subscription_.get(), -1, -1);
    }
    if (status != NATS_OK) {
        throw Failure(kFailed, "cannot listen for acknowledgements: " + nats_text(status));
    }
}

std::string AckInbox::reply_subject(uint32_t lane, uint64_t number, uint32_t attempt) const {
    return fmt::format("{}.{}.{}.{}", prefix_, lane, number, attempt);
}

bool AckInbox::next(Ack& ack, int64_t wait_ms) {
    NatsPtr<natsMsg> message;
    while (nats_make(message, [&](natsMsg** to) {
               return natsSubscription_NextMsg(to, subscription_.get(), wait_ms);
           }) == NATS_OK) {
        if (!parse_reply(natsMsg_GetSubject(message.get()), prefix_.size(), ack)) {
            continue;
        }
        ack.reason.clear();
        ack.result =
            natsMsg_IsNoResponders(message.get())
                ? AckResult::kNobodyThere
                : parse_ack({natsMsg_GetData(message.get()),
                             static_cast<std::size_t>(natsMsg_GetDataLength(message.get()))},
                            ack.reason);
        return true;
    }
    return false;
}

} // namespace vorn_cli
