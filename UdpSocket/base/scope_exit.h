/// @file
/// What is due at the end of a scope, also when it is left by an exception.
#pragma once

#include <utility>

namespace net::detail {

template <class Action>
class ScopeExit {
public:
    explicit ScopeExit(Action action) : m_action(std::move(action)) {}
    ~ScopeExit() { m_action(); }
    ScopeExit(const ScopeExit&) = delete;
    ScopeExit& operator=(const ScopeExit&) = delete;

private:
    const Action m_action;
};

} // namespace net::detail
