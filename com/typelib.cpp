#include "com/typelib.h"

#include "com/member_table.h"

namespace elatectwn4::com {

std::span<const MemberRow> MemberRows() {
    return kMemberRows;
}

}  // namespace elatectwn4::com
