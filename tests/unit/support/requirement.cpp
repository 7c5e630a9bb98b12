#include "support/requirement.h"

#include <gtest/gtest.h>

void require(bool holds, const char* what, const std::string& detail)
{
    EXPECT_TRUE(holds) << "must hold: " << what << (detail.empty() ? "" : ": ") << testing::PrintToString(detail);
}
