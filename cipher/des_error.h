// The error the DES engine raises when it refuses an argument.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

namespace elatectwn4::cipher {

/// A refusal of the DES engine. what() is the engine's message, word for word
/// ("Bad key index", "Invalid cipher algorithm", "Invalid chaining mode",
/// "Bad padding mode", "Bad parameter type", "Invalid hexadecimal string").
class DesError : public std::runtime_error {
public:
    /// Automation servers report errors they raise themselves as
    /// vbObjectError (0x80040000) plus a number of their own; the engine uses 513.
    static constexpr std::int64_t kNumber = 0x80040000LL + 513;

    explicit DesError(const std::string& message) : std::runtime_error(message) {}

    /// 0x80040201 for every refusal; the message tells them apart.
    std::int64_t number() const noexcept { return kNumber; }
};

/// The engine's messages.
namespace des_message {
inline constexpr const char* kBadKeyIndex = "Bad key index";
inline constexpr const char* kInvalidAlgorithm = "Invalid cipher algorithm";
inline constexpr const char* kInvalidChaining = "Invalid chaining mode";
inline constexpr const char* kBadPadding = "Bad padding mode";
inline constexpr const char* kBadParameterType = "Bad parameter type";
inline constexpr const char* kInvalidHex = "Invalid hexadecimal string";
}  // namespace des_message

}  // namespace elatectwn4::cipher
