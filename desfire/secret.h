// Buffers for key material (keys, challenges, session keys, tokens): they
// overwrite their bytes when they are replaced, moved from or destroyed.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "cipher/value.h"
#include "cipher/wipe.h"

namespace elatectwn4::desfire {

/// A fixed number of secret bytes, zero until written.
template <std::size_t N>
class SecretBytes {
public:
    SecretBytes() noexcept = default;
    explicit SecretBytes(std::span<const std::uint8_t, N> bytes) noexcept {
        std::copy(bytes.begin(), bytes.end(), bytes_.begin());
    }
    SecretBytes(const SecretBytes& other) noexcept = default;
    SecretBytes& operator=(const SecretBytes& other) noexcept = default;
    SecretBytes(SecretBytes&& other) noexcept : bytes_(other.bytes_) { other.Wipe(); }
    SecretBytes& operator=(SecretBytes&& other) noexcept {
        if (this != &other) {
            bytes_ = other.bytes_;
            other.Wipe();
        }
        return *this;
    }
    ~SecretBytes() { Wipe(); }

    void Wipe() noexcept { cipher::SecureWipeObject(bytes_); }

    std::uint8_t* data() noexcept { return bytes_.data(); }
    const std::uint8_t* data() const noexcept { return bytes_.data(); }
    static constexpr std::size_t size() noexcept { return N; }
    std::uint8_t& operator[](std::size_t i) noexcept { return bytes_[i]; }
    std::uint8_t operator[](std::size_t i) const noexcept { return bytes_[i]; }
    std::span<std::uint8_t, N> span() noexcept { return bytes_; }
    std::span<const std::uint8_t, N> span() const noexcept { return bytes_; }

private:
    std::array<std::uint8_t, N> bytes_{};
};

/// Secret bytes of a length known only at run time.
class SecretBuffer {
public:
    SecretBuffer() = default;
    explicit SecretBuffer(std::size_t size) : bytes_(size, 0) {}
    explicit SecretBuffer(std::span<const std::uint8_t> bytes) : bytes_(bytes.begin(), bytes.end()) {}
    SecretBuffer(const SecretBuffer&) = delete;
    SecretBuffer& operator=(const SecretBuffer&) = delete;
    SecretBuffer(SecretBuffer&& other) noexcept : bytes_(std::move(other.bytes_)) {}
    SecretBuffer& operator=(SecretBuffer&& other) noexcept {
        if (this != &other) {
            cipher::SecureWipe(bytes_);
            bytes_ = std::move(other.bytes_);
        }
        return *this;
    }
    ~SecretBuffer() { cipher::SecureWipe(bytes_); }

    /// Appends bytes; room is made first so that the old contents are never
    /// left behind in memory given back by a reallocation.
    void Append(std::span<const std::uint8_t> bytes) {
        Reserve(bytes_.size() + bytes.size());
        bytes_.insert(bytes_.end(), bytes.begin(), bytes.end());
    }
    /// Appends zero bytes up to `size`.
    void PadTo(std::size_t size) {
        Reserve(size);
        if (bytes_.size() < size) bytes_.resize(size, 0);
    }

    std::size_t size() const noexcept { return bytes_.size(); }
    std::span<std::uint8_t> span() noexcept { return bytes_; }
    std::span<const std::uint8_t> span() const noexcept { return bytes_; }

private:
    void Reserve(std::size_t size) {
        if (size <= bytes_.capacity()) return;
        std::vector<std::uint8_t> larger;
        larger.reserve(std::max(size, 2 * bytes_.capacity()));
        larger.assign(bytes_.begin(), bytes_.end());
        cipher::SecureWipe(bytes_);
        bytes_.swap(larger);
    }

    std::vector<std::uint8_t> bytes_;
};

/// A text that holds key material (hex digits of a key, a token); wiped on destruction.
class SecretText {
public:
    SecretText() = default;
    explicit SecretText(std::string text) noexcept : text_(std::move(text)) {}
    SecretText(const SecretText&) = delete;
    SecretText& operator=(const SecretText&) = delete;
    // A short text lives inside the string object itself; moving it copies
    // the characters, so the source is overwritten.
    SecretText(SecretText&& other) noexcept : text_(std::move(other.text_)) { cipher::SecureWipe(other.text_); }
    SecretText& operator=(SecretText&&) = delete;
    ~SecretText() { cipher::SecureWipe(text_); }

    std::string& get() noexcept { return text_; }
    const std::string& get() const noexcept { return text_; }

private:
    std::string text_;
};

/// Overwrites whatever text or byte array a value of the DES engine holds.
inline void WipeValue(cipher::Value& value) noexcept {
    auto& storage = value.Get();
    if (auto* text = std::get_if<std::string>(&storage)) cipher::SecureWipe(*text);
    if (auto* bytes = std::get_if<cipher::ByteArray>(&storage)) cipher::SecureWipe(*bytes);
}

/// A value of the DES engine that holds key material; wiped on destruction.
class SecretValue {
public:
    explicit SecretValue(cipher::Value value) noexcept : value_(std::move(value)) {}
    SecretValue(const SecretValue&) = delete;
    SecretValue& operator=(const SecretValue&) = delete;
    SecretValue(SecretValue&& other) noexcept : value_(std::move(other.value_)) { WipeValue(other.value_); }
    SecretValue& operator=(SecretValue&&) = delete;
    ~SecretValue() { WipeValue(value_); }

    cipher::Value& get() noexcept { return value_; }
    const cipher::Value& get() const noexcept { return value_; }

private:
    cipher::Value value_;
};

}  // namespace elatectwn4::desfire
