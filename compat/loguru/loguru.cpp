#include "loguru.hpp"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

namespace loguru {

Verbosity g_stderr_verbosity = Verbosity_INFO;
bool g_preamble_date = true;
bool g_preamble_time = true;
bool g_preamble_uptime = true;
bool g_preamble_thread = true;

namespace {

struct Sink {
    std::string id;
    log_handler_t callback;
    void* userData;
    Verbosity verbosity;
    std::unique_ptr<std::ofstream> file;  // of a file sink only
};

struct State {
    std::mutex mutex;  // for all but the cutoff
    std::vector<Sink> sinks;
    std::string arguments;
    std::string currentDir;
    std::atomic<Verbosity> cutoff = Verbosity_OFF;
};

State& state() {
    static State& instance =
        *new State;  // never destroyed: detached threads may log until the process has gone
    return instance;
}

std::string levelName(Verbosity verbosity) {
    switch (verbosity) {
        case Verbosity_INFO:
            return "INFO";
        case Verbosity_WARNING:
            return "WARN";
        case Verbosity_ERROR:
            return "ERR";
        default:
            return std::to_string(verbosity);
    }
}

std::string_view baseName(std::string_view path) {
    const std::size_t separator = path.find_last_of("/\\");
    return separator == std::string_view::npos ? path : path.substr(separator + 1);
}

// A text that is wider than its column pushes the following ones to the right.
std::string columns(std::string_view file, std::string_view line, std::string_view level) {
    std::ostringstream text;
    text << std::setw(23) << file << ':' << std::left << std::setw(5) << line << ' ' << std::right
         << std::setw(4) << level << "| ";
    return text.str();
}

// With the mutex held: std::localtime answers in one record for the whole process.
std::string timeColumns() {
    using namespace std::chrono;
    if (!g_preamble_date && !g_preamble_time) return {};
    const auto now = time_point_cast<milliseconds>(system_clock::now());
    const std::time_t seconds = system_clock::to_time_t(floor<std::chrono::seconds>(now));
    const auto milliseconds = now.time_since_epoch() % 1s;
    std::ostringstream text;
    const std::tm* const local = std::localtime(&seconds);
    if (g_preamble_date) text << std::put_time(local, "%Y-%m-%d ");
    if (g_preamble_time) {
        text << std::put_time(local, "%H:%M:%S.") << std::setfill('0') << std::setw(3) << milliseconds.count()
             << ' ';
    }
    return text.str();
}

// The same in the column line of a file's head.
std::string timeTitles() {
    return std::string(g_preamble_date ? "date       " : "") + (g_preamble_time ? "time         " : "");
}

std::string wholeLine(const Message& message) {
    return std::string(message.preamble) + message.indentation + message.prefix + message.message + '\n';
}

void writeToFile(void* file, const Message& message) {
    *static_cast<std::ofstream*>(file) << wholeLine(message) << std::flush;
}

void log(Verbosity verbosity, const char* file, unsigned line, const std::string& text) {
    const std::string position = columns(baseName(file), std::to_string(line), levelName(verbosity));
    const std::lock_guard lock(state().mutex);
    const std::string preamble = timeColumns() + position;
    const Message message{verbosity, file, line, preamble.c_str(), "", "", text.c_str()};
    if (verbosity <= g_stderr_verbosity) std::fputs(wholeLine(message).c_str(), stderr);
    for (const Sink& sink : state().sinks) {
        if (verbosity <= sink.verbosity) sink.callback(sink.userData, message);
    }
}

// With the mutex held.
void updateCutoff() {
    Verbosity highest = Verbosity_OFF;
    for (const Sink& sink : state().sinks)
        highest = std::max(highest, sink.verbosity);
    state().cutoff = highest;
}

void addSink(Sink sink) {
    const std::lock_guard lock(state().mutex);
    state().sinks.push_back(std::move(sink));
    updateCutoff();
}

// Five empty lines set a run apart from the one before it in the same file.
void writeFileHead(std::ofstream& file, FileMode mode, Verbosity verbosity) {
    if (mode == Append) file << "\n\n\n\n\n";
    const std::lock_guard lock(state().mutex);
    file << "arguments: " << state().arguments << "\nCurrent dir: " << state().currentDir
         << "\nFile verbosity level: " << verbosity << '\n'
         << timeTitles() << columns("file", "line", "v") << '\n'
         << std::flush;
}

}  // namespace

void init(int& argc, char* argv[]) {
    std::string arguments;
    for (int i = 0; i < argc; ++i)
        arguments.append(i == 0 ? "" : " ").append(argv[i]);
    std::error_code unknown;
    const std::u8string currentDir = std::filesystem::current_path(unknown).u8string();

    const std::lock_guard lock(state().mutex);
    state().arguments = std::move(arguments);
    state().currentDir.assign(currentDir.begin(), currentDir.end());
}

bool add_file(const char* path, FileMode mode, Verbosity verbosity) {
    auto file = std::make_unique<std::ofstream>(path, mode == Append ? std::ios::app : std::ios::trunc);
    if (!*file) {
        LOG_S(ERROR) << "Failed to open '" << path << "'";
        return false;
    }
    writeFileHead(*file, mode, verbosity);
    std::ofstream* const stream = file.get();
    addSink({path, writeToFile, stream, verbosity, std::move(file)});
    LOG_S(INFO) << "Logging to '" << path << "', mode: '" << (mode == Append ? 'a' : 'w')
                << "', verbosity: " << verbosity;
    return true;
}

void add_callback(const char* id, log_handler_t callback, void* user_data, Verbosity verbosity) {
    addSink({id, callback, user_data, verbosity, nullptr});
}

bool remove_callback(const char* id) {
    const std::lock_guard lock(state().mutex);
    const bool found = std::erase_if(state().sinks, [id](const Sink& sink) { return sink.id == id; }) > 0;
    updateCutoff();
    return found;
}

void remove_all_callbacks() {
    const std::lock_guard lock(state().mutex);
    state().sinks.clear();
    updateCutoff();
}

void flush() {
    const std::lock_guard lock(state().mutex);
    for (const Sink& sink : state().sinks) {
        if (sink.file) sink.file->flush();
    }
}

Verbosity current_verbosity_cutoff() {
    return std::max<Verbosity>(g_stderr_verbosity, state().cutoff);
}

StreamLogger::~StreamLogger() {
    log(verbosity_, file_, line_, text_.str());
}

}  // namespace loguru
