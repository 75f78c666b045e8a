// Arbitrary card answers through a PC/SC boundary, driving every member that
// reads from the card. The input picks the member and its arguments; the rest
// of it is the card's answers, one per transmission. Besides the sanitizers
// the oracle is the members' contract: a member that reports sceSuccess got
// well-formed answers and hands back out-arguments of their documented form;
// one that fails leaves a full record; and nothing is written to the card
// from an answer that was not well formed.
//
// Input: member, flags, four argument bytes, then answers, each a chunk of
// the input. When the answers run out, the card is gone.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iterator>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "command/channel.h"
#include "command/error_record.h"
#include "desfire/desfire.h"
#include "desfire/files.h"
#include "desfire/transfer.h"
#include "desfire/values.h"
#include "elatectwn4/encoder.h"
#include "elatectwn4/pcsc.h"
#include "fuzz_support.h"

namespace {

using namespace elatectwn4;
using elatectwn4::fuzz::Check;
using elatectwn4::fuzz::Input;
using Bytes = std::vector<std::uint8_t>;

struct Exchange {
    Bytes sent, answer;
};

// A reader with one card, a MIFARE Classic 1K by its ATR, that answers from the input.
class FakePcsc : public PcscApi {
public:
    explicit FakePcsc(Input& input) : input_(input) {}
    std::vector<Exchange> log;

    std::uint32_t EstablishContext(std::uint32_t, PcscHandle& context) override {
        context = 1;
        return pcsc_code::Success;
    }
    std::uint32_t ReleaseContext(PcscHandle) override { return pcsc_code::Success; }
    std::uint32_t ListReaders(PcscHandle, std::vector<std::string>& readers) override {
        readers = {"Fuzz"};
        return pcsc_code::Success;
    }
    std::uint32_t Connect(PcscHandle, const std::string&, std::uint32_t, std::uint32_t, PcscHandle& card,
                          std::uint32_t& protocol) override {
        card = 2;
        protocol = pcsc_const::ProtocolT1;
        return pcsc_code::Success;
    }
    std::uint32_t Disconnect(PcscHandle, std::uint32_t) override { return pcsc_code::Success; }
    std::uint32_t Status(PcscHandle, PcscStatus& status) override {
        status.atr = kAtr;
        return pcsc_code::Success;
    }
    std::uint32_t GetAttrib(PcscHandle, std::uint32_t attribute, std::vector<std::uint8_t>& value) override {
        if (attribute != pcsc_const::AttrAtrString) return pcsc_code::UnsupportedFeature;
        value = kAtr;
        return pcsc_code::Success;
    }
    std::uint32_t Transmit(PcscHandle, std::uint32_t, std::span<const std::uint8_t> command,
                           std::span<std::uint8_t> answer, std::size_t& received) override {
        auto next = input_.Chunk();
        received = 0;
        if (!next || next->size() > answer.size()) return pcsc_code::RemovedCard;
        received = std::copy(next->begin(), next->end(), answer.begin()) - answer.begin();
        log.push_back({Bytes(command.begin(), command.end()), std::move(*next)});
        return pcsc_code::Success;
    }

private:
    const Bytes kAtr{0x3B, 0x8F, 0x80, 0x01, 0x80, 0x4F, 0x0C, 0xA0, 0x00, 0x00,
                     0x03, 0x06, 0x03, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00, 0x6A};
    Input& input_;
};

// ---- What a well-formed answer is -----------------------------------------------

bool Starts(const Bytes& sent, std::uint8_t cla, int ins = -1) {
    return sent.size() >= 2 && sent[0] == cla && (ins < 0 || sent[1] == ins);
}

// The statuses the command layer lets through when it follows no further
// frames itself: 9000, 9100, 9101 and 91AF.
bool IsoSuccess(const Bytes& answer) {
    if (answer.size() < 2) return false;
    const unsigned sw = answer[answer.size() - 2] << 8 | answer.back();
    return sw == 0x9000 || sw == 0x9100 || sw == 0x9101 || sw == 0x91AF;
}

// Every answer the component took has the status word its command requires.
// A refused plain settings change followed by the enciphered one was no
// answer the member took: anything may stand before the second attempt.
bool EveryAnswerHasAStatus(const std::vector<Exchange>& log) {
    const auto change = [&](std::size_t i) { return !log[i].sent.empty() && log[i].sent[0] == 0x5F; };
    std::size_t from = 0;
    for (std::size_t i = 1; i < log.size() && change(0); ++i)
        if (change(i)) from = i;
    for (std::size_t i = from; i < log.size(); ++i) {
        const bool iso = !log[i].sent.empty() && (log[i].sent[0] == 0xFF || log[i].sent[0] == 0x90);
        if (log[i].answer.size() < (iso ? 2u : 1u)) return false;
    }
    return true;
}

bool AccessBitsConsistent(const std::uint8_t* block) {
    const unsigned b6 = block[6], b7 = block[7], b8 = block[8];
    return (b6 & 0xF) == (~b7 >> 4 & 0xF) && (b6 >> 4) == (~b8 & 0xF) && (b7 & 0xF) == (~b8 >> 4 & 0xF);
}

// A MIFARE write goes out only after every block read before it gave a whole
// block, and a trailer write only after reads whose access bits agree with
// their copies; what it writes then agrees as well.
void CheckMifareWrites(const std::vector<Exchange>& log, bool trailer) {
    for (std::size_t i = 0; i < log.size(); ++i) {
        if (log[i].sent.size() < 5 || !Starts(log[i].sent, 0xFF, 0xD6)) continue;
        for (std::size_t j = 0; j < i; ++j) {
            if (!Starts(log[j].sent, 0xFF, 0xB0)) continue;
            Check(log[j].answer.size() == 18 && IsoSuccess(log[j].answer), "a write follows whole blocks read");
            if (trailer) Check(AccessBitsConsistent(log[j].answer.data()), "a trailer write follows sound access bits");
        }
        if (trailer)
            Check(log[i].sent.size() == 21 && AccessBitsConsistent(log[i].sent.data() + 5),
                  "a trailer written has sound access bits");
    }
}

// A file's settings: 7 bytes for data and backup files, 17 for value files,
// 13 for record files; a type of its own at least type, settings and rights.
bool IsSettingsRecord(const Bytes& record) {
    constexpr std::size_t kLengths[] = {7, 7, 17, 13, 13};
    if (record.empty()) return false;
    return record[0] < std::size(kLengths) ? record.size() == kLengths[record[0]] : record.size() >= 4;
}

// A DESFire command that changes a file, sent after the file's settings were
// read, follows a well-formed settings record (its frames gathered).
void CheckDesfireWrites(const std::vector<Exchange>& log) {
    bool read = false, complete = false, gathering = false;
    Bytes settings;
    for (const Exchange& e : log) {
        if (e.sent.empty()) continue;
        const bool continuation = e.sent.size() == 1 && e.sent[0] == 0xAF;
        if (e.sent[0] == 0xF5 || (gathering && continuation)) {
            if (e.sent[0] == 0xF5) settings.clear();
            read = true;
            if (!e.answer.empty()) settings.insert(settings.end(), e.answer.begin() + 1, e.answer.end());
            gathering = !e.answer.empty() && e.answer[0] == 0xAF;
            complete = !e.answer.empty() && e.answer[0] == 0x00;
            continue;
        }
        gathering = false;
        constexpr std::uint8_t kChanges[] = {0x3D, 0x3B, 0xDC, 0x0C, 0x1C, 0x5F};
        if (read && std::find(std::begin(kChanges), std::end(kChanges), e.sent[0]) != std::end(kChanges))
            Check(complete && IsSettingsRecord(settings), "a file changes only after whole settings");
    }
}

bool IsHex(std::string_view text, char separator = '\0') {
    std::size_t digits = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (separator != '\0' && i % 3 == 2) {
            if (c != separator) return false;
            continue;
        }
        if (!((c >= '0' && c <= '9') || (c >= 'A' && c <= 'F'))) return false;
        ++digits;
    }
    return digits % 2 == 0 && (separator == '\0' || text.empty() || text.size() % 3 == 2);
}

bool IsOneOf(std::int32_t value, std::initializer_list<std::int32_t> allowed) {
    return std::find(allowed.begin(), allowed.end(), value) != allowed.end();
}

// The run's verdict: on success the answers were well formed and the
// out-arguments meet `contract`, on failure the record is whole.
void Judge(sceReturnCode result, const std::vector<Exchange>& log, const CError& record,
           const std::function<void()>& contract) {
    if (result == sceSuccess) {
        Check(EveryAnswerHasAStatus(log), "success took only answers with a status");
        contract();
    } else {
        Check(record.Number != 0 && !record.Description.empty() && !record.ComFunction.empty(),
              "a failure leaves a full record");
    }
}

// ---- The members ----------------------------------------------------------------

struct Args {
    std::uint8_t flags, a, b, c, d;
    bool conformance() const { return flags & 1; }
    bool hex() const { return flags & 2; }
    bool singleDes() const { return flags & 4; }
    bool cardLevel() const { return flags & 8; }
    std::int32_t security(std::uint8_t x) const { return x % 17 - 1; }  // -1..15
};

const std::string kKey = "A0A1A2A3A4A5";

// Identity and MIFARE members, through the Encoder as a host calls them.
void RunEncoderMember(unsigned member, const Args& args, Input& input) {
    auto pcsc = std::make_shared<FakePcsc>(input);
    Encoder encoder(pcsc);
    encoder.Parameters(std::string("Device=Fuzz;Conformance=") + (args.conformance() ? "card" : "none"));
    Check(encoder.OpenEncoder() == sceSuccess, "the encoder opens");

    sceReturnCode result = sceError;
    std::function<void()> contract = [] {};
    std::string text;
    switch (member) {
        case 0:
            result = encoder.ReadSerialNumber(text = "unchanged");
            contract = [&] {
                Check(IsOneOf(static_cast<std::int32_t>(text.size()), {8, 14, 20}) && IsHex(text), "a serial number");
            };
            break;
        case 1:
            result = encoder.ReadDataBloc(args.a, kKey, args.b, text);
            contract = [&] { Check(text.size() == 32 && IsHex(text), "a block"); };
            break;
        case 2: {
            std::int32_t serial = 0;
            std::uint8_t check = 0;
            result = encoder.ReadManufacturerCode(kKey, args.b, serial, check, text);
            contract = [&] { Check(text.size() == 22 && IsHex(text), "manufacturer data"); };
            break;
        }
        case 3:
            result = encoder.WriteBytesInBloc(args.a, kKey, 0, args.b % 17, args.c % 17, text = "A1B2C3D4");
            break;
        case 4: {
            std::uint8_t keysUsed = 0, bx = 0;
            std::int32_t s0 = 0, s1 = 0, s2 = 0, conditions = 0;
            result = encoder.ReadSectorTrailer(args.a, kKey, args.b, keysUsed, s0, s1, s2, conditions, bx);
            contract = [=, &pcsc] {
                for (const std::int32_t s : {s0, s1, s2})
                    Check(IsOneOf(s, {0, 5, 12, 13, 15}), "a block's security");
                Check(IsOneOf(keysUsed, {1, 2}) && IsOneOf(conditions, {0, 1, 3, 4, 8, 12}), "the trailer's rights");
                const Exchange& read = pcsc->log.back();
                Check(read.answer.size() == 18 && AccessBitsConsistent(read.answer.data()), "a sound trailer read");
            };
            break;
        }
        case 5: {
            const Variant bx = args.d & 0x80 ? Variant{} : Variant{std::int32_t{args.d}};
            result = encoder.WriteSectorTrailer(args.a, kKey, 0, "B0B1B2B3B4B5", "C0C1C2C3C4C5", args.d % 3,
                                                args.security(args.b), args.security(args.c), -1,
                                                args.security(args.b ^ args.c), bx);
            break;
        }
        default:
            return;
    }
    CheckMifareWrites(pcsc->log, member == 5);
    Judge(result, pcsc->log, encoder.LastError(), contract);
}

// DESFire members on a session that is already authenticated (the challenge
// of a real authentication is random), except for the selection itself.
void RunDesfireMember(unsigned member, const Args& args, Input& input) {
    FakePcsc pcsc(input);
    command::Channel channel{&pcsc, 1, 2, pcsc_const::ProtocolT1};
    CError record;
    desfire::Session session;
    for (std::size_t i = 0; i < session.sessionKey.size(); ++i)
        session.sessionKey[i] = static_cast<std::uint8_t>(0x3C + (args.singleDes() ? i % 8 : i) * 0x11);
    session.authenticatedKeyNumber = args.a % 14;
    session.selectedApplicationId = args.cardLevel() ? "000000" : "A1B2C3";
    session.random = [](std::span<std::uint8_t> out) {
        for (std::size_t i = 0; i < out.size(); ++i)
            out[i] = static_cast<std::uint8_t>(0xA5 ^ i);
    };
    desfire::Context ctx{channel, record, session, args.conformance()};

    const std::int32_t file = args.a % 16;
    sceReturnCode result = sceError;
    std::function<void()> contract = [] {};
    std::string text;
    std::int32_t n1 = -1, n2 = -1;
    Variant information;
    const auto byte = [](std::int32_t n) { return n >= 0 && n <= 255; };
    // A run-time error a worker raises becomes the record at the member's
    // edge, as the Encoder's guard does it; any other exception is a fault.
    try {
        switch (member) {
            case 6:
                result =
                    desfire::DESFireSelectApplication(ctx, "A1B2C3", args.a % 14, "00112233445566778899AABBCCDDEEFF");
                contract = [&] {
                    Check(pcsc.log.size() == 3 && pcsc.log[1].answer.size() == 9 && pcsc.log[2].answer.size() == 9,
                          "an authentication of three whole steps");
                };
                break;
            case 7:
                result = desfire::DESFireGetVersion(ctx, args.b % 31 - 3, information = {});
                break;
            case 8:
                result = desfire::DESFireGetApplications(ctx, text);
                contract = [&] {
                    Check(text.empty() || text.size() % 7 == 6, "identifiers of six digits");
                    for (std::size_t at = 0; at < text.size(); at += 7) {
                        Check(IsHex(std::string_view(text).substr(at, 6)), "hex identifiers");
                        Check(at + 6 == text.size() || text[at + 6] == ',', "separated by commas");
                    }
                };
                break;
            case 9:
                result = desfire::DESFireGetKeySettings(ctx, n1, n2);
                contract = [&] { Check(byte(n1) && byte(n2), "settings and count are bytes"); };
                break;
            case 10:
                result = desfire::DESFireGetKeyVersion(ctx, args.b % 14, n1);
                contract = [&] { Check(byte(n1), "a key version is a byte"); };
                break;
            case 11:
                result = desfire::DESFireGetFileIDs(ctx, text);
                contract = [&] {
                    int last = -1;
                    for (std::size_t at = 0; at < text.size();) {
                        const std::size_t end = std::min(text.find(',', at), text.size());
                        const int id = std::stoi(text.substr(at, end - at));
                        Check(id > last && id <= 31, "file numbers ascend up to 31");
                        last = id;
                        at = end + 1;
                    }
                };
                break;
            case 12:
                result = desfire::DESFireGetFileSettings(ctx, file, text);
                contract = [&] {
                    Check(IsHex(text, ' ') && (text.size() + 1) / 3 >= 4, "settings of 4 bytes or more");
                };
                break;
            case 13:
            case 14: {
                const std::int32_t length = args.b;
                const bool records = member == 14;
                result = records ? desfire::DESFireReadRecords(ctx, file, args.c, length, text, args.hex())
                                 : desfire::DESFireReadData(ctx, file, args.c, length, text, args.hex());
                contract = [&, length, records] {
                    if (args.hex()) Check(IsHex(text), "hex data");
                    const std::size_t bytes = args.hex() ? text.size() / 2 : text.size();
                    if (!records && length != 0) Check(bytes == static_cast<std::size_t>(length), "data as asked");
                };
                break;
            }
            case 15:
                result = desfire::DESFireGetValue(ctx, args.a % 8, n1);
                break;
            case 16:
                result = desfire::DESFireWriteData(ctx, file, args.c, args.b, "0102030405060708", true);
                break;
            case 17:
                result = desfire::DESFireDebit(ctx, args.a % 8, args.c);
                break;
            case 18:
                result = desfire::DESFireChangeFileSettings(
                    ctx, file, args.d % 4, desfire::AccessRights{args.b % 16, args.b / 16, args.c % 16, args.c / 16});
                break;
            default:
                return;
        }
    } catch (const command::RuntimeError&) {
        command::RecordRuntimeError(record, "DESFire member");
        result = sceError;
    }
    CheckDesfireWrites(pcsc.log);
    Judge(result, pcsc.log, record, contract);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // The card-type registry of an Encoder lives in a directory of its own.
    static const bool registry = [] {
        char dir[] = "/tmp/card_answers_registry.XXXXXX";
        return ::mkdtemp(dir) != nullptr && ::setenv("ELATECTWN4_REGISTRY_DIR", dir, 1) == 0;
    }();
    Check(registry, "a registry directory");

    Input input(data, size);
    const unsigned member = input.Byte() % 19;
    const std::uint8_t flags = input.Byte(), a = input.Byte(), b = input.Byte(), c = input.Byte(), d = input.Byte();
    const Args args{flags, a, b, c, d};
    if (member <= 5) {
        RunEncoderMember(member, args, input);
    } else {
        RunDesfireMember(member, args, input);
    }
    return 0;
}
