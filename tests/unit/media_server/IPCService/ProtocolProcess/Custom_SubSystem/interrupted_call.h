#ifndef TESTS_UNIT_CUSTOM_SUBSYSTEM_INTERRUPTED_CALL_H
#define TESTS_UNIT_CUSTOM_SUBSYSTEM_INTERRUPTED_CALL_H

#include <gtest/gtest.h>

#include <chrono>
#include <future>

#include "media_server/IPCService/Public/Interruption.h"
#include "support/waiting.h"

/** Makes a call on a thread of its own and interrupts it once it waits. It must end by the interruption, and at once.
 */
template <typename Call, typename Waits>
void expectInterrupted(Call call, Waits waits)
{
    IPCService::Interruption interruption;
    std::future<void> ended = std::async(std::launch::async, [&] {
        const IPCService::Interruption::Scope scope(interruption);
        call();
    });
    EXPECT_TRUE(eventually(waits));
    const Stopwatch watch;
    interruption.interrupt();
    EXPECT_THROW(ended.get(), IPCService::Interrupted);
    EXPECT_LT(watch.elapsed(), atMost(std::chrono::seconds(3))) << "the shortest wait of the service has 5 s";
}

#endif
