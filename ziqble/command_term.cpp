#include <algorithm>
#include <array>
#include <cctype>
#include <iostream>
#include <map>

#include "commands.h"
#include "file_stream.h"

namespace ziqble {

namespace {

constexpr char kMenuKey = 0x1D;             // Ctrl-]
constexpr std::size_t kMostUnsent = 65536;  // keys, lines and files
constexpr auto kMenu =
    "s statistics  f send a file  r reconnect  q quit  l lines  e echo  h show hex  x type hex  t times  n "
    "end of line";
// What the Enter key sends, and which choice comes next in the menu.
struct EndOfLine {
    std::string bytes, next;
};
const std::map<std::string, EndOfLine> kEndsOfLine{
    {"cr", {"\r", "lf"}}, {"lf", {"\n", "crlf"}}, {"crlf", {"\r\n", "none"}}, {"none", {"", "cr"}}};

struct TermOptions : LinkOptions {
    bool lineMode = false, echo = false, hexShown = false, hexTyped = false, timeStamps = false;
    std::string endOfLine = "cr";
};

// One for all links of the command: its settings, and a line that is being typed, outlive a link.
class Terminal {
  public:
    Terminal(Context& context, const TermOptions& options)
        : options_(options), keyboard_(context, "", FileStream::Mode::read) {}

    // Until the user has enough of this link.
    Awaitable<> run(Link& link);
    bool reconnects() const { return reconnects_; }

  private:
    using Task = std::function<Awaitable<>()>;

    void show(ByteSpan bytes);
    void put(const std::string& text) { std::cout << text << std::flush; }
    void sayLine(const std::string& text);
    Awaitable<> showAll();
    Awaitable<> takeKeys();
    Awaitable<> doTasks(Mailbox<Task>& tasks);
    void sendLater(Task task);
    void takeKey(char key);
    void takeMenuKey(char key);
    void editLine(char key);
    void useLine(std::string line);
    void sendText(std::string text);
    void sendHex(std::string digits);
    Awaitable<> sendFile(std::string path);
    Awaitable<> askAfterLoss(std::string reason);

    TermOptions options_;
    FileStream keyboard_;
    Link* link_ = nullptr;
    std::size_t column_ = 0;
    std::string line_, fileName_;  // being edited
    bool inMenu_ = false, asksForFile_ = false, ends_ = false, reconnects_ = false;
    // What the link, or the bridge, may hold up: keys are taken meanwhile.
    std::optional<Mailbox<Task>> sends_, questions_;
    std::size_t unsent_ = 0;
};

Awaitable<> Terminal::run(Link& link) {
    const auto raw = host::rawTerminal();
    link_ = &link;
    ends_ = reconnects_ = inMenu_ = asksForFile_ = false;
    unsent_ = 0;
    sends_.emplace(link.bridge.context.io.get_executor());
    questions_.emplace(link.bridge.context.io.get_executor());
    sayLine("connected to " + options_.address + "; Ctrl-] is the key for the menu, Ctrl-] q leaves");
    std::string reason;
    try {
        co_await race(race(takeKeys(), race(doTasks(*sends_), doTasks(*questions_))),
                      race(showAll(), link.lost()));
    } catch (const Failure& failure) {
        if (failure.code != Code::lost) throw;
        reason = failure.what();
    }
    if (!reason.empty()) co_await askAfterLoss(reason);
}

// What is typed in ignorance of the loss is thrown away.
Awaitable<> Terminal::askAfterLoss(std::string reason) {
    sayLine(reason.substr(0, reason.find('\n')) + "; Ctrl-] r reconnects, Ctrl-] q leaves");
    for (char before = 0;;) {
        const auto keys = co_await keyboard_.read();
        if (keys.empty()) throw Failure(Code::lost, reason);
        for (const char key : keys) {
            const bool chosen = std::exchange(before, key) == kMenuKey;
            if (chosen && key == 'q') throw Failure(Code::lost, reason);
            reconnects_ = chosen && key == 'r';
            if (reconnects_) co_return;
        }
    }
}

Awaitable<> Terminal::showAll() {
    std::array<std::uint8_t, 4096> buffer;
    for (;;)
        show(ByteSpan(buffer).first(co_await link_->read(buffer)));
}

void Terminal::show(ByteSpan bytes) {
    constexpr auto kDigits = "0123456789abcdef";
    constexpr std::size_t kHexColumns = 16;
    std::string text;
    for (const std::uint8_t byte : bytes) {
        if (column_ == 0 && options_.timeStamps) text += "[" + timeStamp().substr(11, 12) + "] ";
        if (options_.hexShown) {
            text += {kDigits[byte >> 4], kDigits[byte & 15], ' '};
        } else {
            text += static_cast<char>(byte);
        }
        const bool full = byte == '\n' || (options_.hexShown && column_ == kHexColumns - 1);
        if (full && options_.hexShown) text += '\n';
        column_ = full ? 0 : column_ + 1;
    }
    put(text);
}

// What the program itself says stands on a line of its own.
void Terminal::sayLine(const std::string& text) {
    put((column_ == 0 ? "[ziqble: " : "\n[ziqble: ") + text + "]\n");
    column_ = 0;
}

Awaitable<> Terminal::takeKeys() {
    while (!ends_) {
        const auto keys = co_await keyboard_.read();
        if (keys.empty()) break;
        for (std::size_t at = 0; at < keys.size() && !ends_; ++at)
            takeKey(static_cast<char>(keys[at]));
    }
    // What was typed just before is sent if the link takes it.
    for (const auto deadline = in(500ms); unsent_ > 0 && Clock::now() < deadline;)
        co_await sleepFor(5ms);
}

Awaitable<> Terminal::doTasks(Mailbox<Task>& tasks) {
    for (;;) {
        const auto task = co_await tasks.take();
        co_await (*task)();
    }
}

void Terminal::sendLater(Task task) {
    if (unsent_ == kMostUnsent) return sayLine("not sent: the link takes no bytes");
    ++unsent_;
    sends_->put([this, task]() -> Awaitable<> {
        co_await task();
        --unsent_;
    });
}

void Terminal::takeKey(char key) {
    if (std::exchange(inMenu_, false)) return takeMenuKey(key);
    if (key == kMenuKey) {
        inMenu_ = true;
        return sayLine(kMenu);
    }
    if (options_.lineMode || options_.hexTyped || asksForFile_) return editLine(key);
    const bool enter = key == '\r';
    if (options_.echo) put(enter ? "\n" : std::string(1, key));
    sendText(enter ? kEndsOfLine.at(options_.endOfLine).bytes : std::string(1, key));
}

void Terminal::takeMenuKey(char key) {
    const std::map<char, std::pair<bool*, std::string>> switches{{'l', {&options_.lineMode, "whole lines"}},
                                                                 {'e', {&options_.echo, "echo"}},
                                                                 {'h', {&options_.hexShown, "show hex"}},
                                                                 {'x', {&options_.hexTyped, "type hex"}},
                                                                 {'t', {&options_.timeStamps, "times"}}};
    if (const auto found = switches.find(key); found != switches.end()) {
        const auto& [value, name] = found->second;
        *value = !*value;
        return sayLine(name + (*value ? ": on" : ": off"));
    }
    if (key == 'q' || key == 'r') {
        ends_ = true;
        reconnects_ = key == 'r';
    } else if (key == 's') {
        questions_->put([this]() -> Awaitable<> { sayLine(statsText(co_await link_->bridge.stats())); });
    } else if (key == 'f') {
        asksForFile_ = true;
        fileName_.clear();
        put("file to send (none: nothing): ");
    } else if (key == 'n') {
        options_.endOfLine = kEndsOfLine.at(options_.endOfLine).next;
        sayLine("end of line: " + options_.endOfLine);
    } else if (key == kMenuKey) {
        sendText(std::string(1, kMenuKey));
    } else {
        sayLine(kMenu);
    }
}

// Shows what is typed, takes it back, and uses it when the Enter key comes.
void Terminal::editLine(char key) {
    std::string& edited = asksForFile_ ? fileName_ : line_;
    if (key == '\r') {
        put("\n");
        return useLine(std::exchange(edited, {}));
    }
    if (key != '\b' && key != 0x7F) {
        edited += key;
        return put(std::string(1, key));
    }
    if (edited.empty()) return;
    // In UTF-8 all bytes of a character but its first begin with the bits 10.
    while (edited.size() > 1 && (edited.back() & 0xC0) == 0x80)
        edited.pop_back();
    edited.pop_back();
    put("\b \b");
}

void Terminal::useLine(std::string line) {
    if (std::exchange(asksForFile_, false)) {
        if (line.empty()) return sayLine("no file is sent");
        return sendLater([this, line] { return sendFile(line); });
    }
    if (options_.hexTyped) return sendHex(line);
    sendText(line + kEndsOfLine.at(options_.endOfLine).bytes);
}

void Terminal::sendText(std::string text) {
    sendLater([this, text]() -> Awaitable<> {
        ByteSpan left(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
        co_await link_->write(left);
    });
}

// "48 65", with or without blanks.
void Terminal::sendHex(std::string digits) {
    std::erase_if(digits, [](unsigned char digit) { return std::isspace(digit) != 0; });
    const bool good =
        digits.size() % 2 == 0 &&
        std::all_of(digits.begin(), digits.end(), [](unsigned char digit) { return std::isxdigit(digit); });
    if (!good) return sayLine("not sent: two hexadecimal digits make a byte");
    std::string bytes;
    for (std::size_t at = 0; at < digits.size(); at += 2)
        bytes += static_cast<char>(std::stoi(digits.substr(at, 2), nullptr, 16));
    sendText(bytes);
}

Awaitable<> Terminal::sendFile(std::string path) {
    std::string outcome;
    try {
        FileStream file(link_->bridge.context, path, FileStream::Mode::read);
        const std::uint64_t before = link_->sent;
        for (auto piece = co_await file.read(); !piece.empty(); piece = co_await file.read()) {
            ByteSpan left(piece);
            co_await link_->write(left);
        }
        outcome = std::to_string(link_->sent - before) + " bytes of " + path + " sent";
    } catch (const Failure& failure) {
        if (failure.code != Code::failed) throw;
        outcome = failure.what();
    }
    sayLine(outcome);
}

// Each link has a session of its own with the bridge.
Awaitable<> term(Context& context, const TermOptions& options) {
    if (!host::isTerminal(0))
        throw Failure(Code::usage, "the standard input is no terminal",
                      "\"ziqble pipe\" moves bytes for scripts.");
    Terminal terminal(context, options);
    const std::function<Awaitable<>(Link&)> work = [&](Link& link) { return terminal.run(link); };
    do {
        co_await withLink(context, options, work);
    } while (terminal.reconnects());
}

}  // namespace

void addTerm(CommandLine& line) {
    const auto options = std::make_shared<TermOptions>();
    CLI::App* const command =
        line.addPlain("term", "Terminal; Ctrl-] is the key for its menu",
                      [&context = line.context, options] { return term(context, *options); });
    CommandLine::addLinkOptions(command, *options);
    command->add_flag("--line", options->lineMode, "Send whole lines, which can be edited");
    command->add_flag("--echo", options->echo, "Show what is typed");
    command->add_option("--eol", options->endOfLine, "What the Enter key sends")
        ->check(CLI::IsMember({"cr", "lf", "crlf", "none"}))
        ->capture_default_str();
    command->add_flag("--hex", options->hexShown, "Show bytes as hexadecimal numbers");
    command->add_flag("--hex-input", options->hexTyped, "Type bytes as hexadecimal numbers");
    command->add_flag("--time-stamps", options->timeStamps, "Begin each line with the time");
}

}  // namespace ziqble
