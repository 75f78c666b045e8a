// Writing the error record, and the exception that carries a failure from
// deep inside an operation up to the public edge.
#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>

#include "elatectwn4/error.h"

namespace elatectwn4::command {

/// The arguments of SetError: every member is optional and an absent one
/// leaves its field of the record unchanged.
struct ErrorUpdate {
    std::optional<std::int64_t> number{};  ///< stored modulo 2^32, read back signed
    std::optional<std::string> description{};
    std::optional<std::int64_t> lastDllError{};
    std::optional<std::string> comFunction{};
    std::optional<std::string> rdrCommand{};
    std::optional<std::string> rdrRetCode{};
};

/// Writes the given members into the record; never fails.
void SetError(CError& record, const ErrorUpdate& update) noexcept;

/// Empties the record and names the operation now running.
void ClearError(CError& record, const std::string& comFunction = {}) noexcept;

/// Sets all six members: the number with its own description, and the rest.
void Fail(CError& record, ErrorNumber number, const std::string& comFunction, const std::string& rdrCommand = {},
          const std::string& rdrRetCode = {}, std::int64_t lastDllError = 0) noexcept;

/// A run-time error raised inside the component (a DES engine refusal, an
/// overflow, a raised DESFire failure). Public operations catch it and turn
/// it into the record with RecordRuntimeError.
class RuntimeError : public std::runtime_error {
public:
    RuntimeError(std::int64_t number, const std::string& description, std::string source = {})
        : std::runtime_error(description), number_(number), source_(std::move(source)) {}
    std::int64_t number() const noexcept { return number_; }
    const std::string& source() const noexcept { return source_; }

private:
    std::int64_t number_;
    std::string source_;
};

/// Error numbers of run-time errors that are not the component's own table.
inline constexpr std::int64_t RuntimeOverflow = 6;                    ///< "Overflow"
inline constexpr std::int64_t RuntimeTypeMismatch = 13;               ///< "Type mismatch"
inline constexpr std::int64_t RuntimeInvalidCall = 5;                 ///< "Invalid procedure call or argument"
inline constexpr std::int64_t RuntimeUserDefined = 0x800A0000 + 513;  ///< object-raised errors (DES engine)

/// The record after an unexpected exception escaped an operation: the
/// number and text of a RuntimeError (or "Unexpected error: ..." for any other
/// exception), the operation's name, nothing else.
void RecordRuntimeError(CError& record, const std::string& comFunction) noexcept;

}  // namespace elatectwn4::command
