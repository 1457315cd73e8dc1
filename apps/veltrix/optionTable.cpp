// Values of options as text: numbers in a range and switches.
#include "optionTable.h"

namespace vxcli {

std::string parseNumber(const std::string& text, unsigned low, unsigned high, unsigned& into)
{
    std::string problem = "\"" + text + "\" is not a number from " + std::to_string(low) + " to " +
                          std::to_string(high);
    if (text.empty() || text.size() > 9 ||
        text.find_first_not_of("0123456789") != std::string::npos) {
        return problem;
    }
    const unsigned long value = std::stoul(text);
    if (value < low || value > high) {
        return problem;
    }
    into = static_cast<unsigned>(value);
    return {};
}

std::string parseSwitch(const std::string& text, bool& into)
{
    for (const char* yes : {"true", "yes", "on", "1"}) {
        if (text == yes) {
            into = true;
            return {};
        }
    }
    for (const char* no : {"false", "no", "off", "0"}) {
        if (text == no) {
            into = false;
            return {};
        }
    }
    return "\"" + text + "\" is not true or false";
}

} // namespace vxcli
