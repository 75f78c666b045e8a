// Moving data in and out of data, record and value files: the file's
// characteristics, the write and read engines that protect and check the
// data by the file's communication settings, and the four data and record
// members.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "command/encoder_command.h"
#include "desfire/desfire.h"

namespace elatectwn4::desfire {

/// A file's type and communication settings, with the whole settings record.
struct FileCharacteristics {
    std::int32_t fileType = 0;
    std::int32_t communicationSettings = 0;
    std::vector<std::uint8_t> settings;
};

/// Reads the settings through DESFireGetFileSettings, which names itself in
/// the record as every member does. nullopt when it failed, its record left
/// in place.
std::optional<FileCharacteristics> DESFireGetFileCharacteristics(Context& ctx, std::int32_t FileNo);

/// Plain (bit 0 clear), MAC (1) or enciphered (3): the settings the engines
/// act on; any other value travels plain.
enum class Protection { Plain, Mac, Enciphered };
Protection ProtectionOf(std::int32_t communicationSettings) noexcept;

/// The legacy MAC of `data`: the data padded with zero bytes to whole blocks,
/// CBC-enciphered with the session key from the zero vector; the first four
/// bytes of the last block. Empty data has no MAC.
std::vector<std::uint8_t> LegacyMac(Session& session, std::span<const std::uint8_t> data);

/// One frame of a chained write and the byte count handed with it: "34" for a
/// full first frame (52 bytes), "3B" for a full continuation (59), the last
/// frame's own count otherwise.
struct WriteFrame {
    std::string byteCount;
    std::span<const std::uint8_t> bytes;
};
std::vector<WriteFrame> SplitWriteFrames(std::span<const std::uint8_t> text);

struct WriteRequest {
    std::uint32_t code = 0;  ///< the first frame's command; later frames continue with "AF"
    std::int32_t fileNo = 0;
    std::vector<std::uint8_t> header;  ///< sent as it stands
    std::vector<std::uint8_t> data;    ///< protected by the file's communication settings
    std::span<const std::int32_t> allowedTypes;
};

/// Learns the file's type and settings, refuses a file of another type
/// (0x90010E48), protects the data and sends header and data in frames; every
/// frame but the last must be answered "AF", the last "00". A missing file is
/// 0x90010E4D, any other failure 0x90010E03, with the command and status.
sceReturnCode DESFireWriteEngine(Context& ctx, const WriteRequest& request, const std::string& comFunction);

/// A status as the record keeps it, native ("F0") or wrapped ("91F0").
bool StatusIs(const std::string& status, std::uint8_t code);

/// How the members that write report a failed write: 0x90010E03 in place
/// of the engine's number and text; ComFunction, RdrCommand and RdrRetCode
/// stay as the engine left them. Returns sceError.
sceReturnCode TransferFailed(Context& ctx);

struct ReadRequest {
    std::uint32_t code = 0;
    std::int32_t fileNo = 0;
    command::Params params;  ///< the read command's placeholders
    std::span<const std::int32_t> allowedTypes;
    std::size_t expectedLength = 0;  ///< data bytes; 0 = not known
    /// With Conformance=card an unknown length is worked out from the file's
    /// settings and these: the offset and the count the command asks for, in
    /// bytes for data files and in records for record files (0 = to the end).
    std::uint32_t offset = 0;
    std::uint32_t count = 0;
};

/// Sends the read command once, continuation frames gathered, and checks the
/// answer by the file's settings: the MAC (0x90010E4C), or the CRC of the
/// deciphered data (0x90010E4B). Without a known length the enciphered data
/// ends two bytes before the zero padding (and a marker 80): a CRC ending in
/// zero is taken for padding, and as such a CRC comes from data whose last
/// byte and the CRC's first form the CRC of the rest, that data passes the
/// check one byte short. Conformance=card avoids it by taking the length
/// from the file's settings. `data` is set only on success.
sceReturnCode DESFireReadEngine(Context& ctx, const ReadRequest& request, const std::string& comFunction,
                                std::vector<std::uint8_t>& data);

// ---- Members ---------------------------------------------------------------------
// Checks, in this order, nothing sent: a session (0x90010E11); FileNo 0..15
// (0x90010E41); Offset 0..0xFFFFFF (0x90010E49); Length (0x90010E4A).
// When the settings have been read the record names DESFireGetFileSettings,
// the last member that cleared it, until a failure names this one.

/// Writes DataString at Offset of a data or backup file. Length 1..0xFFFFFF,
/// or 0 for the number of characters of DataString as given. DataString is
/// hex text (blanks allowed) when IsDataHexaString, otherwise one byte per
/// character; the data is cut or filled with zero bytes to Length. Any
/// failure of the transfer is reported as 0x90010E03.
sceReturnCode DESFireWriteData(Context& ctx, std::int32_t FileNo, std::int32_t Offset, std::int32_t Length,
                               const std::string& DataString, bool IsDataHexaString);
/// The same for the record being written to a record file; Offset and
/// Length address bytes within that record.
sceReturnCode DESFireWriteRecord(Context& ctx, std::int32_t FileNo, std::int32_t Offset, std::int32_t Length,
                                 const std::string& DataString, bool IsDataHexaString);
/// Reads Length bytes (0: to the end of the file) from Offset of a data or
/// backup file. DataString = compact upper-case hex, or one character per
/// byte; left as it was on a failure, which keeps the engine's own error.
sceReturnCode DESFireReadData(Context& ctx, std::int32_t FileNo, std::int32_t Offset, std::int32_t Length,
                              std::string& DataString, bool IsDataHexaString);
/// Reads Length records (0: all) of a record file, Offset records back from
/// the newest; the records come oldest first.
sceReturnCode DESFireReadRecords(Context& ctx, std::int32_t FileNo, std::int32_t Offset, std::int32_t Length,
                                 std::string& DataString, bool IsDataHexaString);

}  // namespace elatectwn4::desfire
