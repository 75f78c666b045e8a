// Overwriting key material before its memory is given back. A plain memset on
// a buffer that is about to die may be removed by the optimiser; writing
// through a volatile pointer may not.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <type_traits>
#include <vector>

namespace elatectwn4::cipher {

/// Sets `size` bytes at `data` to zero in a way the compiler keeps.
inline void SecureWipe(void* data, std::size_t size) noexcept {
    auto* p = static_cast<volatile unsigned char*>(data);
    for (std::size_t i = 0; i < size; ++i)
        p[i] = 0;
    std::atomic_signal_fence(std::memory_order_seq_cst);
}

/// Wipes a whole object of trivially copyable type (arrays, schedules).
template <typename T>
inline void SecureWipeObject(T& object) noexcept {
    static_assert(std::is_trivially_copyable_v<T>);
    SecureWipe(&object, sizeof object);
}

/// Wipes the characters of a string (its full capacity, which covers any
/// shorter contents written earlier) and empties it.
inline void SecureWipe(std::string& text) noexcept {
    text.resize(text.capacity());
    SecureWipe(text.data(), text.size());
    text.clear();
}

/// Wipes the bytes of a vector (its full capacity) and empties it.
inline void SecureWipe(std::vector<std::uint8_t>& bytes) noexcept {
    bytes.resize(bytes.capacity());
    SecureWipe(bytes.data(), bytes.size());
    bytes.clear();
}

/// Wipes the buffer it guards when the scope ends, however it ends.
template <typename Buffer>
class WipeOnExit {
public:
    explicit WipeOnExit(Buffer& buffer) noexcept : buffer_(buffer) {}
    WipeOnExit(const WipeOnExit&) = delete;
    WipeOnExit& operator=(const WipeOnExit&) = delete;
    ~WipeOnExit() { SecureWipe(buffer_); }

private:
    Buffer& buffer_;
};

}  // namespace elatectwn4::cipher
