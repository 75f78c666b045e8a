// Which bytes of a raw reader command (Escape) and of its answer are key
// material. The host writes such a command as it likes, so nobody marks its
// secrets for the trace: they are recognised from the command's header.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace elatectwn4::command {

struct RawSecrets {
    /// The sent bytes from this one to the end are key material.
    std::optional<std::size_t> sentFrom;
    /// The answer's data is key material (a challenge, a trailer's keys).
    bool answer = false;
    /// The answer starts with its status byte (a DESFire native frame)
    /// rather than ending with a status word.
    bool nativeAnswer = false;
};

/// Recognises LOAD KEYS (FF 82), a write or read of a MIFARE sector trailer
/// (FF D6 / FF B0), and the DESFire commands whose frames carry key material,
/// native or wrapped in class 90: ChangeKey (C4), the authentications (0A,
/// 1A, AA) and the frames that follow them (AF with data).
RawSecrets RawCommandSecrets(std::span<const std::uint8_t> command) noexcept;

}  // namespace elatectwn4::command
