// Value files (read the value, debit, credit, limited credit) and clearing a
// record file. The value members move their data through the transfer
// engines, so MAC and encipherment follow the file's communication settings.
#pragma once

#include <cstdint>

#include "desfire/desfire.h"

namespace elatectwn4::desfire {

// Every member needs a session (0x90010E11 first). The value members take
// file numbers 0..7 (0x90010E41) and refuse any other kind of file
// (0x90010E48 from GetValue, 0x90010E03 from the others).

/// The low byte of FileNo goes to the card unchecked: 257 clears file 1.
sceReturnCode DESFireClearRecordFile(Context& ctx, std::int32_t FileNo);
/// ValueData = the committed value (two's complement); unchanged on a failure.
sceReturnCode DESFireGetValue(Context& ctx, std::int32_t FileNo, std::int32_t& ValueData);

// Amount 0 or more (0x90010E4E). The change takes effect with
// DESFireCommitTransaction. A card that refuses it for the file's limits
// ("BE") gives 0x90010E50 for debit and credit, 0x90010E51 for limited
// credit, with RdrCommand and RdrRetCode empty.
sceReturnCode DESFireDebit(Context& ctx, std::int32_t FileNo, std::int32_t Amount);
sceReturnCode DESFireCredit(Context& ctx, std::int32_t FileNo, std::int32_t Amount);
sceReturnCode DESFireLimitedCredit(Context& ctx, std::int32_t FileNo, std::int32_t Amount);

}  // namespace elatectwn4::desfire
