#pragma once

// What the rules see and where they put what they find.

#include "tools/vorn/check/capture_survey.h"
#include "tools/vorn/check/effective_config.h"
#include "tools/vorn/check/finding.h"
#include "tools/vorn/check/ini_reader.h"

#include <functional>
#include <set>
#include <string>
#include <utility>

namespace vorn_cli {

// The machine that the feed is to run on.
struct Machine {
    int processors = 1;
    // Whether a thread of this process could be bound to the CPU.
    std::function<bool(int cpu)> can_bind;
    // Empty when the card can be opened by this name, else one line that says why not.
    std::function<std::string(const std::string& device)> device_trouble;
};
Machine this_machine();

// What the card that this program was built with says about a device name, without opening it.
// One of two implementations is linked.
std::string device_trouble_of_card(const std::string& device);

struct CheckContext {
    const IniFile& file;
    const EffectiveConfig& config;
    const Machine& machine;
    const CaptureSurvey* capture = nullptr; // null: none was given
    // Lines whose fault has been named by its cause (a character that is not what it looks like):
    // no further rule reports its consequences.
    std::set<uint32_t> explained;
    Findings findings;

    // What stands there; what the feed makes of it; what to write instead.
    void error(uint32_t line, const char* rule, const std::string& key, std::string what,
               std::string effect, std::string instead = "") {
        add(Severity::kError, line, rule, key, std::move(what), std::move(effect),
            std::move(instead));
    }
    void warning(uint32_t line, const char* rule, const std::string& key, std::string what,
                 std::string effect, std::string instead = "") {
        add(Severity::kWarning, line, rule, key, std::move(what), std::move(effect),
            std::move(instead));
    }
    void add(Severity severity, uint32_t line, const char* rule, const std::string& key,
             std::string what, std::string effect, std::string instead) {
        findings.push_back(
            {line, severity, rule, key, std::move(what), std::move(effect), std::move(instead)});
    }

    // The key's entry in section "config" unless it is absent or already explained.
    const IniEntry* entry(const std::string& key) const {
        const IniEntry* const found = file.find(key);
        return found == nullptr || explained.contains(found->line) ? nullptr : found;
    }
    // Where to report about a key that may be absent.
    uint32_t line_of(const std::string& key) const {
        const IniEntry* const found = file.find(key);
        return found == nullptr ? file.header_line() : found->line;
    }
};

// The rules, in the order in which they run.

// False when the content is no text, so that nothing else can be said.
bool check_encoding(CheckContext& context);
// False when no parameter is read at all, which has then been reported.
bool check_structure(CheckContext& context);
void check_values(CheckContext& context);      // quotes, cut values, numbers
void check_addresses(CheckContext& context);   // multicast lines
void check_feeds(CheckContext& context);       // switches, topics
void check_instruments(CheckContext& context); // insts, options
void check_device(CheckContext& context);
void check_against_capture(CheckContext& context);

} // namespace vorn_cli
