// What EncoderCommand adds around one transmission: template filling, the
// hex parse, the answer split and the status judgement. Each command is timed
// twice in the same run, once through EncoderCommand and once as a bare
// PcscApi::Transmit of the same bytes to the same in-memory reader, and the
// difference is printed per transmission (goal: under 2 microseconds).
#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "cipher/bytes.h"
#include "command/encoder_command.h"
#include "elatectwn4/pcsc.h"

namespace {

using namespace elatectwn4;
using namespace elatectwn4::command;

// A reader that answers from a fixed cycle of frames, as fast as memory allows.
class CannedPcsc final : public PcscApi {
public:
    explicit CannedPcsc(std::vector<std::vector<std::uint8_t>> frames) : frames_(std::move(frames)) {}

    std::uint32_t EstablishContext(std::uint32_t, PcscHandle& context) override {
        context = 1;
        return 0;
    }
    std::uint32_t ReleaseContext(PcscHandle) override { return 0; }
    std::uint32_t ListReaders(PcscHandle, std::vector<std::string>& readers) override {
        readers = {"Bench"};
        return 0;
    }
    std::uint32_t Connect(PcscHandle, const std::string&, std::uint32_t, std::uint32_t, PcscHandle& card,
                          std::uint32_t& protocol) override {
        card = 2;
        protocol = pcsc_const::ProtocolT1;
        return 0;
    }
    std::uint32_t Disconnect(PcscHandle, std::uint32_t) override { return 0; }
    std::uint32_t Status(PcscHandle, PcscStatus&) override { return 0; }
    std::uint32_t GetAttrib(PcscHandle, std::uint32_t, std::vector<std::uint8_t>&) override { return 0; }
    std::uint32_t Transmit(PcscHandle, std::uint32_t, std::span<const std::uint8_t> command,
                           std::span<std::uint8_t> answer, std::size_t& received) override {
        benchmark::DoNotOptimize(command.data());
        const auto& frame = frames_[next_];
        next_ = next_ + 1 == frames_.size() ? 0 : next_ + 1;
        std::copy(frame.begin(), frame.end(), answer.begin());
        received = frame.size();
        return 0;
    }

private:
    std::vector<std::vector<std::uint8_t>> frames_;
    std::size_t next_ = 0;
};

struct Case {
    std::string name;
    std::uint32_t code;
    Params params;
    std::vector<std::string> sentHex;    // the bytes of each frame, for the bare run
    std::vector<std::string> answerHex;  // the answer of each frame
    bool more;
};

std::vector<Case> Cases() {
    const std::string block = "00112233445566778899AABBCCDDEEFF";
    const std::string data32 = block + block;
    return {
        {"ReadBinary", cmd::ReadBinary, {4}, {"FFB0000400"}, {block + "9000"}, false},
        {"LoadKey", cmd::LoadKey, {0, 1, std::string("A0A1A2A3A4A5")}, {"FF82000106A0A1A2A3A4A5"}, {"9000"}, false},
        {"GeneralAuthenticate", cmd::GeneralAuthenticate, {4, 2, 1}, {"FF860000050100046101"}, {"9000"}, false},
        {"WriteBinary", cmd::WriteBinary, {4, block}, {"FFD6000410" + block}, {"9000"}, false},
        {"DesfireReadData",
         cmd::DesfireReadData,
         {std::string("01"), std::string("000000"), std::string("200000")},
         {"BD01000000200000"},
         {"00" + data32},
         false},
        {"DesfireWriteData",
         cmd::DesfireWriteData,
         {std::string(""), std::string("20"), "01000000200000" + data32},
         {"3D01000000200000" + data32},
         {"00"},
         false},
        {"DesfireGetVersion (3 frames)",
         cmd::DesfireGetVersion,
         {},
         {"60", "AF", "AF"},
         {"AF04010101001A05", "AF04010101041A05", "0004A1B2C3D4E5F6112233445566"},
         true},
    };
}

std::vector<std::vector<std::uint8_t>> Frames(const std::vector<std::string>& hex) {
    std::vector<std::vector<std::uint8_t>> frames;
    for (const auto& h : hex)
        frames.push_back(cipher::ParseHex(h).value());
    return frames;
}

void ThroughEncoderCommand(benchmark::State& state, const Case& c) {
    CannedPcsc reader(Frames(c.answerHex));
    Channel channel{&reader, 1, 2, pcsc_const::ProtocolT1};
    for (auto _ : state) {
        const Outcome outcome = EncoderCommand(channel, c.code, c.params, {.moreResponse = c.more});
        if (!outcome.ok()) {
            state.SkipWithError(("EncoderCommand failed: " + outcome.StatusText()).c_str());
            break;
        }
        benchmark::DoNotOptimize(outcome.data.data());
    }
    state.counters["frames"] = static_cast<double>(c.sentHex.size());
}

void BareTransmit(benchmark::State& state, const Case& c) {
    CannedPcsc reader(Frames(c.answerHex));
    const auto commands = Frames(c.sentHex);
    std::array<std::uint8_t, pcsc_const::MaxAnswer> answer;
    PcscApi& api = reader;
    for (auto _ : state) {
        for (const auto& command : commands) {
            std::size_t received = answer.size();
            benchmark::DoNotOptimize(api.Transmit(2, pcsc_const::ProtocolT1, command, answer, received));
            benchmark::DoNotOptimize(received);
        }
    }
    state.counters["frames"] = static_cast<double>(commands.size());
}

// Prints the usual table, and keeps each run's time to print the differences.
class DifferenceReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            if (run.error_occurred || run.run_type != Run::RT_Iteration) continue;
            const double toNs = 1e9 / benchmark::GetTimeUnitMultiplier(run.time_unit);
            times_[run.benchmark_name()] = {run.GetAdjustedCPUTime() * toNs, run.GetAdjustedRealTime() * toNs};
        }
    }

    // CPU time decides: on a shared machine wall time also counts the other
    // processes; it is printed beside it for reference.
    void PrintDifferences(const std::vector<Case>& cases) const {
        std::printf("\nTime EncoderCommand adds per transmission (ns), against a bare Transmit of the same bytes\n");
        std::printf("%-30s %9s %9s %9s %11s %8s\n", "command", "bare cpu", "cmd cpu", "added", "added wall", "< 2 us");
        for (const Case& c : cases) {
            const auto bare = times_.find("bare/" + c.name);
            const auto full = times_.find("EncoderCommand/" + c.name);
            if (bare == times_.end() || full == times_.end()) continue;
            const double frames = static_cast<double>(c.sentHex.size());
            const double added = (full->second.cpu - bare->second.cpu) / frames;
            const double addedWall = (full->second.wall - bare->second.wall) / frames;
            std::printf("%-30s %9.1f %9.1f %9.1f %11.1f %8s\n", c.name.c_str(), bare->second.cpu, full->second.cpu,
                        added, addedWall, added < 2000.0 ? "yes" : "NO");
        }
    }

private:
    struct Times {
        double cpu;
        double wall;
    };
    std::map<std::string, Times> times_;
};

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    const std::vector<Case> cases = Cases();
    for (const Case& c : cases) {
        benchmark::RegisterBenchmark(("bare/" + c.name).c_str(), BareTransmit, c);
        benchmark::RegisterBenchmark(("EncoderCommand/" + c.name).c_str(), ThroughEncoderCommand, c);
    }
    DifferenceReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.PrintDifferences(cases);
    benchmark::Shutdown();
    return 0;
}
