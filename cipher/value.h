// The run-time-typed value the DES engine takes and gives: one argument type
// for every data form the component hands it (hex text, byte strings, byte
// arrays, arrays assembled element by element, plain numbers).
#pragma once

#include <concepts>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "cipher/bytes.h"
#include "cipher/des_error.h"

namespace elatectwn4::cipher {

/// One element of an array built from values of any kind. Only integers,
/// floating-point numbers and Booleans can stand for a byte.
using Element = std::variant<std::monostate, bool, std::int64_t, double, std::string>;

/// An array whose elements may differ in kind.
using MixedArray = std::vector<Element>;

/// Empty, a Boolean, an integer, a floating-point number, a text (hex text
/// or a byte string of one char per byte, the form decides), a byte array or
/// a mixed array.
class Value {
public:
    using Storage = std::variant<std::monostate, bool, std::int64_t, double, std::string, ByteArray, MixedArray>;

    Value() noexcept = default;
    Value(bool flag) : storage_(flag) {}
    template <std::integral T>
    requires(!std::same_as<T, bool>) Value(T number) : storage_(static_cast<std::int64_t>(number)) {}
    Value(double number) : storage_(number) {}
    Value(const char* text) : storage_(std::string(text)) {}
    Value(std::string_view text) : storage_(std::string(text)) {}
    Value(std::string text) : storage_(std::move(text)) {}
    Value(ByteArray bytes) : storage_(std::move(bytes)) {}
    Value(MixedArray elements) : storage_(std::move(elements)) {}

    bool IsEmpty() const noexcept { return std::holds_alternative<std::monostate>(storage_); }
    bool IsText() const noexcept { return std::holds_alternative<std::string>(storage_); }
    bool IsByteArray() const noexcept { return std::holds_alternative<ByteArray>(storage_); }
    bool IsMixedArray() const noexcept { return std::holds_alternative<MixedArray>(storage_); }
    /// True for both kinds of array.
    bool IsArray() const noexcept { return IsByteArray() || IsMixedArray(); }

    /// The text held. Throws DesError("Bad parameter type") for any other kind.
    const std::string& Text() const {
        if (const auto* text = std::get_if<std::string>(&storage_)) return *text;
        throw DesError(des_message::kBadParameterType);
    }

    /// The byte array held. Throws DesError("Bad parameter type") for any other kind.
    const ByteArray& Bytes() const {
        if (const auto* bytes = std::get_if<ByteArray>(&storage_)) return *bytes;
        throw DesError(des_message::kBadParameterType);
    }

    const Storage& Get() const noexcept { return storage_; }
    Storage& Get() noexcept { return storage_; }

    friend bool operator==(const Value&, const Value&) = default;

private:
    Storage storage_;
};

}  // namespace elatectwn4::cipher
