// What a simulated DESFire EV1 card keeps: applications, keys, key settings
// and files, with the volatile side of the backup mechanism (the pending
// transaction) next to the committed contents it shadows.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <nlohmann/json.hpp>
#include <optional>
#include <vector>

#include "sim/desfire/desfire_crypto.h"

namespace elatectwn4::sim::desfire {

/// Status bytes of the DESFire native protocol.
namespace status {
inline constexpr std::uint8_t Ok = 0x00;
inline constexpr std::uint8_t NoChanges = 0x0C;
inline constexpr std::uint8_t OutOfEeprom = 0x0E;
inline constexpr std::uint8_t IllegalCommand = 0x1C;
inline constexpr std::uint8_t IntegrityError = 0x1E;
inline constexpr std::uint8_t NoSuchKey = 0x40;
inline constexpr std::uint8_t LengthError = 0x7E;
inline constexpr std::uint8_t PermissionDenied = 0x9D;
inline constexpr std::uint8_t ParameterError = 0x9E;
inline constexpr std::uint8_t ApplicationNotFound = 0xA0;
inline constexpr std::uint8_t AuthenticationError = 0xAE;
inline constexpr std::uint8_t AdditionalFrame = 0xAF;
inline constexpr std::uint8_t BoundaryError = 0xBE;
inline constexpr std::uint8_t PiccIntegrityError = 0xC1;
inline constexpr std::uint8_t CommandAborted = 0xCA;
inline constexpr std::uint8_t CountError = 0xCE;
inline constexpr std::uint8_t DuplicateError = 0xDE;
inline constexpr std::uint8_t FileNotFound = 0xF0;
}  // namespace status

using Aid = std::array<std::uint8_t, 3>;

/// Key settings bits, the same at card level and in an application.
inline constexpr std::uint8_t kMasterKeyChangeable = 0x01;
inline constexpr std::uint8_t kFreeDirectoryList = 0x02;
inline constexpr std::uint8_t kFreeCreateDelete = 0x04;
inline constexpr std::uint8_t kConfigurationChangeable = 0x08;
/// Upper nibble of an application's key settings: the key that may change
/// the other keys, or one of these two.
inline constexpr std::uint8_t kChangeWithSameKey = 0x0E;
inline constexpr std::uint8_t kKeysFrozen = 0x0F;

enum class FileType : std::uint8_t { StandardData = 0, BackupData = 1, Value = 2, LinearRecord = 3, CyclicRecord = 4 };

/// How a file's data travels once access was granted by a key.
enum class CommMode { Plain, Maced, Enciphered };

/// Access-right nibble values beside the key numbers 0..13.
inline constexpr std::uint8_t kFreeAccess = 0x0E;
inline constexpr std::uint8_t kNoAccess = 0x0F;

struct AccessRights {
    std::uint8_t read = kFreeAccess;
    std::uint8_t write = kFreeAccess;
    std::uint8_t readWrite = kFreeAccess;
    std::uint8_t change = kFreeAccess;

    /// From the two wire bytes: (read&write << 4 | change), (read << 4 | write).
    static AccessRights FromWire(std::uint8_t low, std::uint8_t high) noexcept;
    std::uint8_t WireLow() const noexcept { return static_cast<std::uint8_t>(readWrite << 4 | change); }
    std::uint8_t WireHigh() const noexcept { return static_cast<std::uint8_t>(read << 4 | write); }
};

/// Bits of the value file's creation flag byte.
inline constexpr std::uint8_t kLimitedCreditEnabled = 0x01;
inline constexpr std::uint8_t kFreeGetValue = 0x02;

struct File {
    std::uint8_t number = 0;
    FileType type = FileType::StandardData;
    std::uint8_t commSettings = 0;
    AccessRights rights;

    // Standard and backup data files. `data` is what reads return; a backup
    // file's writes go to `working` until they are committed.
    Bytes data;
    Bytes working;
    bool dataPending = false;

    // Value files.
    std::int32_t lowerLimit = 0;
    std::int32_t upperLimit = 0;
    std::int32_t value = 0;
    std::uint8_t valueFlags = 0;
    std::int32_t limitedCreditValue = 0;
    std::int64_t workingValue = 0;
    std::int64_t debitedInTransaction = 0;
    std::int64_t limitedCreditInTransaction = 0;
    bool valuePending = false;

    // Record files, oldest record first.
    std::uint32_t recordSize = 0;
    std::uint32_t maxRecords = 0;
    std::deque<Bytes> records;
    std::optional<Bytes> pendingRecord;
    bool clearPending = false;

    CommMode Mode() const noexcept;
    bool IsData() const noexcept { return type == FileType::StandardData || type == FileType::BackupData; }
    bool IsRecord() const noexcept { return type == FileType::LinearRecord || type == FileType::CyclicRecord; }
    /// How many committed records a record file can hold.
    std::uint32_t RecordCapacity() const noexcept;
    /// Bytes of card memory the file occupies.
    std::uint64_t Footprint() const noexcept;

    bool HasPendingChanges() const noexcept;
    void CommitPending();
    void AbortPending();
};

struct Application {
    Aid aid{};
    std::uint8_t keySettings = 0;
    std::vector<LegacyKey> keys;
    std::vector<File> files;  // in order of creation

    File* FindFile(std::uint8_t number) noexcept;
};

/// Everything the card keeps across power cycles.
struct CardImage {
    Bytes uid;
    LegacyKey piccKey{};
    std::uint8_t piccKeySettings = 0x0F;
    std::vector<Application> applications;

    Application* FindApplication(const Aid& aid) noexcept;
};

/// Throws std::runtime_error when the document does not describe a card.
nlohmann::json ToJson(const CardImage& image);
CardImage FromJson(const nlohmann::json& document);

}  // namespace elatectwn4::sim::desfire
