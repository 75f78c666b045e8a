// The one table of every automation member: its description and how to call it.
#pragma once

#include <span>

#include "com/member.h"

namespace elatectwn4::com {

std::span<const MemberRow> MemberRows();

}  // namespace elatectwn4::com
