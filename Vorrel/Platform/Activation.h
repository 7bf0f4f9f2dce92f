#pragma once

#include <functional>

namespace korvane {

/// The one-shot signal by which a second launch asks the first to come forward. It carries nothing.
class ActivationSender {
public:
    virtual ~ActivationSender() = default;
    /// Sends the signal and returns when the system has it; silent when there is nobody to carry it.
    virtual void post() = 0;
};

/// The first instance's ear. Main thread only.
class ActivationReceiver {
public:
    virtual ~ActivationReceiver() = default;
    /// Calls `activated` for each signal from now on, for the life of this object.
    virtual void observe(std::function<void()> activated) = 0;
};

} // namespace korvane
