#include "sim/desfire/desfire_card.h"

#include <algorithm>
#include <functional>
#include <stdexcept>
#include <utility>

#include "sim/desfire/desfire_sim.h"

namespace elatectwn4::sim {

std::unique_ptr<Card> MakeDesfireCard(std::vector<std::uint8_t> uid) {
    return std::make_unique<desfire::DesfireCard>(std::move(uid));
}

}  // namespace elatectwn4::sim

namespace elatectwn4::sim::desfire {
namespace {

constexpr std::uint8_t kAdditionalFrameCommand = 0xAF;

// An EV1 4K: hardware and software parts (vendor NXP, type DESFire, storage
// size code 0x18 = 4096 bytes, ISO 14443-2 and -3), then the production data.
constexpr std::array<std::uint8_t, 7> kHardwareVersion{0x04, 0x01, 0x01, 0x01, 0x00, 0x18, 0x05};
constexpr std::array<std::uint8_t, 7> kSoftwareVersion{0x04, 0x01, 0x01, 0x01, 0x04, 0x18, 0x05};
constexpr std::array<std::uint8_t, 5> kBatchNumber{0xBA, 0x45, 0x12, 0x60, 0x30};
constexpr std::uint8_t kProductionWeek = 0x2C;
constexpr std::uint8_t kProductionYear = 0x13;

// An ISO 14443-4 card without historical bytes, as PC/SC part 3 builds it.
constexpr std::array<std::uint8_t, 6> kAtr{0x3B, 0x81, 0x80, 0x01, 0x80, 0x80};

// Application ids travel 3 bytes per entry; a frame carries whole entries only.
constexpr std::size_t kApplicationIdsPerFrame = kMaxFrameData / 3;

// Commands that work whatever is (or is not) selected.
bool IndependentOfSelection(std::uint8_t code) noexcept {
    return code == 0x5A || code == 0x60 || code == 0x6E;
}

bool IsError(std::uint8_t s) noexcept {
    return s != status::Ok && s != status::AdditionalFrame && s != status::NoChanges;
}

}  // namespace

const DesfireCard::Command DesfireCard::kCommands[] = {
    {0x0A, &DesfireCard::Authenticate},
    {0x5A, &DesfireCard::SelectApplication},
    {0x60, &DesfireCard::GetVersion},
    {0xFC, &DesfireCard::FormatPicc},
    {0x6A, &DesfireCard::GetApplicationIds},
    {0xCA, &DesfireCard::CreateApplication},
    {0xDA, &DesfireCard::DeleteApplication},
    {0x6E, &DesfireCard::GetFreeMemory},
    {0x45, &DesfireCard::GetKeySettings},
    {0x54, &DesfireCard::ChangeKeySettings},
    {0x64, &DesfireCard::GetKeyVersion},
    {0xC4, &DesfireCard::ChangeKey},
    {0xCD, &DesfireCard::CreateStdDataFile},
    {0xCB, &DesfireCard::CreateBackupDataFile},
    {0xCC, &DesfireCard::CreateValueFile},
    {0xC1, &DesfireCard::CreateLinearRecordFile},
    {0xC0, &DesfireCard::CreateCyclicRecordFile},
    {0xDF, &DesfireCard::DeleteFile},
    {0x6F, &DesfireCard::GetFileIds},
    {0xF5, &DesfireCard::GetFileSettings},
    {0x5F, &DesfireCard::ChangeFileSettings},
    {0xBD, &DesfireCard::ReadData},
    {0x3D, &DesfireCard::WriteData},
    {0xBB, &DesfireCard::ReadRecords},
    {0x3B, &DesfireCard::WriteRecord},
    {0xEB, &DesfireCard::ClearRecordFile},
    {0x6C, &DesfireCard::GetValue},
    {0x0C, &DesfireCard::Credit},
    {0xDC, &DesfireCard::Debit},
    {0x1C, &DesfireCard::LimitedCredit},
    {0xC7, &DesfireCard::CommitTransaction},
    {0xA7, &DesfireCard::AbortTransactionCommand},
};

DesfireCard::DesfireCard(std::vector<std::uint8_t> uid, RandomSource random) : random_(std::move(random)) {
    if (uid.empty()) uid.assign(kDefaultUid.begin(), kDefaultUid.end());
    if (uid.size() != kDefaultUid.size()) throw std::invalid_argument("a DESFire UID has 7 bytes");
    if (!random_) random_ = DrawRandom;
    image_.uid = std::move(uid);
}

DesfireCard::~DesfireCard() {
    EndSession();
}

std::vector<std::uint8_t> DesfireCard::Atr() const {
    return {kAtr.begin(), kAtr.end()};
}

void DesfireCard::PowerOn() {
    AbortTransaction();
    EndSession();
    pending_ = std::monostate{};
    selected_.reset();
    nothingSelected_ = false;
}

void DesfireCard::Load(const nlohmann::json& state) {
    CardImage loaded = FromJson(state);
    PowerOn();
    for (Application& app : image_.applications)
        std::for_each(app.keys.begin(), app.keys.end(), Wipe);
    Wipe(image_.piccKey);
    image_ = std::move(loaded);
}

std::uint64_t DesfireCard::FreeMemory() const noexcept {
    std::uint64_t used = 0;
    for (const Application& app : image_.applications) {
        used += kApplicationFootprint;
        for (const File& file : app.files)
            used += file.Footprint();
    }
    return used >= kCardMemory ? 0 : kCardMemory - used;
}

std::optional<std::vector<std::uint8_t>> DesfireCard::DesfireCommand(std::span<const std::uint8_t> frame) {
    Reply reply;
    try {
        reply = Dispatch(frame);
    } catch (const std::exception&) {
        // Only a failing OpenSSL call gets here; a card would call that an
        // unrecoverable internal fault.
        reply = {status::PiccIntegrityError, {}};
    }
    if (IsError(reply.status)) {
        EndSession();
        pending_ = std::monostate{};
        reply.data.clear();
    }
    std::vector<std::uint8_t> answer;
    answer.reserve(1 + reply.data.size());
    answer.push_back(reply.status);
    answer.insert(answer.end(), reply.data.begin(), reply.data.end());
    return answer;
}

DesfireCard::Reply DesfireCard::Dispatch(ByteSpan frame) {
    if (frame.empty()) return {status::LengthError, {}};
    const std::uint8_t code = frame[0];
    const ByteSpan args = frame.subspan(1);
    if (code == kAdditionalFrameCommand) return Continue(args);
    if (!std::holds_alternative<std::monostate>(pending_)) {
        // The host walked away from a chained exchange: the card drops it
        // and refuses the new command rather than guess what was meant.
        pending_ = std::monostate{};
        return {status::CommandAborted, {}};
    }
    auto it =
        std::find_if(std::begin(kCommands), std::end(kCommands), [code](const Command& c) { return c.code == code; });
    if (it == std::end(kCommands)) return {status::IllegalCommand, {}};
    if (nothingSelected_ && !IndependentOfSelection(code)) return {status::ApplicationNotFound, {}};
    return (this->*(it->handler))(args);
}

DesfireCard::Reply DesfireCard::Continue(ByteSpan data) {
    Pending pending = std::exchange(pending_, std::monostate{});
    if (auto* answer = std::get_if<PendingAnswer>(&pending)) {
        if (!data.empty()) return {status::LengthError, {}};
        Reply reply = NextAnswerFrame(*answer);
        if (reply.status == status::AdditionalFrame) pending_ = std::move(pending);
        return reply;
    }
    if (auto* auth = std::get_if<PendingAuthentication>(&pending)) {
        Reply reply = ContinueAuthentication(*auth, data);
        Wipe(auth->key);
        Wipe(auth->rndB);
        return reply;
    }
    if (auto* write = std::get_if<PendingWrite>(&pending)) {
        write->received.insert(write->received.end(), data.begin(), data.end());
        if (write->received.size() > write->expected) return {status::LengthError, {}};
        if (write->received.size() == write->expected) return FinishWrite(*write);
        pending_ = std::move(pending);
        return {status::AdditionalFrame, {}};
    }
    return {status::IllegalCommand, {}};
}

DesfireCard::Reply DesfireCard::StartAnswer(Bytes payload, std::size_t frameSize) {
    PendingAnswer answer;
    for (std::size_t at = 0; at < payload.size(); at += frameSize) {
        const std::size_t end = std::min(payload.size(), at + frameSize);
        answer.frames.emplace_back(payload.begin() + static_cast<std::ptrdiff_t>(at),
                                   payload.begin() + static_cast<std::ptrdiff_t>(end));
    }
    if (answer.frames.empty()) answer.frames.emplace_back();
    Reply reply = NextAnswerFrame(answer);
    if (reply.status == status::AdditionalFrame) pending_ = std::move(answer);
    return reply;
}

DesfireCard::Reply DesfireCard::NextAnswerFrame(PendingAnswer& answer) {
    Bytes frame = std::move(answer.frames[answer.next++]);
    const bool more = answer.next < answer.frames.size();
    return {more ? status::AdditionalFrame : status::Ok, std::move(frame)};
}

// ---------------------------------------------------------------------------
// Session and selection.

void DesfireCard::EndSession() noexcept {
    session_.keyNumber.reset();
    Wipe(session_.key);
    if (auto* auth = std::get_if<PendingAuthentication>(&pending_)) {
        Wipe(auth->key);
        Wipe(auth->rndB);
    }
}

bool DesfireCard::AuthenticatedWith(std::uint8_t keyNumber) const noexcept {
    return session_.keyNumber == keyNumber;
}

Application* DesfireCard::Selected() noexcept {
    return selected_ ? image_.FindApplication(*selected_) : nullptr;
}

LegacyKey* DesfireCard::KeyAt(std::uint8_t keyNumber) noexcept {
    Application* app = Selected();
    if (!app) return keyNumber == 0 ? &image_.piccKey : nullptr;
    return keyNumber < app->keys.size() ? &app->keys[keyNumber] : nullptr;
}

std::uint8_t DesfireCard::CurrentKeySettings() const noexcept {
    if (!selected_) return image_.piccKeySettings;
    const auto& apps = image_.applications;
    auto it = std::find_if(apps.begin(), apps.end(), [this](const Application& a) { return a.aid == *selected_; });
    return it == apps.end() ? 0 : it->keySettings;
}

void DesfireCard::AbortTransaction() noexcept {
    if (Application* app = Selected()) {
        for (File& file : app->files)
            file.AbortPending();
    }
}

// ---------------------------------------------------------------------------
// Legacy authentication (0A, then AF with the host's token).

DesfireCard::Reply DesfireCard::Authenticate(ByteSpan args) {
    if (args.size() != 1) return {status::LengthError, {}};
    EndSession();  // whatever happens next, the previous session is over
    const LegacyKey* key = KeyAt(args[0]);
    if (!key) return {status::NoSuchKey, {}};
    PendingAuthentication auth;
    auth.keyNumber = args[0];
    auth.key = *key;
    random_(auth.rndB);
    Bytes challenge = LegacyCipher(auth.key).Encipher(auth.rndB);
    pending_ = auth;
    Wipe(auth.key);
    Wipe(auth.rndB);
    return {status::AdditionalFrame, std::move(challenge)};
}

DesfireCard::Reply DesfireCard::ContinueAuthentication(const PendingAuthentication& auth, ByteSpan token) {
    if (token.size() != 2 * kBlockSize) return {status::LengthError, {}};
    const LegacyCipher cipher(auth.key);
    Bytes plain = cipher.UndoSendMode(token);
    std::array<std::uint8_t, kBlockSize> rotatedB{};
    std::rotate_copy(auth.rndB.begin(), auth.rndB.begin() + 1, auth.rndB.end(), rotatedB.begin());
    const bool matches = std::equal(rotatedB.begin(), rotatedB.end(), plain.begin() + kBlockSize);
    Wipe(rotatedB);
    if (!matches) {
        Wipe(plain);
        return {status::AuthenticationError, {}};
    }
    const auto rndA = std::span(plain).first(kBlockSize);

    // Legacy session key: RndA 0..3, RndB 0..3, then RndA 4..7, RndB 4..7 for
    // Triple-DES, or the first eight bytes again for a single-DES key.
    LegacyKey& sk = session_.key;
    std::copy_n(rndA.begin(), 4, sk.begin());
    std::copy_n(auth.rndB.begin(), 4, sk.begin() + 4);
    if (IsSingleDes(auth.key)) {
        std::copy_n(sk.begin(), 8, sk.begin() + 8);
    } else {
        std::copy_n(rndA.begin() + 4, 4, sk.begin() + 8);
        std::copy_n(auth.rndB.begin() + 4, 4, sk.begin() + 12);
    }
    session_.keyNumber = auth.keyNumber;

    std::array<std::uint8_t, kBlockSize> rotatedA{};
    std::rotate_copy(rndA.begin(), rndA.begin() + 1, rndA.end(), rotatedA.begin());
    Bytes proof = cipher.Encipher(rotatedA);
    Wipe(rotatedA);
    Wipe(plain);
    return {status::Ok, std::move(proof)};
}

// ---------------------------------------------------------------------------
// Card-level commands.

DesfireCard::Reply DesfireCard::SelectApplication(ByteSpan args) {
    if (args.size() != 3) return {status::LengthError, {}};
    const Aid aid{args[0], args[1], args[2]};
    AbortTransaction();
    EndSession();
    if (aid != Aid{} && !image_.FindApplication(aid)) {
        // Even the card level is left: the host's next authentication fails
        // at its first step instead of reaching whatever was selected before.
        selected_.reset();
        nothingSelected_ = true;
        return {status::ApplicationNotFound, {}};
    }
    nothingSelected_ = false;
    if (aid == Aid{}) {
        selected_.reset();
    } else {
        selected_ = aid;
    }
    return {};
}

DesfireCard::Reply DesfireCard::GetVersion(ByteSpan args) {
    if (!args.empty()) return {status::LengthError, {}};
    PendingAnswer answer;
    answer.frames.emplace_back(kHardwareVersion.begin(), kHardwareVersion.end());
    answer.frames.emplace_back(kSoftwareVersion.begin(), kSoftwareVersion.end());
    Bytes production = image_.uid;
    production.insert(production.end(), kBatchNumber.begin(), kBatchNumber.end());
    production.push_back(kProductionWeek);
    production.push_back(kProductionYear);
    answer.frames.push_back(std::move(production));
    Reply reply = NextAnswerFrame(answer);
    pending_ = std::move(answer);
    return reply;
}

DesfireCard::Reply DesfireCard::FormatPicc(ByteSpan args) {
    if (!args.empty()) return {status::LengthError, {}};
    if (selected_ || !AuthenticatedWith(0)) return {status::AuthenticationError, {}};
    for (Application& app : image_.applications)
        std::for_each(app.keys.begin(), app.keys.end(), Wipe);
    image_.applications.clear();
    return {};
}

DesfireCard::Reply DesfireCard::GetApplicationIds(ByteSpan args) {
    if (!args.empty()) return {status::LengthError, {}};
    if (selected_) return {status::PermissionDenied, {}};
    if (!(image_.piccKeySettings & kFreeDirectoryList) && !AuthenticatedWith(0)) {
        return {status::AuthenticationError, {}};
    }
    Bytes ids;
    for (const Application& app : image_.applications)
        ids.insert(ids.end(), app.aid.begin(), app.aid.end());
    return StartAnswer(std::move(ids), kApplicationIdsPerFrame * 3);
}

DesfireCard::Reply DesfireCard::CreateApplication(ByteSpan args) {
    if (args.size() != 5) return {status::LengthError, {}};
    if (selected_) return {status::PermissionDenied, {}};
    if (!(image_.piccKeySettings & kFreeCreateDelete) && !AuthenticatedWith(0)) {
        return {status::AuthenticationError, {}};
    }
    const Aid aid{args[0], args[1], args[2]};
    const std::uint8_t keySettings = args[3];
    const std::uint8_t keyCount = args[4];
    // The upper bits of the key count ask for AES / 3K3DES keys or ISO file
    // ids, which this DES-only card does not offer.
    if (aid == Aid{} || keyCount == 0 || keyCount > kMaxKeysPerApplication) return {status::ParameterError, {}};
    if (image_.FindApplication(aid)) return {status::DuplicateError, {}};
    if (image_.applications.size() >= kMaxApplications) return {status::CountError, {}};
    if (FreeMemory() < kApplicationFootprint) return {status::OutOfEeprom, {}};
    Application app;
    app.aid = aid;
    app.keySettings = keySettings;
    app.keys.assign(keyCount, LegacyKey{});
    image_.applications.push_back(std::move(app));
    return {};
}

DesfireCard::Reply DesfireCard::DeleteApplication(ByteSpan args) {
    if (args.size() != 3) return {status::LengthError, {}};
    const Aid aid{args[0], args[1], args[2]};
    if (aid == Aid{}) return {status::ParameterError, {}};
    Application* app = image_.FindApplication(aid);
    if (!app) return {status::ApplicationNotFound, {}};
    // Either the card master key at card level or the application's own
    // master key with the application selected.
    const bool byCardMaster = !selected_ && AuthenticatedWith(0);
    const bool byApplicationMaster = selected_ == aid && AuthenticatedWith(0);
    if (!byCardMaster && !byApplicationMaster) return {status::AuthenticationError, {}};
    std::for_each(app->keys.begin(), app->keys.end(), Wipe);
    std::erase_if(image_.applications, [&aid](const Application& a) { return a.aid == aid; });
    if (selected_ == aid) {
        selected_.reset();
        EndSession();
    }
    return {};
}

DesfireCard::Reply DesfireCard::GetFreeMemory(ByteSpan args) {
    if (!args.empty()) return {status::LengthError, {}};
    const std::uint64_t free = FreeMemory();
    return {
        status::Ok,
        {static_cast<std::uint8_t>(free), static_cast<std::uint8_t>(free >> 8), static_cast<std::uint8_t>(free >> 16)}};
}

// ---------------------------------------------------------------------------
// Keys and key settings.

DesfireCard::Reply DesfireCard::GetKeySettings(ByteSpan args) {
    if (!args.empty()) return {status::LengthError, {}};
    const std::uint8_t settings = CurrentKeySettings();
    if (!(settings & kFreeDirectoryList) && !AuthenticatedWith(0)) return {status::AuthenticationError, {}};
    const Application* app = Selected();
    const auto keyCount = static_cast<std::uint8_t>(app ? app->keys.size() : 1);
    return {status::Ok, {settings, keyCount}};
}

DesfireCard::Reply DesfireCard::ChangeKeySettings(ByteSpan args) {
    if (args.size() != kBlockSize) return {status::LengthError, {}};
    if (!AuthenticatedWith(0)) return {status::AuthenticationError, {}};
    if (!(CurrentKeySettings() & kConfigurationChangeable)) return {status::PermissionDenied, {}};
    // One block: settings, CRC_A of the settings, five zero bytes.
    const Bytes plain = LegacyCipher(session_.key).UndoSendMode(args);
    if (plain != WithCrcAndPadding(std::span(plain).first(1))) return {status::IntegrityError, {}};
    if (Application* app = Selected()) {
        app->keySettings = plain[0];
    } else {
        image_.piccKeySettings = plain[0];
    }
    return {};
}

DesfireCard::Reply DesfireCard::GetKeyVersion(ByteSpan args) {
    if (args.size() != 1) return {status::LengthError, {}};
    const LegacyKey* key = KeyAt(args[0]);
    if (!key) return {status::NoSuchKey, {}};
    return {status::Ok, {KeyVersion(*key)}};
}

// The legacy cryptogram is always three blocks. For the key of the session
// it is new key + CRC_A(new key) + 6 zero bytes. For another key it is
// (old XOR new) + CRC_A(old XOR new) + CRC_A(new key) + 4 zero bytes. A host
// that sends the XOR and the new key as two separate padded pieces (48
// bytes) gets a length error, as a real card gives it: the card does not
// look for a second piece.
DesfireCard::Reply DesfireCard::ChangeKey(ByteSpan args) {
    constexpr std::size_t kCryptogramSize = 3 * kBlockSize;
    if (args.size() != 1 + kCryptogramSize) return {status::LengthError, {}};
    const std::uint8_t keyNumber = args[0];
    if (!session_.keyNumber) return {status::AuthenticationError, {}};
    LegacyKey* key = KeyAt(keyNumber);
    if (!key) return {status::NoSuchKey, {}};
    const std::uint8_t settings = CurrentKeySettings();
    const std::uint8_t authenticated = *session_.keyNumber;
    if (keyNumber == 0) {
        if (authenticated != 0) return {status::AuthenticationError, {}};
        if (!(settings & kMasterKeyChangeable)) return {status::PermissionDenied, {}};
    } else {
        const std::uint8_t changer = settings >> 4;
        if (changer == kKeysFrozen) return {status::PermissionDenied, {}};
        const std::uint8_t needed = changer == kChangeWithSameKey ? keyNumber : changer;
        if (authenticated != needed) return {status::AuthenticationError, {}};
    }

    Bytes plain = LegacyCipher(session_.key).UndoSendMode(args.subspan(1));
    const auto body = std::span(plain).first(16);
    LegacyKey newKey{};
    bool intact = false;
    if (keyNumber == authenticated) {
        std::copy(body.begin(), body.end(), newKey.begin());
        intact = plain == WithCrcAndPadding(body);
    } else {
        std::transform(body.begin(), body.end(), key->begin(), newKey.begin(), std::bit_xor<>());
        Bytes expected(body.begin(), body.end());
        AppendCrc16(expected, body);
        AppendCrc16(expected, newKey);
        expected.resize(kCryptogramSize, 0x00);
        intact = plain == expected;
        Wipe(expected);
    }
    Wipe(plain);
    if (!intact) {
        Wipe(newKey);
        return {status::IntegrityError, {}};
    }
    *key = newKey;
    Wipe(newKey);
    // A session whose own key has just changed cannot go on.
    if (keyNumber == authenticated) EndSession();
    return {};
}

}  // namespace elatectwn4::sim::desfire
