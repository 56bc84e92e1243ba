#pragma once

#include <string>
#include <vector>

namespace olvane {
namespace tool {

// JSON string literal for UTF-8 text (quotes included).
std::string jsonString(const std::string& text);
// {"signal":"<name>","args":[...],"ms":<ms>}
std::string jsonSignalLine(const std::string& signal, const std::vector<std::string>& args,
                           long long ms);

}  // namespace tool
}  // namespace olvane
