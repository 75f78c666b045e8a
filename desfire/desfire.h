// MIFARE DESFire (legacy DES / two-key Triple-DES) through native commands:
// the session an authentication opens, the secure messaging built on its
// session key, and the members that manage applications and keys.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "cipher/des.h"
#include "cipher/secret.h"
#include "command/channel.h"
#include "elatectwn4/error.h"
#include "elatectwn4/types.h"
#include "elatectwn4/variant.h"

namespace elatectwn4::desfire {

/// Fills its argument with random bytes.
using RandomSource = std::function<void(std::span<std::uint8_t>)>;

/// Random bytes from the operating system (getrandom, BCryptGenRandom). Throws
/// std::system_error when the system cannot supply them.
void OsRandom(std::span<std::uint8_t> out);

/// The application id of the card level.
inline constexpr std::string_view kCardLevel = "000000";

/// What the last successful authentication established. The fields change
/// together: a failed authentication leaves all of them as they were.
struct Session {
    std::string selectedApplicationId;   ///< 6 upper-case hex digits; "" = no session
    cipher::SecretBytes<16> sessionKey;  ///< halves equal after a single-DES authentication
    std::int32_t authenticatedKeyNumber = -1;
    std::vector<std::uint8_t> versionCache;  ///< the 28 bytes of GetVersion; empty = none
    /// The cipher every DESFire step loads its own keys into; made on first use.
    std::unique_ptr<cipher::DES> cipherEngine;
    /// Where the authentication's challenge RndA comes from. Not session
    /// state: Reset leaves it, so a test's fixed source stays in place.
    RandomSource random = OsRandom;

    Session() = default;
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;
    ~Session() { Reset(); }

    bool Authenticated() const noexcept { return authenticatedKeyNumber >= 0 && authenticatedKeyNumber <= 13; }
    bool AtCardLevel() const noexcept { return selectedApplicationId == kCardLevel; }
    cipher::DES& Engine();
    /// Ends the session: selection, key number and version record forgotten,
    /// the session key and the engine's keys overwritten.
    void Reset() noexcept;
};

/// What the DESFire members need from the Encoder they run in.
struct Context {
    command::Channel& channel;
    CError& error;  ///< the Encoder's record
    Session& session;
    /// Conformance=card: frames as the cards document them where the
    /// component's own default differs (ChangeKey of another key).
    bool cardConformance = false;
};

// Every member reports through ctx.error and returns sceSuccess or
// sceError. Arguments are checked in the order given, before anything is
// sent; each check names the member in ComFunction. A card that answers
// other than "00" ("9100") makes the member fail with 0x90010E03, the
// command in RdrCommand ("SCardTransmit:<command>") and the card's status
// in RdrRetCode ("FFFF" when nothing came back).

// ---- Selection and authentication -------------------------------------------

/// Selects ApplicationId ("A1B2C3" or "A1 B2 C3") and authenticates with key
/// KeyNumber (0..13): KeyValue of 32 hex digits is a Triple-DES key (K1 =
/// first half, K2 = second), 16 digits or fewer a single-DES key. Unlike the
/// other members it leaves LastError alone on success. Failures:
/// 0x90010E20, 0x90010E31, 0x90010E33, 0x90010E32 for the arguments;
/// 0x90010E21 with RdrCommand "DesfireAuthenticate2" when the card does not
/// start the authentication; 0x90010F05 with "DesfireAuthenticate3" when it
/// refuses the token, with "DesfireAuthenticate4" / "RndA failed" when its
/// proof of RndA is wrong. A reader failure keeps the command layer's record
/// with this member's name in front of ComFunction.
sceReturnCode DESFireSelectApplication(Context& ctx, const std::string& ApplicationId, std::int32_t KeyNumber,
                                       const std::string& KeyValue);
/// Application 000000, key 0. A failure names "DESFireSelectRoot:" in front
/// of the ComFunction the selection left.
sceReturnCode DESFireSelectRoot(Context& ctx, const std::string& KeyValue);

// ---- Applications ---------------------------------------------------------------

/// Erases every application. Card level only (0x90010E12).
sceReturnCode DESFireFormat(Context& ctx);
/// Card level only; ApplicationId 6 hex digits, not 000000 (0x90010E20);
/// KeySettings 0..255 and NumOfKeys 1..14 (0x90010E40). The id goes to the
/// card in the order given.
sceReturnCode DESFireCreateApplication(Context& ctx, const std::string& ApplicationId, std::int32_t KeySettings,
                                       std::int32_t NumOfKeys);
/// ApplicationId as for creation; the session stays as it is.
sceReturnCode DESFireDeleteApplication(Context& ctx, const std::string& ApplicationId);
/// Applications = the ids as 6 hex digits each, joined by "," ("" for none).
sceReturnCode DESFireGetApplications(Context& ctx, std::string& Applications);
/// RequestedInformation (checked first, 0x90010E40 outside -2..27):
/// dfvAllData the 28-byte record, dfvStorageSize the storage in bytes (the
/// midpoint for an odd size code), dfvUID 7 bytes, dfvBatchNo 5 bytes, any
/// other index that single byte. The record is asked once per session and
/// kept until the encoder closes.
sceReturnCode DESFireGetVersion(Context& ctx, std::int32_t RequestedInformation, Variant& Information);

// ---- Keys -------------------------------------------------------------------------

/// Needs a session (0x90010E11); KeyNumber 0 at card level, 0..13 in an
/// application (0x90010E31); OldKey and NewKey 16 or 32 hex digits
/// (0x90010E32), a 16-digit key doubled. The session's own key goes as new
/// key + CRC + padding (24 bytes); another key as two padded pieces (48
/// bytes), or with Conformance=card as the 24-byte cryptogram the cards
/// expect. The session fields stay as they are.
sceReturnCode DESFireChangeKey(Context& ctx, std::int32_t KeyNumber, const std::string& OldKey,
                               const std::string& NewKey);
/// Needs a session; KeyNumber as for ChangeKey.
sceReturnCode DESFireGetKeyVersion(Context& ctx, std::int32_t KeyNumber, std::int32_t& KeyVersion);
/// Needs a session. KeyCount is the card's second byte as it stands.
sceReturnCode DESFireGetKeySettings(Context& ctx, std::int32_t& KeySettings, std::int32_t& KeyCount);
/// Needs a session; KeySettings 0..255 (0x90010E40); sent enciphered.
sceReturnCode DESFireChangeKeySettings(Context& ctx, std::int32_t KeySettings);

}  // namespace elatectwn4::desfire
