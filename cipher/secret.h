// Key material that cleans up after itself. Fixed-size secrets are wiped when
// they end and when they are moved from; the growable buffer moves its bytes
// into a larger block and wipes the old one before giving it back, so growing
// never leaves a copy behind in freed memory.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string_view>
#include <utility>

#include "cipher/wipe.h"

namespace elatectwn4::cipher {

/// N bytes of key material, zero until written.
template <std::size_t N>
class SecretBytes {
public:
    SecretBytes() noexcept = default;
    explicit SecretBytes(std::span<const std::uint8_t, N> bytes) noexcept {
        std::copy(bytes.begin(), bytes.end(), begin());
    }
    SecretBytes(const SecretBytes&) noexcept = default;
    SecretBytes& operator=(const SecretBytes&) noexcept = default;
    SecretBytes(SecretBytes&& other) noexcept : bytes_(other.bytes_) { other.Wipe(); }
    SecretBytes& operator=(SecretBytes&& other) noexcept {
        if (this != &other) {
            bytes_ = other.bytes_;
            other.Wipe();
        }
        return *this;
    }
    ~SecretBytes() { Wipe(); }

    static constexpr std::size_t size() noexcept { return N; }
    std::uint8_t* data() noexcept { return bytes_.data(); }
    const std::uint8_t* data() const noexcept { return bytes_.data(); }
    std::uint8_t* begin() noexcept { return bytes_.data(); }
    std::uint8_t* end() noexcept { return bytes_.data() + N; }
    const std::uint8_t* begin() const noexcept { return bytes_.data(); }
    const std::uint8_t* end() const noexcept { return bytes_.data() + N; }
    std::uint8_t& operator[](std::size_t i) noexcept { return bytes_[i]; }
    std::uint8_t operator[](std::size_t i) const noexcept { return bytes_[i]; }

    void Wipe() noexcept { SecureWipeObject(bytes_); }

    friend bool operator==(const SecretBytes& a, const SecretBytes& b) noexcept { return a.bytes_ == b.bytes_; }

private:
    std::array<std::uint8_t, N> bytes_{};
};

/// A growable run of secret characters (bytes or hex text). Bytes past the
/// size are always zero, and every block it ever held is wiped before it is
/// freed.
template <typename T>
class BasicSecretBuffer {
    static_assert(sizeof(T) == 1);

public:
    BasicSecretBuffer() noexcept = default;
    explicit BasicSecretBuffer(std::span<const T> items) { Append(items); }
    BasicSecretBuffer(const BasicSecretBuffer& other) : BasicSecretBuffer(other.view()) {}
    BasicSecretBuffer& operator=(const BasicSecretBuffer& other) {
        if (this != &other) {
            Clear();
            Append(other.view());
        }
        return *this;
    }
    BasicSecretBuffer(BasicSecretBuffer&& other) noexcept
        : data_(std::move(other.data_)),
          size_(std::exchange(other.size_, 0)),
          capacity_(std::exchange(other.capacity_, 0)) {}
    BasicSecretBuffer& operator=(BasicSecretBuffer&& other) noexcept {
        if (this != &other) {
            Release();
            data_ = std::move(other.data_);
            size_ = std::exchange(other.size_, 0);
            capacity_ = std::exchange(other.capacity_, 0);
        }
        return *this;
    }
    ~BasicSecretBuffer() { Release(); }

    std::size_t size() const noexcept { return size_; }
    std::size_t capacity() const noexcept { return capacity_; }
    bool empty() const noexcept { return size_ == 0; }
    T* data() noexcept { return data_.get(); }
    const T* data() const noexcept { return data_.get(); }
    T* begin() noexcept { return data_.get(); }
    T* end() noexcept { return data_.get() + size_; }
    const T* begin() const noexcept { return data_.get(); }
    const T* end() const noexcept { return data_.get() + size_; }
    T& operator[](std::size_t i) noexcept { return data_[i]; }
    const T& operator[](std::size_t i) const noexcept { return data_[i]; }
    std::span<const T> view() const noexcept { return {data_.get(), size_}; }

    /// Room for `capacity` items without a further move.
    void Reserve(std::size_t capacity) {
        if (capacity <= capacity_) return;
        auto bigger = std::make_unique<T[]>(capacity);  // zeroed
        std::copy(begin(), end(), bigger.get());
        const std::size_t size = size_;
        Release();
        data_ = std::move(bigger);
        size_ = size;
        capacity_ = capacity;
    }

    void Append(std::span<const T> items) {
        if (items.empty()) return;
        Grow(items.size());
        std::copy(items.begin(), items.end(), data_.get() + size_);
        size_ += items.size();
    }
    void push_back(T item) {
        Grow(1);
        data_[size_++] = item;
    }
    /// Shortens (the dropped items are wiped) or lengthens with zeros.
    void Resize(std::size_t size) {
        if (size < size_) {
            SecureWipe(data_.get() + size, size_ - size);
        } else {
            Grow(size - size_);
        }
        size_ = size;
    }
    /// Wipes the contents; the block is kept for reuse.
    void Clear() noexcept { Resize(0); }

private:
    void Grow(std::size_t more) {
        if (size_ + more <= capacity_) return;
        Reserve(std::max({size_ + more, 2 * capacity_, std::size_t{32}}));
    }
    void Release() noexcept {
        if (data_) SecureWipe(data_.get(), capacity_);
        data_.reset();
        size_ = 0;
        capacity_ = 0;
    }

    std::unique_ptr<T[]> data_;
    std::size_t size_ = 0;
    std::size_t capacity_ = 0;
};

/// Secret bytes of any length: answers that may hold keys, gathered frames.
using SecretBuffer = BasicSecretBuffer<std::uint8_t>;

/// Secret hex text: a command filled with a key before it becomes bytes.
class SecretText : public BasicSecretBuffer<char> {
public:
    using BasicSecretBuffer<char>::BasicSecretBuffer;
    std::string_view text() const noexcept { return {data(), size()}; }
    void Append(std::string_view text) { BasicSecretBuffer<char>::Append(std::span<const char>(text)); }
};

/// A MIFARE Classic key (key A or key B of a sector).
using MifareKey = SecretBytes<6>;
/// One 16-byte card block; any block may be a sector trailer holding keys.
using DataBlock = SecretBytes<16>;
/// A single-DES key, and a two-key Triple-DES key.
using DesKey = SecretBytes<8>;
using TripleDesKey = SecretBytes<16>;

}  // namespace elatectwn4::cipher
