// Throughput of the DES engine against OpenSSL's libcrypto on 1 KiB
// messages, DES-CBC and Triple-DES-CBC, in one run. Prints Google
// Benchmark's table, then one summary line per algorithm with the ratio.
//
//   des_bench [--benchmark_min_time=0.5]
#include <benchmark/benchmark.h>

#define OPENSSL_SUPPRESS_DEPRECATED
#include <openssl/des.h>

#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "cipher/des.h"

namespace {

using elatectwn4::cipher::ByteArray;
using elatectwn4::cipher::DES;
using elatectwn4::cipher::Value;

constexpr std::size_t kMessage = 1024;
constexpr const char* kKeys[3] = {"0123456789ABCDEF", "23456789ABCDEF01", "456789ABCDEF0123"};

ByteArray Message() {
    ByteArray data(kMessage);
    for (std::size_t i = 0; i < data.size(); ++i)
        data[i] = static_cast<std::uint8_t>(i * 131 + 7);
    return data;
}

// The engine as the component calls it: a byte array in, a byte array out.
void EngineCbc(benchmark::State& state, std::int32_t algorithm) {
    DES des;
    for (int i = 0; i < 3; ++i)
        des.Keys(i + 1, kKeys[i]);
    des.InitVector("1234567890ABCDEF");
    const Value message(Message());
    std::int32_t options = algorithm | DES::kCbc;
    for (auto _ : state) {
        Value cipher = des.Encrypt(message, options);
        benchmark::DoNotOptimize(cipher);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * kMessage);
}

void OpenSslCbc(benchmark::State& state, bool triple) {
    DES_key_schedule ks[3];
    for (int i = 0; i < 3; ++i) {
        DES_cblock key;
        for (int j = 0; j < 8; ++j)
            key[j] = static_cast<unsigned char>(std::stoul(std::string(kKeys[i] + 2 * j, 2), nullptr, 16));
        DES_set_key_unchecked(&key, &ks[i]);
    }
    const ByteArray message = Message();
    ByteArray cipher(kMessage);
    for (auto _ : state) {
        DES_cblock iv = {0x12, 0x34, 0x56, 0x78, 0x90, 0xAB, 0xCD, 0xEF};
        if (triple) {
            DES_ede3_cbc_encrypt(message.data(), cipher.data(), kMessage, &ks[0], &ks[1], &ks[2], &iv, DES_ENCRYPT);
        } else {
            DES_ncbc_encrypt(message.data(), cipher.data(), kMessage, &ks[0], &iv, DES_ENCRYPT);
        }
        benchmark::DoNotOptimize(cipher.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * kMessage);
}

BENCHMARK_CAPTURE(EngineCbc, DesCbc1KiB, DES::kSingleDes);
BENCHMARK_CAPTURE(OpenSslCbc, DesCbc1KiB, false);
BENCHMARK_CAPTURE(EngineCbc, TripleDesCbc1KiB, DES::kTripleDes);
BENCHMARK_CAPTURE(OpenSslCbc, TripleDesCbc1KiB, true);

// Keeps the throughput of every run beside the usual console table. CPU
// time, not wall time: the machine is shared, and waiting is not our cost.
class SummaryReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            if (run.error_occurred || run.run_type != Run::RT_Iteration || run.cpu_accumulated_time <= 0) continue;
            const double bytes = static_cast<double>(run.iterations) * kMessage;
            throughput[run.benchmark_name()] = bytes / run.cpu_accumulated_time / 1e6;
        }
        ConsoleReporter::ReportRuns(runs);
    }
    std::map<std::string, double> throughput;  // MB/s of CPU time by benchmark name
};

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    SummaryReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();

    std::printf("\n");
    for (const char* algorithm : {"DesCbc1KiB", "TripleDesCbc1KiB"}) {
        const auto engine = reporter.throughput.find(std::string("EngineCbc/") + algorithm);
        const auto openssl = reporter.throughput.find(std::string("OpenSslCbc/") + algorithm);
        if (engine == reporter.throughput.end() || openssl == reporter.throughput.end()) continue;
        std::printf("%-18s engine %8.1f MB/s   OpenSSL %8.1f MB/s   ratio %.2f\n", algorithm, engine->second,
                    openssl->second, engine->second / openssl->second);
    }
    return 0;
}
