#include <asio/co_spawn.hpp>
#include <iostream>
#include <regex>
#include <thread>

#include "commands.h"

namespace ziqble {

namespace {

std::string checkAddress(const std::string& text) {
    static const std::regex form("([0-9A-Fa-f]{2}:){5}[0-9A-Fa-f]{2}");
    if (std::regex_match(text, form)) return {};
    return "\"" + text + "\" is no address: six hexadecimal bytes with colons, as \"ziqble scan\" lists them";
}

int tell(const Context& context, const std::string& what, int code) {
    context.tell(what, {{"error", what}, {"code", code}});
    return code;
}

int exitCode(const Context& context, const std::exception_ptr& ending) {
    try {
        if (ending) std::rethrow_exception(ending);
        return static_cast<int>(Code::done);
    } catch (const Failure& failure) {
        return tell(context, failure.what(), static_cast<int>(failure.code));
    } catch (const Interrupted& end) {
        return tell(context, "ended by signal " + std::to_string(end.signal), 128 + end.signal);
    } catch (const std::exception& error) {
        return tell(context, error.what(), static_cast<int>(Code::failed));
    }
}

constexpr auto kLongestEnd = 15s;

// Whatever the rest of the program waits for, a write to a full pipe for instance: it ends after a signal.
void limitEnd(asio::signal_set& signals) {
    signals.async_wait([](const asio::error_code& error, int signal) {
        if (error) return;
        std::this_thread::sleep_for(kLongestEnd);
        std::_Exit(128 + signal);
    });
}

}  // namespace

CLI::Validator numberFrom(double least, double most) {
    const auto check = [least, most](const std::string& text) -> std::string {
        double number = 0;
        if (CLI::detail::lexical_cast(text, number) && number >= least && number <= most) return {};
        return "\"" + text + "\" is no number from " + nlohmann::json(least).dump() + " to " +
               nlohmann::json(most).dump();
    };
    return {check, ""};
}

CommandLine::CommandLine(Context& given)
    : context(given),
      app_(
          "Terminal, serial port, TCP port, streams and commands over ZIQBLEConnect, the Bluetooth LE serial "
          "bridge.",
          "ziqble") {
    app_.set_version_flag("--version", "ziqble " ZIQBLE_VERSION);
    app_.allow_windows_style_options(false);  // a path may begin with a slash
    app_.require_subcommand(0, 1);
    app_.fallthrough();
    app_.footer(
        "--cmd-pipe, --dat-pipe, --json, --wait, --start and --sim go with every command: see ziqble "
        "--help.\n"
        "Exit codes: 0 done, 1 a file or a port failed, 2 wrong usage, 3 no bridge, 4 another client has the "
        "pipe,\n"
        "5 the link did not come up, 6 the link was lost, 7 time was over, 128+N ended by signal N.");
    app_.add_option("--cmd-pipe", context.cmdPipe, "Command pipe of the bridge")->capture_default_str();
    app_.add_option("--dat-pipe", context.datPipe, "Data pipe of the bridge")->capture_default_str();
    app_.add_flag("--json", context.json, "Answers and errors as JSON");
    app_.add_flag("--wait", context.wait, "Wait until the bridge is there and no other client has it");
    CLI::Option* const start = app_.add_flag("--start", context.start,
                                             "Start the bridge where there is none, and end it afterwards");
    app_.add_flag("--sim", context.sim, "With --start: the bridge with a simulated peripheral")->needs(start);
    for (const auto addCommand : {addScan, addConnect, addDisconnect, addStats, addReset, addExit, addExec,
                                  addSend, addReceive, addPipe, addTerm, addServe})
        addCommand(*this);
}

CLI::App* CommandLine::addPlain(const char* name, const char* what, std::function<Awaitable<>()> work) {
    CLI::App* const command = app_.add_subcommand(name, what);
    command->final_callback([this, work] { chosen_ = work; });
    return command;
}

CLI::App* CommandLine::add(const char* name, const char* what, BridgeWork work, BridgeWork cleanUp) {
    return addPlain(name, what, [this, work, cleanUp] { return withBridge(context, work, cleanUp); });
}

CLI::App* CommandLine::addForLink(const char* name, const char* what,
                                  std::function<Awaitable<>(Link&)> work) {
    const auto options = std::make_shared<LinkOptions>();
    CLI::App* const command =
        addPlain(name, what, [this, options, work] { return withLink(context, *options, work); });
    addLinkOptions(command, *options);
    return command;
}

void CommandLine::addAddress(CLI::App* command, LinkOptions& options) {
    command->add_option("ADDRESS", options.address, "The peripheral's, as \"scan\" lists it")
        ->required()
        ->check(CLI::Validator(checkAddress, ""));
    command->add_option("--time", options.limit, "Seconds in which the link has to come up")
        ->check(numberFrom(0, kLongest))
        ->capture_default_str();
}

void CommandLine::addLinkOptions(CLI::App* command, LinkOptions& options) {
    addAddress(command, options);
    command->add_option("--trace", options.trace,
                        "File for every packet (pcapng, for Wireshark); - for hex on standard error");
}

int CommandLine::run(int argc, char** argv) {
    try {
        app_.parse(argc, argv);
        if (!chosen_) throw CLI::RequiredError("A command");
        if (context.start && app_.got_subcommand("connect"))
            throw CLI::ValidationError(
                "--start", "the link would end with the bridge; send, pipe, term and serve use it");
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0) return app_.exit(error);  // help, or the version
        context.json = app_.count("--json") > 0;                  // it may not have been taken over yet
        return tell(context, std::string(error.what()) + "\n  Run with --help for more information.",
                    static_cast<int>(Code::usage));
    }
    asio::signal_set signals(context.blocking);
    for (const int number : host::endSignals()) {
        context.signals.add(number);
        signals.add(number);
    }
    limitEnd(signals);
    std::exception_ptr ending;
    asio::co_spawn(context.io, chosen_(), [&](const std::exception_ptr& thrown) {
        ending = thrown;
        context.io.stop();
    });
    context.io.run();
    return exitCode(context, ending);
}

}  // namespace ziqble

int main(int argc, char** argv) {
    ziqble::host::prepareProcess();
    ziqble::Context context;
    const int code = ziqble::CommandLine(context).run(argc, argv);
    // A thread may still wait in a call that reads or writes a standard stream.
    std::cout.flush();
    std::_Exit(code);
}
