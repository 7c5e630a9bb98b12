#ifndef CUSTOM_SUBSYSTEM_CUSTOM_BUSYMARK_H
#define CUSTOM_SUBSYSTEM_CUSTOM_BUSYMARK_H

namespace IPCService {
namespace MetaDataGW {

/// True while a download runs. Any thread.
inline bool isBusy(const bool& mark)
{
    return __atomic_load_n(&mark, __ATOMIC_ACQUIRE);
}

/// A download's hold on the busy mark. The mark is set when the hold begins and cleared when it ends, once: by then
/// the next download may have set it anew.
class BusyMark
{
public:
    /// @param mark  not owned; must outlive the hold
    explicit BusyMark(bool& mark) : m_pMark(&mark) { __atomic_store_n(m_pMark, true, __ATOMIC_RELEASE); }
    ~BusyMark() { release(); }
    BusyMark(const BusyMark&) = delete;
    BusyMark& operator=(const BusyMark&) = delete;

    /// Ends the hold, if it has not ended yet.
    void release() noexcept
    {
        if (m_pMark != nullptr) {
            __atomic_store_n(m_pMark, false, __ATOMIC_RELEASE);
            m_pMark = nullptr;
        }
    }

private:
    bool* m_pMark;
};

}  // namespace MetaDataGW
}  // namespace IPCService

#endif
