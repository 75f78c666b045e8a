#include "support/record_text.h"

#include <cstdio>

namespace elatectwn4::test {

std::string RecordText(std::uint32_t number, const std::string& description, std::uint32_t lastDllError,
                       const std::string& comFunction, const std::string& rdrCommand, const std::string& rdrRetCode) {
    char numbers[2][12];
    std::snprintf(numbers[0], sizeof numbers[0], "%08X", static_cast<unsigned>(number));
    std::snprintf(numbers[1], sizeof numbers[1], "%X", static_cast<unsigned>(lastDllError));
    return std::string(numbers[0]) + " | " + description + " | " + numbers[1] + " | " + comFunction + " | " +
           rdrCommand + " | " + rdrRetCode;
}

std::string RecordText(const CError& record) {
    return RecordText(static_cast<std::uint32_t>(record.Number), record.Description,
                      static_cast<std::uint32_t>(record.LastDllError), record.ComFunction, record.RdrCommand,
                      record.RdrRetCode);
}

}  // namespace elatectwn4::test
