// Event handlers of the Windows Runtime, and the hold on their registration.
#pragma once

#include <eventtoken.h>
#include <windows.foundation.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <new>
#include <utility>

#include "platform/subscription.h"
#include "winrt.h"

namespace platform::winrt {

// A handler object of the type `Delegate`. It is agile: the runtime calls it on whatever thread it likes. The
// lock is held during a call, so that end() waits for it and calls do not overlap. What the function throws
// goes back to the runtime as a result code.
template <class Delegate, class Sender, class Args>
class EventHandler final : public Delegate, public IAgileObject {
  public:
    using Function = std::function<void(Sender* sender, Args* args)>;

    explicit EventHandler(Function function) : function_(std::move(function)) {}

    void end() {
        const std::lock_guard lock(mutex_);
        ended_ = true;
    }

    STDMETHODIMP Invoke(Sender* sender, Args* args) override {
        try {
            const std::lock_guard lock(mutex_);
            if (!ended_) function_(sender, args);
            return S_OK;
        } catch (const PlatformError& error) {
            return error.code();
        } catch (const std::bad_alloc&) {
            return E_OUTOFMEMORY;
        } catch (...) {
            return E_FAIL;
        }
    }

    STDMETHODIMP QueryInterface(REFIID id, void** object) override {
        if (!object) return E_POINTER;
        *object = nullptr;
        if (id == __uuidof(IUnknown) || id == __uuidof(Delegate)) {
            *object = static_cast<Delegate*>(this);
        } else if (id == __uuidof(IAgileObject)) {
            *object = static_cast<IAgileObject*>(this);
        } else {
            return E_NOINTERFACE;
        }
        AddRef();
        return S_OK;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return ++references_; }
    STDMETHODIMP_(ULONG) Release() override {
        const ULONG left = --references_;
        if (left == 0) delete this;
        return left;
    }

  private:
    ~EventHandler() = default;

    std::atomic<ULONG> references_ = 0;
    const Function function_;
    std::recursive_mutex mutex_;  // a handler may be called from within itself
    bool ended_ = false;
};

// Registers `function` for the event whose two methods are `add` and `remove`.
template <class Sender, class Args, class Source, class Delegate, class Function>
Subscription subscribe(const ComPtr<Source>& source,
                       HRESULT (STDMETHODCALLTYPE Source::*add)(Delegate*, EventRegistrationToken*),
                       HRESULT (STDMETHODCALLTYPE Source::*remove)(EventRegistrationToken),
                       Function function) {
    using Handler = EventHandler<Delegate, Sender, Args>;
    const ComPtr<Handler> handler(new Handler(std::move(function)));
    EventRegistrationToken token{};
    check((source.Get()->*add)(handler.Get(), &token));
    return Subscription([source, remove, handler, token] {
        // An event whose source is closed cannot be removed any more; the handler does nothing from now on.
        (source.Get()->*remove)(token);
        handler.Get()->end();
    });
}

}  // namespace platform::winrt
