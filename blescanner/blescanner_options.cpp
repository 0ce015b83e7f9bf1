#include <loguru.hpp>
#include <popl.hpp>

#include "blescanner.h"
#include "platform/text.h"
#include "settings.h"

namespace blescanner {

namespace {

void printEach(const std::string& title, const std::vector<std::string>& arguments) {
    for (const std::string& argument : arguments)
        print(title + platform::printable(argument) + '\n');
}

// Deliberately always the same file: the given name is echoed and kept, nothing opens it.
void setUpLogFile(const std::string& givenName) {
    if (givenName.empty()) return;
    print("Using log file: " + platform::printable(givenName) + '\n');
    settings().logFileName = platform::widen(givenName);
    loguru::add_file("everything.log", loguru::Append, loguru::Verbosity_MAX);
}

void parse(popl::OptionParser& parser, const std::vector<std::string>& arguments) {
    std::vector<const char*> argv{""};  // the parser skips the program's name
    for (const std::string& argument : arguments)
        argv.push_back(argument.c_str());
    parser.parse(static_cast<int>(argv.size()), argv.data());
}

}  // namespace

ProcessSettings& settings() {
    static ProcessSettings instance;
    return instance;
}

// Of a value given more than once the first counts. Help is no reason to end: the bridge starts all the same.
void setUpOptions(const std::vector<std::string>& arguments) {
    popl::OptionParser parser("Allowed options");
    const auto help = parser.add<popl::Switch>("h", "help", "Display use information");
    const auto cmdPipe = parser.add<popl::Value<std::string>>(
        "c", "cmdPipe", "Command pipe [default \\\\.\\\\pipe\\ZIQBLESh]");
    const auto datPipe = parser.add<popl::Value<std::string>>(
        "d", "datPipe", "Data pipe    [default \\\\.\\\\pipe\\ZIQBLECOM]");
    const auto logFile = parser.add<popl::Value<std::string>>(
        "f", "logfile", "Log to file in addition to stdout [default is none]");
    parse(parser, arguments);

    if (help->is_set()) print(parser.help());
    printEach("non_option_args: ", parser.non_option_args());
    printEach("unknown_options: ", parser.unknown_options());
    if (cmdPipe->is_set()) settings().cmdPipeName = platform::widen(cmdPipe->value());
    if (datPipe->is_set()) settings().datPipeName = platform::widen(datPipe->value());
    if (logFile->is_set()) setUpLogFile(logFile->value());
}

}  // namespace blescanner
