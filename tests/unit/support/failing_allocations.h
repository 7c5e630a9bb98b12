#ifndef TESTS_UNIT_SUPPORT_FAILING_ALLOCATIONS_H
#define TESTS_UNIT_SUPPORT_FAILING_ALLOCATIONS_H

/// Lets the next single objects that this program's own code makes with new on the calling thread fail for want of
/// memory. Arrays, and what shared libraries make, have all the memory they like.
class FailingAllocations
{
public:
    explicit FailingAllocations(int count);
    ~FailingAllocations();
    FailingAllocations(const FailingAllocations&) = delete;
    FailingAllocations& operator=(const FailingAllocations&) = delete;

    /// How many are still to fail.
    int left() const;
};

#endif
