#include "check_support.h"

#include <sstream>

namespace vorn_cli_test {

std::string good_file_with(const std::string& line) {
    const auto key_of = [](const std::string& text) {
        return vorn_cli::trim_blanks(text.substr(0, text.find('=')));
    };
    std::istringstream good(kGoodFile);
    std::string result;
    bool replaced = false;
    for (std::string each; std::getline(good, each);) {
        const bool same = each.front() != '[' && key_of(each) == key_of(line);
        replaced = replaced || same;
        result += (same ? line : each) + "\n";
    }
    return replaced ? result : result + line + "\n";
}

vorn_cli::Machine test_machine() {
    vorn_cli::Machine machine;
    machine.processors = 4;
    machine.can_bind = [](int cpu) { return cpu != 2; };
    machine.device_trouble = [](const std::string& device) {
        return device == "absent" ? "there is no card absent" : "";
    };
    return machine;
}

vorn_cli::Findings check(const std::string& content, const vorn_cli::CaptureSurvey* capture) {
    return vorn_cli::check_configuration(content, test_machine(), capture).findings;
}

std::string to_text(const vorn_cli::Findings& findings) {
    std::string text;
    for (const vorn_cli::Finding& finding : findings) {
        text += std::to_string(finding.line) + ": " + severity_name(finding.severity) + ": " +
                finding.text() + " [" + finding.rule + "]\n";
    }
    return text;
}

} // namespace vorn_cli_test
