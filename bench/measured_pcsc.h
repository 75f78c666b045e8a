// A PC/SC boundary that forwards to another (the in-process simulator) and
// counts the transmissions and the time spent inside them, so that a
// benchmark can take the simulator's own time off the component's.
#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "elatectwn4/pcsc.h"

namespace elatectwn4::bench {

using Clock = std::chrono::steady_clock;

class MeasuredPcsc final : public PcscApi {
public:
    explicit MeasuredPcsc(std::shared_ptr<PcscApi> inner) : inner_(std::move(inner)) {}

    std::uint32_t EstablishContext(std::uint32_t scope, PcscHandle& context) override {
        return inner_->EstablishContext(scope, context);
    }
    std::uint32_t ReleaseContext(PcscHandle context) override { return inner_->ReleaseContext(context); }
    std::uint32_t ListReaders(PcscHandle context, std::vector<std::string>& readers) override {
        return inner_->ListReaders(context, readers);
    }
    std::uint32_t Connect(PcscHandle context, const std::string& reader, std::uint32_t share, std::uint32_t protocols,
                          PcscHandle& card, std::uint32_t& active) override {
        return inner_->Connect(context, reader, share, protocols, card, active);
    }
    std::uint32_t Disconnect(PcscHandle card, std::uint32_t disposition) override {
        return inner_->Disconnect(card, disposition);
    }
    std::uint32_t Status(PcscHandle card, PcscStatus& status) override { return inner_->Status(card, status); }
    std::uint32_t GetAttrib(PcscHandle card, std::uint32_t attribute, std::vector<std::uint8_t>& value) override {
        return inner_->GetAttrib(card, attribute, value);
    }
    std::uint32_t Transmit(PcscHandle card, std::uint32_t protocol, std::span<const std::uint8_t> command,
                           std::span<std::uint8_t> answer, std::size_t& received) override {
        const auto start = Clock::now();
        const std::uint32_t result = inner_->Transmit(card, protocol, command, answer, received);
        inside += Clock::now() - start;
        ++transmissions;
        return result;
    }

    void Reset() {
        inside = {};
        transmissions = 0;
    }

    Clock::duration inside{};
    long transmissions = 0;

private:
    std::shared_ptr<PcscApi> inner_;
};

}  // namespace elatectwn4::bench
