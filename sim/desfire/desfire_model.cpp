#include "sim/desfire/desfire_model.h"

#include <algorithm>
#include <stdexcept>
#include <string>

namespace elatectwn4::sim::desfire {
namespace {

// Card memory is handed out in blocks of this size.
constexpr std::uint64_t kAllocationUnit = 32;
// A value file occupies one allocation unit whatever its limits.
constexpr std::uint64_t kValueFileFootprint = kAllocationUnit;

std::uint64_t RoundUp(std::uint64_t size) {
    return (size + kAllocationUnit - 1) / kAllocationUnit * kAllocationUnit;
}

}  // namespace

AccessRights AccessRights::FromWire(std::uint8_t low, std::uint8_t high) noexcept {
    AccessRights rights;
    rights.readWrite = static_cast<std::uint8_t>(low >> 4);
    rights.change = static_cast<std::uint8_t>(low & 0x0F);
    rights.read = static_cast<std::uint8_t>(high >> 4);
    rights.write = static_cast<std::uint8_t>(high & 0x0F);
    return rights;
}

CommMode File::Mode() const noexcept {
    // Bit 0 clear means plain whatever bit 1 says.
    switch (commSettings & 0x03) {
        case 0x01:
            return CommMode::Maced;
        case 0x03:
            return CommMode::Enciphered;
        default:
            return CommMode::Plain;
    }
}

std::uint32_t File::RecordCapacity() const noexcept {
    // A cyclic file keeps one record free for the transaction in progress.
    return type == FileType::CyclicRecord ? maxRecords - 1 : maxRecords;
}

std::uint64_t File::Footprint() const noexcept {
    switch (type) {
        case FileType::StandardData:
            return RoundUp(data.size());
        case FileType::BackupData:
            return 2 * RoundUp(data.size());
        case FileType::Value:
            return kValueFileFootprint;
        case FileType::LinearRecord:
        case FileType::CyclicRecord:
            return RoundUp(std::uint64_t{recordSize} * maxRecords);
    }
    return 0;
}

bool File::HasPendingChanges() const noexcept {
    return dataPending || valuePending || pendingRecord.has_value() || clearPending;
}

void File::CommitPending() {
    if (dataPending) data = working;
    if (valuePending) {
        value = static_cast<std::int32_t>(workingValue);
        if (valueFlags & kLimitedCreditEnabled) {
            // The next limited credit may give back what this transaction debited;
            // a limited credit is good for one use only.
            if (debitedInTransaction > 0) {
                limitedCreditValue = static_cast<std::int32_t>(std::min<std::int64_t>(debitedInTransaction, INT32_MAX));
            } else if (limitedCreditInTransaction > 0) {
                limitedCreditValue = 0;
            }
        }
    }
    if (clearPending) records.clear();
    if (pendingRecord) {
        records.push_back(std::move(*pendingRecord));
        while (records.size() > RecordCapacity())
            records.pop_front();
    }
    AbortPending();
}

void File::AbortPending() {
    working = data;
    dataPending = false;
    workingValue = value;
    debitedInTransaction = 0;
    limitedCreditInTransaction = 0;
    valuePending = false;
    pendingRecord.reset();
    clearPending = false;
}

File* Application::FindFile(std::uint8_t number) noexcept {
    auto it = std::find_if(files.begin(), files.end(), [number](const File& f) { return f.number == number; });
    return it == files.end() ? nullptr : &*it;
}

Application* CardImage::FindApplication(const Aid& aid) noexcept {
    auto it =
        std::find_if(applications.begin(), applications.end(), [&aid](const Application& a) { return a.aid == aid; });
    return it == applications.end() ? nullptr : &*it;
}

// ---------------------------------------------------------------------------
// Persistence. Byte strings are stored as upper-case hex text, application
// ids in the order they travel on the wire.

namespace {

constexpr const char* kFileTypeNames[] = {"standard", "backup", "value", "linear", "cyclic"};

[[noreturn]] void Malformed(const std::string& what) {
    throw std::runtime_error("DESFire card state: " + what);
}

std::string ToHex(ByteSpan bytes) {
    static constexpr char kDigits[] = "0123456789ABCDEF";
    std::string text;
    text.reserve(bytes.size() * 2);
    for (std::uint8_t b : bytes) {
        text.push_back(kDigits[b >> 4]);
        text.push_back(kDigits[b & 0x0F]);
    }
    return text;
}

Bytes FromHex(const nlohmann::json& value, const char* field) {
    if (!value.is_string()) Malformed(std::string(field) + " is not hex text");
    const std::string& text = value.get_ref<const std::string&>();
    if (text.size() % 2 != 0) Malformed(std::string(field) + " has an odd number of digits");
    auto nibble = [field](char c) -> std::uint8_t {
        if (c >= '0' && c <= '9') return static_cast<std::uint8_t>(c - '0');
        if (c >= 'A' && c <= 'F') return static_cast<std::uint8_t>(c - 'A' + 10);
        if (c >= 'a' && c <= 'f') return static_cast<std::uint8_t>(c - 'a' + 10);
        Malformed(std::string(field) + " is not hex text");
    };
    Bytes bytes;
    bytes.reserve(text.size() / 2);
    for (std::size_t i = 0; i < text.size(); i += 2) {
        bytes.push_back(static_cast<std::uint8_t>(nibble(text[i]) << 4 | nibble(text[i + 1])));
    }
    return bytes;
}

template <std::size_t N>
std::array<std::uint8_t, N> FixedFromHex(const nlohmann::json& value, const char* field) {
    const Bytes bytes = FromHex(value, field);
    if (bytes.size() != N) Malformed(std::string(field) + " must be " + std::to_string(N) + " bytes");
    std::array<std::uint8_t, N> out{};
    std::copy(bytes.begin(), bytes.end(), out.begin());
    return out;
}

const nlohmann::json& Field(const nlohmann::json& object, const char* name) {
    if (!object.is_object()) Malformed(std::string("expected an object holding ") + name);
    auto it = object.find(name);
    if (it == object.end()) Malformed(std::string("missing ") + name);
    return *it;
}

template <typename T>
T Number(const nlohmann::json& object, const char* name, std::int64_t low, std::int64_t high) {
    const nlohmann::json& value = Field(object, name);
    if (!value.is_number_integer()) Malformed(std::string(name) + " is not an integer");
    const auto number = value.get<std::int64_t>();
    if (number < low || number > high) Malformed(std::string(name) + " is out of range");
    return static_cast<T>(number);
}

nlohmann::json FileToJson(const File& file) {
    nlohmann::json out{{"number", file.number},
                       {"type", kFileTypeNames[static_cast<int>(file.type)]},
                       {"commSettings", file.commSettings},
                       {"accessRights", ToHex(std::array{file.rights.WireLow(), file.rights.WireHigh()})}};
    switch (file.type) {
        case FileType::StandardData:
        case FileType::BackupData:
            out["data"] = ToHex(file.data);
            break;
        case FileType::Value:
            out["lowerLimit"] = file.lowerLimit;
            out["upperLimit"] = file.upperLimit;
            out["value"] = file.value;
            out["flags"] = file.valueFlags;
            out["limitedCreditValue"] = file.limitedCreditValue;
            break;
        case FileType::LinearRecord:
        case FileType::CyclicRecord: {
            out["recordSize"] = file.recordSize;
            out["maxRecords"] = file.maxRecords;
            nlohmann::json records = nlohmann::json::array();
            for (const Bytes& record : file.records)
                records.push_back(ToHex(record));
            out["records"] = std::move(records);
            break;
        }
    }
    return out;
}

File FileFromJson(const nlohmann::json& in) {
    File file;
    file.number = Number<std::uint8_t>(in, "number", 0, 31);
    const nlohmann::json& type = Field(in, "type");
    auto name = std::find_if(std::begin(kFileTypeNames), std::end(kFileTypeNames), [&type](const char* n) {
        return type.is_string() && type.get_ref<const std::string&>() == n;
    });
    if (name == std::end(kFileTypeNames)) Malformed("unknown file type");
    file.type = static_cast<FileType>(name - std::begin(kFileTypeNames));
    file.commSettings = Number<std::uint8_t>(in, "commSettings", 0, 3);
    const auto rights = FixedFromHex<2>(Field(in, "accessRights"), "accessRights");
    file.rights = AccessRights::FromWire(rights[0], rights[1]);
    switch (file.type) {
        case FileType::StandardData:
        case FileType::BackupData:
            file.data = FromHex(Field(in, "data"), "data");
            if (file.data.empty() || file.data.size() > 0xFFFFFF) Malformed("data file size out of range");
            break;
        case FileType::Value:
            file.lowerLimit = Number<std::int32_t>(in, "lowerLimit", INT32_MIN, INT32_MAX);
            file.upperLimit = Number<std::int32_t>(in, "upperLimit", INT32_MIN, INT32_MAX);
            file.value = Number<std::int32_t>(in, "value", INT32_MIN, INT32_MAX);
            file.valueFlags = Number<std::uint8_t>(in, "flags", 0, 3);
            file.limitedCreditValue = Number<std::int32_t>(in, "limitedCreditValue", 0, INT32_MAX);
            if (file.lowerLimit > file.upperLimit || file.value < file.lowerLimit || file.value > file.upperLimit) {
                Malformed("value file limits are inconsistent");
            }
            break;
        case FileType::LinearRecord:
        case FileType::CyclicRecord: {
            file.recordSize = Number<std::uint32_t>(in, "recordSize", 1, 0xFFFFFF);
            file.maxRecords =
                Number<std::uint32_t>(in, "maxRecords", file.type == FileType::CyclicRecord ? 2 : 1, 0xFFFFFF);
            const nlohmann::json& records = Field(in, "records");
            if (!records.is_array()) Malformed("records is not an array");
            for (const nlohmann::json& record : records) {
                file.records.push_back(FromHex(record, "record"));
                if (file.records.back().size() != file.recordSize) Malformed("record of the wrong size");
            }
            if (file.records.size() > file.RecordCapacity()) Malformed("more records than the file holds");
            break;
        }
    }
    file.AbortPending();
    return file;
}

}  // namespace

nlohmann::json ToJson(const CardImage& image) {
    nlohmann::json applications = nlohmann::json::array();
    for (const Application& app : image.applications) {
        nlohmann::json keys = nlohmann::json::array();
        for (const LegacyKey& key : app.keys)
            keys.push_back(ToHex(key));
        nlohmann::json files = nlohmann::json::array();
        for (const File& file : app.files)
            files.push_back(FileToJson(file));
        applications.push_back({{"aid", ToHex(app.aid)},
                                {"keySettings", app.keySettings},
                                {"keys", std::move(keys)},
                                {"files", std::move(files)}});
    }
    return {{"kind", "desfire"},
            {"uid", ToHex(image.uid)},
            {"piccKey", ToHex(image.piccKey)},
            {"piccKeySettings", image.piccKeySettings},
            {"applications", std::move(applications)}};
}

CardImage FromJson(const nlohmann::json& document) {
    try {
        const nlohmann::json& kind = Field(document, "kind");
        if (kind != "desfire") Malformed("not a DESFire card");
        CardImage image;
        image.uid = FromHex(Field(document, "uid"), "uid");
        if (image.uid.size() != 7) Malformed("uid must be 7 bytes");
        image.piccKey = FixedFromHex<16>(Field(document, "piccKey"), "piccKey");
        image.piccKeySettings = Number<std::uint8_t>(document, "piccKeySettings", 0, 255);
        const nlohmann::json& applications = Field(document, "applications");
        if (!applications.is_array() || applications.size() > 28)
            Malformed("applications must be a list of at most 28");
        for (const nlohmann::json& in : applications) {
            Application app;
            app.aid = FixedFromHex<3>(Field(in, "aid"), "aid");
            if (app.aid == Aid{} || image.FindApplication(app.aid)) Malformed("invalid or repeated application id");
            app.keySettings = Number<std::uint8_t>(in, "keySettings", 0, 255);
            const nlohmann::json& keys = Field(in, "keys");
            if (!keys.is_array() || keys.empty() || keys.size() > 14) Malformed("an application has 1 to 14 keys");
            for (const nlohmann::json& key : keys)
                app.keys.push_back(FixedFromHex<16>(key, "key"));
            const nlohmann::json& files = Field(in, "files");
            if (!files.is_array()) Malformed("files is not an array");
            for (const nlohmann::json& file : files) {
                File parsed = FileFromJson(file);
                if (app.FindFile(parsed.number)) Malformed("repeated file number");
                app.files.push_back(std::move(parsed));
            }
            image.applications.push_back(std::move(app));
        }
        return image;
    } catch (const nlohmann::json::exception& e) {
        Malformed(e.what());
    }
}

}  // namespace elatectwn4::sim::desfire
