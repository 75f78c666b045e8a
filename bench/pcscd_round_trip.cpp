// The round trip of one APDU through the system's pcscd, the vpcd driver and
// the twn4-vcard bridge. vpcd writes each frame's length and payload apart;
// a bridge without TCP_NODELAY and TCP_QUICKACK makes every exchange wait
// about 40 ms for a delayed acknowledgement, which this shows at once.
//
//   scripts/pcscd-up.sh --vcard build/sim/bridge/twn4-vcard
//   build/sim/bridge/twn4-vcard --port 35963 --card mifare1k &
//   build/bench/pcscd_round_trip ["Virtual PCD 00 00"] [exchanges]
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "elatectwn4/pcsc.h"

int main(int argc, char** argv) {
    using namespace elatectwn4;
    const std::string reader = argc > 1 ? argv[1] : "Virtual PCD 00 00";
    const int exchanges = argc > 2 ? std::atoi(argv[2]) : 200;
    if (exchanges <= 0) {
        std::fprintf(stderr, "usage: pcscd_round_trip [READER] [EXCHANGES > 0]\n");
        return 2;
    }

    const auto pcsc = SystemPcsc();
    PcscHandle context = 0, card = 0;
    std::uint32_t protocol = 0;
    std::uint32_t rc = pcsc->EstablishContext(pcsc_const::ScopeSystem, context);
    if (rc == pcsc_code::Success)
        rc = pcsc->Connect(context, reader, pcsc_const::ShareExclusive, pcsc_const::ProtocolT1, card, protocol);
    if (rc != pcsc_code::Success) {
        std::fprintf(stderr, "pcscd_round_trip: %s: %s\n", reader.c_str(), PCSCErrorText(rc).c_str());
        return 1;
    }

    const std::array<std::uint8_t, 5> getUid{0xFF, 0xCA, 0x00, 0x00, 0x00};
    std::array<std::uint8_t, pcsc_const::MaxAnswer> answer{};
    int answered = 0;
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < exchanges; ++i) {
        std::size_t received = answer.size();
        if (pcsc->Transmit(card, protocol, getUid, answer, received) == pcsc_code::Success && received >= 2 &&
            answer[received - 2] == 0x90 && answer[received - 1] == 0x00)
            ++answered;
    }
    const std::chrono::duration<double, std::milli> elapsed = std::chrono::steady_clock::now() - start;
    pcsc->Disconnect(card, pcsc_const::LeaveCard);
    pcsc->ReleaseContext(context);

    std::printf("mean APDU round trip through pcscd and vpcd: %.3f ms over %d exchanges (%d answered 9000)\n",
                elapsed.count() / exchanges, exchanges, answered);
    return answered == exchanges ? 0 : 1;
}
