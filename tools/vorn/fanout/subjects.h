#pragma once

// Subjects, message ids, and the patterns by which a tap chooses subjects.

#include "tools/vorn/fanout/payload.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vorn_cli {

inline constexpr char kAllSubjects[] = "md.>";

// "md.shfe.cu2603", "md.event.gap". What a subject cannot hold of an identifier (a blank, '.', '*',
// '>', '%', bytes beyond ASCII) stands as %XX.
std::string subject_of(const Outgoing& message);

// Names a message among all publishers and their restarts; JetStream drops a second one of the same
// id:
//
//   20260115/shfe/cu2603/1234        the update with this change number
//   20260115/shfe/cu2603/1234v       the value that a snapshot left, as of this change number
//   20260115/event/hosta/3/98765     the event at this place of the ring of hosta's bus
std::string message_id_of(const Outgoing& message, const Stamp& stamp);

// Of an update or a value; nothing for other ids.
struct UpdateId {
    std::string label;
    uint32_t change_no = 0;
    bool is_value = false;
};
std::optional<UpdateId> parse_update_id(std::string_view id);

// Which subjects are wanted: patterns of tokens as NATS has them ('*' one token, '>' at the end the
// rest), in which '*' and '?' may also stand inside a token: "md.shfe.cu*". One without a dot means
// instruments of both exchanges: "cu*" is "md.*.cu*".
class SubjectFilter {
public:
    // Throws Failure(kUsage) for a pattern that cannot be.
    explicit SubjectFilter(std::vector<std::string> patterns);

    bool matches(std::string_view subject) const;
    // The closest subject by which a server can choose, which knows whole tokens and one pattern
    // alone. All that matches() wants is in it.
    const std::string& server_subject() const { return server_subject_; }

private:
    std::vector<std::vector<std::string>> patterns_; // by token
    std::string server_subject_;
};

} // namespace vorn_cli
