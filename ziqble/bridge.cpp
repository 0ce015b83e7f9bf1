#include "bridge.h"

#include <algorithm>
#include <array>
#include <asio/buffer.hpp>
#include <asio/co_spawn.hpp>
#include <asio/detached.hpp>
#include <asio/write.hpp>
#include <regex>
#include <set>

namespace ziqble {

namespace {

// A client is told within 2 s that another one has the pipe.
constexpr auto kProbeTime = 1800ms;
constexpr auto kStartTime = 20s;
constexpr auto kRetry = 20ms;
constexpr auto kLookIntoLog = "Look into its log.";

Failure busy(const std::string& pipe) {
    return {Code::busy, "another client has the command pipe " + pipe + ", or the bridge does not react",
            "The bridge serves one client at a time: end that one, or use --wait to wait until it has left."};
}

bool isLinkLine(const std::string& line) {
    static const std::set<std::string> lines{"CONNECT TIO", "ERROR TIO", "ERROR EXP", "STATUS CLOSED",
                                             "TIO DROP"};
    return lines.contains(line);
}

// Null when the line has another form.
nlohmann::json parseStats(const std::string& line) {
    static const std::regex form(
        R"(RX (\d+) bytes\. TX (\d+) bytes\. LC (-?\d+)\. RC (-?\d+)\. V([^;]*);BLE (.*?)(?:;LE=(.*?))?(?:;LE NOT SUPPORTED)?;TIO(DIS)?CONNECTED)");
    static const std::regex adapter(R"(([^|]*)\+(\d+)\|)");
    std::smatch found;
    if (!std::regex_match(line, found, form)) return nullptr;
    nlohmann::json adapters = nlohmann::json::array();
    const std::string list = found[7];
    for (std::sregex_iterator next(list.begin(), list.end(), adapter), end; next != end; ++next)
        adapters.push_back({{"name", next->str(1)}, {"lmp", std::stoi(next->str(2))}});
    return {{"rx", std::stoull(found[1])},
            {"tx", std::stoull(found[2])},
            {"local_credits", std::stoi(found[3])},
            {"remote_credits", std::stoi(found[4])},
            {"version", found.str(5)},
            {"bluetooth", found.str(6)},
            {"adapters", adapters},
            {"connected", !found[8].matched}};
}

}  // namespace

std::string statsText(const nlohmann::json& stats) {
    std::string text = "received " + stats["rx"].dump() + " bytes, sent " + stats["tx"].dump() +
                       " bytes, credits local " + stats["local_credits"].dump() + " remote " +
                       stats["remote_credits"].dump() + ", version " + stats["version"].get<std::string>() +
                       ", Bluetooth " + stats["bluetooth"].get<std::string>();
    for (const auto& adapter : stats["adapters"])
        text += ", adapter " + adapter["name"].get<std::string>() + " (LMP " + adapter["lmp"].dump() + ")";
    return text + (stats["connected"] ? ", connected" : ", not connected");
}

// Shared with the coroutine that reads; that one ends when the stream is closed.
struct Bridge::Connection {
    explicit Connection(host::PipeStream opened)
        : stream(std::move(opened)), answers(stream.get_executor()), linkLines(stream.get_executor()) {}

    static Awaitable<> read(std::shared_ptr<Connection> self);
    void take(std::string line);

    host::PipeStream stream;
    Mailbox<std::string> answers;
    Mailbox<std::string> linkLines;
    bool connecting = false;
};

void Bridge::Connection::take(std::string line) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (isLinkLine(line)) return linkLines.put(std::move(line));
    // What was said before this answer is about the link before.
    if (std::exchange(connecting, false)) linkLines.clear();
    answers.put(utf8(line));
}

Awaitable<> Bridge::Connection::read(std::shared_ptr<Connection> self) {
    std::string text;
    std::array<char, 1024> buffer;
    for (asio::error_code error; !error;) {
        text.append(buffer.data(), co_await self->stream.async_read_some(asio::buffer(buffer), into(error)));
        for (std::size_t end = 0; (end = text.find('\n')) != std::string::npos; text.erase(0, end + 1))
            self->take(text.substr(0, end));
    }
    self->answers.close();
    self->linkLines.close();
}

Bridge::Bridge(Context& given) : context(given) {}

// The bridge takes an end without "quit" for the end of the link, which may be another client's.
Bridge::~Bridge() {
    if (!connection_) return;
    asio::error_code ignored;
    if (!left_) asio::write(connection_->stream, asio::buffer("quit\n", 5), ignored);
    connection_->stream.close(ignored);
}

Awaitable<std::unique_ptr<Bridge>> Bridge::open(Context& context) {
    std::unique_ptr<Bridge> bridge(new Bridge(context));
    auto deadline = context.wait ? kNever : in(kProbeTime);
    bridge->connection_ = std::make_shared<Connection>(co_await bridge->openPipe(deadline));
    asio::co_spawn(context.io, Connection::read(bridge->connection_), asio::detached);
    co_await bridge->probe(deadline);
    co_return bridge;
}

Awaitable<host::PipeStream> Bridge::openPipe(Clock::time_point& deadline) {
    const std::string& name = context.cmdPipe;
    bool told = false;
    for (;; co_await sleepFor(kRetry)) {
        asio::error_code error;
        host::PipeStream stream = host::openPipe(context.io, name, error);
        if (!error) co_return stream;
        if (!host::isMissing(error) && !host::isBusy(error))
            throw Failure(Code::noBridge, "cannot open the command pipe " + name + ": " + error.message(),
                          "The pipe is only for the user who runs the bridge.");
        if (Clock::now() > deadline) throw busy(name);
        if (host::isBusy(error) || (program_ && program_->running())) continue;
        if (program_)
            throw Failure(Code::noBridge, "no bridge on " + name,
                          "The one that was started has ended at once.");
        if (!context.start && context.wait) {
            if (!std::exchange(told, true)) say("waiting for a bridge on " + name);
            continue;
        }
        if (!context.start)
            throw Failure(
                Code::noBridge, "no bridge on " + name + ": " + error.message(),
                "Start ZIQBLEConnect, or let --start do it; --cmd-pipe and --dat-pipe name other pipes.");
        program_ = std::make_unique<host::Child>(
            context.sim ? "ZIQBLEConnect-sim" : "ZIQBLEConnect",
            std::vector<std::string>{"--cmdPipe", name, "--datPipe", context.datPipe});
        deadline = in(kStartTime);
    }
}

// Where the system lets clients queue up, only an answer tells that the bridge serves this one.
Awaitable<> Bridge::probe(Clock::time_point deadline) {
    co_await send("stats");
    auto answer =
        co_await connection_->answers.take(program_ ? deadline : std::min(deadline, in(kProbeTime)));
    if (!answer && !gone() && deadline == kNever) {
        say("waiting until another client has left the bridge on " + context.cmdPipe);
        answer = co_await connection_->answers.take();
    }
    if (answer && !parseStats(*answer).is_null()) co_return;
    if (answer)
        throw Failure(Code::noLink, "the bridge says \"" + *answer + "\" and ends",
                      "Switch Bluetooth on, or plug in an adapter that speaks Low Energy.");
    if (gone())
        throw Failure(Code::noBridge, "the bridge on " + context.cmdPipe + " went away", kLookIntoLog);
    throw busy(context.cmdPipe);
}

bool Bridge::gone() const {
    return !connection_ || connection_->answers.closed();
}

Awaitable<> Bridge::send(std::string command) {
    command += '\n';
    asio::error_code ignored;  // that the bridge has gone shows where its answer is waited for
    co_await asio::async_write(connection_->stream, asio::buffer(command), into(ignored));
}

Awaitable<std::string> Bridge::ask(std::string command, Seconds limit) {
    connection_->connecting = command.starts_with("connect");
    ++owed_;
    co_await send(command);
    while (owed_ > 1)
        co_await answer(command, limit);
    co_return co_await answer(command, limit);
}

Awaitable<std::string> Bridge::answer(std::string command, Seconds limit) {
    const auto line = co_await connection_->answers.take(in(limit));
    if (line) {
        owed_ = std::max(0, owed_ - 1);
        co_return *line;
    }
    if (gone())
        throw Failure(Code::noBridge, "the bridge went away before it answered \"" + command + "\"",
                      kLookIntoLog);
    throw Failure(Code::timeOver, "the bridge did not answer \"" + command + "\" in time",
                  "It answers only commands that it knows; \"ziqble stats\" tells whether it still works.");
}

Awaitable<nlohmann::json> Bridge::stats(Seconds limit) {
    const std::string line = co_await ask("stats", limit);
    nlohmann::json stats = parseStats(line);
    if (stats.is_null()) throw Failure(Code::failed, "not understood, as the answer to \"stats\": " + line);
    co_return stats;
}

Awaitable<std::optional<std::string>> Bridge::linkLine(Clock::time_point deadline) {
    auto line = co_await connection_->linkLines.take(deadline);
    if (!line && gone()) throw Failure(Code::lost, "the bridge went away", kLookIntoLog);
    co_return line;
}

Awaitable<> Bridge::leave(std::string command, Seconds limit) {
    co_await send(command);
    left_ = true;
    const auto deadline = in(limit);
    while (co_await connection_->answers.take(deadline)) {
    }
    if (gone()) co_return;
    throw Failure(Code::timeOver, "the bridge did not end the session after \"" + command + "\"");
}

// A bridge that still works at a command reads no other one. It is enough then that the destructor sends
// "quit" and ends the bridge that was started.
Awaitable<> Bridge::close() {
    if (owed_ > 0) co_return;
    co_await leave(program_ ? "exit" : "quit", kEndTime);
    while (program_ && program_->running())
        co_await sleepFor(kRetry);
}

Awaitable<> Bridge::disconnect() {
    if (!gone()) co_await ask("disconnect");
}

// The signal may come just when the wait is called off: it is kept for the next one.
Awaitable<> interruption(Context& context) {
    if (context.endSignal == 0) context.endSignal = co_await context.signals.async_wait(asio::use_awaitable);
    throw Interrupted{context.endSignal};
}

Awaitable<> withBridge(Context& context, BridgeWork work, BridgeWork cleanUp) {
    std::unique_ptr<Bridge> bridge;
    const auto open = [&]() -> Awaitable<> { bridge = co_await Bridge::open(context); };
    co_await race(open(), interruption(context));
    std::optional<std::exception_ptr> end, cleanEnd;
    co_await noteEnd(race(work(*bridge), interruption(context)), end);
    bool left = false;
    const auto leave = [&]() -> Awaitable<> {
        if (cleanUp) co_await cleanUp(*bridge);
        co_await bridge->close();
        left = true;
    };
    co_await noteEnd(race(leave(), sleepFor(kEndTime)), cleanEnd);
    // One that was started is ended with the object.
    if (!left && !bridge->gone()) say("the bridge does not react: it is left as it is");
    if (*end) std::rethrow_exception(*end);
    if (*cleanEnd) std::rethrow_exception(*cleanEnd);
}

}  // namespace ziqble
