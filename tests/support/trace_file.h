// For an executable that checks the trace. The sink reads ELATECTWN4_TRACE
// once per process, so including this header points it at a file of the
// process's own before main runs; the file goes when the process ends.
#pragma once

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace elatectwn4::test {

inline const std::filesystem::path& TraceFile() {
    static const std::filesystem::path path =
        std::filesystem::temp_directory_path() / ("elatectwn4-trace-" + std::to_string(::getpid()) + ".log");
    return path;
}

struct TraceRedirection {
    TraceRedirection() { ::setenv("ELATECTWN4_TRACE", TraceFile().c_str(), 1); }
    ~TraceRedirection() {
        std::error_code ignored;
        std::filesystem::remove(TraceFile(), ignored);
    }
};
inline const TraceRedirection kTraceRedirection;

/// Empties the file in place: the sink keeps appending to the file it opened.
inline void ClearTrace() {
    std::ofstream(TraceFile(), std::ios::trunc).flush();
}

/// The lines written since the last ClearTrace.
inline std::vector<std::string> TraceLines() {
    std::ifstream file(TraceFile());
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);)
        lines.push_back(line);
    return lines;
}

}  // namespace elatectwn4::test
