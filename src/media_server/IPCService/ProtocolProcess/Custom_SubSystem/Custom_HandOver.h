#ifndef CUSTOM_SUBSYSTEM_CUSTOM_HANDOVER_H
#define CUSTOM_SUBSYSTEM_CUSTOM_HANDOVER_H

namespace IPCService {
namespace MetaDataGW {

/// Hands over to an account what an earlier run left behind that had no such account and so kept root's rights: the
/// account could neither remove its socket files nor write its page files. To be called before the switch to the
/// account; does nothing without root's rights, or when there is no such account.
/// @param user  name of the account
void handOverTo(const char* user);

}  // namespace MetaDataGW
}  // namespace IPCService

#endif
