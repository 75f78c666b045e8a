// The one boundary through which the component talks to readers.
//
// Production uses SystemPcsc() (libpcsclite and pcscd). Tests and the
// simulator implement the same interface, and an Encoder is handed one at
// construction, so the choice is made at run time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "elatectwn4/export.h"

namespace elatectwn4 {

/// PC/SC context or card handle; 0 means "none".
using PcscHandle = std::int64_t;

/// PC/SC return codes, as the resource manager defines them.
namespace pcsc_code {
inline constexpr std::uint32_t Success = 0;
inline constexpr std::uint32_t InvalidParameter = 0x80100004;  // SCARD_E_INVALID_PARAMETER
inline constexpr std::uint32_t InvalidHandle = 0x80100003;
inline constexpr std::uint32_t InsufficientBuffer = 0x80100008;
inline constexpr std::uint32_t UnknownReader = 0x80100009;
inline constexpr std::uint32_t Timeout = 0x8010000A;
inline constexpr std::uint32_t SharingViolation = 0x8010000B;
inline constexpr std::uint32_t NoSmartcard = 0x8010000C;
inline constexpr std::uint32_t UnknownCard = 0x8010000D;
inline constexpr std::uint32_t ProtoMismatch = 0x8010000F;
inline constexpr std::uint32_t NotReady = 0x80100010;
inline constexpr std::uint32_t ReaderUnavailable = 0x80100017;
inline constexpr std::uint32_t UnsupportedCard = 0x8010001C;
inline constexpr std::uint32_t NoService = 0x8010001D;
inline constexpr std::uint32_t ServiceStopped = 0x8010001E;
inline constexpr std::uint32_t UnexpectedCardError = 0x8010001F;
inline constexpr std::uint32_t NoReadersAvailable = 0x8010002E;
inline constexpr std::uint32_t UnsupportedFeature = 0x8010001F;  // pcsc-lite's SCARD_E_UNSUPPORTED_FEATURE
inline constexpr std::uint32_t RemovedCard = 0x80100069;
inline constexpr std::uint32_t ResetCard = 0x80100068;
}  // namespace pcsc_code

/// Constants the component passes to the resource manager.
namespace pcsc_const {
inline constexpr std::uint32_t ScopeSystem = 2;
inline constexpr std::uint32_t ShareExclusive = 1;
inline constexpr std::uint32_t ShareShared = 2;
inline constexpr std::uint32_t ProtocolT0 = 1;
inline constexpr std::uint32_t ProtocolT1 = 2;
inline constexpr std::uint32_t LeaveCard = 0;
inline constexpr std::uint32_t ResetCard = 1;
inline constexpr std::uint32_t AttrAtrString = 0x00090303;
inline constexpr std::uint32_t AttrDeviceFriendlyName = 0x7FFF0003;
inline constexpr std::uint32_t AttrVendorName = 0x00010100;
inline constexpr std::uint32_t AttrVendorIfdType = 0x00010101;
inline constexpr std::uint32_t AttrVendorIfdVersion = 0x00010102;
inline constexpr std::uint32_t AttrVendorIfdSerialNo = 0x00010103;
inline constexpr std::size_t MaxAnswer = 4096;  ///< receive buffer of one transmission
}  // namespace pcsc_const

/// What SCardStatus reports of a connected card.
struct PcscStatus {
    std::string readerName;
    std::uint32_t state = 0;
    std::uint32_t protocol = 0;
    std::vector<std::uint8_t> atr;
};

/// The SCard functions the component uses. Every method returns a PC/SC code
/// (0 = success) and never throws. Implementations must be usable from one
/// thread per context; two Encoders on two contexts may run concurrently.
class ELATECTWN4_API PcscApi {
public:
    virtual ~PcscApi() = default;

    /// SCardEstablishContext.
    virtual std::uint32_t EstablishContext(std::uint32_t scope, PcscHandle& context) = 0;
    /// SCardReleaseContext.
    virtual std::uint32_t ReleaseContext(PcscHandle context) = 0;
    /// SCardListReaders, split into names (the length is learnt first, then the list filled).
    virtual std::uint32_t ListReaders(PcscHandle context, std::vector<std::string>& readers) = 0;
    /// SCardConnect.
    virtual std::uint32_t Connect(PcscHandle context, const std::string& reader, std::uint32_t shareMode,
                                  std::uint32_t preferredProtocols, PcscHandle& card,
                                  std::uint32_t& activeProtocol) = 0;
    /// SCardDisconnect.
    virtual std::uint32_t Disconnect(PcscHandle card, std::uint32_t disposition) = 0;
    /// SCardStatus.
    virtual std::uint32_t Status(PcscHandle card, PcscStatus& status) = 0;
    /// SCardGetAttrib (the length is learnt first, then the value filled).
    virtual std::uint32_t GetAttrib(PcscHandle card, std::uint32_t attribute, std::vector<std::uint8_t>& value) = 0;
    /// SCardTransmit with the send header of `protocol`. On entry `received` is
    /// the capacity of `answer`; on return, the number of bytes written.
    virtual std::uint32_t Transmit(PcscHandle card, std::uint32_t protocol, std::span<const std::uint8_t> command,
                                   std::span<std::uint8_t> answer, std::size_t& received) = 0;
};

/// The production boundary: libpcsclite talking to pcscd.
ELATECTWN4_API std::shared_ptr<PcscApi> SystemPcsc();

/// English text of a PC/SC return code ("No Smart Card is currently in the
/// device."); "Unexpected error 0x8010xxxx" for codes without a text of their own.
ELATECTWN4_API std::string PCSCErrorText(std::uint32_t code);

}  // namespace elatectwn4
