// Data, record and value operations, and the transaction that backup, value
// and record files share.
#include <algorithm>

#include "sim/desfire/desfire_sim.h"
#include "sim/desfire/desfire_wire.h"

namespace elatectwn4::sim::desfire {
namespace {

constexpr std::uint8_t kWriteDataCommand = 0x3D;
constexpr std::uint8_t kWriteRecordCommand = 0x3B;
constexpr std::uint8_t kCreditCommand = 0x0C;
constexpr std::uint8_t kDebitCommand = 0xDC;
constexpr std::uint8_t kLimitedCreditCommand = 0x1C;

constexpr std::size_t kMacSize = 4;
constexpr std::size_t kCrcSize = 2;
constexpr std::size_t kValueSize = 4;

// File number, offset (3), length (3): the header of every transfer.
constexpr std::size_t kTransferHeaderSize = 7;

}  // namespace

// A right granted to the session's key makes the file's own communication
// settings apply; free access without such a key means plain transfer.
std::uint8_t DesfireCard::CheckAccess(const File& file, std::initializer_list<std::uint8_t> rights,
                                      CommMode& mode) const {
    const auto has = [&rights](std::uint8_t right) {
        return std::find(rights.begin(), rights.end(), right) != rights.end();
    };
    if (session_.keyNumber && has(*session_.keyNumber)) {
        mode = file.Mode();
        return status::Ok;
    }
    if (has(kFreeAccess)) {
        mode = CommMode::Plain;
        return status::Ok;
    }
    const bool never = std::all_of(rights.begin(), rights.end(), [](std::uint8_t r) { return r == kNoAccess; });
    return never ? status::PermissionDenied : status::AuthenticationError;
}

std::size_t DesfireCard::ProtectedSize(std::size_t length, CommMode mode) noexcept {
    switch (mode) {
        case CommMode::Maced:
            return length + kMacSize;
        case CommMode::Enciphered:
            return (length + kCrcSize + kBlockSize - 1) / kBlockSize * kBlockSize;
        case CommMode::Plain:
            break;
    }
    return length;
}

Bytes DesfireCard::Protect(ByteSpan data, CommMode mode) const {
    Bytes out(data.begin(), data.end());
    if (mode == CommMode::Maced) {
        const Mac mac = LegacyCipher(session_.key).ComputeMac(data);
        out.insert(out.end(), mac.begin(), mac.end());
    } else if (mode == CommMode::Enciphered) {
        out = LegacyCipher(session_.key).EncipherCbc(WithCrcAndPadding(data));
    }
    return out;
}

std::optional<Bytes> DesfireCard::Unprotect(ByteSpan received, std::size_t length, CommMode mode) const {
    if (received.size() != ProtectedSize(length, mode)) return std::nullopt;
    const auto data = received.first(length);
    if (mode == CommMode::Maced) {
        const Mac mac = LegacyCipher(session_.key).ComputeMac(data);
        if (!std::equal(mac.begin(), mac.end(), received.begin() + static_cast<std::ptrdiff_t>(length))) {
            return std::nullopt;
        }
    } else if (mode == CommMode::Enciphered) {
        Bytes plain = LegacyCipher(session_.key).UndoSendMode(received);
        if (plain != WithCrcAndPadding(std::span(plain).first(length))) return std::nullopt;
        plain.resize(length);
        return plain;
    }
    return Bytes(data.begin(), data.end());
}

DesfireCard::Reply DesfireCard::StartWrite(PendingWrite write, ByteSpan firstData) {
    write.received.assign(firstData.begin(), firstData.end());
    if (write.received.size() > write.expected) return {status::LengthError, {}};
    if (write.received.size() == write.expected) return FinishWrite(write);
    pending_ = std::move(write);
    return {status::AdditionalFrame, {}};
}

DesfireCard::Reply DesfireCard::FinishWrite(const PendingWrite& write) {
    const std::optional<Bytes> data = Unprotect(write.received, write.length, write.mode);
    if (!data) return {status::IntegrityError, {}};
    // No other command can come between the frames, so the file is still there.
    File& file = *Selected()->FindFile(write.fileNumber);
    if (write.command == kWriteDataCommand) {
        Bytes& target = file.type == FileType::BackupData ? file.working : file.data;
        std::copy(data->begin(), data->end(), target.begin() + write.offset);
        if (file.type == FileType::BackupData) {
            file.dataPending = true;
        } else {
            file.working = file.data;
        }
    } else {
        if (!file.pendingRecord) file.pendingRecord = Bytes(file.recordSize, 0x00);
        std::copy(data->begin(), data->end(), file.pendingRecord->begin() + write.offset);
    }
    return {};
}

// ---------------------------------------------------------------------------
// Data files.

DesfireCard::Reply DesfireCard::ReadData(ByteSpan args) {
    if (args.size() != kTransferHeaderSize) return {status::LengthError, {}};
    Application* app = Selected();
    if (!app) return {status::PermissionDenied, {}};
    const File* file = app->FindFile(args[0]);
    if (!file) return {status::FileNotFound, {}};
    if (!file->IsData()) return {status::ParameterError, {}};
    CommMode mode = CommMode::Plain;
    if (const std::uint8_t s = CheckAccess(*file, {file->rights.read, file->rights.readWrite}, mode); s != status::Ok) {
        return {s, {}};
    }
    const std::uint64_t offset = Le24(args.subspan(1));
    std::uint64_t length = Le24(args.subspan(4));
    const std::uint64_t size = file->data.size();
    // Length 0 asks for everything from the offset to the end of the file.
    if (offset >= size || offset + length > size) return {status::BoundaryError, {}};
    if (length == 0) length = size - offset;
    const auto begin = file->data.begin() + static_cast<std::ptrdiff_t>(offset);
    const Bytes data(begin, begin + static_cast<std::ptrdiff_t>(length));
    return StartAnswer(Protect(data, mode), kMaxFrameData);
}

std::optional<DesfireCard::Reply> DesfireCard::OpenWrite(ByteSpan args, bool (File::*isKind)() const noexcept,
                                                         std::uint8_t command, PendingWrite& write, const File*& file) {
    if (args.size() < kTransferHeaderSize) return Reply{status::LengthError, {}};
    Application* app = Selected();
    if (!app) return Reply{status::PermissionDenied, {}};
    file = app->FindFile(args[0]);
    if (!file) return Reply{status::FileNotFound, {}};
    if (!(file->*isKind)()) return Reply{status::ParameterError, {}};
    if (const std::uint8_t s = CheckAccess(*file, {file->rights.write, file->rights.readWrite}, write.mode);
        s != status::Ok) {
        return Reply{s, {}};
    }
    write.command = command;
    write.fileNumber = args[0];
    write.offset = Le24(args.subspan(1));
    write.length = Le24(args.subspan(4));
    if (write.length == 0) return Reply{status::LengthError, {}};
    return std::nullopt;
}

DesfireCard::Reply DesfireCard::WriteData(ByteSpan args) {
    PendingWrite write;
    const File* file = nullptr;
    if (auto refusal = OpenWrite(args, &File::IsData, kWriteDataCommand, write, file)) return *refusal;
    if (std::uint64_t{write.offset} + write.length > file->data.size()) return {status::BoundaryError, {}};
    write.expected = ProtectedSize(write.length, write.mode);
    return StartWrite(std::move(write), args.subspan(kTransferHeaderSize));
}

// ---------------------------------------------------------------------------
// Record files.

DesfireCard::Reply DesfireCard::ReadRecords(ByteSpan args) {
    if (args.size() != kTransferHeaderSize) return {status::LengthError, {}};
    Application* app = Selected();
    if (!app) return {status::PermissionDenied, {}};
    const File* file = app->FindFile(args[0]);
    if (!file) return {status::FileNotFound, {}};
    if (!file->IsRecord()) return {status::ParameterError, {}};
    CommMode mode = CommMode::Plain;
    if (const std::uint8_t s = CheckAccess(*file, {file->rights.read, file->rights.readWrite}, mode); s != status::Ok) {
        return {s, {}};
    }
    // The offset counts back from the newest record; count 0 means down to
    // the oldest. The records come oldest first.
    const std::size_t offset = Le24(args.subspan(1));
    std::size_t count = Le24(args.subspan(4));
    const std::size_t stored = file->records.size();
    if (offset >= stored) return {status::BoundaryError, {}};
    const std::size_t available = stored - offset;
    if (count == 0) count = available;
    if (count > available) return {status::BoundaryError, {}};
    Bytes data;
    for (std::size_t i = stored - offset - count; i < stored - offset; ++i) {
        data.insert(data.end(), file->records[i].begin(), file->records[i].end());
    }
    return StartAnswer(Protect(data, mode), kMaxFrameData);
}

DesfireCard::Reply DesfireCard::WriteRecord(ByteSpan args) {
    PendingWrite write;
    const File* file = nullptr;
    if (auto refusal = OpenWrite(args, &File::IsRecord, kWriteRecordCommand, write, file)) return *refusal;
    if (std::uint64_t{write.offset} + write.length > file->recordSize) return {status::BoundaryError, {}};
    // A file cleared in this transaction takes no new record before the commit.
    if (file->clearPending) return {status::PermissionDenied, {}};
    if (file->type == FileType::LinearRecord && !file->pendingRecord && file->records.size() >= file->maxRecords) {
        return {status::BoundaryError, {}};
    }
    write.expected = ProtectedSize(write.length, write.mode);
    return StartWrite(std::move(write), args.subspan(kTransferHeaderSize));
}

DesfireCard::Reply DesfireCard::ClearRecordFile(ByteSpan args) {
    if (args.size() != 1) return {status::LengthError, {}};
    Application* app = Selected();
    if (!app) return {status::PermissionDenied, {}};
    File* file = app->FindFile(args[0]);
    if (!file) return {status::FileNotFound, {}};
    if (!file->IsRecord()) return {status::ParameterError, {}};
    CommMode mode = CommMode::Plain;
    if (const std::uint8_t s = CheckAccess(*file, {file->rights.readWrite}, mode); s != status::Ok) return {s, {}};
    file->pendingRecord.reset();
    file->clearPending = true;
    return {};
}

// ---------------------------------------------------------------------------
// Value files.

DesfireCard::Reply DesfireCard::GetValue(ByteSpan args) {
    if (args.size() != 1) return {status::LengthError, {}};
    Application* app = Selected();
    if (!app) return {status::PermissionDenied, {}};
    const File* file = app->FindFile(args[0]);
    if (!file) return {status::FileNotFound, {}};
    if (file->type != FileType::Value) return {status::ParameterError, {}};
    CommMode mode = CommMode::Plain;
    std::uint8_t s = CheckAccess(*file, {file->rights.read, file->rights.write, file->rights.readWrite}, mode);
    if (s != status::Ok && (file->valueFlags & kFreeGetValue)) {
        s = status::Ok;
        mode = CommMode::Plain;
    }
    if (s != status::Ok) return {s, {}};
    Bytes value;
    PutLe32(value, file->value);
    return {status::Ok, Protect(value, mode)};
}

DesfireCard::Reply DesfireCard::Credit(ByteSpan args) {
    return ChangeValue(kCreditCommand, args);
}

DesfireCard::Reply DesfireCard::Debit(ByteSpan args) {
    return ChangeValue(kDebitCommand, args);
}

DesfireCard::Reply DesfireCard::LimitedCredit(ByteSpan args) {
    return ChangeValue(kLimitedCreditCommand, args);
}

// file number, then the amount: plain (4), with the MAC over the amount
// (4 + 4), or enciphered with its CRC_A (one block).
DesfireCard::Reply DesfireCard::ChangeValue(std::uint8_t command, ByteSpan args) {
    if (args.empty()) return {status::LengthError, {}};
    Application* app = Selected();
    if (!app) return {status::PermissionDenied, {}};
    File* file = app->FindFile(args[0]);
    if (!file) return {status::FileNotFound, {}};
    if (file->type != FileType::Value) return {status::ParameterError, {}};
    if (command == kLimitedCreditCommand && !(file->valueFlags & kLimitedCreditEnabled)) {
        return {status::PermissionDenied, {}};
    }
    const AccessRights& r = file->rights;
    CommMode mode = CommMode::Plain;
    const std::uint8_t s = command == kCreditCommand  ? CheckAccess(*file, {r.readWrite}, mode)
                           : command == kDebitCommand ? CheckAccess(*file, {r.read, r.write, r.readWrite}, mode)
                                                      : CheckAccess(*file, {r.write, r.readWrite}, mode);
    if (s != status::Ok) return {s, {}};
    if (args.size() != 1 + ProtectedSize(kValueSize, mode)) return {status::LengthError, {}};
    const std::optional<Bytes> amountBytes = Unprotect(args.subspan(1), kValueSize, mode);
    if (!amountBytes) return {status::IntegrityError, {}};
    const std::int64_t amount = Le32(*amountBytes);
    if (amount < 0) return {status::ParameterError, {}};

    std::int64_t next = file->workingValue;
    if (command == kDebitCommand) {
        next -= amount;
        if (next < file->lowerLimit) return {status::BoundaryError, {}};
        file->debitedInTransaction += amount;
    } else {
        next += amount;
        if (next > file->upperLimit) return {status::BoundaryError, {}};
        if (command == kLimitedCreditCommand) {
            if (file->limitedCreditInTransaction + amount > file->limitedCreditValue) {
                return {status::BoundaryError, {}};
            }
            file->limitedCreditInTransaction += amount;
        }
    }
    file->workingValue = next;
    file->valuePending = true;
    return {};
}

// ---------------------------------------------------------------------------
// Transactions.

DesfireCard::Reply DesfireCard::CommitTransaction(ByteSpan args) {
    if (!args.empty()) return {status::LengthError, {}};
    Application* app = Selected();
    if (!app ||
        std::none_of(app->files.begin(), app->files.end(), [](const File& f) { return f.HasPendingChanges(); })) {
        return {status::NoChanges, {}};
    }
    for (File& file : app->files)
        file.CommitPending();
    return {};
}

DesfireCard::Reply DesfireCard::AbortTransactionCommand(ByteSpan args) {
    if (!args.empty()) return {status::LengthError, {}};
    Application* app = Selected();
    if (!app ||
        std::none_of(app->files.begin(), app->files.end(), [](const File& f) { return f.HasPendingChanges(); })) {
        return {status::NoChanges, {}};
    }
    for (File& file : app->files)
        file.AbortPending();
    return {};
}

}  // namespace elatectwn4::sim::desfire
