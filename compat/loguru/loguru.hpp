// The part of loguru that the program uses, under the library's own names, for hosts that have no package of
// it.
//
// Threads: everything but the global flags may be used from any thread, until the very end of the process;
// one line is never mixed with another. The flags are set before other threads exist. Nothing here throws.
#pragma once

#include <sstream>

namespace loguru {

using Verbosity = int;

// A line is logged where its verbosity is at most that of the sink.
enum NamedVerbosity : Verbosity {
    Verbosity_OFF = -9,
    Verbosity_ERROR = -2,
    Verbosity_WARNING = -1,
    Verbosity_INFO = 0,
    Verbosity_9 = 9,
    Verbosity_MAX = 9,
};

// One line in its parts, which are written in this order: preamble, indentation, prefix, message. Valid
// during the callback only.
struct Message {
    Verbosity verbosity;
    const char* filename;
    unsigned line;
    const char* preamble;
    const char* indentation;
    const char* prefix;
    const char* message;
};

// Called for one line at a time. Must not throw, and must not log.
using log_handler_t = void (*)(void* user_data, const Message& message);

enum FileMode { Truncate, Append };

extern Verbosity g_stderr_verbosity;

// Columns with the local date and time.
extern bool g_preamble_date;
extern bool g_preamble_time;

// The program switches these columns off; this subset has none of them, whatever the flags say.
extern bool g_preamble_uptime;
extern bool g_preamble_thread;

// Keeps the arguments and the current directory for the heads of log files.
void init(int& argc, char* argv[]);

// Adds a file sink, flushed after each line; its identifier is the path. False, and logged: it cannot be
// opened.
bool add_file(const char* path, FileMode mode, Verbosity verbosity);

void add_callback(const char* id, log_handler_t callback, void* user_data, Verbosity verbosity);

// When these return, the removed callbacks do not run and will not run again; files are closed.
bool remove_callback(const char* id);
void remove_all_callbacks();

void flush();

// The highest verbosity that any sink wants.
Verbosity current_verbosity_cutoff();

// Collects one line and logs it at its end.
class StreamLogger {
  public:
    StreamLogger(Verbosity verbosity, const char* file, unsigned line)
        : verbosity_(verbosity), file_(file), line_(line) {}
    ~StreamLogger();
    StreamLogger(const StreamLogger&) = delete;
    StreamLogger& operator=(const StreamLogger&) = delete;

    template <class T>
    StreamLogger& operator<<(const T& value) {
        text_ << value;
        return *this;
    }

  private:
    Verbosity verbosity_;
    const char* file_;
    unsigned line_;
    std::ostringstream text_;
};

// Gives both branches of LOG_S the type void; binds weaker than << and stronger than ?:.
struct Voidify {
    void operator&(const StreamLogger&) const {}
};

}  // namespace loguru

// LOG_S(INFO) << ...; what follows is evaluated only when a sink wants it. The level is pasted, not expanded:
// it does not matter that a system header defines ERROR.
#define LOG_S(verbosity_name)                                                 \
    (loguru::Verbosity_##verbosity_name > loguru::current_verbosity_cutoff()) \
        ? (void)0                                                             \
        : loguru::Voidify() & loguru::StreamLogger(loguru::Verbosity_##verbosity_name, __FILE__, __LINE__)
