// Applications and keys: format, create, delete and list applications, the
// version record, and keys and key settings.
#include <algorithm>
#include <cmath>
#include <iterator>
#include <optional>

#include "cipher/bytes.h"
#include "desfire/desfire.h"
#include "desfire/operation.h"
#include "desfire/secure_messaging.h"

namespace elatectwn4::desfire {

namespace {

namespace cmd = command::cmd;

constexpr std::size_t kVersionSize = 28;
constexpr std::size_t kApplicationIdSize = 3;
constexpr std::int32_t kMaxKeys = 14;
constexpr std::size_t kSoftwareStorageSize = 12;

bool IsByte(std::int32_t value) noexcept {
    return value >= 0 && value <= 255;
}

// The key-number rule of the key members: 0 at card level, 0..13 in an application.
bool IsKeyNumber(const Session& session, std::int32_t keyNumber) noexcept {
    const std::int32_t highest = session.AtCardLevel() ? 0 : 13;
    return keyNumber >= 0 && keyNumber <= highest;
}

// An application id that may be created or deleted: 6 hex digits, not the card level.
bool IsTargetApplication(std::string& id) {
    return IsApplicationId(id) && id != kCardLevel;
}

std::string TwoDigits(std::int32_t value) {
    return cipher::ToHex(static_cast<std::uint8_t>(value));
}

// 16 hex digits (doubled: a single-DES key) or 32, blanks allowed.
std::optional<cipher::SecretBytes<16>> ChangeKeyBytes(const std::string& text) {
    const std::optional<std::size_t> digits = cipher::CountHexDigits(text);
    if (!digits || (*digits != 16 && *digits != 32)) return std::nullopt;
    cipher::SecretBytes<16> key;
    cipher::DecodeHex(text, std::span(key.data(), *digits / 2));
    if (*digits == 16) std::copy_n(key.data(), 8, key.data() + 8);
    return key;
}

// The storage size a size code stands for: 2^n for an even code 2n, the
// midpoint 1.5 x 2^n for an odd one (the card's size lies between 2^n and
// 2^(n+1)).
std::int32_t StorageSize(std::uint8_t code) {
    const double size = std::ldexp(code % 2 ? 1.5 : 1.0, code / 2);
    if (size > 2147483647.0) throw command::RuntimeError(command::RuntimeOverflow, "Overflow");
    return static_cast<std::int32_t>(std::nearbyint(size));
}

// The version record comes in three frames: the hardware's 7 bytes, the
// software's 7, then UID, batch number and production date (14). A frame of
// another size, or a card that ends or goes on elsewhere, gives no record.
std::optional<std::vector<std::uint8_t>> ReadVersion(Context& ctx, const std::string& comFunction) {
    constexpr std::size_t kFrames[] = {7, 7, 14};
    std::vector<std::uint8_t> version;
    for (std::size_t i = 0; i < std::size(kFrames); ++i) {
        Reply reply = Exchange(ctx, i == 0 ? cmd::DesfireGetVersion : cmd::MoreResponseNative, {});
        reply.command = command::CommandName(cmd::DesfireGetVersion);
        const bool last = i + 1 == std::size(kFrames);
        if (reply.outcome != Reply::Outcome::Answered || !reply.IsStatus(last ? 0x00 : 0xAF) ||
            reply.data.size() != kFrames[i]) {
            OperationFailed(ctx, comFunction, reply);
            return std::nullopt;
        }
        version.insert(version.end(), reply.data.begin(), reply.data.end());
    }
    return version;
}

}  // namespace

// ---- Applications ----------------------------------------------------------------

sceReturnCode DESFireFormat(Context& ctx) {
    static const std::string kName = "DESFireFormat";
    command::ClearError(Record(ctx), kName);
    if (!ctx.session.AtCardLevel()) return Refuse(ctx, ErrorNumber::RootLevelOnly, kName);
    return Run(ctx, kName, cmd::DesfireFormat) ? sceSuccess : sceError;
}

sceReturnCode DESFireCreateApplication(Context& ctx, const std::string& ApplicationId, std::int32_t KeySettings,
                                       std::int32_t NumOfKeys) {
    static const std::string kName = "DESFireCreateApplication";
    command::ClearError(Record(ctx), kName);
    if (!ctx.session.AtCardLevel()) return Refuse(ctx, ErrorNumber::RootLevelOnly, kName);
    std::string applicationId = ApplicationId;
    if (!IsTargetApplication(applicationId)) return Refuse(ctx, ErrorNumber::IncorrectApplicationId, kName);
    if (!IsByte(KeySettings)) return Refuse(ctx, ErrorNumber::InvalidParameter, kName);
    if (NumOfKeys < 1 || NumOfKeys > kMaxKeys) return Refuse(ctx, ErrorNumber::InvalidParameter, kName);
    const command::Params params{applicationId, std::int64_t{KeySettings}, std::int64_t{NumOfKeys}};
    return Run(ctx, kName, cmd::DesfireCreateApplication, params) ? sceSuccess : sceError;
}

sceReturnCode DESFireDeleteApplication(Context& ctx, const std::string& ApplicationId) {
    static const std::string kName = "DESFireDeleteApplication";
    command::ClearError(Record(ctx), kName);
    std::string applicationId = ApplicationId;
    if (!IsTargetApplication(applicationId)) return Refuse(ctx, ErrorNumber::IncorrectApplicationId, kName);
    return Run(ctx, kName, cmd::DesfireDeleteApplication, {applicationId}) ? sceSuccess : sceError;
}

sceReturnCode DESFireGetApplications(Context& ctx, std::string& Applications) {
    static const std::string kName = "DESFireGetApplications";
    command::ClearError(Record(ctx), kName);
    const std::optional<Reply> reply = Run(ctx, kName, cmd::DesfireGetApplications);
    if (!reply) return sceError;
    if (reply->data.size() % kApplicationIdSize != 0) return OperationFailed(ctx, kName, *reply);
    std::string list;
    for (std::size_t at = 0; at < reply->data.size(); at += kApplicationIdSize) {
        if (at != 0) list.push_back(',');
        list += cipher::ToHex(reply->data.view().subspan(at, kApplicationIdSize));
    }
    Applications = std::move(list);
    return sceSuccess;
}

sceReturnCode DESFireGetVersion(Context& ctx, std::int32_t RequestedInformation, Variant& Information) {
    static const std::string kName = "DESFireGetVersion";
    command::ClearError(Record(ctx), kName);
    if (RequestedInformation < dfvAllData || RequestedInformation > dfvProductionYear) {
        return Refuse(ctx, ErrorNumber::InvalidParameter, kName);
    }
    std::vector<std::uint8_t>& version = ctx.session.versionCache;
    if (version.size() != kVersionSize) {
        std::optional<std::vector<std::uint8_t>> record = ReadVersion(ctx, kName);
        if (!record) return sceError;
        version = std::move(*record);
    }

    const auto bytes = [&](std::size_t first, std::size_t count) {
        return std::vector<std::uint8_t>(version.begin() + static_cast<std::ptrdiff_t>(first),
                                         version.begin() + static_cast<std::ptrdiff_t>(first + count));
    };
    switch (RequestedInformation) {
        case dfvAllData:
            Information = version;
            break;
        case dfvStorageSize:
            Information = StorageSize(version[kSoftwareStorageSize]);
            break;
        case dfvUID:
            Information = bytes(dfvUID, 7);
            break;
        case dfvBatchNo:
            Information = bytes(dfvBatchNo, 5);
            break;
        default:
            Information = version[static_cast<std::size_t>(RequestedInformation)];
            break;
    }
    return sceSuccess;
}

// ---- Keys ---------------------------------------------------------------------------

sceReturnCode DESFireChangeKey(Context& ctx, std::int32_t KeyNumber, const std::string& OldKey,
                               const std::string& NewKey) {
    static const std::string kName = "DESFireChangeKey";
    command::ClearError(Record(ctx), kName);
    Session& session = ctx.session;
    if (!session.Authenticated()) return Refuse(ctx, ErrorNumber::NotAuthenticated, kName);
    if (!IsKeyNumber(session, KeyNumber)) return Refuse(ctx, ErrorNumber::BadKeyNumber, kName);
    const std::optional<cipher::SecretBytes<16>> oldKey = ChangeKeyBytes(OldKey);
    if (!oldKey) return Refuse(ctx, ErrorNumber::BadKeyLength, kName);
    const std::optional<cipher::SecretBytes<16>> newKey = ChangeKeyBytes(NewKey);
    if (!newKey) return Refuse(ctx, ErrorNumber::BadKeyLength, kName);

    const cipher::ByteView newBytes(*newKey);
    cipher::SecretBuffer cryptogram;
    if (KeyNumber == session.authenticatedKeyNumber) {
        // The session's own key: new key, CRC, zero bytes (24 bytes).
        const FramePiece piece{newBytes, 6};
        cryptogram = BuildEncipheredFrame(session, std::span(&piece, 1));
    } else {
        cipher::SecretBytes<16> difference;
        for (std::size_t i = 0; i < difference.size(); ++i)
            difference[i] = (*oldKey)[i] ^ (*newKey)[i];
        const cipher::ByteView differenceBytes(difference);
        if (ctx.cardConformance) {
            // What the cards check: the difference, its CRC and the new key's
            // CRC in one padded run of 24 bytes.
            cipher::SecretBuffer plain;
            plain.Append(differenceBytes);
            plain.Append(Crc16(differenceBytes));
            plain.Append(Crc16(newBytes));
            plain.Resize(24);
            cryptogram = EncipherForCard(session, plain.view());
        } else {
            // The component's own layout: the difference and the new key as
            // two padded pieces, 48 bytes in all.
            const FramePiece pieces[] = {{differenceBytes, 0}, {newBytes, 4}};
            cryptogram = BuildEncipheredFrame(session, pieces);
        }
    }

    const command::Params params{TwoDigits(KeyNumber), cipher::ByteView(cryptogram.view())};
    return Run(ctx, kName, cmd::DesfireChangeKey, params, {.secretFrom = "[KEY_DATA]"}) ? sceSuccess : sceError;
}

sceReturnCode DESFireGetKeyVersion(Context& ctx, std::int32_t KeyNumber, std::int32_t& KeyVersion) {
    static const std::string kName = "DESFireGetKeyVersion";
    command::ClearError(Record(ctx), kName);
    if (!ctx.session.Authenticated()) return Refuse(ctx, ErrorNumber::NotAuthenticated, kName);
    if (!IsKeyNumber(ctx.session, KeyNumber)) return Refuse(ctx, ErrorNumber::BadKeyNumber, kName);
    const std::optional<Reply> reply = Run(ctx, kName, cmd::DesfireGetKeyVersion, {TwoDigits(KeyNumber)});
    if (!reply) return sceError;
    if (reply->data.size() != 1) return OperationFailed(ctx, kName, *reply);
    KeyVersion = reply->data[0];
    return sceSuccess;
}

sceReturnCode DESFireGetKeySettings(Context& ctx, std::int32_t& KeySettings, std::int32_t& KeyCount) {
    static const std::string kName = "DESFireGetKeySettings";
    command::ClearError(Record(ctx), kName);
    if (!ctx.session.Authenticated()) return Refuse(ctx, ErrorNumber::NotAuthenticated, kName);
    const std::optional<Reply> reply = Run(ctx, kName, cmd::DesfireGetKeySettings);
    if (!reply) return sceError;
    if (reply->data.size() != 2) return OperationFailed(ctx, kName, *reply);
    KeySettings = reply->data[0];
    KeyCount = reply->data[1];
    return sceSuccess;
}

sceReturnCode DESFireChangeKeySettings(Context& ctx, std::int32_t KeySettings) {
    static const std::string kName = "DESFireChangeKeySettings";
    command::ClearError(Record(ctx), kName);
    if (!ctx.session.Authenticated()) return Refuse(ctx, ErrorNumber::NotAuthenticated, kName);
    if (!IsByte(KeySettings)) return Refuse(ctx, ErrorNumber::InvalidParameter, kName);
    const std::uint8_t settings = static_cast<std::uint8_t>(KeySettings);
    const FramePiece piece{std::span(&settings, 1), 5};
    const cipher::SecretBuffer cryptogram = BuildEncipheredFrame(ctx.session, std::span(&piece, 1));
    return Run(ctx, kName, cmd::DesfireChangeKeySettings, {cipher::ByteView(cryptogram.view())},
               {.secretFrom = "[KEY_SETTINGS]"})
               ? sceSuccess
               : sceError;
}

}  // namespace elatectwn4::desfire
