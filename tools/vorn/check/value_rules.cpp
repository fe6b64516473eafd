// Values in general, and numbers.

#include "tools/vorn/check/check_context.h"

#include <fmt/format.h>
#include <sched.h>
#include <sys/sysinfo.h>
#include <thread>

namespace vorn_cli {

namespace {

constexpr int kTimeoutPeriodSeconds = 120;

// Whether a comment was meant to be more of the value: it follows without a blank on either side,
// or it looks like a list with the wrong separator, as in "insts = cu2603 ; al2603".
bool continues_value(const IniLine& line) {
    const std::string& comment = line.comment;
    if (comment.size() < 2 || comment[1] == ' ' || comment[1] == '\t') {
        const std::size_t item = comment.find_first_not_of("; \t");
        return line.key == "insts" && comment.starts_with(";") && item != std::string::npos &&
               comment.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789,; \t") ==
                   std::string::npos &&
               comment.find_first_of("0123456789") != std::string::npos;
    }
    const std::size_t at = line.raw.find(comment);
    const char before = line.raw[at - 1]; // there is a key before it
    return line.value.empty() || (before != ' ' && before != '\t') ||
           (line.key == "insts" && comment.front() == ';');
}

// A ';' or '#' begins a comment wherever it stands.
void check_cut_value(CheckContext& context, const IniLine& line) {
    if (line.comment.empty() || !continues_value(line)) {
        return;
    }
    context.error(line.number, "cut-value", line.key,
                  fmt::format("'{}' in the value of {}", line.comment.front(), line.key),
                  fmt::format("it begins a comment wherever it stands: the value is {}",
                              line.value.empty() ? "empty" : quoted(line.value)),
                  line.key == "insts"
                      ? "separate items with commas"
                      : "a value cannot contain it; before a remark, write a blank");
}

void check_quotes(CheckContext& context, const IniLine& line) {
    const std::string& value = line.value;
    if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') &&
        value.back() == value.front()) {
        context.explained.insert(line.number);
        context.error(line.number, "quoted-value", line.key, fmt::format("{} in quotes", line.key),
                      "the feed takes the quotes as part of the value",
                      fmt::format("write {} = {}", line.key, value.substr(1, value.size() - 2)));
    } else if (value.starts_with("=")) {
        context.explained.insert(line.number);
        context.error(line.number, "doubled-equals", line.key,
                      fmt::format("the value of {} begins with '='", line.key),
                      "the feed takes it as part of the value", "write one '='");
    } else if (value.starts_with("$") || value.find("${") != std::string::npos) {
        context.explained.insert(line.number);
        context.error(line.number, "variable", line.key,
                      fmt::format("{} = {}", line.key, quoted(value)),
                      "the feed knows no variables and takes the text as it stands",
                      "write the value itself");
    }
}

struct NumberRule {
    const char* key;
    int bits; // of the field that keeps it
    bool is_signed;
    long low;
    long high;
    const char* outside; // what becomes of a value that the field holds but that is not low to high
    const char* instead;
};

constexpr char kTopicOutside[] = "no message has such a topic, so the feed is never found";
constexpr char kPortOutside[] = "no snapshot comes from that port";

// cpucore and log_level have rules of their own, below.
constexpr NumberRule kNumberRules[] = {
    {"shfe2ps_topic_id", 16, true, 1, 32767, kTopicOutside, "write 1 to 32767"},
    {"shfe4ps_topic_id", 16, true, 1, 32767, kTopicOutside, "write 1 to 32767"},
    {"ine2ps_topic_id", 16, true, 1, 32767, kTopicOutside, "write 1 to 32767"},
    {"ine4ps_topic_id", 16, true, 1, 32767, kTopicOutside, "write 1 to 32767"},
    {"md2ps_snap_port", 16, false, 1, 65535, kPortOutside, "write 1 to 65535"},
    {"md4ps_snap_port", 16, false, 1, 65535, kPortOutside, "write 1 to 65535"},
    {"cpucore", 16, true, INT16_MIN, INT16_MAX, "", "write the number of a CPU, from 0"},
    {"timeout_cnt", 16, true, 1, 32767, "the snapshot may then take one period of 120 seconds",
     "write 1 to 32767"},
    {"shield_price_check", 64, true, 0, 1,
     "it counts as 0: a snapshot that fails the price check is thrown away", "write 0 or 1"},
    {"split_all_field", 8, true, -128, 127, "", "write -128 to 127"},
    {"log_level", 32, true, INT32_MIN, INT32_MAX, "", "write a sum of 1, 2, 4, 8 and 16"},
};

long keep_low_bits(long value, int bits, bool is_signed) {
    switch (bits) {
    case 8:
        return static_cast<int8_t>(value);
    case 16:
        return is_signed ? static_cast<int16_t>(value) : static_cast<uint16_t>(value);
    case 32:
        return static_cast<int32_t>(value);
    default:
        return value;
    }
}

std::string shown(const std::string& key, const std::string& value) {
    return fmt::format("{} = {}", key, value.size() > 40 ? quoted(value) : value);
}

// The text of a number: empty, no digits, something behind the digits, more than the field holds.
// True when the field gets what is written.
bool check_number_text(CheckContext& context, const NumberRule& rule, const IniEntry& entry) {
    const ConvertedNumber number = convert_number(entry.value);
    const long kept = keep_low_bits(number.value, rule.bits, rule.is_signed);
    const std::string default_text = find_key(rule.key)->default_text;
    if (entry.value.empty()) {
        const bool same = default_text.empty() || default_text == "0";
        const std::string effect =
            same ? "it counts as 0" : "it counts as 0, not as the default " + default_text;
        context.add(same ? Severity::kWarning : Severity::kError, entry.line, "empty-number",
                    rule.key, fmt::format("{} has no value", rule.key), effect,
                    "write a number or leave the line out");
        return false;
    }
    if (!number.has_digits) {
        context.error(entry.line, "not-a-number", rule.key, shown(rule.key, entry.value),
                      "it is no decimal number and counts as 0", rule.instead);
        return false;
    }
    if (!number.rest.empty()) {
        context.error(entry.line, "trailing-text", rule.key,
                      fmt::format("{} behind the number of {}", quoted(number.rest), rule.key),
                      fmt::format("the feed reads as far as the digits go: {}", kept),
                      rule.instead);
        return false;
    }
    if (number.out_of_range || kept != number.value) {
        context.error(
            entry.line, "out-of-range", rule.key, shown(rule.key, entry.value),
            fmt::format("it does not fit the field's {} bits and becomes {}", rule.bits, kept),
            rule.instead);
        return false;
    }
    return true;
}

void check_numbers(CheckContext& context) {
    for (const NumberRule& rule : kNumberRules) {
        const IniEntry* const entry = context.entry(rule.key);
        if (entry == nullptr || !check_number_text(context, rule, *entry)) {
            continue;
        }
        const long value = convert_number(entry->value).value;
        if (value < rule.low || value > rule.high) {
            context.error(entry->line, "out-of-range", rule.key, shown(rule.key, entry->value),
                          rule.outside, rule.instead);
        } else if (rule.key == std::string("timeout_cnt") && value > 720) {
            context.warning(entry->line, "long-timeout", rule.key, shown(rule.key, entry->value),
                            fmt::format("it counts periods of {} seconds: the snapshot may take "
                                        "{} hours",
                                        kTimeoutPeriodSeconds,
                                        value * kTimeoutPeriodSeconds / 3600),
                            "write seconds / 120");
        }
    }
}

// What an absent key means is checked too: CPU 0 need not be usable.
void check_cpu(CheckContext& context) {
    const uint32_t line = context.line_of("cpucore");
    if (context.explained.contains(line)) {
        return;
    }
    const int cpu = context.config.cpucore;
    const int processors = context.machine.processors;
    const char* const effect = "the feed logs a warning and runs unpinned";
    if (cpu < 0) {
        context.error(line, "cpu", "cpucore", fmt::format("cpucore = {}", cpu), effect,
                      "write the number of a CPU, from 0");
    } else if (cpu >= processors) {
        context.error(line, "cpu", "cpucore",
                      fmt::format("cpucore = {}, but this machine has {} processors, from 0", cpu,
                                  processors),
                      effect, "name an existing one");
    } else if (!context.machine.can_bind(cpu)) {
        context.error(line, "cpu", "cpucore",
                      fmt::format("cpucore = {}, but this process may not run on that CPU", cpu),
                      effect, "name one that its control group or container allows");
    }
}

void check_log_level(CheckContext& context) {
    const IniEntry* const entry = context.entry("log_level");
    if (entry == nullptr || !convert_number(entry->value).has_digits) {
        return;
    }
    const int level = context.config.log_level;
    const std::string what = shown("log_level", entry->value);
    const char* const sum = "write a sum of 1 errors, 2 warnings, 4 information, 8 debug, 16 "
                            "every message";
    if (level == 0) {
        context.warning(entry->line, "log-level", "log_level", what,
                        "nothing is logged, not even why the feed does not start", sum);
    } else if (level < 0 || level > 31) {
        context.warning(entry->line, "log-level", "log_level", what,
                        level < 0 ? "every level is on, down to a line for each message"
                                  : fmt::format("levels end at 16: it works as {}", level & 31),
                        sum);
    } else if ((level & 1) == 0) {
        context.warning(entry->line, "log-level", "log_level", what,
                        "it is a sum of levels, not a threshold: errors are not logged", sum);
    }
}

} // namespace

Machine this_machine() {
    Machine machine;
    machine.processors = ::get_nprocs();
    machine.can_bind = [](int cpu) {
        // Tried on a thread of its own. What the thread has now does not matter: the feed, too, may
        // leave the CPUs that it was started on, but not those of its control group.
        bool bound = false;
        std::thread([&bound, cpu] {
            cpu_set_t set;
            CPU_ZERO(&set);
            if (cpu >= 0 && cpu < CPU_SETSIZE) {
                CPU_SET(static_cast<std::size_t>(cpu), &set);
            }
            bound = ::sched_setaffinity(0, sizeof(set), &set) == 0;
        }).join();
        return bound;
    };
    machine.device_trouble = device_trouble_of_card;
    return machine;
}

void check_values(CheckContext& context) {
    for (const IniLine& line : context.file.lines) {
        if (line.kind == IniLine::Kind::kKey && line.section == kConfigSection &&
            find_key(line.key) != nullptr && !context.explained.contains(line.number)) {
            check_cut_value(context, line);
            check_quotes(context, line);
        }
    }
    check_numbers(context);
    check_cpu(context);
    check_log_level(context);
}

} // namespace vorn_cli
