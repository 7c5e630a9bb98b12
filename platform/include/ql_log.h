#ifndef PLATFORM_QL_LOG_H
#define PLATFORM_QL_LOG_H

/* The camera's logging library. */

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Writes one record to the camera's log. May be called from any thread.
 *
 * @param module      number of the module that logs; this service is module 4
 * @param level       0 debug detail, 1 information, 3 error
 * @param debugFlag   the module's debug switch, 0 when it has none
 * @param reserved    always 0
 * @param sourcePath  path of the source file below the source root, without extension
 * @param sourceLine  line in that file
 * @param format      printf format of the text; the arguments follow
 */
void QL_WriteLog(int module, int level, int debugFlag, int reserved, const char* sourcePath, int sourceLine,
                 const char* format, ...) __attribute__((format(printf, 7, 8)));

#ifdef __cplusplus
}
#endif

#endif
