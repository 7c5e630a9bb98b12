/*
 * Takes the place of the platform's stand-ins (preload it) with calls that do nothing: what is left is the service's
 * own cost. On the camera log, account switch and ring buffer are the vendor's.
 */
#include "ql_log.h"
#include "ql_process.h"
#include "srvfs_client.h"

void QL_WriteLog(int module, int level, int debugFlag, int reserved, const char* sourcePath, int sourceLine,
                 const char* format, ...)
{
    (void)module;
    (void)level;
    (void)debugFlag;
    (void)reserved;
    (void)sourcePath;
    (void)sourceLine;
    (void)format;
}

int QL_ChangeProcUser(const char* user)
{
    (void)user;
    return 0;
}

int client_open(void* handle, const char* name, unsigned int size)
{
    (void)handle;
    (void)name;
    (void)size;
    return 0;
}

int client_msgsend(void* handle, const void* data, unsigned int length, int flag)
{
    (void)handle;
    (void)data;
    (void)length;
    (void)flag;
    return 0;
}
