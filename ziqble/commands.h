// What the commands add to the command line, each in a file of its own.
#pragma once

#include <CLI/CLI.hpp>

#include "link.h"

namespace ziqble {

class CommandLine {
  public:
    explicit CommandLine(Context& given);

    // Adds a command that uses a bridge. It throws Failure when it cannot do what was asked for, and
    // Interrupted when a signal came first.
    CLI::App* add(const char* name, const char* what, BridgeWork work, BridgeWork cleanUp = {});
    // Adds a command that uses a link, with its options.
    CLI::App* addForLink(const char* name, const char* what, std::function<Awaitable<>(Link&)> work);
    // Adds a command that opens what it needs by itself.
    CLI::App* addPlain(const char* name, const char* what, std::function<Awaitable<>()> work);
    static void addAddress(CLI::App* command, LinkOptions& options);
    static void addLinkOptions(CLI::App* command, LinkOptions& options);

    // Runs the command that the arguments choose. The exit code.
    int run(int argc, char** argv);

    Context& context;

  private:
    CLI::App app_;
    std::function<Awaitable<>()> chosen_;
};

// Accepts what CLI::Range does and no "nan".
CLI::Validator numberFrom(double least, double most);
inline constexpr double kLongest = 1e6;  // seconds
// Of counts of bytes: all that a 64-bit number and a double both hold.
inline constexpr double kMostBytes = 1e15;

void addConnect(CommandLine& line);
void addDisconnect(CommandLine& line);
void addExec(CommandLine& line);
void addExit(CommandLine& line);
void addPipe(CommandLine& line);
void addReceive(CommandLine& line);
void addReset(CommandLine& line);
void addScan(CommandLine& line);
void addSend(CommandLine& line);
void addServe(CommandLine& line);
void addStats(CommandLine& line);
void addTerm(CommandLine& line);

}  // namespace ziqble
