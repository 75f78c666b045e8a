// A stand-in for twn4-configure.exe that speaks the dialog protocol as told,
// for the tests of Configure's child process under Wine (no window). A script
// cannot set the environment under Wine, so the program is told through
// files in its own folder:
//   fake_dialog.log      every line the component sends is appended here
//   fake_dialog.actions  after "show", steps separated by ";":
//     say:TEXT   writes TEXT and a line end ("\t" in TEXT becomes a tab)
//     read       reads one line (logged)
//     exit:N     ends with status N
//   Missing: "ok" with the reader the component named as current.
#include <windows.h>

#include <cstdlib>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>

#include "encoder/dialog_protocol.h"

namespace {

std::string pending;

std::optional<std::string> ReadLine() {
    return elatectwn4::dialog::NextLine(pending, [](char* buffer, std::size_t size) {
        DWORD got = 0;
        if (!ReadFile(GetStdHandle(STD_INPUT_HANDLE), buffer, static_cast<DWORD>(size), &got, nullptr)) return 0L;
        return static_cast<long>(got);
    });
}

std::string Beside(const char* name) {
    char path[MAX_PATH];
    const DWORD length = GetModuleFileNameA(nullptr, path, MAX_PATH);
    const std::string own(path, length);
    return own.substr(0, own.find_last_of('\\') + 1) + name;
}

void Log(const std::string& line) {
    std::ofstream(Beside("fake_dialog.log"), std::ios::app | std::ios::binary) << line << '\n';
}

void Say(const std::string& what) {
    std::string text;
    for (std::size_t i = 0; i < what.size(); ++i) {
        const bool tab = what.compare(i, 2, "\\t") == 0;
        text += tab ? '\t' : what[i];
        i += tab ? 1 : 0;
    }
    text += '\n';
    DWORD written = 0;
    WriteFile(GetStdHandle(STD_OUTPUT_HANDLE), text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
}

}  // namespace

int main() {
    std::string current;
    while (const std::optional<std::string> line = ReadLine()) {
        Log(*line);
        if (line->rfind("current\t", 0) == 0) current = line->substr(8);
        if (*line == "show") break;
    }
    std::string actions = "say:ok\\t" + current;
    std::getline(std::ifstream(Beside("fake_dialog.actions"), std::ios::binary), actions);
    std::istringstream steps(actions);
    for (std::string step; std::getline(steps, step, ';');) {
        if (step.rfind("say:", 0) == 0) {
            Say(step.substr(4));
        } else if (step == "read") {
            if (const std::optional<std::string> line = ReadLine()) Log(*line);
        } else if (step.rfind("exit:", 0) == 0) {
            return std::atoi(step.c_str() + 5);
        }
    }
    return 0;
}
