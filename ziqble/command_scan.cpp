#include <cmath>
#include <regex>

#include "commands.h"

namespace ziqble {

namespace {

// "ADDRESS[;NAME],...". A name may hold commas, so a device begins where an address stands.
nlohmann::json devices(const std::string& answer) {
    static const std::regex begin("(?:^|,)(([0-9a-f]{2}:){5}[0-9a-f]{2})(?=;|,|$)");
    nlohmann::json found = nlohmann::json::array();
    for (std::sregex_iterator next(answer.begin(), answer.end(), begin), end; next != end;) {
        const std::smatch device = *next++;
        const auto from = static_cast<std::size_t>(device.position() + device.length());
        const auto to = next == end ? answer.size() : static_cast<std::size_t>(next->position());
        found.push_back({{"address", device.str(1)}, {"name", answer.substr(from, to - from).erase(0, 1)}});
    }
    return found;
}

Awaitable<> listDevices(Bridge& bridge, double seconds) {
    const std::string command = "lescan " + std::to_string(std::lround(seconds * 1000));
    std::string answer = co_await bridge.ask(command, Seconds(seconds + 10));
    if (answer == "LE NOT SUPPORTED") answer = co_await bridge.answer(command, Seconds(seconds + 10));
    if (answer == "BLE DISABLED!" || answer == "BLE NOT FOUND")
        throw Failure(Code::noLink, "the bridge cannot scan: " + answer,
                      "Switch Bluetooth on, or plug in an adapter.");

    const nlohmann::json found = devices(answer);
    std::string text;
    for (const auto& device : found)
        text += (text.empty() ? "" : "\n") + device["address"].get<std::string>() + "  " +
                device["name"].get<std::string>();
    if (found.empty() && !bridge.context.json) say("no peripheral in range");
    bridge.context.print(text, {{"devices", found}});
}

}  // namespace

void addScan(CommandLine& line) {
    const auto seconds = std::make_shared<double>(3);
    line.add("scan", "List the peripherals in range",
             [seconds](Bridge& bridge) { return listDevices(bridge, *seconds); })
        ->add_option("--time", *seconds, "Seconds to look for them")
        ->check(numberFrom(1.0, 3600.0))
        ->capture_default_str();
}

}  // namespace ziqble
