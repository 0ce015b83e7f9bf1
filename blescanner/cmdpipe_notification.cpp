#include "cmdpipe_notification.h"

#include <loguru.hpp>
#include <utility>

#include "platform/text.h"

namespace blescanner {

void LinkNotification::open() {
    const std::lock_guard lock(mutex_);
    open_ = true;
}

void LinkNotification::close() {
    {
        const std::lock_guard lock(mutex_);
        open_ = false;
    }
    discard();
}

bool LinkNotification::post(std::wstring line) {
    const std::lock_guard lock(mutex_);
    if (!open_) return false;
    lines_.push_back(std::move(line));
    event_.set();
    return true;
}

void LinkNotification::discard() {
    while (const auto line = take())
        LOG_S(INFO) << "Not sent, nobody waits for it any more: " << platform::toUtf8(*line);
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
