// The conversion of the optional BX argument to the trailer's byte 9.
#include "mifare/variant_byte.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace elatectwn4::mifare {
namespace {

TEST(VariantToByte, ConvertsWhatTheHostCanPassAsBX) {
    struct Row {
        const char* what;
        Variant value;
        std::optional<std::uint8_t> expected;
    };
    const Row rows[] = {
        {"False", false, 0},
        {"True is -1", true, std::nullopt},
        {"byte", std::uint8_t{200}, 200},
        {"long 255", std::int32_t{255}, 255},
        {"long 256", std::int32_t{256}, std::nullopt},
        {"long -1", std::int32_t{-1}, std::nullopt},
        {"double 2.5 to even", 2.5, 2},
        {"double 255.4", 255.4, 255},
        {"double 255.5 rounds to 256", 255.5, std::nullopt},
        {"double -0.5 to even zero", -0.5, 0},
        {"double -0.6", -0.6, std::nullopt},
        {"double NaN", std::nan(""), std::nullopt},
        {"text 12", std::string("12"), 12},
        {"text with blanks", std::string("  255 "), 255},
        {"text 2.5", std::string("2.5"), 2},
        {"text exponent", std::string("1e2"), 100},
        {"text hex literal", std::string("&HFF"), 255},
        {"text &HFFFF is the Integer -1", std::string("&HFFFF"), std::nullopt},
        {"text C hex", std::string("0x10"), std::nullopt},
        {"text trailing garbage", std::string("12a"), std::nullopt},
        {"byte array", std::vector<std::uint8_t>{1}, std::nullopt},
    };
    for (const Row& row : rows)
        EXPECT_EQ(VariantToByte(row.value), row.expected) << row.what;
}

}  // namespace
}  // namespace elatectwn4::mifare
