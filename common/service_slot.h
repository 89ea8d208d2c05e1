// ServiceSlot: the place an optional service lives in its owner (storage,
// vectors and every later subsystem). It owns the service and the lock that
// keeps it alive while requests use it: calls run under a shared lock, so
// they never wait for each other, and the service is swapped or shut down
// only under the exclusive lock, after the last call using it has returned.
//
// Thread-safety: every method may be called from any thread. `fn` passed to
// with() must not call replace() or reset() on the same slot.
#pragma once

#include <concepts>
#include <memory>
#include <shared_mutex>
#include <type_traits>
#include <utility>

namespace vostra {

template <typename Service>
class ServiceSlot {
public:
    ServiceSlot() = default;
    ServiceSlot(const ServiceSlot&) = delete;
    ServiceSlot& operator=(const ServiceSlot&) = delete;
    ~ServiceSlot() { reset(); }

    // fn(Service&) under the shared lock when the service is there; else the
    // fallback: called when it is callable, returned as it stands otherwise.
    template <typename Fn, typename Fallback>
    std::invoke_result_t<Fn, Service&> with(Fn&& fn, Fallback&& fallback) const {
        std::shared_lock lock(mutex_);
        if (service_) return std::forward<Fn>(fn)(*service_);
        if constexpr (std::is_invocable_v<Fallback>)
            return std::forward<Fallback>(fallback)();
        else
            return std::invoke_result_t<Fn, Service&>(std::forward<Fallback>(fallback));
    }

    bool present() const {
        std::shared_lock lock(mutex_);
        return service_ != nullptr;
    }

    // Under the exclusive lock: shuts the present service down, then puts in
    // what `make()` returns (a std::unique_ptr<Service>, null for none).
    // Nobody sees the gap between the two.
    template <typename Make>
        requires std::invocable<Make>
    void replace(Make&& make) {
        std::unique_lock lock(mutex_);
        shutDown();
        service_ = std::forward<Make>(make)();
    }
    void replace(std::unique_ptr<Service> service) {
        replace([&] { return std::move(service); });
    }

    // Shuts the service down and drops it.
    void reset() {
        std::unique_lock lock(mutex_);
        shutDown();
    }

private:
    void shutDown() {
        if (!service_) return;
        if constexpr (requires(Service& s) { s.shutdown(); }) service_->shutdown();
        service_.reset();
    }

    mutable std::shared_mutex mutex_;
    std::unique_ptr<Service> service_;
};

}  // namespace vostra
