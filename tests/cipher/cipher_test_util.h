// Helpers shared by the DES engine tests. Hex goes through the component's
// codec, which bytes_test.cpp holds against OpenSSL's.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <ostream>
#include <random>
#include <string>
#include <vector>

#include "cipher/bytes.h"
#include "cipher/des.h"

namespace elatectwn4::cipher {

/// Shows a Value in assertion failures as its kind and contents.
inline void PrintTo(const Value& value, std::ostream* os) {
    struct Printer {
        std::ostream& os;
        void operator()(std::monostate) const { os << "Empty"; }
        void operator()(bool b) const { os << "Boolean " << b; }
        void operator()(std::int64_t n) const { os << "Integer " << n; }
        void operator()(double d) const { os << "Double " << d; }
        void operator()(const std::string& text) const {
            os << "Text \"" << text << "\" (" << ToHex(AsBytes(text)) << ')';
        }
        void operator()(const ByteArray& bytes) const { os << "ByteArray(" << ToHex(bytes, ' ') << ')'; }
        void operator()(const MixedArray& elements) const { os << "MixedArray of " << elements.size(); }
    };
    std::visit(Printer{*os}, value.Get());
}

}  // namespace elatectwn4::cipher

namespace elatectwn4::cipher::testing {

inline ByteArray FromHex(const std::string& hex) {
    return ParseHex(hex).value_or(ByteArray{});
}

inline std::string ToHex(const ByteArray& bytes, bool blanks = false) {
    return cipher::ToHex(bytes, blanks ? ' ' : '\0');
}

inline ByteArray RandomBytes(std::mt19937& random, std::size_t count) {
    std::uniform_int_distribution<int> byte(0, 255);
    ByteArray bytes(count);
    for (auto& b : bytes)
        b = static_cast<std::uint8_t>(byte(random));
    return bytes;
}

/// The message of the DesError that `action` throws; a failure when it
/// throws nothing or something else, and when the number is not 0x80040201.
inline std::string DesErrorOf(const std::function<void()>& action) {
    try {
        action();
    } catch (const DesError& error) {
        EXPECT_EQ(error.number(), 0x80040201LL) << error.what();
        return error.what();
    } catch (const std::exception& other) {
        ADD_FAILURE() << "not a DesError: " << other.what();
        return "(other exception)";
    }
    return "(no error)";
}

}  // namespace elatectwn4::cipher::testing
