#include "bring_up.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace support {

std::vector<RegisterStore> bring_up_stores(const std::vector<RegisterStore>& lines,
                                           uint32_t split_all_field) {
    std::vector<RegisterStore> stores = {{5, 1}, {5, 0}};
    stores.insert(stores.end(), lines.begin(), lines.end());
    stores.insert(stores.end(), {{514, 0}, {515, 0}, {528, 0}, {1398, split_all_field}});
    for (uint32_t number = 0; number < 4096; ++number) {
        stores.push_back({1796, number});
        stores.push_back({1797, 0});
    }
    for (uint32_t number = 0; number < 16384; ++number) {
        stores.push_back({1792, number});
        stores.push_back({1793, 0});
    }
    return stores;
}

void expect_stores(const std::vector<RegisterStore>& actual,
                   const std::vector<RegisterStore>& expected) {
    const std::size_t common = std::min(actual.size(), expected.size());
    for (std::size_t i = 0; i < common; ++i) {
        ASSERT_TRUE(actual[i] == expected[i])
            << "store " << i << ": word " << actual[i].word << " := " << actual[i].value
            << ", expected word " << expected[i].word << " := " << expected[i].value;
    }
    EXPECT_EQ(actual.size(), expected.size());
}

} // namespace support
