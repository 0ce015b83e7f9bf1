#include "context.h"

#include <ctime>
#include <iostream>

namespace ziqble {

void Context::print(std::string_view text, const nlohmann::json& object) const {
    if (json) {
        std::cout << toText(object) << std::endl;
    } else if (!text.empty()) {
        std::cout << text << std::endl;
    }
    if (!std::cout) throw Failure(Code::failed, "cannot write to standard output");
}

void Context::tell(std::string_view text, const nlohmann::json& object) const {
    if (!json) return say(text);
    std::cerr << toText(object) << std::endl;
}

void say(std::string_view text) {
    std::cerr << "ziqble: " << text << std::endl;
}

std::string utf8(std::string_view latin1) {
    std::string text;
    for (const char unit : latin1) {
        const auto byte = static_cast<unsigned char>(unit);
        if (byte >= 0x80) text += static_cast<char>(0xC0 | byte >> 6);
        text += static_cast<char>(byte < 0x80 ? byte : 0x80 | (byte & 0x3F));
    }
    return text;
}

std::string timeStamp() {
    const auto now = std::chrono::floor<std::chrono::milliseconds>(std::chrono::system_clock::now());
    const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
    const std::string milliseconds = std::to_string(1000 + now.time_since_epoch() / 1ms % 1000);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S.", std::gmtime(&seconds));
    return text + milliseconds.substr(1) + "Z";
}

std::string toText(const nlohmann::json& object) {
    return object.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

}  // namespace ziqble
