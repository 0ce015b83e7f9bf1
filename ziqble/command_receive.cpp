#include "commands.h"
#include "transfer.h"

namespace ziqble {

namespace {

Awaitable<> receive(Link& link, const StreamOptions& options) {
    FileStream output(link.bridge.context, options.file, FileStream::Mode::write);
    Transfer transfer(link, options);
    co_await race(race(transfer.receiveAll(output), link.lost()),
                  race(transfer.untilIdle(), transfer.showProgress(options.bytes)));
    transfer.checkCount();
}

}  // namespace

void addReceive(CommandLine& line) {
    const auto options = std::make_shared<StreamOptions>();
    CLI::App* const command =
        line.addForLink("receive", "Write what the peripheral sends to a file, or to standard output",
                        [options](Link& link) { return receive(link, *options); });
    command->add_option("FILE", options->file, "Default: standard output");
    command->add_option("--bytes", options->bytes, "End after this many bytes")
        ->check(numberFrom(0, kMostBytes));
    command->add_option("--idle", options->idle, "End when nothing has come for this many seconds")
        ->check(numberFrom(0, kLongest));
}

}  // namespace ziqble
