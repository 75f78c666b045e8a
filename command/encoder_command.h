// The numbered command table and the one routine that fills a template,
// transmits it, splits the answer and follows continuation frames.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "cipher/bytes.h"
#include "command/channel.h"
#include "command/outcome.h"

namespace elatectwn4::command {

/// Command codes: 0x1xx reader, 0x2xx general, 0x3xx MIFARE, 0x4xx DESFire.
namespace cmd {
inline constexpr std::uint32_t Escape = 0x101;
inline constexpr std::uint32_t SetSimpleProtocol = 0x102;
inline constexpr std::uint32_t GetUID = 0x201;
inline constexpr std::uint32_t ReaderAuthenticate = 0x202;
inline constexpr std::uint32_t MoreResponseIso = 0x203;
inline constexpr std::uint32_t MoreResponseNative = 0x204;
inline constexpr std::uint32_t LoadKey = 0x301;
inline constexpr std::uint32_t GeneralAuthenticate = 0x302;
inline constexpr std::uint32_t ReadBinary = 0x303;
inline constexpr std::uint32_t WriteBinary = 0x304;
inline constexpr std::uint32_t SelectApplication = 0x401;
inline constexpr std::uint32_t DesfireAuthenticate = 0x402;
inline constexpr std::uint32_t DesfireAuthenticateStart = 0x403;
inline constexpr std::uint32_t DesfireAuthenticateToken = 0x404;
inline constexpr std::uint32_t DesfireGetVersion = 0x405;
inline constexpr std::uint32_t DesfireFormat = 0x406;
inline constexpr std::uint32_t DesfireGetApplications = 0x407;
inline constexpr std::uint32_t DesfireCreateApplication = 0x408;
inline constexpr std::uint32_t DesfireDeleteApplication = 0x409;
inline constexpr std::uint32_t DesfireGetKeyVersion = 0x411;
inline constexpr std::uint32_t DesfireGetKeySettings = 0x412;
inline constexpr std::uint32_t DesfireChangeKey = 0x413;
inline constexpr std::uint32_t DesfireChangeKeySettings = 0x414;
inline constexpr std::uint32_t DesfireGetFileIDs = 0x421;
inline constexpr std::uint32_t DesfireGetFileSettings = 0x422;
inline constexpr std::uint32_t DesfireChangeFileSettingsPlain = 0x423;
inline constexpr std::uint32_t DesfireChangeFileSettingsCiphered = 0x424;
inline constexpr std::uint32_t DesfireCreateStdDataFile = 0x425;
inline constexpr std::uint32_t DesfireCreateBackupDataFile = 0x426;
inline constexpr std::uint32_t DesfireCreateValueFile = 0x427;
inline constexpr std::uint32_t DesfireCreateLinearRecordFile = 0x428;
inline constexpr std::uint32_t DesfireCreateCyclicRecordFile = 0x429;
inline constexpr std::uint32_t DesfireDeleteFile = 0x42A;
inline constexpr std::uint32_t DesfireReadData = 0x431;
inline constexpr std::uint32_t DesfireWriteData = 0x432;
inline constexpr std::uint32_t DesfireReadRecords = 0x433;
inline constexpr std::uint32_t DesfireWriteRecord = 0x434;
inline constexpr std::uint32_t DesfireClearRecordFile = 0x435;
inline constexpr std::uint32_t DesfireGetValue = 0x436;
inline constexpr std::uint32_t DesfireDebit = 0x437;
inline constexpr std::uint32_t DesfireCredit = 0x438;
inline constexpr std::uint32_t DesfireLimitedCredit = 0x439;
inline constexpr std::uint32_t DesfireCommitTransaction = 0x43A;
inline constexpr std::uint32_t DesfireAbortTransaction = 0x43B;
inline constexpr std::uint32_t DesfireContinue = 0x441;
}  // namespace cmd

/// One element of the parameter list: a number, a text, or a view of a text
/// or of bytes (written as hex digits). Views are for key material: no copy
/// of it is made, and the caller keeps it alive for the call.
using Param = std::variant<std::int64_t, std::string, std::string_view, cipher::ByteView>;
using Params = std::vector<Param>;

/// What a card that keeps announcing more data may send before the command
/// gives up, so that it can never hang the host.
inline constexpr int MaxContinuationFrames = 1000;
inline constexpr std::size_t MaxGatheredBytes = 64 * 1024;

struct CommandOptions {
    /// Fetch the continuation frames ("91AF", "AF") here and gather their data.
    bool moreResponse = false;
    /// The placeholder from which on the bytes sent are key material and never
    /// reach the trace ("[DATA]"); empty = nothing beyond what the command
    /// table marks. A placeholder the template lacks hides the whole command.
    std::string_view secretFrom = {};
    /// The answer's data is key material and never reaches the trace.
    bool secretAnswer = false;
};

/// Sends command `code` with `params` over `channel` and tells what came of
/// it; the caller records a failure with RecordFailure. Never throws.
///   Example: EncoderCommand(channel, cmd::ReadBinary, {4}, {.secretAnswer = true})
Outcome EncoderCommand(Channel& channel, std::uint32_t code, const Params& params = {},
                       const CommandOptions& options = {}) noexcept;

/// The name of a command code as traces and RdrCommand show it ("" if unknown).
std::string_view CommandName(std::uint32_t code) noexcept;

}  // namespace elatectwn4::command
