// The simulated MIFARE DESFire EV1 card in full, for tests that need more
// than the Card interface (a fixed random source, the free memory).
//
// The card behaves as a real EV1 with DES / two-key Triple-DES keys and the
// legacy native authentication (0A): it refuses what a real card refuses,
// whatever its host may expect. Volatile state (selection, authentication,
// pending frames, the open transaction) is lost on PowerOn; authentication
// is also lost on every SelectApplication and after every error status.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <variant>
#include <vector>

#include "sim/card.h"
#include "sim/desfire/desfire_crypto.h"
#include "sim/desfire/desfire_model.h"

namespace elatectwn4::sim::desfire {

/// Card memory available to applications and files, as on a 4 KB EV1.
inline constexpr std::uint64_t kCardMemory = 4096;
/// What an application's directory entry and keys take from that memory.
inline constexpr std::uint64_t kApplicationFootprint = 32;
inline constexpr std::size_t kMaxApplications = 28;
inline constexpr std::size_t kMaxKeysPerApplication = 14;
inline constexpr std::uint8_t kMaxFileNumber = 31;
/// Data bytes in one answer frame; longer answers continue after AF.
inline constexpr std::size_t kMaxFrameData = 59;

/// The 7-byte UID a card gets when none is given.
inline constexpr std::array<std::uint8_t, 7> kDefaultUid{0x04, 0x5A, 0x3B, 0x2C, 0x1D, 0x0E, 0x80};

class DesfireCard final : public Card {
public:
    /// Fills its argument with random bytes (the card's challenges).
    using RandomSource = std::function<void(std::span<std::uint8_t>)>;

    /// A factory-fresh card. An empty uid gives kDefaultUid; another length
    /// than 7 throws std::invalid_argument. Without a random source the card
    /// draws from the cipher library's random generator.
    explicit DesfireCard(std::vector<std::uint8_t> uid = {}, RandomSource random = {});
    ~DesfireCard() override;

    std::string Kind() const override { return "desfire"; }
    std::vector<std::uint8_t> Atr() const override;
    std::vector<std::uint8_t> Uid() const override { return image_.uid; }
    void PowerOn() override;
    std::optional<std::vector<std::uint8_t>> DesfireCommand(std::span<const std::uint8_t> frame) override;
    nlohmann::json Save() const override { return ToJson(image_); }
    void Load(const nlohmann::json& state) override;

    /// Card memory still free for applications and files.
    std::uint64_t FreeMemory() const noexcept;

private:
    struct Reply {
        std::uint8_t status = status::Ok;
        Bytes data;
    };

    // Frames still to be handed out, one per AF from the host.
    struct PendingAnswer {
        std::vector<Bytes> frames;
        std::size_t next = 0;
    };
    // The second pass of the legacy authentication.
    struct PendingAuthentication {
        std::uint8_t keyNumber = 0;
        LegacyKey key{};
        std::array<std::uint8_t, kBlockSize> rndB{};
    };
    // A write whose data arrives in several frames.
    struct PendingWrite {
        std::uint8_t command = 0;
        std::uint8_t fileNumber = 0;
        std::uint32_t offset = 0;
        std::uint32_t length = 0;
        CommMode mode = CommMode::Plain;
        std::size_t expected = 0;
        Bytes received;
    };
    using Pending = std::variant<std::monostate, PendingAnswer, PendingAuthentication, PendingWrite>;

    struct Session {
        std::optional<std::uint8_t> keyNumber;
        LegacyKey key{};
    };

    using Handler = Reply (DesfireCard::*)(ByteSpan args);
    struct Command {
        std::uint8_t code;
        Handler handler;
    };
    static const Command kCommands[];

    Reply Dispatch(ByteSpan frame);
    Reply Continue(ByteSpan data);
    Reply StartAnswer(Bytes payload, std::size_t frameSize);
    Reply NextAnswerFrame(PendingAnswer& answer);

    void EndSession() noexcept;
    bool AuthenticatedWith(std::uint8_t keyNumber) const noexcept;
    Application* Selected() noexcept;
    LegacyKey* KeyAt(std::uint8_t keyNumber) noexcept;
    std::uint8_t CurrentKeySettings() const noexcept;
    void AbortTransaction() noexcept;

    // Card level and keys.
    Reply Authenticate(ByteSpan args);
    Reply ContinueAuthentication(const PendingAuthentication& auth, ByteSpan token);
    Reply SelectApplication(ByteSpan args);
    Reply GetVersion(ByteSpan args);
    Reply FormatPicc(ByteSpan args);
    Reply GetApplicationIds(ByteSpan args);
    Reply CreateApplication(ByteSpan args);
    Reply DeleteApplication(ByteSpan args);
    Reply GetFreeMemory(ByteSpan args);
    Reply GetKeySettings(ByteSpan args);
    Reply ChangeKeySettings(ByteSpan args);
    Reply GetKeyVersion(ByteSpan args);
    Reply ChangeKey(ByteSpan args);

    // Files.
    Reply CreateStdDataFile(ByteSpan args);
    Reply CreateBackupDataFile(ByteSpan args);
    Reply CreateValueFile(ByteSpan args);
    Reply CreateLinearRecordFile(ByteSpan args);
    Reply CreateCyclicRecordFile(ByteSpan args);
    Reply CreateDataFile(FileType type, ByteSpan args);
    Reply CreateRecordFile(FileType type, ByteSpan args);
    Reply AddFile(File file);
    Reply DeleteFile(ByteSpan args);
    Reply GetFileIds(ByteSpan args);
    Reply GetFileSettings(ByteSpan args);
    Reply ChangeFileSettings(ByteSpan args);
    std::uint8_t CheckFileManagement() const noexcept;

    // Data, records, values and transactions.
    Reply ReadData(ByteSpan args);
    Reply WriteData(ByteSpan args);
    Reply ReadRecords(ByteSpan args);
    Reply WriteRecord(ByteSpan args);
    Reply ClearRecordFile(ByteSpan args);
    Reply GetValue(ByteSpan args);
    Reply Credit(ByteSpan args);
    Reply Debit(ByteSpan args);
    Reply LimitedCredit(ByteSpan args);
    Reply ChangeValue(std::uint8_t command, ByteSpan args);
    Reply CommitTransaction(ByteSpan args);
    Reply AbortTransactionCommand(ByteSpan args);
    /// The checks a data or record write starts with (header, file, kind,
    /// write right); fills `write` and `file`, or gives the refusal.
    std::optional<Reply> OpenWrite(ByteSpan args, bool (File::*isKind)() const noexcept, std::uint8_t command,
                                   PendingWrite& write, const File*& file);
    Reply StartWrite(PendingWrite write, ByteSpan firstData);
    Reply FinishWrite(const PendingWrite& write);
    std::uint8_t CheckAccess(const File& file, std::initializer_list<std::uint8_t> rights, CommMode& mode) const;
    Bytes Protect(ByteSpan data, CommMode mode) const;
    std::optional<Bytes> Unprotect(ByteSpan received, std::size_t length, CommMode mode) const;
    static std::size_t ProtectedSize(std::size_t length, CommMode mode) noexcept;

    CardImage image_;
    RandomSource random_;
    std::optional<Aid> selected_;  // nullopt: card level
    // After a failed select nothing is selected, not even the card level,
    // until the next successful select.
    bool nothingSelected_ = false;
    Session session_;
    Pending pending_;
};

}  // namespace elatectwn4::sim::desfire
