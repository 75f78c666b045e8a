// What the link's test and the end-to-end program share: a line to a bridge's
// control socket.
#pragma once

#include <string>

namespace elatectwn4::e2e {

/// One line to a bridge's control socket ("remove", "insert", "status") and
/// its one-line answer; a text in angle brackets when the socket is not there.
std::string Control(const std::string& socketPath, const std::string& command);

}  // namespace elatectwn4::e2e
