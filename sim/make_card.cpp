#include <stdexcept>

#include "sim/desfire/desfire_card.h"
#include "sim/mifare_classic.h"
#include "sim/reader.h"

namespace elatectwn4::sim {

namespace {

// Single-size NUIDs (first byte xF): what 4-byte MIFARE Classic cards carry today.
const std::vector<std::uint8_t> kDefaultUid1K{0xCF, 0x1E, 0x2D, 0x3C};
const std::vector<std::uint8_t> kDefaultUid4K{0xDF, 0x4B, 0x5A, 0x69};

}  // namespace

std::shared_ptr<Card> MakeCard(const std::string& kind, std::vector<std::uint8_t> uid) {
    if (kind == "mifare1k" || kind == "mifare4k") {
        const bool fourK = kind == "mifare4k";
        if (uid.empty()) uid = fourK ? kDefaultUid4K : kDefaultUid1K;
        return std::make_shared<MifareClassicCard>(fourK, std::move(uid));
    }
    if (kind == "desfire") return MakeDesfireCard(std::move(uid));
    throw std::invalid_argument("unknown card kind \"" + kind + "\" (mifare1k, mifare4k or desfire)");
}

}  // namespace elatectwn4::sim
