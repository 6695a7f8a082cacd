/* The optimisation library's C interface as the module uses it. Every function returns 0 on
   success; on failure it returns non-zero and records a message readable with
   TRVOgetlasterror (per problem) or TRVO_ge_getlasterror (global). */
#ifndef TARVO_TRVO_H
#define TARVO_TRVO_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- environment */
int TRVOinit(const char* path);
int TRVOfree(void);
int TRVOgetversion(char* version);   /* buffer of at least 16 characters */
int TRVOgetbanner(char* banner);     /* buffer of at least 512 characters */
int TRVO_ge_getlasterror(int* code, char* msg, int maxbytes, int* nbytes);

#ifdef __cplusplus
}
#endif

#endif
