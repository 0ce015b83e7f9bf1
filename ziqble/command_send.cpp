#include <filesystem>

#include "commands.h"
#include "transfer.h"

namespace ziqble {

namespace {

// In bytes; 0 when it is not known before the end.
std::uint64_t sizeOf(const StreamOptions& options) {
    if (options.bytes > 0 || options.file.empty()) return options.bytes;
    std::error_code unknown;
    const std::uint64_t size = std::filesystem::file_size(options.file, unknown);
    return unknown ? 0 : size;
}

Awaitable<> send(Link& link, const StreamOptions& options) {
    FileStream input(link.bridge.context, options.file, FileStream::Mode::read);
    Transfer transfer(link, options);
    co_await race(race(transfer.sendAll(input), link.lost()),
                  race(transfer.discardAll(), transfer.showProgress(sizeOf(options))));
}

}  // namespace

void addSend(CommandLine& line) {
    const auto options = std::make_shared<StreamOptions>();
    CLI::App* const command = line.addForLink("send", "Send a file, or standard input, to the peripheral",
                                              [options](Link& link) { return send(link, *options); });
    command->add_option("FILE", options->file, "Default: standard input")->check(CLI::ExistingFile);
    command->add_option("--bytes", options->bytes, "End after this many bytes")
        ->check(numberFrom(0, kMostBytes));
    command->add_option("--idle", options->idle, "Give up when no byte could be sent for this many seconds")
        ->check(numberFrom(0, kLongest));
}

}  // namespace ziqble
