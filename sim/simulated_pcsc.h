// The PC/SC boundary served in-process by simulated readers, with the
// resource manager's semantics (handles, sharing, card removal and reset),
// so that the component runs unchanged against the simulated cards.
//
//   auto pcsc = std::make_shared<sim::SimulatedPcsc>();      // "Virtual PCD 00 00" and "... 01"
//   pcsc->FindReader("Virtual PCD 00 00")->Insert(sim::MakeCard("mifare1k"));
//   Encoder encoder(pcsc);                                    // then open it on that reader
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "elatectwn4/pcsc.h"
#include "sim/reader.h"

namespace elatectwn4::sim {

/// Reader names as the vpcd driver of pcsc-lite announces them.
inline constexpr std::string_view kDefaultReaderNames[] = {"Virtual PCD 00 00", "Virtual PCD 00 01"};

/// The values the simulated readers report for the vendor attributes.
inline constexpr std::string_view kSimVendorName = "elatectwn4 simulator";
inline constexpr std::string_view kSimReaderType = "Simulated contactless reader";
/// Vendor version 1.0.0 as pcsc-lite drivers report it: 0xMMmmbbbb, host order.
inline constexpr std::uint32_t kSimReaderVersion = 0x01000000;

/// PC/SC codes the simulator returns beyond those the component names.
namespace sim_pcsc_code {
inline constexpr std::uint32_t InvalidValue = 0x80100011;  // SCARD_E_INVALID_VALUE
}  // namespace sim_pcsc_code

/// The state bits SCardStatus reports for a powered card with a protocol.
inline constexpr std::uint32_t kStatePresentPoweredNegotiable = 0x0004 | 0x0010 | 0x0020;

class SimulatedPcsc final : public PcscApi {
public:
    /// Two empty readers with the default names.
    SimulatedPcsc();
    /// Empty readers with these names (none at all: ListReaders then reports
    /// SCARD_E_NO_READERS_AVAILABLE).
    explicit SimulatedPcsc(const std::vector<std::string>& readerNames);
    /// Readers made elsewhere (a test keeps its own handles on them).
    explicit SimulatedPcsc(std::vector<std::shared_ptr<Reader>> readers);

    /// The reader of that name, or null.
    std::shared_ptr<Reader> FindReader(std::string_view name) const;
    /// The readers in listing order.
    const std::vector<std::shared_ptr<Reader>>& Readers() const noexcept { return readers_; }

    /// Text attributes (vendor name, type, serial number, friendly name) end
    /// in a NUL byte, as pcsc-lite returns them.
    ///
    /// When false, GetAttrib of the ATR attribute answers
    /// SCARD_E_UNSUPPORTED_FEATURE, as pcscd does for vpcd readers (the ATR
    /// is then to be had from Status).
    void SetAtrAttributeSupported(bool supported);

    std::uint32_t EstablishContext(std::uint32_t scope, PcscHandle& context) override;
    std::uint32_t ReleaseContext(PcscHandle context) override;
    std::uint32_t ListReaders(PcscHandle context, std::vector<std::string>& readers) override;
    std::uint32_t Connect(PcscHandle context, const std::string& reader, std::uint32_t shareMode,
                          std::uint32_t preferredProtocols, PcscHandle& card, std::uint32_t& activeProtocol) override;
    std::uint32_t Disconnect(PcscHandle card, std::uint32_t disposition) override;
    std::uint32_t Status(PcscHandle card, PcscStatus& status) override;
    std::uint32_t GetAttrib(PcscHandle card, std::uint32_t attribute, std::vector<std::uint8_t>& value) override;
    std::uint32_t Transmit(PcscHandle card, std::uint32_t protocol, std::span<const std::uint8_t> command,
                           std::span<std::uint8_t> answer, std::size_t& received) override;

private:
    struct Connection {
        PcscHandle context;
        std::shared_ptr<Reader> reader;
        std::size_t readerIndex;
        bool exclusive;
        std::uint32_t protocol;
        FieldSession session;
        std::vector<std::uint8_t> atr;
    };

    /// Whether the connection's card is still the one it was made with
    /// (Success, RemovedCard or ResetCard).
    static std::uint32_t Health(const Connection& connection);

    mutable std::mutex mutex_;
    std::vector<std::shared_ptr<Reader>> readers_;
    std::set<PcscHandle> contexts_;
    std::map<PcscHandle, Connection> connections_;
    PcscHandle nextHandle_ = 0x0001'0000;
    bool atrAttributeSupported_ = true;
};

}  // namespace elatectwn4::sim
