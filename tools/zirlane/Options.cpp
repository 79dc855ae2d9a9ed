// Checks of the command line that several commands share. A wrong value
// gets a message of a few words that names the option and the value.
#include <charconv>

#include "Commands.h"

CLI::Validator ZirlaneWholeNumber(int iMax) {
    const std::string range = "a whole number from 1 to " + std::to_string(iMax);
    return CLI::Validator(
        [iMax, range](std::string& text) -> std::string {
            int i = 0;
            const char* pEnd = text.data() + text.size();
            auto [p, ec] = std::from_chars(text.data(), pEnd, i);
            if (ec != std::errc() || p != pEnd || i < 1 || i > iMax) return "must be " + range + ", not '" + text + "'";
            return {};
        },
        "1.." + std::to_string(iMax));
}

void ZirlaneAddDataSetOption(CLI::App& cmd, int* piDataSet, const std::string& description) {
    // Data set numbers are 16 bits wide in the tape format.
    cmd.add_option("--data-set", *piDataSet, description)->default_val(1)->check(ZirlaneWholeNumber(65535));
}

void ZirlaneUsageError(const std::string& option, const std::string& message) {
    throw CLI::ValidationError(option, message);
}
