/* The nonlinear library's C interface as the module uses it. Every function returns 0 on
   success and non-zero on failure. */
#ifndef TARVO_TSLP_H
#define TARVO_TSLP_H

#include "library_interface/trvo.h"

#ifdef __cplusplus
extern "C" {
#endif

int TSLPinit(void);
int TSLPfree(void);

#ifdef __cplusplus
}
#endif

#endif
