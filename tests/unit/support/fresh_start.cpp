#include <gtest/gtest.h>

#include "support/captured_log.h"
#include "support/fake_platform.h"
#include "support/system_calls.h"

namespace {

/// Lets no test see what another one left.
class FreshStart : public testing::EmptyTestEventListener
{
    void OnTestStart(const testing::TestInfo& /*test*/) override
    {
        systemCalls() = SystemCalls();
        CapturedLog::clear();
        FakePlatform::reset();
    }
};

const bool appended = [] {
    testing::UnitTest::GetInstance()->listeners().Append(new FreshStart);
    return true;
}();

}  // namespace
