// Helpers shared by the DES engine tests, written independently of the
// engine's own conversions so that a fault there cannot hide itself.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <ostream>
#include <random>
#include <string>
#include <vector>

#include "cipher/des.h"

namespace elatectwn4::cipher {

/// Shows a Value in assertion failures as its kind and contents.
inline void PrintTo(const Value& value, std::ostream* os) {
    struct Printer {
        std::ostream& os;
        void operator()(std::monostate) const { os << "Empty"; }
        void operator()(bool b) const { os << "Boolean " << (b ? "true" : "false"); }
        void operator()(std::int64_t n) const { os << "Integer " << n; }
        void operator()(double d) const { os << "Double " << d; }
        void operator()(const std::string& text) const {
            os << "Text \"";
            for (unsigned char c : text) {
                if (c >= 0x20 && c < 0x7F) {
                    os << c;
                } else {
                    static const char* digits = "0123456789ABCDEF";
                    os << "\\x" << digits[c >> 4] << digits[c & 0xF];
                }
            }
            os << '"';
        }
        void operator()(const ByteArray& bytes) const {
            static const char* digits = "0123456789ABCDEF";
            os << "ByteArray(";
            for (std::size_t i = 0; i < bytes.size(); ++i)
                os << (i ? " " : "") << digits[bytes[i] >> 4] << digits[bytes[i] & 0xF];
            os << ')';
        }
        void operator()(const MixedArray& elements) const { os << "MixedArray of " << elements.size(); }
    };
    std::visit(Printer{*os}, value.Get());
}

}  // namespace elatectwn4::cipher

namespace elatectwn4::cipher::testing {

inline std::vector<std::uint8_t> FromHex(const std::string& hex) {
    std::vector<std::uint8_t> bytes;
    std::string digits;
    for (char c : hex) {
        if (c != ' ') digits.push_back(c);
    }
    for (std::size_t i = 0; i + 1 < digits.size(); i += 2) {
        bytes.push_back(static_cast<std::uint8_t>(std::stoul(digits.substr(i, 2), nullptr, 16)));
    }
    return bytes;
}

inline std::string ToHex(const std::vector<std::uint8_t>& bytes, bool blanks = false) {
    static const char* digits = "0123456789ABCDEF";
    std::string text;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (blanks && i != 0) text += ' ';
        text += digits[bytes[i] >> 4];
        text += digits[bytes[i] & 0xF];
    }
    return text;
}

inline std::vector<std::uint8_t> RandomBytes(std::mt19937& random, std::size_t count) {
    std::uniform_int_distribution<int> byte(0, 255);
    std::vector<std::uint8_t> bytes(count);
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
