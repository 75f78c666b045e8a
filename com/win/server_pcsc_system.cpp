// The COM server as hosts load it talks to the readers through winscard.
#include "com/win/module.h"

namespace elatectwn4::com::win {

std::shared_ptr<PcscApi> ServerPcsc() {
    return SystemPcsc();
}

}  // namespace elatectwn4::com::win
