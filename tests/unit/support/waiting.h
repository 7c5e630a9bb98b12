#ifndef TESTS_UNIT_SUPPORT_WAITING_H
#define TESTS_UNIT_SUPPORT_WAITING_H

#include <chrono>
#include <thread>

/// A wait of these tests that takes longer has failed.
constexpr std::chrono::seconds DEADLINE(20);

/// What an upper bound on time grants beyond the service's own waits: emulated and instrumented code is slow.
#if defined(__arm__) || defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr std::chrono::milliseconds SLOWNESS(4000);
#else
constexpr std::chrono::milliseconds SLOWNESS(0);
#endif

/// Waits until a condition holds that some other thread or process brings about.
/// @return false when it does not hold within the deadline
template <typename Condition>
bool eventually(Condition condition, std::chrono::milliseconds deadline = DEADLINE)
{
    const auto end = std::chrono::steady_clock::now() + deadline;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));  // pause: nothing tells of it; looked at again
    }
    return true;
}

/// Measures time.
class Stopwatch
{
public:
    std::chrono::milliseconds elapsed() const
    {
        return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - m_start);
    }

private:
    std::chrono::steady_clock::time_point m_start = std::chrono::steady_clock::now();
};

#endif
