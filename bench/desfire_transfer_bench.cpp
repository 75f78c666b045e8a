// Writing and reading 1 KiB of a DESFire data file in each communication
// mode over the in-process simulated card: the APDUs sent against the number
// the frame limits call for (52 bytes in the first write frame, 59 in each
// further one; 59 in each answer frame), the time the component adds per
// frame on top of the simulator's own exchanges, and the share of it the DES
// work for the same data takes. Prints one table.
#include <chrono>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "bench/measured_pcsc.h"
#include "desfire/secure_messaging.h"
#include "desfire/transfer.h"
#include "elatectwn4/encoder.h"
#include "sim/desfire/desfire_sim.h"
#include "sim/simulated_pcsc.h"

namespace {

using namespace elatectwn4;
using bench::Clock;
using bench::MeasuredPcsc;

constexpr std::int32_t kSize = 1024;
constexpr std::size_t kHeader = 7;
constexpr std::size_t kFirstFrame = 52;
constexpr std::size_t kNextFrame = 59;
constexpr std::size_t kAnswerFrame = 59;
constexpr int kRuns = 300;

const std::string kFactoryKey = "0000000000000000";
const std::string kAppKey = "4A1B7C3D5E6F708192A3B4C5D6E7F809";

std::size_t CeilDiv(std::size_t a, std::size_t b) {
    return (a + b - 1) / b;
}

// The bytes the data takes on the wire in each mode.
std::size_t Protected(std::size_t size, std::int32_t mode) {
    if (mode == dfcPlainMac) return size + 4;
    if (mode == dfcCiphered) return CeilDiv(size + 2, 8) * 8;
    return size;
}

// GetFileSettings, then the frames of the transfer.
long WriteApdus(std::int32_t mode) {
    const std::size_t text = kHeader + Protected(kSize, mode);
    return static_cast<long>(1 + 1 + (text > kFirstFrame ? CeilDiv(text - kFirstFrame, kNextFrame) : 0));
}
long ReadApdus(std::int32_t mode) {
    return static_cast<long>(1 + CeilDiv(Protected(kSize, mode), kAnswerFrame));
}

double Microseconds(Clock::duration d) {
    return std::chrono::duration<double, std::micro>(d).count();
}

// The DES work of one transfer in `mode`, done on its own: what the engines
// compute for the data (MAC, send mode with CRC, or CBC deciphering).
Clock::duration DesWork(std::int32_t mode, bool write) {
    if (mode == dfcPlain) return {};
    desfire::Session session;
    const std::vector<std::uint8_t> key{0x4A, 0x1B, 0x7C, 0x3D, 0x5E, 0x6F, 0x70, 0x81,
                                        0x92, 0xA3, 0xB4, 0xC5, 0xD6, 0xE7, 0xF8, 0x09};
    std::copy(key.begin(), key.end(), session.sessionKey.data());
    const std::vector<std::uint8_t> data(static_cast<std::size_t>(kSize), 0x5A);
    const std::vector<std::uint8_t> answer(Protected(kSize, mode), 0xA5);
    const auto start = Clock::now();
    for (int i = 0; i < kRuns; ++i) {
        if (mode == dfcPlainMac) {
            desfire::LegacyMac(session, data);
        } else if (write) {
            const desfire::FramePiece piece{data, 0};
            desfire::BuildEncipheredFrame(session, std::span(&piece, 1));
        } else {
            const std::int32_t algorithm = desfire::LoadSessionKey(session);
            const cipher::SecretBuffer plain =
                desfire::Transform(session.Engine(), algorithm | cipher::DES::kCbc, answer);
            desfire::Crc16(plain.view().first(static_cast<std::size_t>(kSize)));
        }
    }
    return (Clock::now() - start) / kRuns;
}

}  // namespace

int main() {
    auto simulator = std::make_shared<sim::SimulatedPcsc>();
    simulator->Readers()[0]->Insert(std::make_shared<sim::desfire::DesfireCard>());
    auto pcsc = std::make_shared<MeasuredPcsc>(simulator);
    Encoder encoder(pcsc);
    encoder.Parameters("Device=" + std::string(sim::kDefaultReaderNames[0]) + ";Conformance=card");
    if (encoder.OpenEncoder() != sceSuccess) {
        std::fprintf(stderr, "desfire_transfer_bench: cannot open the simulated reader: %s\n",
                     encoder.LastError().Description.c_str());
        return 1;
    }
    // An application with a Triple-DES master key and a 1 KiB file in each mode.
    encoder.DESFireSelectRoot(kFactoryKey);
    encoder.DESFireCreateApplication("A1B2C3", DesfireKeySettings(0x0F), 1);
    encoder.DESFireSelectApplication("A1B2C3", 0, kFactoryKey);
    encoder.DESFireChangeKey(0, kFactoryKey, kAppKey);
    encoder.DESFireSelectApplication("A1B2C3", 0, kAppKey);
    const std::int32_t modes[] = {dfcPlain, dfcPlainMac, dfcCiphered};
    for (const std::int32_t mode : modes) {
        encoder.DESFireCreateStdDataFile(mode, DesfireCommunicationSettings(mode), dfaAllow_0, dfaAllow_0, dfaAllow_0,
                                         dfaAllow_0, kSize);
    }

    std::string data(2 * kSize, '0');
    for (std::size_t i = 0; i < data.size(); ++i)
        data[i] = "0123456789ABCDEF"[(i * 7 + 3) % 16];
    std::string read;

    std::printf("%-24s %6s %6s %11s %11s %13s %11s %9s\n", "1 KiB transfer", "APDUs", "needed", "total us", "sim us",
                "added us/APDU", "DES us", "DES share");
    int failures = 0;
    for (const std::int32_t mode : modes) {
        for (const bool write : {true, false}) {
            const char* modeName = mode == dfcPlain ? "plain" : mode == dfcPlainMac ? "MAC" : "enciphered";
            const std::string name = std::string(write ? "write, " : "read, ") + modeName;
            const long needed = write ? WriteApdus(mode) : ReadApdus(mode);
            Clock::duration total{}, inside{};
            long apdus = 0;
            bool failed = false;
            for (int i = 0; i < kRuns && !failed; ++i) {
                pcsc->Reset();
                const auto start = Clock::now();
                failed = (write ? encoder.DESFireWriteData(mode, 0, kSize, data, true)
                                : encoder.DESFireReadData(mode, 0, kSize, read, true)) != sceSuccess;
                total += Clock::now() - start;
                inside += pcsc->inside;
                apdus += pcsc->transmissions;
            }
            if (failed || (!write && read != data)) {
                std::printf("%-24s failed: %s (%s)\n", name.c_str(), encoder.LastError().Description.c_str(),
                            encoder.LastError().RdrRetCode.c_str());
                ++failures;
                continue;
            }
            const double perRun = static_cast<double>(apdus) / kRuns;
            const double added = Microseconds(total - inside) / kRuns;
            const double des = Microseconds(DesWork(mode, write));
            const bool match = perRun == static_cast<double>(needed);
            failures += match ? 0 : 1;
            std::printf("%-24s %6.1f %6ld %11.1f %11.1f %13.2f %11.1f %8.0f%%%s\n", name.c_str(), perRun, needed,
                        Microseconds(total) / kRuns, Microseconds(inside) / kRuns, added / perRun, des,
                        added > 0 ? 100.0 * des / added : 0.0, match ? "" : "  <- more APDUs than needed");
        }
    }
    return failures == 0 ? 0 : 1;
}
