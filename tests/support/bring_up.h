#pragma once

// The register stores that a bring-up of the card consists of.

#include "scripted_card.h"

#include <cstdint>
#include <vector>

namespace support {

// Every store of one bring-up, in order, with the given stores of the multicast lines.
std::vector<RegisterStore> bring_up_stores(const std::vector<RegisterStore>& lines,
                                           uint32_t split_all_field);

// Compares without printing 41 thousand stores: the first difference and the lengths.
void expect_stores(const std::vector<RegisterStore>& actual,
                   const std::vector<RegisterStore>& expected);

} // namespace support
