#pragma once

#include <utility>

namespace traiklofox::foundation {

/// Runs an action when the scope ends, unless it was dismissed: undoes a job that stops half way.
template <class Action>
class [[nodiscard]] OnExit {
  public:
    explicit OnExit(Action action) : action_(std::move(action)) {}
    OnExit(const OnExit&) = delete;
    OnExit& operator=(const OnExit&) = delete;
    ~OnExit() {
        if (armed_) action_();
    }
    void dismiss() { armed_ = false; }

  private:
    Action action_;
    bool armed_ = true;
};

template <class Action>
OnExit<Action> onExit(Action action) {
    return OnExit<Action>(std::move(action));
}

}  // namespace traiklofox::foundation
