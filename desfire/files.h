// The files of the selected application: listing, the five kinds of file,
// deletion, settings, and the transaction that backup, value and record
// files share. Also the field encodings every file command uses.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "desfire/desfire.h"
#include "desfire/exchange.h"

namespace elatectwn4::desfire {

// ---- Limits and field encodings ----------------------------------------------

/// The largest value of a three-byte field: sizes, offsets, lengths, counts.
inline constexpr std::int32_t kMaxField24 = 0xFFFFFF;
/// File numbers run 0..15; value and record files take only 0..7.
inline constexpr std::int32_t kHighestFile = 15;
inline constexpr std::int32_t kHighestValueOrRecordFile = 7;

constexpr bool IsFileNumber(std::int32_t number, std::int32_t highest) noexcept {
    return number >= 0 && number <= highest;
}

/// The low byte of `value` as two hex digits: 8 -> "08", 257 -> "01", -1 -> "FF".
std::string ByteField(std::int64_t value);
/// The low `bytes` bytes of `value`, least significant first, as hex digits;
/// a negative value in two's complement: (32, 3) -> "200000",
/// (-10, 4) -> "F6FFFFFF".
std::string LittleEndianField(std::int64_t value, std::size_t bytes);

/// The four rights of a file, in the members' argument order. Each is a key
/// number 0..13, 14 (free) or 15 (never).
struct AccessRights {
    std::int32_t read = 0;
    std::int32_t write = 0;
    std::int32_t readWrite = 0;
    std::int32_t change = 0;

    bool Valid() const noexcept;
    /// The card's order, one digit each: read&write, change, read, write.
    std::string Field() const;
    /// The two bytes of Field: 0 = read&write and change, 1 = read and write.
    std::uint8_t WireByte(int index) const noexcept;
};

/// The number of the key that may change a file's settings, from a settings
/// record (low nibble of its third byte).
inline std::uint8_t ChangeRight(std::uint8_t rightsByte) noexcept {
    return rightsByte & 0x0F;
}

// ---- Members ---------------------------------------------------------------------
// Every member needs a session (0x90010E11 first). File numbers: 0..15 for
// data and backup files, deletion and settings; 0..7 for value and record
// files (0x90010E41). Communication settings: dfcPlain, dfcPlainMac or
// dfcCiphered for creation (0x90010E42); rights 0..15 (0x90010E31, whichever
// right it is).

/// FileIds = the file numbers, ascending, in decimal, joined by "," ("" for none).
sceReturnCode DESFireGetFileIDs(Context& ctx, std::string& FileIds);

/// FileSize 1..0xFFFFFF (0x90010E43).
sceReturnCode DESFireCreateStdDataFile(Context& ctx, std::int32_t FileNumber, std::int32_t CommunicationSettings,
                                       const AccessRights& rights, std::int32_t FileSize);
sceReturnCode DESFireCreateBackupDataFile(Context& ctx, std::int32_t FileNumber, std::int32_t CommunicationSettings,
                                          const AccessRights& rights, std::int32_t FileSize);
/// LowerLimit <= UpperLimit (0x90010E44); InitialValue within both
/// (0x90010E45).
sceReturnCode DESFireCreateValueFile(Context& ctx, std::int32_t FileNumber, std::int32_t CommunicationSettings,
                                     const AccessRights& rights, std::int32_t LowerLimit, std::int32_t UpperLimit,
                                     std::int32_t InitialValue, bool LimitedCreditEnabled);
/// RecordSize 1..0xFFFFFF (0x90010E46), MaxNumOfRecords 1..0xFFFFFF (0x90010E47).
sceReturnCode DESFireCreateLinearRecordFile(Context& ctx, std::int32_t FileNumber, std::int32_t CommunicationSettings,
                                            const AccessRights& rights, std::int32_t RecordSize,
                                            std::int32_t MaxNumOfRecords);
sceReturnCode DESFireCreateCyclicRecordFile(Context& ctx, std::int32_t FileNumber, std::int32_t CommunicationSettings,
                                            const AccessRights& rights, std::int32_t RecordSize,
                                            std::int32_t MaxNumOfRecords);
sceReturnCode DESFireDeleteFile(Context& ctx, std::int32_t FileNumber);

/// Information = the card's settings record as hex bytes separated by blanks
/// ("00 03 E1 12 20 00 00"); emptied once the checks passed, so a refusal of
/// the card leaves it empty.
sceReturnCode DESFireGetFileSettings(Context& ctx, std::int32_t FileNo, std::string& Information);

/// CommunicationSettings 0..255 (any byte, unlike creation). The settings go
/// plain first and, only when the card refuses that, enciphered with the
/// session key. With Conformance=card the file's change right decides: plain
/// when it is free (14), enciphered otherwise, one attempt.
sceReturnCode DESFireChangeFileSettings(Context& ctx, std::int32_t FileNo, std::int32_t CommunicationSettings,
                                        const AccessRights& rights);

/// A card with nothing to commit or abort answers "0C": 0x90010E4F, with
/// RdrCommand and RdrRetCode empty.
sceReturnCode DESFireCommitTransaction(Context& ctx);
sceReturnCode DESFireAbortTransaction(Context& ctx);

// ---- Shared with the transfer members -------------------------------------------

/// Sends GetFileSettings for `FileNo` and checks the record's shape (its
/// length fits its file type); on a refusal or a malformed record records
/// 0x90010E03 under `comFunction` and gives nullopt.
std::optional<Reply> ReadFileSettings(Context& ctx, const std::string& comFunction, std::int32_t FileNo);

}  // namespace elatectwn4::desfire
