// The production PC/SC boundary over the platform's WinSCard interface
// (libpcsclite on Linux, winscard.dll on Windows), which the two share but
// for the names of the text calls and two buffer limits: `Names` gives
//   ListReaders, Connect, Status   the single-byte text calls
//   kMaxReaderName, kMaxAtr        the longest reader name and ATR
// The platform's <winscard.h> is included before this header. The object
// holds no state of its own, so two Encoders may use it at once on their own
// contexts: the resource manager serialises calls per context.
#pragma once

#include <algorithm>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "command/pcsc_system.h"
#include "elatectwn4/pcsc.h"

namespace elatectwn4::command {

template <typename Names>
class WinScardPcsc final : public PcscApi {
    // LONG is the platform's long; the return codes are 32-bit values (0x8010xxxx).
    static std::uint32_t Code(LONG rv) noexcept { return static_cast<std::uint32_t>(static_cast<unsigned long>(rv)); }

public:
    std::uint32_t EstablishContext(std::uint32_t scope, PcscHandle& context) override {
        SCARDCONTEXT handle = 0;
        const LONG rv = SCardEstablishContext(scope, nullptr, nullptr, &handle);
        if (rv == SCARD_S_SUCCESS) context = static_cast<PcscHandle>(handle);
        return Code(rv);
    }

    std::uint32_t ReleaseContext(PcscHandle context) override {
        return Code(SCardReleaseContext(static_cast<SCARDCONTEXT>(context)));
    }

    std::uint32_t ListReaders(PcscHandle context, std::vector<std::string>& readers) override {
        try {
            const auto list = [context](char* buffer, std::size_t& length) {
                DWORD size = static_cast<DWORD>(length);
                const LONG rv = Names::ListReaders(static_cast<SCARDCONTEXT>(context), nullptr, buffer, &size);
                length = static_cast<std::size_t>(size);
                return Code(rv);
            };
            return ListReadersRetrying(list, Code(SCARD_E_INSUFFICIENT_BUFFER), readers);
        } catch (...) {
            return Code(SCARD_E_NO_MEMORY);
        }
    }

    std::uint32_t Connect(PcscHandle context, const std::string& reader, std::uint32_t shareMode,
                          std::uint32_t preferredProtocols, PcscHandle& card, std::uint32_t& activeProtocol) override {
        SCARDHANDLE handle = 0;
        DWORD protocol = 0;
        const LONG rv = Names::Connect(static_cast<SCARDCONTEXT>(context), reader.c_str(), shareMode,
                                       preferredProtocols, &handle, &protocol);
        if (rv == SCARD_S_SUCCESS) {
            card = static_cast<PcscHandle>(handle);
            activeProtocol = static_cast<std::uint32_t>(protocol);
        }
        return Code(rv);
    }

    std::uint32_t Disconnect(PcscHandle card, std::uint32_t disposition) override {
        return Code(SCardDisconnect(static_cast<SCARDHANDLE>(card), disposition));
    }

    std::uint32_t Status(PcscHandle card, PcscStatus& status) override {
        try {
            char reader[Names::kMaxReaderName + 1] = {};
            DWORD readerLength = sizeof reader;
            DWORD state = 0;
            DWORD protocol = 0;
            BYTE atr[Names::kMaxAtr] = {};
            DWORD atrLength = sizeof atr;
            const LONG rv = Names::Status(static_cast<SCARDHANDLE>(card), reader, &readerLength, &state, &protocol, atr,
                                          &atrLength);
            if (rv != SCARD_S_SUCCESS) return Code(rv);
            const auto names =
                SplitMultiString(std::string_view(reader, std::min<std::size_t>(readerLength, sizeof reader)));
            status.readerName = names.empty() ? std::string{} : names.front();
            status.state = static_cast<std::uint32_t>(state);
            status.protocol = static_cast<std::uint32_t>(protocol);
            status.atr.assign(atr, atr + std::min<std::size_t>(atrLength, sizeof atr));
            return pcsc_code::Success;
        } catch (...) {
            return Code(SCARD_E_NO_MEMORY);
        }
    }

    std::uint32_t GetAttrib(PcscHandle card, std::uint32_t attribute, std::vector<std::uint8_t>& value) override {
        try {
            DWORD length = 0;
            LONG rv = SCardGetAttrib(static_cast<SCARDHANDLE>(card), attribute, nullptr, &length);
            if (rv != SCARD_S_SUCCESS) return Code(rv);
            std::vector<std::uint8_t> buffer(length);
            rv = SCardGetAttrib(static_cast<SCARDHANDLE>(card), attribute, buffer.data(), &length);
            if (rv != SCARD_S_SUCCESS) return Code(rv);
            buffer.resize(std::min<std::size_t>(length, buffer.size()));
            value = std::move(buffer);
            return pcsc_code::Success;
        } catch (...) {
            return Code(SCARD_E_NO_MEMORY);
        }
    }

    std::uint32_t Transmit(PcscHandle card, std::uint32_t protocol, std::span<const std::uint8_t> command,
                           std::span<std::uint8_t> answer, std::size_t& received) override {
        const SCARD_IO_REQUEST sendPci{static_cast<DWORD>(protocol), sizeof(SCARD_IO_REQUEST)};
        DWORD length = static_cast<DWORD>(std::min(received, answer.size()));
        const LONG rv = SCardTransmit(static_cast<SCARDHANDLE>(card), &sendPci, command.data(),
                                      static_cast<DWORD>(command.size()), nullptr, answer.data(), &length);
        received = rv == SCARD_S_SUCCESS ? static_cast<std::size_t>(length) : 0;
        return Code(rv);
    }
};

}  // namespace elatectwn4::command
