#include "commands.h"
#include "transfer.h"

namespace ziqble {

namespace {

Awaitable<> sendThenWait(Transfer& sending, Transfer& receiving, FileStream& input) {
    co_await sending.sendAll(input);
    co_await receiving.untilIdle();
}

Awaitable<> moveBothWays(Link& link, const StreamOptions& options) {
    FileStream input(link.bridge.context, "", FileStream::Mode::read);
    FileStream output(link.bridge.context, "", FileStream::Mode::write);
    // The options' limits are for the bytes that come.
    const StreamOptions unlimited;
    Transfer sending(link, unlimited);
    Transfer receiving(link, options);
    co_await race(race(receiving.receiveAll(output), link.lost()), sendThenWait(sending, receiving, input));
    receiving.checkCount();
}

}  // namespace

void addPipe(CommandLine& line) {
    const auto options = std::make_shared<StreamOptions>();
    options->idle = 1;
    CLI::App* const command =
        line.addForLink("pipe", "Both ways over the standard streams, until the input has ended",
                        [options](Link& link) { return moveBothWays(link, *options); });
    command->add_option("--bytes", options->bytes, "End when this many bytes have come")
        ->check(numberFrom(0, kMostBytes));
    command
        ->add_option("--idle", options->idle,
                     "After the input's end: end when nothing has come for this many seconds")
        ->check(numberFrom(0, kLongest))
        ->capture_default_str();
}

}  // namespace ziqble
