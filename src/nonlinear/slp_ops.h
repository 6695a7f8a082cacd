// Operations of the nonlinear library used by the nonlinear modelling layer (formula
// conversion, user functions, the nonlinear method family, the nonlinear objective and solve).
// They are referenced weakly so that the module still loads with a nonlinear library that
// lacks some of them; slp_available() turns a missing one into a clear Python exception.
#pragma once
#include "library_interface/tslp.h"

extern "C" {
#define TARVO_SLP_WEAK __attribute__((weak))
int TSLPaddcoefs(TSLPprob, int, const int[], const int[], const double[], const int[], int, const int[], const double[]) TARVO_SLP_WEAK;
int TSLPloadcoefs(TSLPprob, int, const int[], const int[], const double[], const int[], int, const int[], const double[]) TARVO_SLP_WEAK;
int TSLPchgcoef(TSLPprob, int, int, const double*, int, const int[], const double[]) TARVO_SLP_WEAK;
int TSLPchgccoef(TSLPprob, int, int, const double*, const char*) TARVO_SLP_WEAK;
int TSLPdelcoefs(TSLPprob, int, const int[], const int[]) TARVO_SLP_WEAK;
int TSLPgetcoefs(TSLPprob, int*, int[], int[]) TARVO_SLP_WEAK;
int TSLPgetcoefformula(TSLPprob, int, int, double*, int, int, int*, int[], double[]) TARVO_SLP_WEAK;
int TSLPgetccoef(TSLPprob, int, int, double*, char*, int) TARVO_SLP_WEAK;
int TSLPevaluateformula(TSLPprob, int, const int[], const double[], double*) TARVO_SLP_WEAK;
int TSLPevaluatecoef(TSLPprob, int, int, double*) TARVO_SLP_WEAK;
int TSLPsetstring(TSLPprob, int*, const char*) TARVO_SLP_WEAK;
int TSLPadduserfuncs(TSLPprob, int, const int[], const double[]) TARVO_SLP_WEAK;
int TSLPaddnames(TSLPprob, int, const char[], int, int) TARVO_SLP_WEAK;
int TSLPchguserfuncaddress(TSLPprob, int, void*) TARVO_SLP_WEAK;
int TSLPsetuserfuncobject(TSLPprob, int, void*) TARVO_SLP_WEAK;
int TSLPgetuserfuncobject(TSLPprob, int, void**) TARVO_SLP_WEAK;
int TSLPgetfuncobject(TSLPfuncobject, int, void**) TARVO_SLP_WEAK;
int TSLPgetfuncinfo(TSLPfuncobject, int*, int*, int*) TARVO_SLP_WEAK;
int TSLPaddvars(TSLPprob, int, const int[], const int[], const int[], const int[], const int[], const double[], const double[]) TARVO_SLP_WEAK;
int TSLPloadvars(TSLPprob, int, const int[], const int[], const int[], const int[], const int[], const double[], const double[]) TARVO_SLP_WEAK;
int TSLPchgvar(TSLPprob, int, const int*, const double*, const double*, const double*, const double*, const double*,
               const double*, const int*, const int*, const int*, const int*) TARVO_SLP_WEAK;
int TSLPgetvar(TSLPprob, int, int*, double*, double*, double*, double*, double*, double*, int*, int*, int*, int*, int*,
               int*, int*, double*) TARVO_SLP_WEAK;
int TSLPdelvars(TSLPprob, int, const int[]) TARVO_SLP_WEAK;
int TSLPchgdeltatype(TSLPprob, int, const int[], const int[], const double[]) TARVO_SLP_WEAK;
int TSLPchgcascadenlimit(TSLPprob, int, int) TARVO_SLP_WEAK;
int TSLPaddtolsets(TSLPprob, int, const double[]) TARVO_SLP_WEAK;
int TSLPloadtolsets(TSLPprob, int, const double[]) TARVO_SLP_WEAK;
int TSLPchgtolset(TSLPprob, int, const int*, const double[]) TARVO_SLP_WEAK;
int TSLPgettolset(TSLPprob, int, int*, double[]) TARVO_SLP_WEAK;
int TSLPdeltolsets(TSLPprob, int, const int[]) TARVO_SLP_WEAK;
int TSLPchgrowwt(TSLPprob, int, const double*) TARVO_SLP_WEAK;
int TSLPgetrowwt(TSLPprob, int, double*) TARVO_SLP_WEAK;
int TSLPchgrowstatus(TSLPprob, int, const int*) TARVO_SLP_WEAK;
int TSLPgetrowstatus(TSLPprob, int, int*) TARVO_SLP_WEAK;
int TSLPadddfs(TSLPprob, int, const int[], const int[], const double[]) TARVO_SLP_WEAK;
int TSLPloaddfs(TSLPprob, int, const int[], const int[], const double[]) TARVO_SLP_WEAK;
int TSLPchgdf(TSLPprob, int, int, const double*) TARVO_SLP_WEAK;
int TSLPgetdf(TSLPprob, int, int, double*) TARVO_SLP_WEAK;
int TSLPnlpoptimize(TSLPprob, const char*) TARVO_SLP_WEAK;
int TSLPglobal(TSLPprob) TARVO_SLP_WEAK;
int TSLPgetslpsol(TSLPprob, double[], double[], double[], double[]) TARVO_SLP_WEAK;
int TSLPgetrowinfo(TSLPprob, int, int, int*, int*, double*) TARVO_SLP_WEAK;
int TSLPgetcolinfo(TSLPprob, int, int, int*, int*, double*) TARVO_SLP_WEAK;
int TSLPmsaddjob(TSLPprob, const char*, int, const int[], const double[], int, const int[], const double[], void*) TARVO_SLP_WEAK;
int TSLPmsaddpreset(TSLPprob, const char*, int, int, void*) TARVO_SLP_WEAK;
int TSLPmsaddcustompreset(TSLPprob, const char*, int, int, int, const int[], const double[], int, const int[],
                          const double[], void*) TARVO_SLP_WEAK;
int TSLPmsclear(TSLPprob) TARVO_SLP_WEAK;
// Whole-problem operations without arguments.
int TSLPvalidate(TSLPprob) TARVO_SLP_WEAK;
int TSLPupdatelinearization(TSLPprob) TARVO_SLP_WEAK;
int TSLPunconstruct(TSLPprob) TARVO_SLP_WEAK;
int TSLPsetcurrentiv(TSLPprob) TARVO_SLP_WEAK;
int TSLPscaling(TSLPprob) TARVO_SLP_WEAK;
int TSLPreinitialize(TSLPprob) TARVO_SLP_WEAK;
int TSLPprintevalinfo(TSLPprob) TARVO_SLP_WEAK;
int TSLPprintmemory(TSLPprob) TARVO_SLP_WEAK;
int TSLPpresolve(TSLPprob) TARVO_SLP_WEAK;
int TSLPpostsolve(TSLPprob) TARVO_SLP_WEAK;
int TSLPconstruct(TSLPprob) TARVO_SLP_WEAK;
int TSLPcascadeorder(TSLPprob) TARVO_SLP_WEAK;
int TSLPcascade(TSLPprob) TARVO_SLP_WEAK;
int TSLPfixpenalties(TSLPprob, int*) TARVO_SLP_WEAK;
int TSLPvalidatevector(TSLPprob, const double[], double*, double*, double*) TARVO_SLP_WEAK;
int TSLPvalidaterow(TSLPprob, int) TARVO_SLP_WEAK;
int TSLPvalidatekkt(TSLPprob, int, int, int, double) TARVO_SLP_WEAK;
#undef TARVO_SLP_WEAK
}

namespace tarvo {
// True when the operation exists; otherwise raises SolverError naming it and returns false.
bool slp_available(const void* fn, const char* name);
}
#define SLP_NEED(fn) ::tarvo::slp_available(reinterpret_cast<const void*>(&fn), #fn)
