// Unsolicited lines from the link to the command-pipe client.
#pragma once

#include <deque>
#include <mutex>
#include <optional>
#include <string>

#include "platform/event.h"

namespace blescanner {

// Lines are posted by any thread and taken by the shell thread, whole and in order. Only while a client
// session is open are they kept: a client that comes later did not ask for them.
class LinkNotification {
  public:
    void open();
    void close();

    // False: no client session is open, the line is lost.
    bool post(std::wstring line);
    // Drops the lines that nobody has taken, and logs them.
    void discard();

    // Signalled while there is something to take. Only the shell thread waits for it.
    platform::Event& event() { return event_; }
    std::optional<std::wstring> take();

  private:
    std::mutex mutex_;
    std::deque<std::wstring> lines_;
    bool open_ = false;
    platform::Event event_;
};

// The one of the process.
LinkNotification& linkNotification();

}  // namespace blescanner
