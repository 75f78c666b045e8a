#include "command/trace.h"

#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>

#include "cipher/bytes.h"
#include "command/trace_file.h"

namespace elatectwn4::command {

namespace {

// Opened once per process: every Encoder shares the one debug log, and the
// lock keeps lines of two encoders on two threads from interleaving.
class Sink {
public:
    Sink() {
        const char* target = std::getenv("ELATECTWN4_TRACE");
        if (target == nullptr || *target == '\0') return;
        if (std::string_view(target) == "stderr") {
            file_ = stderr;
        } else {
            file_ = OpenPrivateLog(target);
            owned_ = file_ != nullptr;
        }
    }
    ~Sink() {
        if (owned_) std::fclose(file_);
    }
    Sink(const Sink&) = delete;
    Sink& operator=(const Sink&) = delete;

    bool enabled() const noexcept { return file_ != nullptr; }

    void write(std::string_view line) noexcept {
        if (file_ == nullptr) return;
        std::lock_guard lock(mutex_);
        std::fwrite(line.data(), 1, line.size(), file_);
        std::fputc('\n', file_);
        std::fflush(file_);
    }

private:
    std::FILE* file_ = nullptr;
    bool owned_ = false;
    std::mutex mutex_;
};

Sink& TheSink() {
    static Sink sink;
    return sink;
}

}  // namespace

bool TraceEnabled() noexcept {
    return TheSink().enabled();
}

void Trace(std::string_view line) noexcept {
    TheSink().write(line);
}

void TraceBytes(std::string_view prefix, std::span<const std::uint8_t> bytes, SecretRange secret) noexcept {
    if (!TraceEnabled()) return;
    try {
        auto hidden = [&](std::size_t i) { return i >= secret.from && i - secret.from < secret.count; };
        std::string line(prefix);
        for (std::size_t i = 0; i < bytes.size(); ++i)
            line += hidden(i) ? std::string("**") : cipher::ToHex(bytes[i]);
        line += " (";
        for (std::size_t i = 0; i < bytes.size(); ++i) {
            if (i != 0) line += ',';
            line += hidden(i) ? std::string("*") : std::to_string(bytes[i]);
        }
        line += ')';
        Trace(line);
    } catch (...) {
        // A trace line is never worth failing an operation for.
    }
}

}  // namespace elatectwn4::command
