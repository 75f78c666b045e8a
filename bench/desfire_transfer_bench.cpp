// Writing and reading 1 KiB of a DESFire data file in each communication
// mode over the in-process simulated card: the APDUs sent against the number
// the frame limits call for (52 bytes in the first write frame, 59 in each
// further one; 59 in each answer frame), the time the component adds per
// frame on top of the simulator's own exchanges, and the share of it the DES
// work for the same data takes. Prints one table.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "bench/simulated_desfire.h"
#include "desfire/secure_messaging.h"
#include "desfire/transfer.h"

namespace {

using namespace elatectwn4;
using bench::Clock;

constexpr std::int32_t kSize = 1024;
constexpr std::size_t kHeader = 7;
constexpr std::size_t kFirstFrame = 52;
constexpr std::size_t kNextFrame = 59;
constexpr std::size_t kAnswerFrame = 59;
constexpr int kRuns = 300;

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
// compute for the data (MAC, send mode with CRC, or CBC deciphering). The
// fastest of kRuns, as for the transfers, so that other load on the machine
// counts as little as it can.
Clock::duration DesWork(std::int32_t mode, bool write) {
    if (mode == dfcPlain) return {};
    desfire::Session session;
    const std::vector<std::uint8_t> key{0x4A, 0x1B, 0x7C, 0x3D, 0x5E, 0x6F, 0x70, 0x81,
                                        0x92, 0xA3, 0xB4, 0xC5, 0xD6, 0xE7, 0xF8, 0x09};
    std::copy(key.begin(), key.end(), session.sessionKey.data());
    const std::vector<std::uint8_t> data(static_cast<std::size_t>(kSize), 0x5A);
    const std::vector<std::uint8_t> answer(Protected(kSize, mode), 0xA5);
    Clock::duration fastest = Clock::duration::max();
    for (int i = 0; i < kRuns; ++i) {
        const auto start = Clock::now();
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
        fastest = std::min(fastest, Clock::now() - start);
    }
    return fastest;
}

}  // namespace

int main() {
    // An application with a Triple-DES master key and a 1 KiB file in each mode.
    bench::SimulatedDesfire run = bench::OpenSimulatedDesfire("desfire_transfer_bench", 1);
    if (!run.encoder) return 1;
    Encoder& encoder = *run.encoder;
    bench::MeasuredPcsc* pcsc = run.pcsc.get();
    encoder.DESFireSelectApplication("A1B2C3", 0, bench::kAppKey);
    const std::int32_t modes[] = {dfcPlain, dfcPlainMac, dfcCiphered};
    for (const std::int32_t mode : modes) {
        encoder.DESFireCreateStdDataFile(mode, DesfireCommunicationSettings(mode), dfaAllow_0, dfaAllow_0, dfaAllow_0,
                                         dfaAllow_0, kSize);
    }

    std::string data(2 * kSize, '0');
    for (std::size_t i = 0; i < data.size(); ++i)
        data[i] = "0123456789ABCDEF"[(i * 7 + 3) % 16];
    std::string read;

    // Times are those of the run in which the component added the least.
    std::printf("%-24s %6s %6s %11s %11s %13s %11s %9s\n", "1 KiB transfer", "APDUs", "needed", "total us", "sim us",
                "added us/APDU", "DES us", "DES share");
    int failures = 0;
    for (const std::int32_t mode : modes) {
        for (const bool write : {true, false}) {
            const char* modeName = mode == dfcPlain ? "plain" : mode == dfcPlainMac ? "MAC" : "enciphered";
            const std::string name = std::string(write ? "write, " : "read, ") + modeName;
            const long needed = write ? WriteApdus(mode) : ReadApdus(mode);
            Clock::duration total = Clock::duration::max(), inside{};
            long apdus = 0;
            bool failed = false;
            for (int i = 0; i < kRuns && !failed; ++i) {
                pcsc->Reset();
                const auto start = Clock::now();
                failed = (write ? encoder.DESFireWriteData(mode, 0, kSize, data, true)
                                : encoder.DESFireReadData(mode, 0, kSize, read, true)) != sceSuccess;
                const Clock::duration took = Clock::now() - start;
                if (took - pcsc->inside < total - inside) {
                    total = took;
                    inside = pcsc->inside;
                }
                apdus += pcsc->transmissions;
            }
            if (failed || (!write && read != data)) {
                std::printf("%-24s failed: %s (%s)\n", name.c_str(), encoder.LastError().Description.c_str(),
                            encoder.LastError().RdrRetCode.c_str());
                ++failures;
                continue;
            }
            const double perRun = static_cast<double>(apdus) / kRuns;
            const double added = Microseconds(total - inside);
            const double des = Microseconds(DesWork(mode, write));
            const bool match = perRun == static_cast<double>(needed);
            failures += match ? 0 : 1;
            std::printf("%-24s %6.1f %6ld %11.1f %11.1f %13.2f %11.1f %8.0f%%%s\n", name.c_str(), perRun, needed,
                        Microseconds(total), Microseconds(inside), added / perRun, des,
                        added > 0 ? 100.0 * des / added : 0.0, match ? "" : "  <- more APDUs than needed");
        }
    }
    return failures == 0 ? 0 : 1;
}
