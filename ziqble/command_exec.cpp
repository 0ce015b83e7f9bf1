#include <algorithm>
#include <cctype>

#include "commands.h"

namespace ziqble {

namespace {

struct ExecOptions {
    std::vector<std::string> lines;
    double limit = 30;  // seconds for each answer
};

// Every line that comes back goes to `show`.
template <class Show>
Awaitable<> execute(Bridge& bridge, std::string line, Seconds limit, Show& show) {
    std::string command = line;
    std::transform(command.begin(), command.end(), command.begin(),
                   [](unsigned char byte) { return std::tolower(byte); });
    if (command == "quit" || command == "exit") co_return co_await bridge.leave(line, limit);
    const std::string answer = co_await bridge.ask(line, limit);
    show(answer);
    if (command.starts_with("lescan") && answer == "LE NOT SUPPORTED")
        show(co_await bridge.answer(line, limit));
    if (!command.starts_with("connect") || answer != "OK") co_return;
    const auto outcome = co_await bridge.linkLine(in(limit));
    if (!outcome) throw Failure(Code::timeOver, "nothing has come of \"" + line + "\" in time");
    show(*outcome);
}

Awaitable<> executeAll(Bridge& bridge, const ExecOptions& options) {
    nlohmann::json lines = nlohmann::json::array();
    const auto show = [&](const std::string& line) {
        lines.push_back(line);
        if (!bridge.context.json) bridge.context.print(line, {});
    };
    std::exception_ptr failure;
    try {
        for (const std::string& line : options.lines)
            co_await execute(bridge, line, Seconds(options.limit), show);
    } catch (...) {
        failure = std::current_exception();
    }
    if (bridge.context.json) bridge.context.print({}, {{"lines", lines}});
    if (failure) std::rethrow_exception(failure);
}

}  // namespace

void addExec(CommandLine& line) {
    const auto options = std::make_shared<ExecOptions>();
    CLI::App* const command =
        line.add("exec", "Send lines of the bridge's protocol and print what comes back",
                 [options](Bridge& bridge) { return executeAll(bridge, *options); });
    command->add_option("LINE", options->lines, "For instance \"lescan 2000\"")->required();
    command->add_option("--time", options->limit, "Seconds for each answer")
        ->check(numberFrom(0, kLongest))
        ->capture_default_str();
}

}  // namespace ziqble
