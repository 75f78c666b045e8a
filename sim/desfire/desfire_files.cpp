// File management of the selected application: create, delete, list, read
// and change settings.
#include <algorithm>

#include "sim/desfire/desfire_sim.h"
#include "sim/desfire/desfire_wire.h"

namespace elatectwn4::sim::desfire {
namespace {

// Bit 0 clear is plain, bits 0 and 1 set is enciphered; the upper six bits
// are reserved.
bool ValidCommSettings(std::uint8_t comm) noexcept {
    return (comm & 0xFC) == 0;
}

}  // namespace

std::uint8_t DesfireCard::CheckFileManagement() const noexcept {
    if (!selected_) return status::PermissionDenied;
    if (!(CurrentKeySettings() & kFreeCreateDelete) && !AuthenticatedWith(0)) return status::AuthenticationError;
    return status::Ok;
}

DesfireCard::Reply DesfireCard::CreateStdDataFile(ByteSpan args) {
    return CreateDataFile(FileType::StandardData, args);
}

DesfireCard::Reply DesfireCard::CreateBackupDataFile(ByteSpan args) {
    return CreateDataFile(FileType::BackupData, args);
}

DesfireCard::Reply DesfireCard::CreateLinearRecordFile(ByteSpan args) {
    return CreateRecordFile(FileType::LinearRecord, args);
}

DesfireCard::Reply DesfireCard::CreateCyclicRecordFile(ByteSpan args) {
    return CreateRecordFile(FileType::CyclicRecord, args);
}

// file number, communication settings, access rights (2), size (3)
DesfireCard::Reply DesfireCard::CreateDataFile(FileType type, ByteSpan args) {
    if (args.size() != 7) return {status::LengthError, {}};
    if (const std::uint8_t s = CheckFileManagement(); s != status::Ok) return {s, {}};
    const std::uint32_t size = Le24(args.subspan(4));
    if (args[0] > kMaxFileNumber || !ValidCommSettings(args[1]) || size == 0) return {status::ParameterError, {}};
    File file;
    file.number = args[0];
    file.type = type;
    file.commSettings = args[1];
    file.rights = AccessRights::FromWire(args[2], args[3]);
    file.data.assign(size, 0x00);
    file.working = file.data;
    return AddFile(std::move(file));
}

// file number, communication settings, access rights (2), lower limit (4),
// upper limit (4), value (4), flags (limited credit, free GetValue)
DesfireCard::Reply DesfireCard::CreateValueFile(ByteSpan args) {
    if (args.size() != 17) return {status::LengthError, {}};
    if (const std::uint8_t s = CheckFileManagement(); s != status::Ok) return {s, {}};
    File file;
    file.number = args[0];
    file.type = FileType::Value;
    file.commSettings = args[1];
    file.rights = AccessRights::FromWire(args[2], args[3]);
    file.lowerLimit = Le32(args.subspan(4));
    file.upperLimit = Le32(args.subspan(8));
    file.value = Le32(args.subspan(12));
    file.valueFlags = args[16];
    if (file.number > kMaxFileNumber || !ValidCommSettings(file.commSettings) || file.lowerLimit > file.upperLimit ||
        file.value < file.lowerLimit || file.value > file.upperLimit ||
        (file.valueFlags & ~(kLimitedCreditEnabled | kFreeGetValue)) != 0) {
        return {status::ParameterError, {}};
    }
    file.AbortPending();
    return AddFile(std::move(file));
}

// file number, communication settings, access rights (2), record size (3),
// maximum number of records (3)
DesfireCard::Reply DesfireCard::CreateRecordFile(FileType type, ByteSpan args) {
    if (args.size() != 10) return {status::LengthError, {}};
    if (const std::uint8_t s = CheckFileManagement(); s != status::Ok) return {s, {}};
    File file;
    file.number = args[0];
    file.type = type;
    file.commSettings = args[1];
    file.rights = AccessRights::FromWire(args[2], args[3]);
    file.recordSize = Le24(args.subspan(4));
    file.maxRecords = Le24(args.subspan(7));
    const std::uint32_t fewestRecords = type == FileType::CyclicRecord ? 2 : 1;
    if (file.number > kMaxFileNumber || !ValidCommSettings(file.commSettings) || file.recordSize == 0 ||
        file.maxRecords < fewestRecords) {
        return {status::ParameterError, {}};
    }
    return AddFile(std::move(file));
}

DesfireCard::Reply DesfireCard::AddFile(File file) {
    Application* app = Selected();
    if (app->FindFile(file.number)) return {status::DuplicateError, {}};
    if (file.Footprint() > FreeMemory()) return {status::OutOfEeprom, {}};
    app->files.push_back(std::move(file));
    return {};
}

DesfireCard::Reply DesfireCard::DeleteFile(ByteSpan args) {
    if (args.size() != 1) return {status::LengthError, {}};
    if (const std::uint8_t s = CheckFileManagement(); s != status::Ok) return {s, {}};
    Application* app = Selected();
    if (!app->FindFile(args[0])) return {status::FileNotFound, {}};
    std::erase_if(app->files, [number = args[0]](const File& f) { return f.number == number; });
    return {};
}

DesfireCard::Reply DesfireCard::GetFileIds(ByteSpan args) {
    if (!args.empty()) return {status::LengthError, {}};
    Application* app = Selected();
    if (!app) return {status::PermissionDenied, {}};
    if (!(app->keySettings & kFreeDirectoryList) && !AuthenticatedWith(0)) return {status::AuthenticationError, {}};
    Bytes ids;
    for (const File& file : app->files)
        ids.push_back(file.number);
    return {status::Ok, std::move(ids)};
}

DesfireCard::Reply DesfireCard::GetFileSettings(ByteSpan args) {
    if (args.size() != 1) return {status::LengthError, {}};
    Application* app = Selected();
    if (!app) return {status::PermissionDenied, {}};
    if (!(app->keySettings & kFreeDirectoryList) && !AuthenticatedWith(0)) return {status::AuthenticationError, {}};
    const File* file = app->FindFile(args[0]);
    if (!file) return {status::FileNotFound, {}};
    Bytes out{static_cast<std::uint8_t>(file->type), file->commSettings, file->rights.WireLow(),
              file->rights.WireHigh()};
    switch (file->type) {
        case FileType::StandardData:
        case FileType::BackupData:
            PutLe24(out, static_cast<std::uint32_t>(file->data.size()));
            break;
        case FileType::Value:
            PutLe32(out, file->lowerLimit);
            PutLe32(out, file->upperLimit);
            PutLe32(out, file->limitedCreditValue);
            out.push_back(file->valueFlags);
            break;
        case FileType::LinearRecord:
        case FileType::CyclicRecord:
            PutLe24(out, file->recordSize);
            PutLe24(out, file->maxRecords);
            PutLe24(out, static_cast<std::uint32_t>(file->records.size()));
            break;
    }
    return {status::Ok, std::move(out)};
}

// With free change access the new settings come plain (3 bytes); otherwise
// the session must belong to the change key and they come enciphered: one
// block of settings (3), CRC_A (2) and three zero bytes. A plain frame under
// a change key is therefore a length error, not a second way in.
DesfireCard::Reply DesfireCard::ChangeFileSettings(ByteSpan args) {
    if (args.empty()) return {status::LengthError, {}};
    Application* app = Selected();
    if (!app) return {status::PermissionDenied, {}};
    File* file = app->FindFile(args[0]);
    if (!file) return {status::FileNotFound, {}};
    const std::uint8_t changer = file->rights.change;
    if (changer == kNoAccess) return {status::PermissionDenied, {}};

    Bytes settings;
    if (changer == kFreeAccess) {
        if (args.size() != 4) return {status::LengthError, {}};
        settings.assign(args.begin() + 1, args.end());
    } else {
        if (!AuthenticatedWith(changer)) return {status::AuthenticationError, {}};
        if (args.size() != 1 + kBlockSize) return {status::LengthError, {}};
        const Bytes plain = LegacyCipher(session_.key).UndoSendMode(args.subspan(1));
        if (plain != WithCrcAndPadding(std::span(plain).first(3))) return {status::IntegrityError, {}};
        settings.assign(plain.begin(), plain.begin() + 3);
    }
    if (!ValidCommSettings(settings[0])) return {status::ParameterError, {}};
    file->commSettings = settings[0];
    file->rights = AccessRights::FromWire(settings[1], settings[2]);
    return {};
}

}  // namespace elatectwn4::sim::desfire
