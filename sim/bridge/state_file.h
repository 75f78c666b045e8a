// The file in which a virtual card keeps its contents between runs.
#pragma once

#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>

namespace elatectwn4::sim::bridge {

/// The document stored at `path`, or nullopt when there is no such file.
/// Throws std::runtime_error when the file exists but cannot be read or is
/// not JSON.
std::optional<nlohmann::json> ReadStateFile(const std::filesystem::path& path);

/// Replaces the file at `path` with `state`. The document is written to a
/// temporary file beside it, flushed and renamed over the old one, so a
/// reader (or a crash) sees either the old contents or the new, never half.
/// Throws std::runtime_error when the file cannot be written.
void WriteStateFile(const std::filesystem::path& path, const nlohmann::json& state);

}  // namespace elatectwn4::sim::bridge
