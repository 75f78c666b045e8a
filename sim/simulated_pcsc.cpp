#include "sim/simulated_pcsc.h"

#include <algorithm>
#include <cstdio>

namespace elatectwn4::sim {

namespace {

constexpr std::uint32_t kScopeUser = 0;
constexpr std::uint32_t kDispositionEject = 3;
constexpr std::uint32_t kDispositionUnpower = 2;
constexpr std::uint32_t kNotTransacted = 0x80100016;  // SCARD_E_NOT_TRANSACTED
// Longest extended APDU pcsc-lite passes on (MAX_BUFFER_SIZE_EXTENDED).
constexpr std::size_t kMaxCommand = 4 + 3 + 65536 + 2 + 2;

std::vector<std::uint8_t> TextAttribute(std::string_view text) {
    std::vector<std::uint8_t> value(text.begin(), text.end());
    value.push_back(0);
    return value;
}

std::vector<std::shared_ptr<Reader>> MakeReaders(const std::vector<std::string>& names) {
    std::vector<std::shared_ptr<Reader>> readers;
    readers.reserve(names.size());
    for (const auto& name : names)
        readers.push_back(std::make_shared<Reader>(name));
    return readers;
}

}  // namespace

SimulatedPcsc::SimulatedPcsc()
    : SimulatedPcsc(std::vector<std::string>(std::begin(kDefaultReaderNames), std::end(kDefaultReaderNames))) {}

SimulatedPcsc::SimulatedPcsc(const std::vector<std::string>& readerNames) : readers_(MakeReaders(readerNames)) {}

SimulatedPcsc::SimulatedPcsc(std::vector<std::shared_ptr<Reader>> readers) : readers_(std::move(readers)) {
    std::erase(readers_, nullptr);
}

std::shared_ptr<Reader> SimulatedPcsc::FindReader(std::string_view name) const {
    const auto found =
        std::find_if(readers_.begin(), readers_.end(), [&](const auto& reader) { return reader->Name() == name; });
    return found == readers_.end() ? nullptr : *found;
}

void SimulatedPcsc::SetAtrAttributeSupported(bool supported) {
    const std::lock_guard lock(mutex_);
    atrAttributeSupported_ = supported;
}

std::uint32_t SimulatedPcsc::Health(const Connection& connection) {
    const FieldSession now = connection.reader->CurrentSession();
    if (now.insertion != connection.session.insertion) return pcsc_code::RemovedCard;
    if (now.resets != connection.session.resets) return pcsc_code::ResetCard;
    return pcsc_code::Success;
}

std::uint32_t SimulatedPcsc::EstablishContext(std::uint32_t scope, PcscHandle& context) {
    if (scope != kScopeUser && scope != 1 && scope != pcsc_const::ScopeSystem) return sim_pcsc_code::InvalidValue;
    const std::lock_guard lock(mutex_);
    context = nextHandle_++;
    contexts_.insert(context);
    return pcsc_code::Success;
}

std::uint32_t SimulatedPcsc::ReleaseContext(PcscHandle context) {
    const std::lock_guard lock(mutex_);
    if (contexts_.erase(context) == 0) return pcsc_code::InvalidHandle;
    // The resource manager disconnects (leaving the card) what the context still holds.
    std::erase_if(connections_, [&](const auto& entry) { return entry.second.context == context; });
    return pcsc_code::Success;
}

std::uint32_t SimulatedPcsc::ListReaders(PcscHandle context, std::vector<std::string>& readers) {
    const std::lock_guard lock(mutex_);
    if (!contexts_.contains(context)) return pcsc_code::InvalidHandle;
    if (readers_.empty()) return pcsc_code::NoReadersAvailable;
    readers.clear();
    for (const auto& reader : readers_)
        readers.push_back(reader->Name());
    return pcsc_code::Success;
}

std::uint32_t SimulatedPcsc::Connect(PcscHandle context, const std::string& reader, std::uint32_t shareMode,
                                     std::uint32_t preferredProtocols, PcscHandle& card,
                                     std::uint32_t& activeProtocol) {
    const std::lock_guard lock(mutex_);
    if (!contexts_.contains(context)) return pcsc_code::InvalidHandle;
    const auto found =
        std::find_if(readers_.begin(), readers_.end(), [&](const auto& r) { return r->Name() == reader; });
    if (found == readers_.end()) return pcsc_code::UnknownReader;
    // Direct (card-less) connections are not simulated.
    if (shareMode != pcsc_const::ShareExclusive && shareMode != pcsc_const::ShareShared) {
        return sim_pcsc_code::InvalidValue;
    }
    const auto& target = *found;
    const FieldSession session = target->CurrentSession();
    if (session.insertion == 0) return pcsc_code::NoSmartcard;
    // Contactless cards only ever run T=1.
    if ((preferredProtocols & pcsc_const::ProtocolT1) == 0) return pcsc_code::ProtoMismatch;
    // A connection keeps its share of the reader until it is disconnected,
    // even when its card has gone.
    const bool exclusive = shareMode == pcsc_const::ShareExclusive;
    for (const auto& [handle, other] : connections_) {
        if (other.reader == target && (exclusive || other.exclusive)) return pcsc_code::SharingViolation;
    }
    const PcscHandle handle = nextHandle_++;
    connections_.emplace(handle, Connection{context, target, static_cast<std::size_t>(found - readers_.begin()),
                                            exclusive, pcsc_const::ProtocolT1, session, target->Atr()});
    card = handle;
    activeProtocol = pcsc_const::ProtocolT1;
    return pcsc_code::Success;
}

std::uint32_t SimulatedPcsc::Disconnect(PcscHandle card, std::uint32_t disposition) {
    const std::lock_guard lock(mutex_);
    const auto found = connections_.find(card);
    if (found == connections_.end()) return pcsc_code::InvalidHandle;
    if (disposition > kDispositionEject) return sim_pcsc_code::InvalidValue;
    if ((disposition == pcsc_const::ResetCard || disposition == kDispositionUnpower) &&
        Health(found->second) == pcsc_code::Success) {
        found->second.reader->ResetCard();
    }
    connections_.erase(found);
    return pcsc_code::Success;
}

std::uint32_t SimulatedPcsc::Status(PcscHandle card, PcscStatus& status) {
    const std::lock_guard lock(mutex_);
    const auto found = connections_.find(card);
    if (found == connections_.end()) return pcsc_code::InvalidHandle;
    const Connection& connection = found->second;
    if (const auto health = Health(connection); health != pcsc_code::Success) return health;
    status.readerName = connection.reader->Name();
    status.state = kStatePresentPoweredNegotiable;
    status.protocol = connection.protocol;
    status.atr = connection.atr;
    return pcsc_code::Success;
}

std::uint32_t SimulatedPcsc::GetAttrib(PcscHandle card, std::uint32_t attribute, std::vector<std::uint8_t>& value) {
    const std::lock_guard lock(mutex_);
    const auto found = connections_.find(card);
    if (found == connections_.end()) return pcsc_code::InvalidHandle;
    const Connection& connection = found->second;
    if (const auto health = Health(connection); health != pcsc_code::Success) return health;
    switch (attribute) {
        case pcsc_const::AttrAtrString:
            if (!atrAttributeSupported_) return pcsc_code::UnsupportedFeature;
            value = connection.atr;
            return pcsc_code::Success;
        case pcsc_const::AttrVendorName:
            value = TextAttribute(kSimVendorName);
            return pcsc_code::Success;
        case pcsc_const::AttrVendorIfdType:
            value = TextAttribute(kSimReaderType);
            return pcsc_code::Success;
        case pcsc_const::AttrVendorIfdVersion:
            value.clear();
            for (unsigned i = 0; i < 4; ++i)
                value.push_back(static_cast<std::uint8_t>(kSimReaderVersion >> (8 * i)));
            return pcsc_code::Success;
        case pcsc_const::AttrVendorIfdSerialNo: {
            char serial[16];
            std::snprintf(serial, sizeof serial, "SIM%05zu", connection.readerIndex);
            value = TextAttribute(serial);
            return pcsc_code::Success;
        }
        case pcsc_const::AttrDeviceFriendlyName:
            value = TextAttribute(connection.reader->Name());
            return pcsc_code::Success;
        default:
            return pcsc_code::UnsupportedFeature;
    }
}

std::uint32_t SimulatedPcsc::Transmit(PcscHandle card, std::uint32_t protocol, std::span<const std::uint8_t> command,
                                      std::span<std::uint8_t> answer, std::size_t& received) {
    const std::size_t capacity = std::min(received, answer.size());
    received = 0;
    std::shared_ptr<Reader> reader;
    FieldSession session;
    {
        const std::lock_guard lock(mutex_);
        const auto found = connections_.find(card);
        if (found == connections_.end()) return pcsc_code::InvalidHandle;
        if (protocol != found->second.protocol) return pcsc_code::ProtoMismatch;
        reader = found->second.reader;
        session = found->second.session;
    }
    if (command.empty() || command.size() > kMaxCommand) return pcsc_code::InvalidParameter;
    // The exchange runs outside the lock: a slow card on one reader must not
    // hold up the other readers.
    std::vector<std::uint8_t> bytes;
    switch (reader->TransmitIn(session, command, bytes)) {
        case Reader::Delivery::CardGone:
            return pcsc_code::RemovedCard;
        case Reader::Delivery::CardReset:
            return pcsc_code::ResetCard;
        case Reader::Delivery::Answered:
            break;
    }
    if (bytes.empty()) return kNotTransacted;
    if (bytes.size() > capacity) {
        received = bytes.size();
        return pcsc_code::InsufficientBuffer;
    }
    std::copy(bytes.begin(), bytes.end(), answer.begin());
    received = bytes.size();
    return pcsc_code::Success;
}

}  // namespace elatectwn4::sim
