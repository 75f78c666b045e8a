// The dialog program is a GTK window started as a POSIX child; Windows has no
// build of it, so Configure says so before starting anything.
#include <cerrno>
#include <system_error>

#include "encoder/dialog.h"

namespace elatectwn4::dialog {

std::string WhyNoDialog(const std::string&) {
    return "The configuration dialog is not available on Windows";
}

ChildProcess::ChildProcess(const std::string&) {
    throw std::system_error(ENOSYS, std::generic_category(), "dialog program");
}

ChildProcess::~ChildProcess() = default;

void ChildProcess::Send(std::string_view) noexcept {}

std::optional<std::string> ChildProcess::Receive() {
    return std::nullopt;
}

std::string ChildProcess::Wait() {
    return {};
}

}  // namespace elatectwn4::dialog
