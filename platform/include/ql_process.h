#ifndef PLATFORM_QL_PROCESS_H
#define PLATFORM_QL_PROCESS_H

/* The camera's process library. */

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Switches the calling process, with all its threads, to a named account.
 *
 * @param user  name of the account
 * @return 0 on success, anything else on failure: the process then keeps its user
 */
int QL_ChangeProcUser(const char* user);

#ifdef __cplusplus
}
#endif

#endif
