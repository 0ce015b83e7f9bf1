// Moving bytes between a link and files or standard streams.
#pragma once

#include "file_stream.h"
#include "link.h"

namespace ziqble {

struct StreamOptions {
    std::string file;         // empty: standard input or output
    std::uint64_t bytes = 0;  // 0: no limit
    double idle = 0;          // seconds without a byte that end it; 0: none do
};

class Transfer {
  public:
    Transfer(Link& link, const StreamOptions& options) : link_(link), options_(options) {}

    // Until the input ends, or as many bytes as the options say; then until the bridge has sent them.
    Awaitable<> sendAll(FileStream& input);
    // Until as many bytes as the options say have come.
    Awaitable<> receiveAll(FileStream& output);
    // Without end; what comes is thrown away.
    Awaitable<> discardAll();
    // Ends when nothing has come for the options' idle time.
    Awaitable<> untilIdle();
    // Without end: how far a file is, on a terminal; a bar when `total` is known, which is 0 else.
    Awaitable<> showProgress(std::uint64_t total);
    // Throws Failure when fewer bytes have come than the options say.
    void checkCount() const;

  private:
    Awaitable<> watchForStall(Seconds limit);

    Link& link_;
    const StreamOptions& options_;
    Clock::time_point lastArrival_ = Clock::now();
    bool writing_ = false;
};

}  // namespace ziqble
