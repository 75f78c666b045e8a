// The English texts of PC/SC return codes; the public PCSCErrorText, under
// the command layer's name.
#pragma once

#include "elatectwn4/pcsc.h"

namespace elatectwn4::command {

using elatectwn4::PCSCErrorText;

}  // namespace elatectwn4::command
