// Unsolicited lines from the link to the command-pipe client.
#pragma once

#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "platform/event.h"

namespace blescanner {

struct TioContext;

// A line with the session that it tells of.
struct LinkLine {
    std::wstring text;
    std::shared_ptr<const TioContext> session;
};

// Lines are posted by any thread and taken by the shell thread, whole and in order. Only while a client
// session is open are they kept: a client that comes later did not ask for them.
class LinkNotification {
  public:
    void open();
    void close();

    void post(LinkLine line);

    // Signalled while there is something to take. Owned by the shell thread, which resets it through take().
    platform::Event& event() { return event_; }
    std::optional<LinkLine> take();

  private:
    std::mutex mutex_;
    std::deque<LinkLine> lines_;
    bool open_ = false;
    platform::Event event_;
};

// The one of the process.
LinkNotification& linkNotification();

}  // namespace blescanner
