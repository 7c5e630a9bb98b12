#ifndef TESTS_UNIT_SUPPORT_WAITING_H
#define TESTS_UNIT_SUPPORT_WAITING_H

#include <algorithm>
#include <chrono>
#include <fstream>
#include <thread>

/// A wait of these tests that takes longer has failed.
constexpr std::chrono::seconds DEADLINE(20);

/// How many times longer everything takes on this machine now, at least 1: processes ready to run, a processor.
/// Of now and of the last minute the worse: what was slow is looked at when it is over.
inline double slowness()
{
    double lastMinute = 0;
    double others = 0;
    double now = 0;
    std::ifstream("/proc/loadavg") >> lastMinute >> others >> others >> now;
    return std::max(1.0, std::max(lastMinute, now) / std::max(1U, std::thread::hardware_concurrency()));
}

/// How long may be taken, on this machine and by this build, for what takes so long on an idle one at most.
inline std::chrono::milliseconds atMost(std::chrono::milliseconds time)
{
#if defined(__arm__) || defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    time += std::chrono::seconds(4);  // emulated and instrumented code is slow
#endif
    return std::chrono::duration_cast<std::chrono::milliseconds>(time * slowness());
}

/// Waits until a condition holds that some other thread or process brings about.
/// @return false when it does not hold within the deadline
template <typename Condition>
bool eventually(Condition condition, std::chrono::milliseconds deadline = DEADLINE)
{
    const auto begin = std::chrono::steady_clock::now();
    while (!condition()) {
        const auto waited = std::chrono::steady_clock::now() - begin;
        if (waited >= deadline && waited >= atMost(deadline)) {
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
