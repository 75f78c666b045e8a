// What every fuzz target needs: a check that stops the run with a record
// libFuzzer keeps, and a reader that takes values off the input.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

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
    /// A text of up to `longest` bytes, its length taken from the input.
    std::string Text(std::size_t longest = 64) {
        // The length byte is taken first: as arguments of one call, the two
        // could be evaluated in either order.
        const std::size_t wanted = Byte() % (longest + 1);
        const std::size_t n = std::min(wanted, rest_.size());
        std::string text(rest_.substr(0, n));
        rest_.remove_prefix(n);
        return text;
    }

private:
    std::string_view rest_;
};

}  // namespace elatectwn4::fuzz
