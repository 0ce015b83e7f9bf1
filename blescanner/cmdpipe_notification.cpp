#include "cmdpipe_notification.h"

#include <loguru.hpp>
#include <utility>

#include "platform/text.h"

namespace blescanner {

void LinkNotification::open() {
    const std::lock_guard lock(mutex_);
    lines_.clear();
    event_.reset();
    open_ = true;
}

void LinkNotification::close() {
    const std::lock_guard lock(mutex_);
    lines_.clear();
    event_.reset();
    open_ = false;
}

void LinkNotification::post(std::wstring line) {
    {
        const std::lock_guard lock(mutex_);
        if (open_) {
            lines_.push_back(std::move(line));
            event_.set();
            return;
        }
    }
    LOG_S(INFO) << "No client to tell: " << platform::toUtf8(line);
}

void LinkNotification::discard() {
    while (const auto line = take())
        LOG_S(INFO) << "Not sent, the link has been stopped: " << platform::toUtf8(*line);
}

std::optional<std::wstring> LinkNotification::take() {
    const std::lock_guard lock(mutex_);
    if (lines_.empty()) return std::nullopt;
    std::optional<std::wstring> line(std::move(lines_.front()));
    lines_.pop_front();
    if (lines_.empty()) event_.reset();
    return line;
}

LinkNotification& linkNotification() {
    static LinkNotification instance;
    return instance;
}

}  // namespace blescanner
