// Data and record transfer: the file's characteristics, the two engines and
// the members that feed them.
#include "desfire/transfer.h"

#include <algorithm>

#include "cipher/bytes.h"
#include "cipher/des.h"
#include "desfire/exchange.h"
#include "desfire/files.h"
#include "desfire/operation.h"
#include "desfire/secure_messaging.h"

namespace elatectwn4::desfire {

namespace {

namespace cmd = command::cmd;

constexpr std::size_t kBlock = 8;
constexpr std::size_t kMacSize = 4;
constexpr std::size_t kCrcSize = 2;
constexpr std::size_t kFirstFrame = 52;
constexpr std::size_t kNextFrame = 59;
constexpr std::uint8_t kPaddingMarker = 0x80;

constexpr std::int32_t kDataTypes[] = {dftData, dftBackup};
constexpr std::int32_t kRecordTypes[] = {dftLinear, dftCyclic};

// Conversion codes of the engine: hex text or a byte string to a byte array.
constexpr std::int32_t kHexToBytes = 5;
constexpr std::int32_t kByteStringToBytes = 6 * 256 + 5;

std::uint32_t Le24At(cipher::ByteView bytes, std::size_t at) {
    return static_cast<std::uint32_t>(bytes[at] | bytes[at + 1] << 8 | bytes[at + 2] << 16);
}

void AppendLe24(std::vector<std::uint8_t>& out, std::uint32_t value) {
    for (int i = 0; i < 3; ++i)
        out.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
}

// The file of a transfer, once it is known to exist and to be of a kind the
// member handles.
std::optional<FileCharacteristics> TransferFile(Context& ctx, std::int32_t fileNo,
                                                std::span<const std::int32_t> allowedTypes,
                                                const std::string& comFunction) {
    std::optional<FileCharacteristics> file = DESFireGetFileCharacteristics(ctx, fileNo);
    if (!file) {
        const CError& failed = Record(ctx);
        const std::string rdrCommand = failed.RdrCommand;
        const std::string status = failed.RdrRetCode;
        Refuse(ctx, StatusIs(status, 0xF0) ? ErrorNumber::FileNotFound : ErrorNumber::OperationFailed, comFunction,
               rdrCommand, status);
        return std::nullopt;
    }
    if (std::find(allowedTypes.begin(), allowedTypes.end(), file->fileType) == allowedTypes.end()) {
        Refuse(ctx, ErrorNumber::WrongFileType, comFunction);
        return std::nullopt;
    }
    return file;
}

// What an enciphered answer of unknown length holds: the data runs up to the
// CRC, which stands in front of the zero padding and an optional marker 80.
std::size_t EndOfCrc(std::span<const std::uint8_t> plain) noexcept {
    std::size_t end = plain.size();
    while (end > 0 && plain[end - 1] == 0)
        --end;
    if (end > 0 && plain[end - 1] == kPaddingMarker) --end;
    return end;
}

// The answer's data length from the file's settings (0: not known).
std::size_t LengthFromSettings(const FileCharacteristics& file, const ReadRequest& request) {
    const auto rest = [](std::uint32_t total, std::uint32_t offset) { return total > offset ? total - offset : 0u; };
    switch (file.fileType) {
        case dftData:
        case dftBackup:
            return request.count != 0 ? request.count : rest(Le24At(file.settings, 4), request.offset);
        case dftLinear:
        case dftCyclic: {
            const std::size_t records =
                request.count != 0 ? request.count : rest(Le24At(file.settings, 10), request.offset);
            return records * Le24At(file.settings, 4);
        }
        default:
            return 0;
    }
}

// Checks the answer by the file's settings; the data, or the refusal recorded.
std::optional<std::vector<std::uint8_t>> CheckedAnswer(Context& ctx, const FileCharacteristics& file,
                                                       const ReadRequest& request, const Reply& reply,
                                                       const std::string& comFunction) {
    const cipher::ByteView answer = reply.data.view();
    const Protection protection = ProtectionOf(file.communicationSettings);
    std::size_t expected = request.expectedLength;
    // A plain or MACed answer carries its length in itself; the file's
    // settings say what it must be (the rest of the file, or of its records).
    if (expected == 0 && protection != Protection::Enciphered) expected = LengthFromSettings(file, request);
    std::vector<std::uint8_t> data;
    switch (protection) {
        case Protection::Plain:
            data.assign(answer.begin(), answer.end());
            break;
        case Protection::Mac: {
            // The last four bytes are the MAC of the ones in front of them.
            const std::size_t length = answer.size() >= kMacSize ? answer.size() - kMacSize : 0;
            const std::span<const std::uint8_t> body(answer.data(), length);
            const std::vector<std::uint8_t> mac = LegacyMac(ctx.session, body);
            if (mac.empty() || !std::equal(mac.begin(), mac.end(), answer.subspan(length).begin())) {
                Refuse(ctx, ErrorNumber::InvalidMac, comFunction);
                return std::nullopt;
            }
            data.assign(body.begin(), body.end());
            break;
        }
        case Protection::Enciphered: {
            if (answer.empty() || answer.size() % kBlock != 0) {
                Refuse(ctx, ErrorNumber::InvalidCrc, comFunction);
                return std::nullopt;
            }
            const std::int32_t algorithm = LoadSessionKey(ctx.session);
            const cipher::SecretBuffer plain = Transform(ctx.session.Engine(), algorithm | cipher::DES::kCbc, answer);
            const cipher::ByteView text = plain.view();
            if (expected == 0 && ctx.cardConformance) expected = LengthFromSettings(file, request);
            std::size_t length = expected;
            if (length == 0) {
                const std::size_t end = EndOfCrc(text);
                length = end > kCrcSize ? end - kCrcSize : 0;
            }
            // At least one byte of data, and the CRC behind it.
            if (length == 0 || length + kCrcSize > text.size() ||
                Crc16(text.first(length)) != std::array{text[length], text[length + 1]}) {
                Refuse(ctx, ErrorNumber::InvalidCrc, comFunction);
                return std::nullopt;
            }
            return std::vector<std::uint8_t>(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(length));
        }
    }
    // One that differs from the length asked for is not the answer to this read.
    if (expected != 0 && data.size() != expected) {
        OperationFailed(ctx, comFunction, reply);
        return std::nullopt;
    }
    return data;
}

// The checks of the data and record members, in their order.
std::optional<ErrorNumber> TransferRefusal(const Session& session, std::int32_t fileNo, std::int32_t offset,
                                           std::int32_t length) {
    if (!session.Authenticated()) return ErrorNumber::NotAuthenticated;
    if (!IsFileNumber(fileNo, kHighestFile)) return ErrorNumber::InvalidFileNumber;
    if (offset < 0 || offset > kMaxField24) return ErrorNumber::InvalidOffset;
    if (length < 0 || length > kMaxField24) return ErrorNumber::InvalidLength;
    return std::nullopt;
}

std::vector<std::uint8_t> TransferHeader(std::int32_t fileNo, std::uint32_t offset, std::uint32_t length) {
    std::vector<std::uint8_t> header{static_cast<std::uint8_t>(fileNo)};
    AppendLe24(header, offset);
    AppendLe24(header, length);
    return header;
}

sceReturnCode WriteMember(Context& ctx, const std::string& name, std::uint32_t code,
                          std::span<const std::int32_t> allowedTypes, std::int32_t fileNo, std::int32_t offset,
                          std::int32_t length, const std::string& dataString, bool isHex) {
    command::ClearError(Record(ctx), name);
    if (auto refusal = TransferRefusal(ctx.session, fileNo, offset, length)) return Refuse(ctx, *refusal, name);
    // Length 0: as many bytes as DataString has characters, hex or not.
    const std::size_t count = length != 0 ? static_cast<std::size_t>(length) : dataString.size();
    if (count > kMaxField24) return Refuse(ctx, ErrorNumber::InvalidLength, name);

    WriteRequest request;
    request.code = code;
    request.fileNo = fileNo;
    request.allowedTypes = allowedTypes;
    request.data = cipher::DES::ConvertData(dataString, isHex ? kHexToBytes : kByteStringToBytes).Bytes();
    request.data.resize(count, 0);
    request.header = TransferHeader(fileNo, static_cast<std::uint32_t>(offset), static_cast<std::uint32_t>(count));
    if (DESFireWriteEngine(ctx, request, name) == sceSuccess) return sceSuccess;
    return TransferFailed(ctx);
}

sceReturnCode ReadMember(Context& ctx, const std::string& name, std::uint32_t code,
                         std::span<const std::int32_t> allowedTypes, bool lengthInBytes, std::int32_t fileNo,
                         std::int32_t offset, std::int32_t length, std::string& dataString, bool isHex) {
    command::ClearError(Record(ctx), name);
    if (auto refusal = TransferRefusal(ctx.session, fileNo, offset, length)) return Refuse(ctx, *refusal, name);
    ReadRequest request;
    request.code = code;
    request.fileNo = fileNo;
    request.params = {ByteField(fileNo), LittleEndianField(offset, 3), LittleEndianField(length, 3)};
    request.allowedTypes = allowedTypes;
    // A record count says nothing of the bytes to come.
    request.expectedLength = lengthInBytes ? static_cast<std::size_t>(length) : 0;
    request.offset = static_cast<std::uint32_t>(offset);
    request.count = static_cast<std::uint32_t>(length);
    std::vector<std::uint8_t> data;
    if (DESFireReadEngine(ctx, request, name, data) != sceSuccess) return sceError;
    dataString = isHex ? cipher::ToHex(data) : std::string(data.begin(), data.end());
    return sceSuccess;
}

}  // namespace

bool StatusIs(const std::string& status, std::uint8_t code) {
    const std::string native = cipher::ToHex(code);
    return status == native || status == "91" + native;
}

sceReturnCode TransferFailed(Context& ctx) {
    command::ErrorUpdate update;
    update.number = static_cast<std::int64_t>(ErrorNumber::OperationFailed);
    update.description = std::string(ErrorDescription(ErrorNumber::OperationFailed));
    command::SetError(Record(ctx), update);
    return sceError;
}

std::optional<FileCharacteristics> DESFireGetFileCharacteristics(Context& ctx, std::int32_t FileNo) {
    std::string information;
    if (DESFireGetFileSettings(ctx, FileNo, information) != sceSuccess) return std::nullopt;
    FileCharacteristics file;
    file.settings = cipher::ParseHex(information).value();
    // The settings record has at least type, settings and rights.
    file.fileType = file.settings.at(0);
    file.communicationSettings = file.settings.at(1);
    return file;
}

Protection ProtectionOf(std::int32_t communicationSettings) noexcept {
    switch (communicationSettings) {
        case dfcPlainMac:
            return Protection::Mac;
        case dfcCiphered:
            return Protection::Enciphered;
        default:
            return Protection::Plain;
    }
}

std::vector<std::uint8_t> LegacyMac(Session& session, std::span<const std::uint8_t> data) {
    if (data.empty()) return {};
    cipher::SecretBuffer padded(data);
    padded.Resize((data.size() + kBlock - 1) / kBlock * kBlock);
    const std::int32_t algorithm = LoadSessionKey(session);
    const cipher::SecretBuffer chain = Transform(session.Engine(), algorithm | cipher::DES::kMac, padded.view());
    const auto lastBlock = chain.view().last(kBlock);
    return {lastBlock.begin(), lastBlock.begin() + kMacSize};
}

std::vector<WriteFrame> SplitWriteFrames(std::span<const std::uint8_t> text) {
    std::vector<WriteFrame> frames;
    std::size_t limit = kFirstFrame;
    do {
        const std::size_t size = std::min(limit, text.size());
        const bool full = size < text.size();
        frames.push_back({cipher::ToHex(static_cast<std::uint8_t>(full ? limit : size)), text.first(size)});
        text = text.subspan(size);
        limit = kNextFrame;
    } while (!text.empty());
    return frames;
}

sceReturnCode DESFireWriteEngine(Context& ctx, const WriteRequest& request, const std::string& comFunction) {
    const std::optional<FileCharacteristics> file =
        TransferFile(ctx, request.fileNo, request.allowedTypes, comFunction);
    if (!file) return sceError;

    std::vector<std::uint8_t> text = request.header;
    switch (ProtectionOf(file->communicationSettings)) {
        case Protection::Plain:
            text.insert(text.end(), request.data.begin(), request.data.end());
            break;
        case Protection::Mac: {
            const std::vector<std::uint8_t> mac = LegacyMac(ctx.session, request.data);
            text.insert(text.end(), request.data.begin(), request.data.end());
            text.insert(text.end(), mac.begin(), mac.end());
            break;
        }
        case Protection::Enciphered: {
            const FramePiece piece{request.data, 0};
            const cipher::SecretBuffer cryptogram = BuildEncipheredFrame(ctx.session, std::span(&piece, 1));
            text.insert(text.end(), cryptogram.begin(), cryptogram.end());
            break;
        }
    }

    // Every frame carries the member's command name; the continuations use it
    // for their trace and record.
    const std::string commandName(command::CommandName(request.code));
    const std::vector<WriteFrame> frames = SplitWriteFrames(text);
    for (std::size_t i = 0; i < frames.size(); ++i) {
        const bool last = i + 1 == frames.size();
        const command::Params params{commandName, frames[i].byteCount, frames[i].bytes};
        const Reply reply = Exchange(ctx, i == 0 ? request.code : cmd::DesfireContinue, params);
        const bool expected = reply.outcome == Reply::Outcome::Answered && reply.IsStatus(last ? 0x00 : 0xAF);
        if (!expected) return OperationFailed(ctx, comFunction, reply);
    }
    return sceSuccess;
}

sceReturnCode DESFireReadEngine(Context& ctx, const ReadRequest& request, const std::string& comFunction,
                                std::vector<std::uint8_t>& data) {
    const std::optional<FileCharacteristics> file =
        TransferFile(ctx, request.fileNo, request.allowedTypes, comFunction);
    if (!file) return sceError;
    const Reply reply = Exchange(ctx, request.code, request.params, {.moreResponse = true});
    if (reply.outcome != Reply::Outcome::Answered || !(reply.IsStatus(0x00) || reply.StatusText() == "9101")) {
        return OperationFailed(ctx, comFunction, reply);
    }
    std::optional<std::vector<std::uint8_t>> checked = CheckedAnswer(ctx, *file, request, reply, comFunction);
    if (!checked) return sceError;
    data = std::move(*checked);
    return sceSuccess;
}

sceReturnCode DESFireWriteData(Context& ctx, std::int32_t FileNo, std::int32_t Offset, std::int32_t Length,
                               const std::string& DataString, bool IsDataHexaString) {
    return WriteMember(ctx, "DESFireWriteData", cmd::DesfireWriteData, kDataTypes, FileNo, Offset, Length, DataString,
                       IsDataHexaString);
}

sceReturnCode DESFireWriteRecord(Context& ctx, std::int32_t FileNo, std::int32_t Offset, std::int32_t Length,
                                 const std::string& DataString, bool IsDataHexaString) {
    return WriteMember(ctx, "DESFireWriteRecord", cmd::DesfireWriteRecord, kRecordTypes, FileNo, Offset, Length,
                       DataString, IsDataHexaString);
}

sceReturnCode DESFireReadData(Context& ctx, std::int32_t FileNo, std::int32_t Offset, std::int32_t Length,
                              std::string& DataString, bool IsDataHexaString) {
    return ReadMember(ctx, "DESFireReadData", cmd::DesfireReadData, kDataTypes, true, FileNo, Offset, Length,
                      DataString, IsDataHexaString);
}

sceReturnCode DESFireReadRecords(Context& ctx, std::int32_t FileNo, std::int32_t Offset, std::int32_t Length,
                                 std::string& DataString, bool IsDataHexaString) {
    return ReadMember(ctx, "DESFireReadRecords", cmd::DesfireReadRecords, kRecordTypes, false, FileNo, Offset, Length,
                      DataString, IsDataHexaString);
}

}  // namespace elatectwn4::desfire
