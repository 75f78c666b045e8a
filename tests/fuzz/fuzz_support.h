// What every fuzz target needs: a check that stops the run with a record
// libFuzzer keeps, and a reader that takes values off the input.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace elatectwn4::fuzz {

/// Aborts with `what` on stderr when `condition` fails: libFuzzer then saves
/// the input as a crash file, and a replay names the broken promise.
inline void Check(bool condition, const char* what) {
    if (!condition) {
        std::fprintf(stderr, "fuzz check failed: %s\n", what);
        std::abort();
    }
}

/// Takes numbers and texts off the front of the input; past its end it
/// yields zeros and empty texts.
class Input {
public:
    Input(const std::uint8_t* data, std::size_t size) : rest_(reinterpret_cast<const char*>(data), size) {}

    bool empty() const noexcept { return rest_.empty(); }
    std::string_view rest() const noexcept { return rest_; }

    std::uint8_t Byte() {
        if (rest_.empty()) return 0;
        const auto b = static_cast<std::uint8_t>(rest_.front());
        rest_.remove_prefix(1);
        return b;
    }
    std::uint32_t Number() {
        std::uint32_t n = 0;
        for (int i = 0; i < 4; ++i)
            n = n << 8 | Byte();
        return n;
    }
    /// Up to `n` bytes, fewer where the input ends.
    std::string Take(std::size_t n) {
        std::string text(rest_.substr(0, n));
        rest_.remove_prefix(text.size());
        return text;
    }
    /// A text of up to `longest` bytes, its length taken from the input.
    std::string Text(std::size_t longest = 64) { return Take(Byte() % (longest + 1)); }
    /// A length byte (255: a 16-bit little-endian length follows) and that
    /// many bytes; nothing once the input is used up.
    std::optional<std::vector<std::uint8_t>> Chunk() {
        if (rest_.empty()) return std::nullopt;
        std::size_t length = Byte();
        if (length == 255) {
            length = Byte();  // low byte first: the two reads are sequenced
            length |= std::size_t{Byte()} << 8;
        }
        const std::string bytes = Take(length);
        return std::vector<std::uint8_t>(bytes.begin(), bytes.end());
    }

private:
    std::string_view rest_;
};

}  // namespace elatectwn4::fuzz
