#include "tools/JsonLine.h"

#include <cstdio>

namespace olvane {
namespace tool {

std::string jsonString(const std::string& text) {
    std::string out = "\"";
    for (unsigned char c : text) {
        switch (c) {
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\r':
                out += "\\r";
                break;
            case '\t':
                out += "\\t";
                break;
            default:
                if (c < 0x20) {
                    char buf[8];
                    std::snprintf(buf, sizeof buf, "\\u%04x", c);
                    out += buf;
                } else {
                    out += char(c);
                }
        }
    }
    return out + "\"";
}

std::string jsonSignalLine(const std::string& signal, const std::vector<std::string>& args,
                           long long ms) {
    std::string out = "{\"signal\":" + jsonString(signal) + ",\"args\":[";
    for (size_t i = 0; i < args.size(); ++i) {
        if (i)
            out += ",";
        out += jsonString(args[i]);
    }
    return out + "],\"ms\":" + std::to_string(ms) + "}";
}

}  // namespace tool
}  // namespace olvane
