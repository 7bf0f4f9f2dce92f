#pragma once

#include <functional>
#include <list>
#include <memory>
#include <utility>

/// Values that tell who shows them when they change.
namespace korvane {

/// A registration with an observed value; destroying it ends it. May outlive the value.
class Subscription {
public:
    Subscription() = default;
    explicit Subscription(std::function<void()> end) : end(std::move(end)) { }
    Subscription(Subscription &&other) noexcept : end(std::exchange(other.end, nullptr)) { }
    Subscription &operator=(Subscription &&other) noexcept
    {
        if (this != &other) {
            if (end)
                end();
            end = std::exchange(other.end, nullptr);
        }
        return *this;
    }
    ~Subscription()
    {
        if (end)
            end();
    }

private:
    std::function<void()> end;
};

/// A value whose writes notify its observers, one property at a time. A write of an equal value
/// notifies nobody. Confined to one thread. An observer may write the value or end any subscription.
template <class T> class Observed {
public:
    Observed() = default;
    explicit Observed(T initial) : value(std::move(initial)) { }
    Observed(const Observed &) = delete;

    const T &get() const { return value; }
    operator const T &() const { return value; }
    const T *operator->() const { return &value; }

    Observed &operator=(T next)
    {
        if (!(value == next)) {
            value = std::move(next);
            notify();
        }
        return *this;
    }

    /// Calls `changed` after each change, until the subscription ends.
    [[nodiscard]] Subscription observe(std::function<void()> changed)
    {
        const auto entry = observers->insert(observers->end(), std::make_shared<std::function<void()>>(std::move(changed)));
        return Subscription([weak = std::weak_ptr(observers), entry] {
            if (const auto all = weak.lock())
                all->erase(entry);
        });
    }

private:
    using Observers = std::list<std::shared_ptr<std::function<void()>>>;

    void notify()
    {
        const Observers now = *observers;
        for (const auto &one : now)
            (*one)();
    }

    T value{};
    std::shared_ptr<Observers> observers = std::make_shared<Observers>();
};

} // namespace korvane
