#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fstream>

#include "commands.h"
#include "port.h"

namespace ziqble {

namespace {

constexpr double kFirstPause = 0.5;

struct ServeOptions : LinkOptions {
    std::string pty;  // path of the link to the pseudo terminal
    std::uint16_t tcp = 0;
    std::string listen = "127.0.0.1";
    std::string events;        // file for JSON lines
    double longestPause = 30;  // seconds between two attempts
};

// Bytes on their way from one side to the other. What has not arrived when a link ends is kept for the next.
struct Way {
    std::array<std::uint8_t, 16384> buffer{};
    ByteSpan left;
};

class Server {
  public:
    Server(Context& context, const ServeOptions& options)
        : context_(context), options_(options), trace_(options.trace) {}

    Awaitable<> run();

  private:
    void tell(const std::string& event, const std::string& text, nlohmann::json details);
    void open();
    Awaitable<> keepLink();
    Awaitable<> holdLink();
    Awaitable<> outward();
    Awaitable<> inward();
    Awaitable<> leave();
    void tellDropped(std::size_t count, const std::string& what);
    Awaitable<> tellAccount(const std::string& event, const std::string& text);
    Awaitable<> pause(const std::string& reason);

    Context& context_;
    const ServeOptions& options_;
    Trace trace_;
    std::ofstream events_;
    std::unique_ptr<Port> port_;
    std::unique_ptr<Bridge> bridge_;
    std::unique_ptr<Link> link_;
    Way out_, in_;
    double pause_ = 0;
    bool everServed_ = false, everUp_ = false, left_ = false;
    std::optional<Clock::time_point> lostAt_;
};

Awaitable<> Server::run() {
    open();
    std::optional<std::exception_ptr> end;
    co_await noteEnd(race(keepLink(), race(port_->run(), interruption(context_))), end);
    std::optional<std::exception_ptr> ignored;
    co_await noteEnd(race(leave(), sleepFor(kEndTime)), ignored);
    if (!left_) say("the bridge does not react, or has gone: it is left as it is");
    tellDropped(out_.left.size() + port_->unread(), " bytes of the program were not sent");
    tellDropped(in_.left.size(), " bytes of the peripheral were not taken by the program");
    port_->tellDropped();
    try {
        std::rethrow_exception(*end);
    } catch (const Interrupted&) {
        // The usual end.
    }
}

Awaitable<> Server::leave() {
    if (link_ && link_->hasBeenLost()) co_await tellAccount("lost", "the link was lost");
    if (link_ && !link_->hasBeenLost())
        co_await tellAccount("ended", "the link to " + options_.address + " ends as asked for");
    if (bridge_) co_await bridge_->disconnect();
    if (bridge_) co_await bridge_->close();
    left_ = true;
}

void Server::tellDropped(std::size_t count, const std::string& what) {
    if (count > 0) tell("dropped", std::to_string(count) + what, {{"bytes", count}});
}

// As text on standard error and as a JSON line in the file.
void Server::tell(const std::string& event, const std::string& text, nlohmann::json details) {
    say(text);
    if (!events_.is_open()) return;
    details.update({{"time", timeStamp()}, {"event", event}, {"text", text}});
    events_ << toText(details) << std::endl;
    if (events_) return;
    say("the events end here: they cannot be written any more. Is the disk full?");
    events_.close();
}

void Server::open() {
    if (!options_.events.empty()) events_.open(options_.events, std::ios::app);
    if (!events_)
        throw Failure(Code::failed,
                      "cannot write the events to " + options_.events + ": " + std::strerror(errno));
    const PortEvent onPort = [this](const std::string& event, const std::string& text) {
        tell(event, text, {});
    };
    port_ = options_.pty.empty() ? makeTcpPort(context_.io, options_.listen, options_.tcp, onPort)
                                 : makePtyPort(context_.io, options_.pty, onPort);
}

Awaitable<> Server::keepLink() {
    for (;;) {
        std::optional<Failure> failure;
        try {
            co_await holdLink();
        } catch (const Failure& thrown) {
            if (!everServed_ && (thrown.code == Code::noBridge || thrown.code == Code::busy)) throw;
            if (!everUp_ && thrown.code == Code::failed) throw;
            failure = thrown;
        }
        std::string reason = failure->what();
        reason.resize(std::min(reason.size(), reason.find('\n')));  // the hint is for other commands
        if (link_) {
            co_await tellAccount("lost", reason);
            lostAt_ = Clock::now();
        }
        link_.reset();
        if (bridge_ && bridge_->gone()) bridge_.reset();
        co_await pause(reason);
    }
}

// Ends with a Failure. The link stays, for its account, when it was up.
Awaitable<> Server::holdLink() {
    if (!bridge_) bridge_ = co_await Bridge::open(context_);
    everServed_ = true;
    auto link = std::make_unique<Link>(*bridge_, trace_);
    co_await link->up(options_);
    link_ = std::move(link);
    everUp_ = true;
    pause_ = 0;
    nlohmann::json details = {{"address", options_.address}};
    if (lostAt_) details["gap_seconds"] = Seconds(Clock::now() - *lostAt_).count();
    lostAt_.reset();
    tell("up", "the link to " + options_.address + " is up", details);
    co_await race(link_->lost(), race(outward(), inward()));
}

Awaitable<> Server::outward() {
    for (;;) {
        co_await link_->write(out_.left);
        out_.left = ByteSpan(out_.buffer).first(co_await port_->read(out_.buffer));
    }
}

Awaitable<> Server::inward() {
    for (;;) {
        co_await port_->write(in_.left);
        in_.left = ByteSpan(in_.buffer).first(co_await link_->read(in_.buffer));
    }
}

Awaitable<> Server::tellAccount(const std::string& event, const std::string& text) {
    const nlohmann::json account = co_await link_->account();
    tell(event, text + "\n  " + accountText(account), account);
}

// At once after a link that was up, then longer and longer.
Awaitable<> Server::pause(const std::string& reason) {
    const double seconds =
        std::exchange(pause_, std::min(options_.longestPause, std::max(kFirstPause, 2 * pause_)));
    if (seconds == 0) co_return;
    tell("retry", reason + "\n  next attempt in " + std::to_string(std::lround(seconds * 1000)) + " ms",
         {{"in_seconds", seconds}});
    co_await sleepFor(Seconds(seconds));
}

Awaitable<> serve(Context& context, const ServeOptions& options) {
    Server server(context, options);
    co_await server.run();
}

}  // namespace

void addServe(CommandLine& line) {
    const auto options = std::make_shared<ServeOptions>();
    CLI::App* const command =
        line.addPlain("serve", "A serial port or a TCP port that stays, whatever becomes of the link",
                      [&context = line.context, options] { return serve(context, *options); });
    CommandLine::addLinkOptions(command, *options);
    CLI::Option_group* const port = command->add_option_group("port");
    CLI::Option* const pty =
        port->add_option("--pty", options->pty, "Link to make to a pseudo terminal (not on Windows)")
            ->check([](const std::string& text) { return text.empty() ? "it is empty" : ""; });
    port->add_option("--tcp", options->tcp, "Port to listen on")->check(CLI::Range(1, 65535));
    port->require_option(1);
    command->add_option("--listen", options->listen, "With --tcp: address to listen on")
        ->excludes(pty)
        ->capture_default_str();
    command->add_option("--events", options->events, "File for what happens to the link, as JSON lines");
    command
        ->add_option("--retry-max", options->longestPause, "Longest pause between two attempts, in seconds")
        ->check(numberFrom(0.1, 3600.0))
        ->capture_default_str();
}

}  // namespace ziqble
