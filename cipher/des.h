// DES and Triple-DES with the chaining modes legacy DESFire needs, the CRC_A
// of DESFire frames, and the conversions between the component's data forms.
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "cipher/des_core.h"
#include "cipher/des_error.h"
#include "cipher/value.h"

namespace elatectwn4::cipher {

/// The component's DES engine. One object per Encoder; every DESFire routine
/// loads its own keys and vector before use.
///
/// Options word of Encrypt and Decrypt (three fields, OR-ed together; checked
/// in this order):
///
/// | Bits  | Value  | Meaning                                                     |
/// |-------|--------|-------------------------------------------------------------|
/// | 0-7   | 0      | single DES with key 1                                       |
/// |       | 1      | Triple-DES EDE, keys 1, 2, 3 (key 3 = key 1: two-key form)  |
/// | 8-11  | 0      | no padding; a partial last block is filled with zero bytes  |
/// |       | 0x100  | ISO/IEC 9797-1 method 2: 80 then 00 bytes, always added     |
/// |       |        | when enciphering, taken off again after deciphering         |
/// | 12-31 | 0      | ECB                                                         |
/// |       | 0x1000 | CBC from InitVector (Decrypt: DESFire receive mode)         |
/// |       | 0x2000 | Decrypt only: DESFire send mode, out_i = D(in_i ^ out_i-1)  |
/// |       | 0x4000 | Decrypt only: MAC, CBC enciphering of the data              |
///
/// Data forms of ConvertData (conversion = input form * 256 + output form):
///
/// | Form | Read as input                              | Written as output            |
/// |------|--------------------------------------------|------------------------------|
/// | 0    | text: hex digits in either case; blank,    | "0A 1B FF": two upper-case   |
/// |      | comma, tab, CR, LF skipped                 | digits per byte, one blank   |
/// |      |                                            | between bytes, "" if none    |
/// | 1    | text: hex digits only, nothing skipped     | "0A1BFF"                     |
/// | 2    | key form: byte array, or mixed array of    | byte array                   |
/// |      | integers 0..255, Booleans (1/0) and        |                              |
/// |      | floating-point numbers (rounded half even) |                              |
/// | 3    | text of "0"/"1", eight per byte, most      | "00001010" per byte, no      |
/// |      | significant first; separators of 0 skipped | separators                   |
/// | 4    | text of decimal numbers 0..255 between     | "10,27,255"                  |
/// |      | separators of form 0                       |                              |
/// | 5    | as form 2                                  | byte array                   |
/// | 6    | text, one char per byte                    | text, one char per byte      |
///
/// An odd number of hex digits reads as if a "0" stood in front ("ABC" is
/// 0A BC). An output form above 6 returns the data unchanged, unread. Codes in
/// use: 1 (hex to compact hex), 2 and 5 (hex to byte array), 6 (hex to byte
/// string), 256 (compact hex to separated hex), 258 / 513 (hex to array and
/// back for the ChangeKey XOR), 1536 / 1537 / 1541 (card answer bytes to
/// separated hex / compact hex / byte array).
///
/// Every member that refuses its arguments throws DesError and leaves keys
/// and vector as they were. Keys, round keys and the vector are wiped when
/// replaced and when the object ends.
///
/// Example, the first step of a legacy DESFire authentication:
/// @code
///   DES des;
///   des.InitVector("00 00 00 00 00 00 00 00");
///   des.Keys(1, k1); des.Keys(2, k2); des.Keys(3, k1);
///   std::int32_t mode = 0x1001;  // Triple-DES, receive mode
///   Value rndB = des.Decrypt(DES::ConvertData(answerBytes, 1536), mode);  // "4F 3A ..."
/// @endcode
class DES {
public:
    static constexpr std::int32_t kAlgorithmMask = 0xFF;
    static constexpr std::int32_t kSingleDes = 0;
    static constexpr std::int32_t kTripleDes = 1;
    static constexpr std::int32_t kPaddingMask = 0xF00;
    static constexpr std::int32_t kPadNone = 0;
    static constexpr std::int32_t kPadIso9797Method2 = 0x100;
    static constexpr std::uint32_t kChainingMask = 0xFFFFF000U;
    static constexpr std::int32_t kEcb = 0;
    static constexpr std::int32_t kCbc = 0x1000;
    static constexpr std::int32_t kSendMode = 0x2000;
    static constexpr std::int32_t kMac = 0x4000;

    /// All three keys and the vector start as eight zero bytes.
    DES() noexcept;
    ~DES();
    DES(const DES&) = delete;
    DES& operator=(const DES&) = delete;

    /// Loads key `index` (1..3) from hex text (form 0). Only the first eight
    /// bytes count; a shorter key is filled with zero bytes on the right.
    /// @throws DesError "Bad key index" for an index outside 1..3, "Bad
    ///         parameter type" when `hex` is not a text, "Invalid hexadecimal
    ///         string" when it holds a non-hex character.
    void Keys(int index, const Value& hex);

    /// Sets the chaining vector from hex text (form 0); first eight bytes,
    /// zero-filled like a key. Encrypt and Decrypt never change it.
    /// @throws DesError as Keys, except the index.
    void InitVector(const Value& hex);

    /// CRC_A of ISO/IEC 14443-3 (initial value 6363) over the bytes of a hex
    /// text (form 0), as "LL HH": low byte first, one blank. "" gives "63 63".
    /// @throws DesError "Bad parameter type", "Invalid hexadecimal string".
    static std::string CRC16(const Value& hex);

    /// Converts `data` from one form to another (table above).
    /// @param conversion input form * 256 + output form.
    /// @throws DesError "Bad parameter type" when the value's kind does not
    ///         fit the input form, an array element is not a byte, or the
    ///         input form is unknown; "Invalid hexadecimal string".
    static Value ConvertData(const Value& data, std::int32_t conversion);

    /// Enciphers `data`, a hex text (form 0) or an array (form 5), with ECB
    /// or CBC. The result has the input's form: a text with any separator in
    /// it gives separated hex, a text without one compact hex, an array a
    /// byte array.
    /// @param options the options word above; left as it is.
    /// @throws DesError "Invalid cipher algorithm", "Bad padding mode",
    ///         "Invalid chaining mode" (anything but ECB or CBC), then the
    ///         conversion errors of the data.
    Value Encrypt(const Value& data, std::int32_t& options);
    Value Encrypt(const Value& data, const std::int32_t& options) { return Run(data, options, Direction::Encrypt); }

    /// Deciphers `data` (forms as Encrypt) with ECB or CBC, or runs one of
    /// the two DESFire ways of preparing data for the card: send mode
    /// (0x2000) or the MAC (0x4000, returns the whole CBC cryptogram; the MAC
    /// is the first four bytes of its last block). Padding: ECB and CBC take
    /// method-2 padding off; send mode and MAC add it like Encrypt.
    /// @throws DesError as Encrypt; the chaining field may also be 0x2000 or 0x4000.
    Value Decrypt(const Value& data, std::int32_t& options);
    Value Decrypt(const Value& data, const std::int32_t& options) { return Run(data, options, Direction::Decrypt); }

private:
    struct KeySlot {
        std::array<std::uint8_t, 8> key{};
        detail::KeySchedule schedule;
    };

    enum class Direction { Encrypt, Decrypt };

    Value Run(const Value& data, std::int32_t options, Direction direction) const;

    std::array<KeySlot, 3> keys_{};
    std::array<std::uint8_t, 8> vector_{};
};

}  // namespace elatectwn4::cipher
