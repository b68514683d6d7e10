/// @file
/// Objects belong to the process that made them.
#pragma once

namespace net::detail {

/// How many forks lie between this process and the one that loaded the library.
unsigned int forkGeneration() noexcept;

/// Base of implementation objects. In a child made by fork their threads do not run, while their sockets are
/// still the parent's, and what their threads waited for is waited for without end.
class ProcessBound {
public:
    bool inOwnProcess() const noexcept { return m_generation == forkGeneration(); }

private:
    const unsigned int m_generation = forkGeneration();
};

/// Deletes an implementation object in the process that made it. In a child it is left as it is, neither shut
/// nor joined nor freed: the child's exit ends at once, and the parent notices nothing.
template <class Private>
void destroy(Private* object) {
    if (object->inOwnProcess())
        delete object;
}

} // namespace net::detail
