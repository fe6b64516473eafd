#include "tools/vorn/fault_options.h"

#include "tools/vorn/exit_code.h"

#include <fmt/format.h>

namespace vorn_cli {

namespace {

std::string help_of_kinds() {
    std::string text =
        "faults, as KIND[@TIME][:COUNT] with TIME in seconds from the first frame:\n";
    for (const faults::KindInfo& info : faults::all_kinds()) {
        text += fmt::format("  {:<14} {}\n", info.name, info.summary);
    }
    return text;
}

} // namespace

void add_fault_options(CLI::App& sub, FaultOptions& options) {
    sub.add_option("--fault", options.texts, "a fault in the frames; may be repeated")
        ->option_text("KIND[@TIME][:COUNT]")
        ->allow_extra_args(false);
    sub.add_option("--fault-seed", options.seed, "chooses the victims of the faults (1)")
        ->option_text("N");
    sub.footer(sub.get_footer() + "\n" + help_of_kinds());
}

std::vector<faults::FaultSpec> parsed_faults(const FaultOptions& options) {
    std::vector<faults::FaultSpec> specs;
    for (const std::string& text : options.texts) {
        std::string error;
        if (!faults::parse_faults(text, specs, error)) {
            throw Failure(kUsage, error);
        }
    }
    return specs;
}

std::string fault_device_options(const FaultOptions& options) {
    if (parsed_faults(options).empty()) {
        return {};
    }
    return fmt::format("&fault={}&fault_seed={}", fmt::join(options.texts, "+"), options.seed);
}

} // namespace vorn_cli
