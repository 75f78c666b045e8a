// The production PC/SC boundary over winscard.dll, the Windows smart-card
// resource manager. Nothing else in the component calls WinSCard.
// clang-format off
#include <windows.h>
#include <winscard.h>
// clang-format on

#include <memory>

#include "command/winscard_pcsc.h"

namespace elatectwn4 {

namespace {

// The component's texts are single-byte: the A calls.
struct WinScardNames {
    static LONG ListReaders(auto... args) { return SCardListReadersA(args...); }
    static LONG Connect(auto... args) { return SCardConnectA(args...); }
    static LONG Status(auto... args) { return SCardStatusA(args...); }
    static constexpr std::size_t kMaxReaderName = 256;
    static constexpr std::size_t kMaxAtr = 36;
};

}  // namespace

std::shared_ptr<PcscApi> SystemPcsc() {
    return std::make_shared<command::WinScardPcsc<WinScardNames>>();
}

}  // namespace elatectwn4
