/* The nonlinear library's C interface: a successive-linear-programming solver bound to a
   problem of the optimisation library. It shares that problem's rows and columns and adds
   nonlinear coefficients, user functions, SLP variable data, tolerance sets, row weights and
   statuses, multistart jobs, callbacks and its own controls and attributes.

   Every function returns 0 on success; on failure it returns non-zero and records a message
   readable with TSLPgetlasterror (per problem, or with a null problem for failures that have
   none). No C++ exception crosses this boundary.

   Conventions:
   - Indices are 0-based rows and columns of the bound optimisation problem.
   - A nonlinear coefficient (row, column, factor, formula) adds factor * formula(x) * x[column]
     to the row's value; column -1 (integer attribute TSLP_EQUALSCOLUMN) is the constant
     "equals column": the coefficient then adds factor * formula(x). A null factor means 1.
   - Formulas are token arrays: parallel arrays of types (int) and values (double), ended by a
     TSLP_TOK_EOF token. "Parsed" formulas are in postfix (reverse Polish) order; unparsed ones
     in infix order and may use brackets and delimiters.
   - Text formulas (TSLPchgccoef, TSLPgetccoef) use the infix syntax: numbers, column names
     (or C<index> for a column without a name; a name that is not a letter or '_' followed by
     letters, digits, '_' and '.' is written in double quotes, with \" and \\ inside),
     + - * / ^ (also **), brackets, and the function
     names EXP LN (LOG) LOG10 ABS SQRT SIN COS TAN ARCSIN (ASIN) ARCCOS (ACOS) ARCTAN (ATAN)
     MIN MAX PWL SIGN ERF ERFC and registered user-function names, arguments separated by
     commas. PWL(x, x1, y1, x2, y2, ...) is piecewise linear in x through the points. */
#ifndef TARVO_TSLP_H
#define TARVO_TSLP_H

#include "library_interface/trvo.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct tslp_problem_s* TSLPprob;
/* The context the solver hands to a user function while calling it. */
typedef struct tslp_funcobject_s* TSLPfuncobject;

/* ---- token types */
#define TSLP_TOK_EOF 0      /* end of formula */
#define TSLP_TOK_CON 1      /* constant: the number */
#define TSLP_TOK_COL 10     /* column: its index */
#define TSLP_TOK_UFUN 11    /* user function: its registered index */
#define TSLP_TOK_IFUN 12    /* internal function: its number (below) */
#define TSLP_TOK_RB 21      /* right bracket (infix only) */
#define TSLP_TOK_LB 22      /* left bracket; in postfix: start of a function's arguments */
#define TSLP_TOK_OP 31      /* operator (below) */
#define TSLP_TOK_DEL 32     /* argument delimiter (infix only) */
/* operators */
#define TSLP_OP_UMINUS 1
#define TSLP_OP_POWER 2
#define TSLP_OP_MULTIPLY 3
#define TSLP_OP_DIVIDE 4
#define TSLP_OP_PLUS 5
#define TSLP_OP_MINUS 6
/* internal functions */
#define TSLP_FUN_LOG10 14
#define TSLP_FUN_LN 15
#define TSLP_FUN_EXP 16
#define TSLP_FUN_ABS 17
#define TSLP_FUN_SQRT 18
#define TSLP_FUN_SIN 27
#define TSLP_FUN_COS 28
#define TSLP_FUN_TAN 29
#define TSLP_FUN_ARCSIN 30
#define TSLP_FUN_ARCCOS 31
#define TSLP_FUN_ARCTAN 32
#define TSLP_FUN_MIN 33
#define TSLP_FUN_MAX 34
#define TSLP_FUN_PWL 35
#define TSLP_FUN_SIGN 46
#define TSLP_FUN_ERF 49
#define TSLP_FUN_ERFC 50
/* tokens of a user-function description (TSLPadduserfuncs) */
#define TSLP_TOK_STRING 5       /* value: index of a string from TSLPsetstring */
#define TSLP_TOK_UFARGTYPE 86   /* 19: values only; 110611: the function also returns derivatives */
#define TSLP_TOK_UFEXETYPE 87   /* 1: called directly */

/* ---- statuses (integer attribute TSLP_NLPSTATUS) */
enum {
    TSLP_NLP_UNSTARTED = 0, TSLP_NLP_SOLUTION = 1, TSLP_NLP_LOCALLY_OPTIMAL = 1,
    TSLP_NLP_GLOBALLY_OPTIMAL = 2, TSLP_NLP_LOCALLY_INFEASIBLE = 3, TSLP_NLP_INFEASIBLE = 4,
    TSLP_NLP_UNBOUNDED = 5, TSLP_NLP_UNFINISHED = 6
};
/* bits of integer attribute TSLP_STATUS */
#define TSLP_STATE_CONSTRUCTED 0x1
#define TSLP_STATE_PRESOLVED (1 << 29)
/* row status bit: the row carries a nonlinear objective moved into a row */
#define TSLP_ROWSTATUS_TRANSFER 0x800

/* ---- integer attributes */
#define TSLP_ROWS 11999
#define TSLP_COLS 12000
#define TSLP_ITER 12001            /* SLP iterations of the last solve */
#define TSLP_SIMPLEXITER 12002     /* LP (and QP active-set) iterations of the step
                                      problems of the last solve */
#define TSLP_STOPSTATUS 12003      /* stop reason (as the optimisation library's) */
#define TSLP_COEFFICIENTS 12004    /* nonlinear coefficients */
#define TSLP_VARIABLES 12005       /* columns with SLP variable data */
#define TSLP_TOLSETS 12006
#define TSLP_UFS 12007             /* user functions */
#define TSLP_MSJOBS 12008          /* multistart jobs waiting */
#define TSLP_MSWINNER 12009        /* index (1-based) of the winning job, 0 none */
#define TSLP_PENALTYERRORS 12010   /* rows with a positive penalty error at the end */
#define TSLP_MIPITER 12011         /* SLP iterations of the node relaxations of mixed-integer solves */
#define TSLP_EQUALSCOLUMN 12013    /* always -1: the constant column of coefficients */
#define TSLP_NONLINEARROWS 12016   /* rows holding nonlinear coefficients */
#define TSLP_NLPROWS 12026         /* rows the solver linearises (with quadratic rows) */
#define TSLP_NLPSTATUS 12044
#define TSLP_STATUS 12062          /* state bits */
/* row and column information kinds */
enum {
    TSLP_ROWINFO_SLACK = 1, TSLP_ROWINFO_DUAL = 2, TSLP_ROWINFO_NUMPENALTYERRORS = 3,
    TSLP_ROWINFO_MAXPENALTYERROR = 4, TSLP_ROWINFO_TOTALPENALTYERROR = 5,
    TSLP_ROWINFO_CURRENTPENALTYERROR = 6, TSLP_ROWINFO_CURRENTPENALTYFACTOR = 7,
    TSLP_ROWINFO_PENALTYCOLUMNPLUS = 8, TSLP_ROWINFO_PENALTYCOLUMNPLUSVALUE = 9,
    TSLP_ROWINFO_PENALTYCOLUMNPLUSDJ = 10, TSLP_ROWINFO_PENALTYCOLUMNMINUS = 11,
    TSLP_ROWINFO_PENALTYCOLUMNMINUSVALUE = 12, TSLP_ROWINFO_PENALTYCOLUMNMINUSDJ = 13
};
enum {
    TSLP_COLINFO_VALUE = 1, TSLP_COLINFO_RDJ = 2, TSLP_COLINFO_DELTAINDEX = 3,
    TSLP_COLINFO_DELTA = 4, TSLP_COLINFO_DELTADJ = 5, TSLP_COLINFO_UPDATEROW = 6,
    TSLP_COLINFO_SB = 7, TSLP_COLINFO_SBDUAL = 8
};
/* ---- double attributes */
#define TSLP_OBJVAL 12179
#define TSLP_ERRORCOSTS 12180      /* penalty cost of the errors at the end */
#define TSLP_MAXVIOLATION 12181    /* largest row violation at the solution */
#define TSLP_CURRENTPENALTY 12182  /* penalty factor at the end */
#define TSLP_TIME 12183            /* seconds of the last solve */
#define TSLP_KKTRESIDUAL 12184     /* KKT residual of the last validatekkt or solve */
#define TSLP_VALIDATIONINDEX_A 12185  /* absolute validation index (TSLPvalidate) */
#define TSLP_VALIDATIONINDEX_R 12186  /* relative validation index */
/* ---- string attributes */
#define TSLP_VERSION 12301
/* ---- pointer attributes */
#define TSLP_TRVOPROB 12601        /* the bound optimisation problem */
#define TSLP_GLOBALFUNCOBJECT 12602 /* item of TSLPgetfuncobject: the nonlinear problem */

/* ---- double controls */
#define TSLP_FEASTOL 12101         /* absolute row violation accepted at a solution */
/* Convergence of a column's step d (entries 0-8 of a tolerance set override these controls,
   in this order, for the columns that use the set): the column has converged when
   |d| <= CTOL * its initial step bound (closure), or |d| <= ATOL_A + ATOL_R |x| (delta), or,
   when its coefficient or impact tolerances are not all zero, every coefficient a of the
   column (objective and row gradients) changes along the step by at most MTOL_A + MTOL_R |a|
   (coefficient) or by a change whose product with d is at most ITOL_A + ITOL_R |a x| (impact),
   and, unless both slack tolerances are zero, each of its rows is linearised within
   STOL_A + STOL_R |row value| at the new point (slack). A run stops on these tests only at a
   feasible KKT point (TSLP_KKTTOL). */
#define TSLP_CTOL 12102            /* closure tolerance */
#define TSLP_ATOL_A 12103          /* absolute delta tolerance */
#define TSLP_ATOL_R 12104          /* relative delta tolerance */
#define TSLP_MTOL_A 12105          /* absolute coefficient tolerance (0: test off) */
#define TSLP_MTOL_R 12106          /* relative coefficient tolerance */
#define TSLP_ITOL_A 12107          /* absolute impact tolerance (0: test off) */
#define TSLP_ITOL_R 12108          /* relative impact tolerance */
#define TSLP_STOL_A 12109          /* absolute slack tolerance (0: test off) */
#define TSLP_STOL_R 12110          /* relative slack tolerance */
#define TSLP_OPTIMALITYTOL 12111   /* relative objective change / KKT tolerance */
#define TSLP_DEFAULTSTEPBOUND 12112 /* initial step bound; 0 automatic */
#define TSLP_MINSTEPBOUND 12113
#define TSLP_PENALTY 12114         /* initial penalty factor */
#define TSLP_MAXPENALTY 12115
#define TSLP_PENALTYINCREASE 12116 /* factor by which the penalty is raised */
#define TSLP_DAMP 12117            /* default damping factor */
#define TSLP_INFINITY 12118        /* objective magnitude reported as unbounded */
#define TSLP_MAXTIME 12119         /* seconds; <= 0 no limit */
#define TSLP_DELTA_X 12120         /* relative perturbation of numerical derivatives */
#define TSLP_MSMAXBOUNDRANGE 12121 /* range of random initial values of unbounded columns */
#define TSLP_MIPTOL 12122          /* integrality tolerance of the branch-and-bound */
#define TSLP_KKTTOL 12123          /* largest KKT residual (exact gradients, row multipliers,
                                      relative to max(1, largest objective gradient entry))
                                      of a point reported locally optimal */
#define TSLP_OBJSENSE 12146        /* 1 minimise, -1 maximise */
/* ---- integer controls */
#define TSLP_ITERLIMIT 12401
#define TSLP_LOG 12402             /* 0 quiet, 1 summary, 2 each iteration, 3 with LP logs */
#define TSLP_POSTSOLVE 12403       /* 1: leave the presolved state after each solve */
#define TSLP_CASCADE 12404         /* 1: recompute determined columns after each step */
#define TSLP_CASCADENLIMIT 12405   /* Newton steps per determined column */
#define TSLP_SAMECOUNT 12406       /* no effect (the branch-and-bound fixes no integers
                                      during an SLP run): only the default 3 is accepted */
#define TSLP_PENALTYCOUNT 12407    /* iterations with errors before the penalty is raised */
#define TSLP_DERIVATIVES 12408     /* 0 analytic, 1 numerical */
#define TSLP_MULTISTART 12409      /* 0: multistart jobs are not run by TSLPnlpoptimize */
#define TSLP_MSSEED 12410          /* seed of the random initial values */
#define TSLP_MSMAXJOBS 12411       /* 0: no limit */
#define TSLP_MSTHREADS 12412       /* threads for multistart jobs: jobs run one after another,
                                      so only 0 or 1 is accepted (larger values are refused) */
#define TSLP_PRESOLVE 12413        /* 1: presolve the model of each solve (TSLPpresolve): fix
                                      columns that equality rows determine, drop rows whose
                                      columns are all fixed, make rows linear whose curved
                                      columns are all fixed, tighten bounds from linear rows */
#define TSLP_THREADSAFEUSERFUNC 12415 /* 0: user functions are called from one thread only */
#define TSLP_MIPFIXSTEPS 12414     /* mixed-integer solves always finish with an SLP solve
                                      with their integers fixed: only 1 is accepted */
#define TSLP_QUASINEWTON 12416     /* 1: the continuous step problems carry a model of the
                                      Lagrangian's curvature: a QP with its exact Hessian
                                      (convexified) for up to 200 curved columns, separable
                                      piecewise-linear costs above that; 2: as 1 with a
                                      quasi-Newton (BFGS) matrix instead of the exact
                                      Hessian; 0: pure linear steps */
#define TSLP_STEPSOLVER 12417     /* solver of the continuous step problems: 0 automatic (the
                                      sparse interior-point solver for large curved models whose
                                      rows couple few neighbours, else the simplex method), 1 the
                                      simplex method, 2 the interior-point solver wherever the
                                      structure suits it (small models then step by separable
                                      LPs instead of dense second-order QPs). The interior-point
                                      solver (steps and multiplier fits) runs the two halves of
                                      a large model on two threads unless TRVO_THREADS is 1
                                      (0, automatic: two threads where the machine has two);
                                      the results are the same either way */
#define TSLP_QPWARMSTART 12418    /* 1: the second-order QP step problems of small models try
                                      the last answer's active set first (no QP solve when it is
                                      still optimal), then start HiGHS's QP solver from no step;
                                      0: from a phase-one LP of HiGHS's own at every step
                                      (slower). Answers are made exact on their active sets
                                      either way, so both take the same steps (except where
                                      HiGHS's answers cannot be made exact) */

/* ---- callback types */
typedef void (*TSLPcbmessage)(TSLPprob prob, void* context, const char* msg, int len,
                              int msgtype);
/* slpstart, slpend, iterstart, iterend, cascadestart, cascadeend, construct, destroy,
   slpnode, intsol: a non-zero return from iterstart or iterend stops the solve.
   slpnode is called at each node of the mixed-integer search after the node's SLP run; a
   non-zero return marks the node infeasible. */
typedef int (*TSLPcbsimple)(TSLPprob prob, void* context);
/* optnode, prenode: *feas set non-zero marks the node infeasible. */
typedef int (*TSLPcbnode)(TSLPprob prob, void* context, int* feas);
/* itervar, cascadevar, cascadevarfail: a column. */
typedef int (*TSLPcbcol)(TSLPprob prob, void* context, int col);
/* coefevalerror: the row and column of the coefficient whose evaluation failed. */
typedef int (*TSLPcbcoefevalerror)(TSLPprob prob, void* context, int row, int col);
/* drcol: a determined column's new value, which the callback may replace in *newvalue. */
typedef int (*TSLPcbdrcol)(TSLPprob prob, void* context, int col, double value,
                           double* newvalue, double lb, double ub);
/* msjobstart, msjobend: *status (may be null) receives the callback's verdict; non-zero at
   start skips the job, non-zero at end discards its result. */
typedef int (*TSLPcbmsjob)(TSLPprob prob, void* context, void* jobobject,
                           const char* description, int* status);
typedef int (*TSLPcbmswinner)(TSLPprob prob, void* context, void* jobobject,
                              const char* description);
/* A user function. input: the argument values; delta: per argument, non-zero where a
   partial derivative is wanted; results: slot 0 the value, slot i the derivative by argument
   i (1-based). Returns the value (or 0 when it wrote results), or -1 with results untouched
   on failure. Use TSLPgetfuncinfo and TSLPgetfuncobject on fobj. */
typedef double (*TSLPuserfunc)(const double* input, const double* delta, double* results,
                               TSLPfuncobject fobj);

/* ---- environment */
int TSLPinit(void);
int TSLPfree(void);
int TSLPgetversion(char* version);  /* 16 bytes */

/* ---- problems */
int TSLPcreateprob(TSLPprob* prob, TRVOprob* trvoprob);
int TSLPdestroyprob(TSLPprob prob);
/* Copies the nonlinear data (not the bound optimisation problem, copied by TRVOcopyprob). */
int TSLPcopyprob(TSLPprob dest, TSLPprob src, const char* probname);
int TSLPcopycontrols(TSLPprob dest, TSLPprob src);
int TSLPcopycallbacks(TSLPprob dest, TSLPprob src);
/* msg: 512 bytes. A null prob reads the last error of calls without a problem. */
int TSLPgetlasterror(TSLPprob prob, int* code, char* msg);
int TSLPinterrupt(TSLPprob prob, int reason);

/* ---- problem files ("nonlinear MPS": the bound problem's MPS file with the nonlinear data in
   sections of its own; see src/engine/slp/files.cpp). Writing fails, writing nothing, when a
   formula calls a user function. A file without the nonlinear sections reads as a problem
   without nonlinear data. A failed read leaves both problems empty; its message names the
   line at fault. */
int TSLPwriteprob(TSLPprob prob, const char* filename, const char* flags);
int TSLPreadprob(TSLPprob prob, const char* filename, const char* flags);

/* ---- controls and attributes */
/* The catalogue: parallel arrays owned by the library; entry 0 is a placeholder, the list
   ends at the first empty name. Names upper case. Flags as TSLPcontrolcode. */
int TSLPgetcalist(const int** ids, const char* const** names, const int** flags);
/* Knitro controls: this library has none (the list holds the placeholder and the end). */
int TSLPgetKTRcalist(const int** ids, const char* const** names, const int** flags);
/* Information bits of a name (any case): 0x1 integer, 0x2 double, 0x4 string, 0x10 control,
   0x200 not defined. The optional id receives the identifier. */
int TSLPcontrolcode(const char* name, int* info);
int TSLPgetcontrolinfo(const char* name, int* id, int* info);
int TSLPsetintcontrol(TSLPprob prob, int control, int value);
int TSLPsetdblcontrol(TSLPprob prob, int control, double value);
int TSLPsetstrcontrol(TSLPprob prob, int control, const char* value);
int TSLPgetintcontrol(TSLPprob prob, int control, int* value);
int TSLPgetdblcontrol(TSLPprob prob, int control, double* value);
int TSLPgetstrcontrol(TSLPprob prob, int control, char* value);   /* 1024 bytes */
int TSLPsetdefaultcontrol(TSLPprob prob, int control);
int TSLPsetdefaults(TSLPprob prob);
int TSLPgetintattrib(TSLPprob prob, int attrib, int* value);
int TSLPgetdblattrib(TSLPprob prob, int attrib, double* value);
int TSLPgetstrattrib(TSLPprob prob, int attrib, char* value);     /* 1024 bytes */
int TSLPgetptrattrib(TSLPprob prob, int attrib, void** value);

/* ---- nonlinear coefficients (parsed: 1 postfix token order, 0 infix) */
/* fstart: ncoef + 1 positions in type/value; factor may be null (1.0). A coefficient that
   already has a formula gets the new one added to it. */
int TSLPaddcoefs(TSLPprob prob, int ncoef, const int rowindex[], const int colindex[],
                 const double factor[], const int fstart[], int parsed, const int type[],
                 const double value[]);
/* As TSLPaddcoefs after deleting every coefficient. */
int TSLPloadcoefs(TSLPprob prob, int ncoef, const int rowindex[], const int colindex[],
                  const double factor[], const int fstart[], int parsed, const int type[],
                  const double value[]);
/* Sets (replaces) one coefficient; a null factor keeps the existing factor (or 1). */
int TSLPchgcoef(TSLPprob prob, int row, int col, const double* factor, int parsed,
                const int type[], const double value[]);
int TSLPchgccoef(TSLPprob prob, int row, int col, const double* factor, const char* formula);
int TSLPdelcoefs(TSLPprob prob, int ncoef, const int rowindex[], const int colindex[]);
/* Coefficients ordered by row, then column; null arrays: only the count. */
int TSLPgetcoefs(TSLPprob prob, int* ncoef, int rowindex[], int colindex[]);
/* The formula with its end token; *ntokens counts them. Fails when bufsize is too small
   (null arrays: only factor and count). */
int TSLPgetcoefformula(TSLPprob prob, int row, int col, double* factor, int parsed,
                       int bufsize, int* ntokens, int type[], double value[]);
/* The formula as text in a buffer of flen bytes (fails when it does not fit). */
int TSLPgetccoef(TSLPprob prob, int row, int col, double* factor, char* formula, int flen);
/* Value at the current point (the last solution, else the initial values). */
int TSLPevaluateformula(TSLPprob prob, int parsed, const int type[], const double value[],
                        double* result);
/* Value of factor * formula (without the column) at the current point. */
int TSLPevaluatecoef(TSLPprob prob, int row, int col, double* result);

/* ---- user functions and strings */
int TSLPsetstring(TSLPprob prob, int* index, const char* text);   /* index from 1 */
int TSLPgetstring(TSLPprob prob, int index, char* text, int maxbytes);
/* nuf descriptions, each ended by an end token: TSLP_TOK_STRING (name),
   TSLP_TOK_UFEXETYPE, TSLP_TOK_UFARGTYPE, TSLP_TOK_STRING (calling convention). Functions get
   the next indices (from 1). */
int TSLPadduserfuncs(TSLPprob prob, int nuf, const int type[], const double value[]);
/* Names of class 5 (user functions) first..last (1-based), NUL-separated. */
int TSLPaddnames(TSLPprob prob, int type, const char names[], int first, int last);
int TSLPchguserfuncaddress(TSLPprob prob, int index, void* address);   /* a TSLPuserfunc */
int TSLPsetuserfuncobject(TSLPprob prob, int index, void* object);
int TSLPgetuserfuncobject(TSLPprob prob, int index, void** object);
/* Inside a user function: item TSLP_GLOBALFUNCOBJECT gives the nonlinear problem. */
int TSLPgetfuncobject(TSLPfuncobject fobj, int item, void** object);
/* Inside a user function: number of inputs, flags (0x1 value wanted, 0x2 derivatives
   wanted) and the function's index. */
int TSLPgetfuncinfo(TSLPfuncobject fobj, int* ninput, int* flags, int* index);

/* ---- SLP variables (columns with data of their own; null arrays take defaults) */
int TSLPaddvars(TSLPprob prob, int nvar, const int colindex[], const int vartype[],
                const int detrow[], const int seqnum[], const int tolindex[],
                const double initvalue[], const double stepbound[]);
int TSLPloadvars(TSLPprob prob, int nvar, const int colindex[], const int vartype[],
                 const int detrow[], const int seqnum[], const int tolindex[],
                 const double initvalue[], const double stepbound[]);
/* Null pointers leave the item unchanged; detrow -1 releases a determined column. */
int TSLPchgvar(TSLPprob prob, int col, const int* detrow, const double* initstepbound,
               const double* stepbound, const double* penalty, const double* damp,
               const double* initvalue, const double* value, const int* tolset,
               const int* history, const int* converged, const int* vartype);
/* Any output may be null. delta: the column's delta type; penaltydelta: 1 when its step
   bound was active at the end; updaterow: always -1 (no update rows); originalvalue: the
   initial value of the last solve. */
int TSLPgetvar(TSLPprob prob, int col, int* detrow, double* initstepbound, double* stepbound,
               double* penalty, double* damp, double* initvalue, double* value, int* tolset,
               int* history, int* converged, int* vartype, int* delta, int* penaltydelta,
               int* updaterow, double* originalvalue);
int TSLPdelvars(TSLPprob prob, int nvar, const int colindex[]);
/* delta types: 0 continuous, 1 steps smaller than value are not taken, 2 steps are whole
   multiples of value. */
int TSLPchgdeltatype(TSLPprob prob, int nvar, const int colindex[], const int deltatypes[],
                     const double values[]);
int TSLPchgcascadenlimit(TSLPprob prob, int col, int limit);

/* ---- tolerance sets (numbered from 1; 9 values each: closure, absolute and relative delta,
   coefficient, impact and slack; status bit i set: value i in force) */
int TSLPaddtolsets(TSLPprob prob, int nset, const double tols[]);
int TSLPloadtolsets(TSLPprob prob, int nset, const double tols[]);
int TSLPchgtolset(TSLPprob prob, int index, const int* status, const double tols[]);
int TSLPgettolset(TSLPprob prob, int index, int* status, double tols[]);
int TSLPdeltolsets(TSLPprob prob, int nset, const int index[]);

/* ---- deletion in the bound optimiser problem. Call right after TRVOdelrows / TRVOdelcols
   with the same indices (positions before the deletion): the nonlinear data of deleted rows or
   columns is dropped and that of later ones moves down with them. A deleted column inside a
   formula becomes the constant 0, as deleting a column does to linear coefficients. */
int TSLPdelrows(TSLPprob prob, int nrows, const int rowindex[]);
int TSLPdelcols(TSLPprob prob, int ncols, const int colindex[]);

/* ---- rows and distribution factors */
int TSLPchgrowwt(TSLPprob prob, int row, const double* weight);   /* null: default 1 */
int TSLPgetrowwt(TSLPprob prob, int row, double* weight);
int TSLPchgrowstatus(TSLPprob prob, int row, const int* status);
int TSLPgetrowstatus(TSLPprob prob, int row, int* status);
/* A distribution factor scales the linear coefficient of a column in a row (default 1). */
int TSLPadddfs(TSLPprob prob, int ndf, const int colindex[], const int rowindex[],
               const double value[]);
int TSLPloaddfs(TSLPprob prob, int ndf, const int colindex[], const int rowindex[],
                const double value[]);
int TSLPchgdf(TSLPprob prob, int col, int row, const double* value);
int TSLPgetdf(TSLPprob prob, int col, int row, double* value);

/* ---- solving */
/* Solves from the initial values (or runs the multistart jobs, keeping the best). Flags: any
   text; 'g' (the problem has integer columns) is accepted and implied by the columns. */
int TSLPnlpoptimize(TSLPprob prob, const char* flags);
/* Multistart from random initial values (the jobs given, or a default set), keeping the best
   solution. */
int TSLPglobal(TSLPprob prob);
/* x, dj: a value per column; slack (rhs minus activity), dual: per row; any may be null. */
int TSLPgetslpsol(TSLPprob prob, double x[], double slack[], double dual[], double dj[]);
/* Solution files (the optimiser's .slx format): write the last nonlinear solution; read values
   that become the named columns' initial values. */
int TSLPwriteslxsol(TSLPprob prob, const char* filename, const char* flags);
int TSLPreadslxsol(TSLPprob prob, const char* filename, const char* flags);
/* Row or column information of the last solve (TSLP_ROWINFO_..., TSLP_COLINFO_...): *tag is 1
   for an integer in *ivalue, 2 for a double in *dvalue. */
int TSLPgetrowinfo(TSLPprob prob, int infotype, int row, int* tag, int* ivalue, double* dvalue);
int TSLPgetcolinfo(TSLPprob prob, int infotype, int col, int* tag, int* ivalue, double* dvalue);

/* ---- multistart (jobs run by TSLPnlpoptimize when TSLP_MULTISTART is 1, and by TSLPglobal;
   the run from the initial values always takes part; the best solution is kept) */
#define TSLP_MSSET_INITIALVALUES 0     /* random initial values */
#define TSLP_MSSET_SOLVERS 1           /* variations of the derivative and cascading settings */
#define TSLP_MSSET_SLP_BASIC 2         /* variations of penalty and step bounds */
#define TSLP_MSSET_SLP_EXTENDED 3      /* more of them */
#define TSLP_MSSET_KNITRO_BASIC 4      /* not available: fails */
#define TSLP_MSSET_KNITRO_EXTENDED 5
#define TSLP_MSSET_INITIALFILTERED 6   /* random initial values, the least violated of several */
int TSLPmsaddjob(TSLPprob prob, const char* description, int ninitial, const int colindex[],
                 const double initial[], int ncontrols, const int controlid[],
                 const double controlvalue[], void* jobobject);
/* count jobs of the preset (0: the preset's natural number). */
int TSLPmsaddpreset(TSLPprob prob, const char* description, int preset, int count,
                    void* jobobject);
/* A preset whose jobs also take the given initial values and control values. */
int TSLPmsaddcustompreset(TSLPprob prob, const char* description, int preset, int count,
                          int ninitial, const int colindex[], const double initial[],
                          int ncontrols, const int controlid[], const double controlvalue[],
                          void* jobobject);
int TSLPmsclear(TSLPprob prob);

/* ---- whole-problem operations outside a solve (the current point is the last solution, else
   the initial values) */
int TSLPconstruct(TSLPprob prob);            /* compiles every formula; sets state bit 0 */
int TSLPunconstruct(TSLPprob prob);          /* clears state bit 0 */
int TSLPpresolve(TSLPprob prob);             /* sets state bit 29 */
int TSLPpostsolve(TSLPprob prob);            /* clears state bit 29 */
int TSLPreinitialize(TSLPprob prob);         /* forgets the solution and the solver state */
int TSLPupdatelinearization(TSLPprob prob);  /* evaluates every row and gradient at the current point */
int TSLPsetcurrentiv(TSLPprob prob);         /* the current point becomes the initial values */
int TSLPscaling(TSLPprob prob);              /* row weights from the gradients' sizes */
int TSLPcascadeorder(TSLPprob prob);         /* sequence numbers of the determined columns */
int TSLPcascade(TSLPprob prob);              /* recomputes determined columns at the current point */
int TSLPfixpenalties(TSLPprob prob, int* status);
int TSLPvalidate(TSLPprob prob);             /* attributes TSLP_VALIDATIONINDEX_A and _R */
int TSLPvalidatevector(TSLPprob prob, const double vector[], double* suminf, double* sumscaledinf,
                       double* objval);
int TSLPvalidaterow(TSLPprob prob, int row);
int TSLPvalidatekkt(TSLPprob prob, int calculationmode, int respectbasisstatus, int updatemultipliers,
                    double kktviolationtarget);   /* attribute TSLP_KKTRESIDUAL */
int TSLPprintevalinfo(TSLPprob prob);
int TSLPprintmemory(TSLPprob prob);

/* ---- callbacks (a null function removes the callback) */
int TSLPsetcbmessage(TSLPprob prob, TSLPcbmessage f, void* context);
int TSLPsetcbslpstart(TSLPprob prob, TSLPcbsimple f, void* context);
int TSLPsetcbslpend(TSLPprob prob, TSLPcbsimple f, void* context);
int TSLPsetcbiterstart(TSLPprob prob, TSLPcbsimple f, void* context);
int TSLPsetcbiterend(TSLPprob prob, TSLPcbsimple f, void* context);
int TSLPsetcbcascadestart(TSLPprob prob, TSLPcbsimple f, void* context);
int TSLPsetcbcascadeend(TSLPprob prob, TSLPcbsimple f, void* context);
int TSLPsetcbconstruct(TSLPprob prob, TSLPcbsimple f, void* context);
int TSLPsetcbdestroy(TSLPprob prob, TSLPcbsimple f, void* context);
int TSLPsetcbslpnode(TSLPprob prob, TSLPcbsimple f, void* context);
int TSLPsetcbintsol(TSLPprob prob, TSLPcbsimple f, void* context);
int TSLPsetcboptnode(TSLPprob prob, TSLPcbnode f, void* context);
int TSLPsetcbprenode(TSLPprob prob, TSLPcbnode f, void* context);
int TSLPsetcbitervar(TSLPprob prob, TSLPcbcol f, void* context);
int TSLPsetcbcascadevar(TSLPprob prob, TSLPcbcol f, void* context);
int TSLPsetcbcascadevarfail(TSLPprob prob, TSLPcbcol f, void* context);
int TSLPsetcbcoefevalerror(TSLPprob prob, TSLPcbcoefevalerror f, void* context);
int TSLPsetcbdrcol(TSLPprob prob, TSLPcbdrcol f, void* context);
int TSLPsetcbmsjobstart(TSLPprob prob, TSLPcbmsjob f, void* context);
int TSLPsetcbmsjobend(TSLPprob prob, TSLPcbmsjob f, void* context);
int TSLPsetcbmswinner(TSLPprob prob, TSLPcbmswinner f, void* context);

/* ---- whole-problem files: the optimiser problem the nonlinear problem is bound to and the
   nonlinear data (formulas, SLP variables, tolerance sets, row data, controls, solution) in one
   file, as TRVOsave/TRVOsaveas/TRVOrestore describe. A problem with user functions or multistart
   jobs (which hold program objects) cannot be saved. */
int TSLPsave(TSLPprob prob);
int TSLPsaveas(TSLPprob prob, const char* filename);
int TSLPrestore(TSLPprob prob, const char* probname, const char* flags);

#ifdef __cplusplus
}
#endif

#endif
