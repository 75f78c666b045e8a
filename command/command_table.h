// The numbered encoder commands: name, hex template with bracketed
// placeholders, and where each placeholder's value comes from.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "cipher/secret.h"
#include "command/encoder_command.h"

namespace elatectwn4::command {

/// How a parameter becomes the text that replaces its placeholder.
enum class SlotFormat : std::uint8_t {
    Text,             ///< the parameter's text (a number: its decimal text)
    Block,            ///< hex, zero-padded, last 4 digits: block 4 -> "0004"
    KeyType,          ///< "61" (key B) when the value is 2, else "60" (key A)
    HexByte,          ///< hex, zero-padded, last 2 digits
    PaddedHex,        ///< hex, left-padded with "0" to at least 2 digits
    KeyLength,        ///< length of the parameter's text / 2, as HexByte
    PcdKeyNumber,     ///< "00" when the text is "000000", else "01"
    ReaderKey,        ///< the text without " ", ".", "-", ",", ":"
    ReaderKeyLength,  ///< length of ReaderKey / 2, as HexByte
};

struct Slot {
    std::string_view placeholder;  ///< "[BLOC_NUMBER]"; empty = unused entry
    std::uint8_t param = 0;        ///< index into the parameter list
    SlotFormat format = SlotFormat::Text;
};

enum class TextSource : std::uint8_t {
    Template,  ///< the row's template with its placeholders filled
    Param0,    ///< the first parameter as it stands (Escape)
};

struct CommandRow {
    std::uint32_t code;
    std::string_view name;  ///< empty: the name is the first parameter's text (0x441)
    std::string_view templ;
    std::array<Slot, 7> slots{};  ///< substituted in this order
    std::string_view secret{};    ///< placeholder whose value (and all after it) is always key material
    bool secretAnswer = false;    ///< the answers' data is always key material
    TextSource source = TextSource::Template;
};

/// The row of `code`, or nullptr for a code the table does not know.
const CommandRow* FindCommand(std::uint32_t code) noexcept;

/// One filled command, reused from frame to frame to spare allocations.
struct FilledCommand {
    cipher::SecretText text;  ///< hex text, blanks allowed; may hold a key
    std::string_view fixedName;
    std::string givenName;  ///< 0x441's caller-given name
    bool nameGiven = false;
    std::optional<std::size_t> secretDigit;  ///< blank-free digit index where the secret starts
    bool secretAnswer = false;

    std::string_view Name() const noexcept { return nameGiven ? std::string_view(givenName) : fixedName; }
};

/// Fills the template of `code` from `params`; the bytes from placeholder
/// `secretFrom` on (or from the row's own secret placeholder, whichever comes
/// first) are marked secret. Returns 0, or
/// pcsc_code::InvalidParameter when the code is unknown or a placeholder in
/// the template needs a parameter that is missing or is not a number where a
/// number is wanted. Placeholders that the template does not contain are not
/// evaluated (0x301 names [KEY_TYPE], 0x432 [LENGTH], and so on, without
/// placing them).
std::uint32_t FillCommand(std::uint32_t code, const Params& params, std::string_view secretFrom, FilledCommand& out);

/// The value of a number parameter: an integer, or a text holding a decimal
/// integer (blanks around it allowed) or "&H" followed by hex digits. Bytes
/// are no number.
std::optional<std::int64_t> NumberOf(const Param& param);

}  // namespace elatectwn4::command
