// The production PC/SC boundary over libpcsclite (pcscd). Nothing else in the
// component calls libpcsclite.
#include <winscard.h>

#include <memory>

#include "command/winscard_pcsc.h"

namespace elatectwn4 {

namespace {

struct PcscLiteNames {
    static LONG ListReaders(auto... args) { return SCardListReaders(args...); }
    static LONG Connect(auto... args) { return SCardConnect(args...); }
    static LONG Status(auto... args) { return SCardStatus(args...); }
    static constexpr std::size_t kMaxReaderName = MAX_READERNAME;
    static constexpr std::size_t kMaxAtr = MAX_ATR_SIZE;
};

}  // namespace

std::shared_ptr<PcscApi> SystemPcsc() {
    return std::make_shared<command::WinScardPcsc<PcscLiteNames>>();
}

}  // namespace elatectwn4
