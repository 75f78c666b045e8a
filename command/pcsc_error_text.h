#pragma once

#include <cstdint>
#include <string>

namespace elatectwn4::command {

/// English text of a PC/SC return code; "Unexpected error 0x8010xxxx" for
/// codes without a text of their own.
std::string PCSCErrorText(std::uint32_t code);

}  // namespace elatectwn4::command
