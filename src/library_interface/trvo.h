/* The optimisation library's C interface: a problem store of our own with LP, MIP and convex
   QP optimisation on HiGHS.

   Every function returns 0 on success; on failure it returns non-zero and records a message
   readable with TRVOgetlasterror (per problem) or TRVO_ge_getlasterror (global). No C++
   exception crosses this boundary.

   Conventions:
   - Indices are 0-based. A range first..last is inclusive.
   - Bounds at or beyond +-1e20 (TRVO_INFINITY) are infinite.
   - Row types: 'L' (<= rhs), 'G' (>= rhs), 'E' (= rhs), 'R' (rhs - range <= row <= rhs),
     'N' (free).
   - Column types: 'C' continuous, 'I' integer, 'B' binary, 'S' semi-continuous, 'R'
     semi-continuous integer, 'P' partial integer. For 'S' and 'R' the limit (TRVOchgglblimit) is
     the semi-continuous lower threshold: the column is 0 or lies in [limit, ub]. For 'P' the
     column must be integer while below the limit.
   - Quadratic objective: the objective is c'x + 0.5 x'Qx with Q symmetric. TRVOchgmqobj* and
     TRVOaddqmatrix-style inputs give each pair (i, j) once; for the objective the value is Q_ij
     (so a term q*x*x is given as 2q and q*x*y as q).
   - Quadratic rows: the row's quadratic part is x'Qx with Q symmetric; each pair once with
     value Q_ij (a term c*x*x is given as c and c*x*y as c/2).
   - Name lists (TRVOaddnames, TRVOgetnames, TRVOaddsetnames) are the names one after the
     other, each ended by a NUL character. Name kinds: 1 rows, 2 columns, 3 sets.
   - Sparse getters (TRVOgetrows64, TRVOgetcols64, TRVOgetmqobj*, TRVOgetqrowqmatrix) called with
     null arrays (or size 0) only report the number of entries in *nels. */
#ifndef TARVO_TRVO_H
#define TARVO_TRVO_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct trvo_problem_s* TRVOprob;

#define TRVO_INFINITY 1.0e20

/* ---- statuses */
enum {
    TRVO_LP_UNSTARTED = 0, TRVO_LP_OPTIMAL = 1, TRVO_LP_INFEAS = 2, TRVO_LP_CUTOFF = 3,
    TRVO_LP_UNFINISHED = 4, TRVO_LP_UNBOUNDED = 5, TRVO_LP_CUTOFF_IN_DUAL = 6,
    TRVO_LP_UNSOLVED = 7, TRVO_LP_NONCONVEX = 8
};
enum {
    TRVO_MIP_NOT_LOADED = 0, TRVO_MIP_LP_NOT_OPTIMAL = 1, TRVO_MIP_LP_OPTIMAL = 2,
    TRVO_MIP_NO_SOL_FOUND = 3, TRVO_MIP_SOLUTION = 4, TRVO_MIP_INFEAS = 5, TRVO_MIP_OPTIMAL = 6,
    TRVO_MIP_UNBOUNDED = 7
};
/* Stop reasons (attribute STOPSTATUS, argument of TRVOinterrupt). */
enum {
    TRVO_STOP_NONE = 0, TRVO_STOP_TIMELIMIT = 1, TRVO_STOP_CTRLC = 2, TRVO_STOP_NODELIMIT = 3,
    TRVO_STOP_ITERLIMIT = 4, TRVO_STOP_MIPGAP = 5, TRVO_STOP_SOLLIMIT = 6, TRVO_STOP_USER = 9
};
/* Attribute SOLVESTATUS. */
enum {
    TRVO_SOLVESTATUS_UNSTARTED = 0, TRVO_SOLVESTATUS_STOPPED = 1, TRVO_SOLVESTATUS_FAILED = 2,
    TRVO_SOLVESTATUS_COMPLETED = 3
};

/* ---- integer attributes */
#define TRVO_ROWS 1001
#define TRVO_SETS 1004
#define TRVO_SETMEMBERS 1005
#define TRVO_ELEMS 1006
#define TRVO_QELEMS 1007
#define TRVO_QCONSTRAINTS 1008
#define TRVO_PWLCONS 1009
#define TRVO_LPSTATUS 1010
#define TRVO_MIPSTATUS 1011
#define TRVO_SOLVESTATUS 1012
#define TRVO_STOPSTATUS 1013
#define TRVO_SIMPLEXITER 1014
#define TRVO_BARITER 1015
#define TRVO_NODES 1016
#define TRVO_MIPSOLS 1017
#define TRVO_COLS 1018
#define TRVO_SPAREROWS 1019
#define TRVO_NAMELENGTH 1028      /* longest name, in units of 8 characters */
#define TRVO_MIPENTS 1032
#define TRVO_ORIGINALROWS 1124
#define TRVO_PROBNAMELENGTH 1158
#define TRVO_ORIGINALSETS 1194
#define TRVO_ORIGINALCOLS 1214
#define TRVO_INDICATORS 1325
#define TRVO_GENCONS 1327
#define TRVO_GENCONS_MAX 0
#define TRVO_GENCONS_MIN 1
#define TRVO_GENCONS_AND 2
#define TRVO_GENCONS_OR 3
#define TRVO_GENCONS_ABS 4
/* ---- double attributes */
#define TRVO_LPOBJVAL 2001
#define TRVO_BESTBOUND 2002
#define TRVO_MIPOBJVAL 2003
#define TRVO_MIPBESTOBJVAL 2004
#define TRVO_OBJVAL 2005
#define TRVO_TIME 2006
#define TRVO_OBJSENSE 2007
/* ---- string attributes */
#define TRVO_PROBNAME 3001
/* ---- double controls */
#define TRVO_MAXTIME 7001          /* seconds; <= 0 means no limit */
#define TRVO_FEASTOL 7002
#define TRVO_OPTIMALITYTOL 7003
#define TRVO_MIPTOL 7004           /* integrality tolerance */
#define TRVO_MIPRELSTOP 7005
#define TRVO_MIPABSSTOP 7006
#define TRVO_MIPABSCUTOFF 7007
/* ---- integer controls */
#define TRVO_OUTPUTLOG 8010        /* 0 silent, 1 log routed to message callbacks */
#define TRVO_PRESOLVE 8011         /* 0 off, 1 on */
#define TRVO_THREADS 8012          /* 0 automatic */
#define TRVO_MAXNODE 8013
#define TRVO_MAXMIPSOL 8014
#define TRVO_LPITERLIMIT 8015
#define TRVO_BARITERLIMIT 8016
#define TRVO_DEFAULTALG 8017       /* 1 automatic, 2 dual simplex, 3 primal simplex, 4 barrier */
#define TRVO_CROSSOVER 8018
#define TRVO_RANDOMSEED 8019
#define TRVO_SCALING 8020          /* 0 off, otherwise on */
#define TRVO_KEEPBASIS 8035        /* keep the last basis when the problem is reloaded */
#define TRVO_TREESEARCH 8460       /* 0 automatic, 1 always the engine's own tree search, 2 never */
/* MIP search settings of HiGHS's MIP solver (its options mip_heuristic_effort,
   mip_detect_symmetry, mip_allow_restart; the engine's own tree search has no such steps); the
   tuner varies them. */
#define TRVO_HEUREFFORT 7101       /* share of the MIP search spent in primal heuristics, 0 to 1 */
#define TRVO_SYMMETRY 8101         /* 0 off, 1 detect and exploit symmetry in MIPs */
#define TRVO_MIPRESTART 8102       /* 0 off, 1 allow restarts of the MIP search after the root */

/* ---- message numbers of the engine's own messages (TRVOsetmessagestatus suppresses them; the
   global message handlers receive them as msgnumber) */
#define TRVO_MSG_SOLVER_LOG 1      /* a line of the LP/MIP optimiser's log */
#define TRVO_MSG_SEARCH_LOG 2      /* a line of the engine's tree search log */
#define TRVO_MSG_READ 3            /* what TRVOreadprob read, and its wall and processor time */
#define TRVO_MSG_NONCONVEX 101     /* the problem is nonconvex */
#define TRVO_MSG_ABANDONED 102     /* a run that did not stop when asked was abandoned */
#define TRVO_MSG_QROW_ACCURACY 103 /* quadratic rows not met to the feasibility tolerance */
#define TRVO_MSG_TUNER_RUN 201     /* one run of the tuner */
#define TRVO_MSG_TUNER_RESULT 202  /* the settings the tuner keeps */
#define TRVO_MSG_CONTROLS 203      /* a line of TRVOdumpcontrols */
/* Lines of the nonlinear library's log (its summary, iteration lines, step-problem logs), sent
   by a nonlinear problem; its optimiser problem's message status switches them. */
#define TRVO_MSG_NONLINEAR_LOG 301

/* ---- callbacks */
/* Per-problem message callback: msg is null on a flush request; msgtype 1 information,
   3 warning, 4 error. */
typedef void (*TRVOcbmessage)(TRVOprob prob, void* context, const char* msg, int len,
                              int msgtype);
/* Global message handler. object is the sending library object (use TRVOgetobjecttypename),
   thread an opaque identifier of the sending thread. Returns 0. */
typedef int (*TRVOmsghandler)(void* object, void* context, void* thread, const char* msg,
                              int msgtype, int msgnumber);

/* Solve callbacks (kinds 0 to 18 of the module's registry). Several may be registered per
   kind with a priority; they are called highest priority first, equal priorities in the order
   of registration. A non-zero return of lplog, barlog, globallog, cutlog or checktime stops the
   solve (stop reason TRVO_STOP_USER). */
typedef int (*TRVOcbsimple)(TRVOprob prob, void* context);     /* lplog barlog globallog cutlog checktime */
typedef void (*TRVOcbnotify)(TRVOprob prob, void* context);    /* intsol infnode destroymt */
/* bariteration: *action non-zero stops the interior-point run. */
typedef void (*TRVOcbbariteration)(TRVOprob prob, void* context, int* action);
/* optnode, prenode: *infeasible set non-zero marks the node infeasible. */
typedef void (*TRVOcbnodeinfeas)(TRVOprob prob, void* context, int* infeasible);
typedef void (*TRVOcbnodecutoff)(TRVOprob prob, void* context, int node);
typedef void (*TRVOcbnewnode)(TRVOprob prob, void* context, int parentnode, int node, int branch);
/* mipthread: threadprob is the problem a search worker solves its nodes on. */
typedef void (*TRVOcbmipthread)(TRVOprob prob, void* context, TRVOprob threadprob);
/* preintsol: soltype 0 from a node relaxation, 1 from a heuristic, 2 from a user solution;
   *reject set non-zero rejects the solution, *cutoff may be lowered. */
typedef void (*TRVOcbpreintsol)(TRVOprob prob, void* context, int soltype, int* reject,
                                double* cutoff);
/* gapnotify: the four targets are in/out; a target reached ends the search. */
typedef void (*TRVOcbgapnotify)(TRVOprob prob, void* context, double* relgaptarget,
                                double* absgaptarget, double* absobjtarget, double* absboundtarget);
/* usersolnotify: status 0 the solution was accepted as feasible, 1 it is infeasible, 2 it
   could not be completed, 3 it was not better than the incumbent. */
typedef void (*TRVOcbusersolnotify)(TRVOprob prob, void* context, const char* solname, int status);
/* chgbranchobject: bo is the branching object (TRVObranchobject) the search proposes, which the
   callback takes over; *newbo (null on entry) receives the object to use, which the search then
   owns: bo itself or another. Leaving it null means the callback failed. */
typedef void (*TRVOcbchgbranchobject)(TRVOprob prob, void* context, void* bo, void** newbo);

/* ---- environment */
int TRVOinit(const char* path);
int TRVOfree(void);
int TRVOgetversion(char* version);   /* buffer of at least 16 characters */
int TRVOgetbanner(char* banner);     /* buffer of at least 512 characters */
int TRVO_ge_getlasterror(int* code, char* msg, int maxbytes, int* nbytes);
int TRVO_ge_addcbmsghandler(TRVOmsghandler handler, void* context, int priority);
int TRVO_ge_removecbmsghandler(TRVOmsghandler handler, void* context);
int TRVO_ge_setarchconsistency(int ifarchconsistent);
int TRVOsetcheckedmode(int checkedmode);
int TRVOgetcheckedmode(int* checkedmode);
/* Type name of a library object: "TRVOprob" for problems. */
int TRVOgetobjecttypename(void* object, const char** name);

/* ---- problems */
int TRVOcreateprob(TRVOprob* prob);
int TRVOdestroyprob(TRVOprob prob);
int TRVOcopyprob(TRVOprob dest, TRVOprob src, const char* probname);
int TRVOcopycontrols(TRVOprob dest, TRVOprob src);
int TRVOsetprobname(TRVOprob prob, const char* probname);
int TRVOgetprobname(TRVOprob prob, char* probname);   /* PROBNAMELENGTH + 1 bytes */
int TRVOgetlasterror(TRVOprob prob, char* msg);        /* buffer of 512 bytes */
int TRVOinterrupt(TRVOprob prob, int reason);
int TRVOaddcbmessage(TRVOprob prob, TRVOcbmessage f, void* context, int priority);
int TRVOremovecbmessage(TRVOprob prob, TRVOcbmessage f, void* context);  /* null f: all */
/* Solve callbacks: add (several per kind, by priority) and remove (null f: every one of the
   kind; null context: any context). */
int TRVOaddcbbariteration(TRVOprob prob, TRVOcbbariteration f, void* context, int priority);
int TRVOremovecbbariteration(TRVOprob prob, TRVOcbbariteration f, void* context);
int TRVOaddcbbarlog(TRVOprob prob, TRVOcbsimple f, void* context, int priority);
int TRVOremovecbbarlog(TRVOprob prob, TRVOcbsimple f, void* context);
int TRVOaddcbchgbranchobject(TRVOprob prob, TRVOcbchgbranchobject f, void* context, int priority);
int TRVOremovecbchgbranchobject(TRVOprob prob, TRVOcbchgbranchobject f, void* context);
int TRVOaddcbcutlog(TRVOprob prob, TRVOcbsimple f, void* context, int priority);
int TRVOremovecbcutlog(TRVOprob prob, TRVOcbsimple f, void* context);
int TRVOaddcbdestroymt(TRVOprob prob, TRVOcbnotify f, void* context, int priority);
int TRVOremovecbdestroymt(TRVOprob prob, TRVOcbnotify f, void* context);
int TRVOaddcbgapnotify(TRVOprob prob, TRVOcbgapnotify f, void* context, int priority);
int TRVOremovecbgapnotify(TRVOprob prob, TRVOcbgapnotify f, void* context);
int TRVOaddcbgloballog(TRVOprob prob, TRVOcbsimple f, void* context, int priority);
int TRVOremovecbgloballog(TRVOprob prob, TRVOcbsimple f, void* context);
int TRVOaddcbinfnode(TRVOprob prob, TRVOcbnotify f, void* context, int priority);
int TRVOremovecbinfnode(TRVOprob prob, TRVOcbnotify f, void* context);
int TRVOaddcbintsol(TRVOprob prob, TRVOcbnotify f, void* context, int priority);
int TRVOremovecbintsol(TRVOprob prob, TRVOcbnotify f, void* context);
int TRVOaddcblplog(TRVOprob prob, TRVOcbsimple f, void* context, int priority);
int TRVOremovecblplog(TRVOprob prob, TRVOcbsimple f, void* context);
int TRVOaddcbmipthread(TRVOprob prob, TRVOcbmipthread f, void* context, int priority);
int TRVOremovecbmipthread(TRVOprob prob, TRVOcbmipthread f, void* context);
int TRVOaddcbnewnode(TRVOprob prob, TRVOcbnewnode f, void* context, int priority);
int TRVOremovecbnewnode(TRVOprob prob, TRVOcbnewnode f, void* context);
int TRVOaddcbnodecutoff(TRVOprob prob, TRVOcbnodecutoff f, void* context, int priority);
int TRVOremovecbnodecutoff(TRVOprob prob, TRVOcbnodecutoff f, void* context);
int TRVOaddcboptnode(TRVOprob prob, TRVOcbnodeinfeas f, void* context, int priority);
int TRVOremovecboptnode(TRVOprob prob, TRVOcbnodeinfeas f, void* context);
int TRVOaddcbpreintsol(TRVOprob prob, TRVOcbpreintsol f, void* context, int priority);
int TRVOremovecbpreintsol(TRVOprob prob, TRVOcbpreintsol f, void* context);
int TRVOaddcbprenode(TRVOprob prob, TRVOcbnodeinfeas f, void* context, int priority);
int TRVOremovecbprenode(TRVOprob prob, TRVOcbnodeinfeas f, void* context);
int TRVOaddcbusersolnotify(TRVOprob prob, TRVOcbusersolnotify f, void* context, int priority);
int TRVOremovecbusersolnotify(TRVOprob prob, TRVOcbusersolnotify f, void* context);
int TRVOaddcbchecktime(TRVOprob prob, TRVOcbsimple f, void* context, int priority);
int TRVOremovecbchecktime(TRVOprob prob, TRVOcbsimple f, void* context);

/* ---- controls and attributes */
/* The catalogue: parallel arrays owned by the library, ended by identifier 0. Flags: 0x1
   integer, 0x2 double, neither: string; 0x20 control (else attribute). Names upper case. */
int TRVOgetcalist_c(const int** ids, const char* const** names, const int** flags);
int TRVOgetcontrolinfo(TRVOprob prob, const char* name, int* id, int* type);
int TRVOgetattribinfo(TRVOprob prob, const char* name, int* id, int* type);
int TRVOsetintcontrol(TRVOprob prob, int control, int value);
int TRVOsetintcontrol64(TRVOprob prob, int control, int64_t value);
int TRVOsetdblcontrol(TRVOprob prob, int control, double value);
int TRVOsetstrcontrol(TRVOprob prob, int control, const char* value);
int TRVOgetintcontrol(TRVOprob prob, int control, int* value);
int TRVOgetintcontrol64(TRVOprob prob, int control, int64_t* value);
int TRVOgetdblcontrol(TRVOprob prob, int control, double* value);
int TRVOgetstrcontrol(TRVOprob prob, int control, char* value);   /* 1024 bytes */
int TRVOgetstringcontrol(TRVOprob prob, int control, char* value, int maxbytes, int* nbytes);
int TRVOsetdefaultcontrol(TRVOprob prob, int control);
int TRVOsetdefaults(TRVOprob prob);
int TRVOgetintattrib(TRVOprob prob, int attrib, int* value);
int TRVOgetintattrib64(TRVOprob prob, int attrib, int64_t* value);
int TRVOgetdblattrib(TRVOprob prob, int attrib, double* value);
int TRVOgetstrattrib(TRVOprob prob, int attrib, char* value);     /* 1024 bytes */
int TRVOgetstringattrib(TRVOprob prob, int attrib, char* value, int maxbytes, int* nbytes);

/* ---- loading whole problems (replace the content; mnel may be null: column lengths then
   follow from consecutive starts) */
int TRVOloadlp(TRVOprob prob, const char* probname, int ncol, int nrow, const char qrtype[],
               const double rhs[], const double range[], const double obj[], const int mstart[],
               const int mnel[], const int mrwind[], const double dmatval[], const double dlb[],
               const double dub[]);
int TRVOloadlp64(TRVOprob prob, const char* probname, int ncol, int nrow, const char qrtype[],
                 const double rhs[], const double range[], const double obj[],
                 const int64_t mstart[], const int mnel[], const int mrwind[],
                 const double dmatval[], const double dlb[], const double dub[]);
int TRVOloadqp64(TRVOprob prob, const char* probname, int ncol, int nrow, const char qrtype[],
                 const double rhs[], const double range[], const double obj[],
                 const int64_t mstart[], const int mnel[], const int mrwind[],
                 const double dmatval[], const double dlb[], const double dub[], int64_t nqtr,
                 const int mqcol1[], const int mqcol2[], const double dqe[]);
int TRVOloadqcqp64(TRVOprob prob, const char* probname, int ncol, int nrow, const char qrtype[],
                   const double rhs[], const double range[], const double obj[],
                   const int64_t mstart[], const int mnel[], const int mrwind[],
                   const double dmatval[], const double dlb[], const double dub[], int64_t nqtr,
                   const int mqcol1[], const int mqcol2[], const double dqe[], int qmn,
                   const int qcrows[], const int64_t qcnquads[], const int qcmqcol1[],
                   const int qcmqcol2[], const double qcdqval[]);
int TRVOloadglobal64(TRVOprob prob, const char* probname, int ncol, int nrow,
                     const char qrtype[], const double rhs[], const double range[],
                     const double obj[], const int64_t mstart[], const int mnel[],
                     const int mrwind[], const double dmatval[], const double dlb[],
                     const double dub[], int ngents, int nsets, const char qgtype[],
                     const int mgcols[], const double dlim[], const char qstype[],
                     const int64_t msstart[], const int mscols[], const double dref[]);
int TRVOloadqglobal64(TRVOprob prob, const char* probname, int ncol, int nrow,
                      const char qrtype[], const double rhs[], const double range[],
                      const double obj[], const int64_t mstart[], const int mnel[],
                      const int mrwind[], const double dmatval[], const double dlb[],
                      const double dub[], int64_t nqtr, const int mqcol1[], const int mqcol2[],
                      const double dqe[], int ngents, int nsets, const char qgtype[],
                      const int mgcols[], const double dlim[], const char qstype[],
                      const int64_t msstart[], const int mscols[], const double dref[]);
int TRVOloadqcqpglobal64(TRVOprob prob, const char* probname, int ncol, int nrow,
                         const char qrtype[], const double rhs[], const double range[],
                         const double obj[], const int64_t mstart[], const int mnel[],
                         const int mrwind[], const double dmatval[], const double dlb[],
                         const double dub[], int64_t nqtr, const int mqcol1[],
                         const int mqcol2[], const double dqe[], int qmn, const int qcrows[],
                         const int64_t qcnquads[], const int qcmqcol1[], const int qcmqcol2[],
                         const double qcdqval[], int ngents, int nsets, const char qgtype[],
                         const int mgcols[], const double dlim[], const char qstype[],
                         const int64_t msstart[], const int mscols[], const double dref[]);

/* ---- adding and deleting (objx, range, bdl, bdu may be null: 0, 0, 0, +inf) */
int TRVOaddcols64(TRVOprob prob, int ncols, int64_t ncoefs, const double objx[],
                  const int64_t mstart[], const int mrwind[], const double dmatval[],
                  const double bdl[], const double bdu[]);
int TRVOaddrows64(TRVOprob prob, int nrows, int64_t ncoefs, const char qrtype[],
                  const double rhs[], const double range[], const int64_t mstart[],
                  const int mclind[], const double dmatval[]);
int TRVOdelrows(TRVOprob prob, int nrows, const int mindex[]);
int TRVOdelcols(TRVOprob prob, int ncols, const int mindex[]);
int TRVOaddnames(TRVOprob prob, int type, const char names[], int first, int last);
int TRVOaddsetnames(TRVOprob prob, const char names[], int first, int last);
int TRVOgetnames(TRVOprob prob, int type, char names[], int first, int last);
/* All names of a range; names_len is the buffer size, *names_len_reqd the size needed. */
int TRVOgetnamelist(TRVOprob prob, int type, char names[], int names_len, int* names_len_reqd,
                    int first, int last);
/* Index of a named row (type 1), column (2) or set (3); fails for an unknown name. */
int TRVOgetindex(TRVOprob prob, int type, const char* name, int* seqno);
/* Quadratic part of row irow: pairs are added to what the row has. */
int TRVOaddqmatrix64(TRVOprob prob, int irow, int64_t nqtr, const int mqc1[], const int mqc2[],
                     const double dqe[]);
int TRVOdelqmatrix(TRVOprob prob, int irow);
int TRVOaddsets64(TRVOprob prob, int nsets, int64_t nelems, const char qstype[],
                  const int64_t msstart[], const int mscols[], const double dref[]);
int TRVOdelsets(TRVOprob prob, int nsets, const int mindex[]);
/* Makes rows indicator constraints: row mrows[i] must hold when column inds[i] is 1
   (comps[i] = 1) or 0 (comps[i] = -1); comps[i] = 0 makes the row ordinary again. */
int TRVOsetindicators(TRVOprob prob, int nrows, const int mrows[], const int inds[],
                      const int comps[]);
int TRVOgetindicators(TRVOprob prob, int inds[], int comps[], int first, int last);
int TRVOdelindicators(TRVOprob prob, int first, int last);
/* General constraints resultant = f(arguments), f by contype: 0 max, 1 min, 2 and, 3 or, 4 abs.
   Constraint i takes the columns col[colstart[i] .. colstart[i+1]-1] (the last runs to ncols)
   and, for max and min only, the constants val[valstart[i] ..] (the last runs to nvals;
   valstart may be null when nvals is 0). and/or take binary columns; abs takes one column. */
int TRVOaddgencons64(TRVOprob prob, int ncons, int64_t ncols, int64_t nvals, const int contype[],
                     const int resultant[], const int64_t colstart[], const int col[],
                     const int64_t valstart[], const double val[]);
/* Constraints first..last. colstart and valstart get last-first+2 entries; col and val at most
   colsize and valsize entries; *ncols and *nvals the totals in the range. Null arrays are
   skipped. */
int TRVOgetgencons64(TRVOprob prob, int contype[], int resultant[], int64_t colstart[], int col[],
                     int64_t colsize, int64_t* ncols, int64_t valstart[], double val[],
                     int64_t valsize, int64_t* nvals, int first, int last);
int TRVOdelgencons(TRVOprob prob, int ncons, const int mindex[]);
/* Piecewise-linear constraints resultant[i] = f_i(col[i]), f_i through the breakpoints
   (xval[k], yval[k]) for k in start[i] .. start[i+1]-1 (the last runs to npoints), xval
   non-decreasing; two equal x values make a jump. The first and last segments extend beyond
   the breakpoints. */
int TRVOaddpwlcons64(TRVOprob prob, int npwls, int64_t npoints, const int col[],
                     const int resultant[], const int64_t start[], const double xval[],
                     const double yval[]);
/* Constraints first..last; start gets last-first+2 entries, xval and yval at most size
   entries, *npoints the total in the range. */
int TRVOgetpwlcons64(TRVOprob prob, int col[], int resultant[], int64_t start[], double xval[],
                     double yval[], int64_t size, int64_t* npoints, int first, int last);
int TRVOdelpwlcons(TRVOprob prob, int npwls, const int mindex[]);

/* ---- changing */
int TRVOchgcoltype(TRVOprob prob, int ncols, const int mindex[], const char coltype[]);
int TRVOchgglblimit(TRVOprob prob, int ncols, const int mindex[], const double dlimit[]);
/* qbtype 'L' lower, 'U' upper, 'B' both bounds. */
int TRVOchgbounds(TRVOprob prob, int nbounds, const int mindex[], const char qbtype[],
                  const double bnd[]);
/* Column -1 is the objective constant, stored negated: the objective is
   sum obj_j x_j - obj_{-1}. */
int TRVOchgobj(TRVOprob prob, int ncols, const int mindex[], const double obj[]);
int TRVOchgobjsense(TRVOprob prob, int objsense);   /* 1 minimise, -1 maximise */
int TRVOchgmqobj(TRVOprob prob, int ncols, const int mcol1[], const int mcol2[],
                 const double dval[]);
int TRVOchgmqobj64(TRVOprob prob, int64_t ncols, const int mcol1[], const int mcol2[],
                   const double dval[]);
int TRVOchgqobj(TRVOprob prob, int icol, int jcol, double dval);
int TRVOchgcoef(TRVOprob prob, int irow, int icol, double dval);
int TRVOchgmcoef(TRVOprob prob, int ncoefs, const int mrow[], const int mcol[],
                 const double dval[]);
int TRVOchgrhs(TRVOprob prob, int nrows, const int mindex[], const double rhs[]);
int TRVOchgrhsrange(TRVOprob prob, int nrows, const int mindex[], const double rng[]);
int TRVOchgrowtype(TRVOprob prob, int nrows, const int mindex[], const char qrtype[]);
int TRVOchgqrowcoeff(TRVOprob prob, int irow, int icol, int jcol, double dval);

/* ---- reading the problem */
int TRVOgetlb(TRVOprob prob, double lb[], int first, int last);
int TRVOgetub(TRVOprob prob, double ub[], int first, int last);
int TRVOgetcoltype(TRVOprob prob, char coltype[], int first, int last);
int TRVOgetobj(TRVOprob prob, double obj[], int first, int last);
int TRVOgetrhs(TRVOprob prob, double rhs[], int first, int last);
int TRVOgetrhsrange(TRVOprob prob, double range[], int first, int last);
int TRVOgetrowtype(TRVOprob prob, char qrtype[], int first, int last);
int TRVOgetcoef(TRVOprob prob, int irow, int icol, double* dval);
int TRVOgetrows64(TRVOprob prob, int64_t mstart[], int mclind[], double dmatval[], int64_t size,
                  int64_t* nels, int first, int last);
int TRVOgetcols64(TRVOprob prob, int64_t mstart[], int mrwind[], double dmatval[], int64_t size,
                  int64_t* nels, int first, int last);
/* Quadratic objective of columns first..last, column-wise, the whole symmetric Q. */
int TRVOgetmqobj(TRVOprob prob, int mstart[], int mclind[], double dobjval[], int size,
                 int* nels, int first, int last);
int TRVOgetmqobj64(TRVOprob prob, int64_t mstart[], int mclind[], double dobjval[],
                   int64_t size, int64_t* nels, int first, int last);
int TRVOgetqobj(TRVOprob prob, int icol, int jcol, double* dval);
/* Rows with a quadratic part: *qmn their number, qcrows (may be null) their indices. */
int TRVOgetqrows(TRVOprob prob, int* qmn, int qcrows[]);
/* Quadratic part of row irow as upper-triangle triplets (mqcol1 <= mqcol2); arrays may be null
   to learn *nqelem. */
int TRVOgetqrowqmatrixtriplets(TRVOprob prob, int irow, int* nqelem, int mqcol1[], int mqcol2[],
                               double dqe[]);
/* Quadratic part of row irow, columns first..last, column-wise, the whole symmetric Q. */
int TRVOgetqrowqmatrix(TRVOprob prob, int irow, int mstart[], int mclind[], double dqe[],
                       int size, int* nels, int first, int last);
int TRVOgetqrowcoeff(TRVOprob prob, int irow, int icol, int jcol, double* dval);
/* Sets: type characters, starts (nsets + 1), columns and reference weights; null arrays skip. */
int TRVOgetglobal64(TRVOprob prob, int* ngents, int* nsets, char qgtype[], int mgcols[],
                    double dlim[], char qstype[], int64_t msstart[], int mscols[],
                    double dref[]);

/* ---- optimising and solutions */
int TRVOlpoptimize(TRVOprob prob, const char* flags);
int TRVOmipoptimize(TRVOprob prob, const char* flags);
/* x, slack (rhs minus row activity), dual, dj; any may be null. */
int TRVOgetlpsol(TRVOprob prob, double x[], double slack[], double dual[], double dj[]);
int TRVOgetmipsol(TRVOprob prob, double x[], double slack[]);
int TRVOgetlpsolval(TRVOprob prob, int col, int row, double* x, double* slack, double* dual,
                    double* dj);
int TRVOgetmipsolval(TRVOprob prob, int col, int row, double* x, double* slack);

/* ---- bases, rays and sensitivity of the last LP solve. Basis status codes: 0 at lower bound,
   1 basic, 2 at upper bound, 3 free nonbasic (superbasic); a row's status refers to its
   activity. */
int TRVOgetbasis(TRVOprob prob, int rstatus[], int cstatus[]);
int TRVOgetbasisval(TRVOprob prob, int row, int col, int* rowstat, int* colstat);
/* A basis for the next LP solve (used once). */
int TRVOloadbasis(TRVOprob prob, const int rstatus[], const int cstatus[]);
int TRVOgetprimalray(TRVOprob prob, double ray[], int* hasray);   /* ray: cols entries */
int TRVOgetdualray(TRVOprob prob, double ray[], int* hasray);     /* ray: rows entries */
/* Solves B x = vec (ftran) or B' x = vec (btran) in place; vec has rows entries. */
int TRVOftran(TRVOprob prob, double vec[]);
int TRVObtran(TRVOprob prob, double vec[]);
/* Ranging: objective coefficients (objsa) and right-hand sides (rhssa) of the given columns
   or rows stay optimal for the current basis within [lower, upper]. */
int TRVOobjsa(TRVOprob prob, int n, const int mindex[], double lower[], double upper[]);
int TRVOrhssa(TRVOprob prob, int n, const int mindex[], double lower[], double upper[]);
/* Infeasibilities of the current LP solution beyond the tolerances: counts of primal
   infeasible columns and rows, dual infeasible rows and columns, and their indices. */
int TRVOgetinfeas(TRVOprob prob, int* npv, int* nps, int* nds, int* ndj, int mx[],
                  int mslack[], int mdual[], int mdj[]);

/* ---- computations on given vectors */
int TRVOcalcobjective(TRVOprob prob, const double solution[], double* objval);
int TRVOcalcslacks(TRVOprob prob, const double solution[], double slacks[]);
int TRVOcalcreducedcosts(TRVOprob prob, const double duals[], const double solution[],
                         double djs[]);
/* property: 0 absolute primal infeasibility, 1 relative primal infeasibility, 2 absolute dual
   infeasibility, 3 relative dual infeasibility, 4 largest fractionality of integer columns. */
int TRVOcalcsolinfo(TRVOprob prob, const double solution[], const double dual[], int property,
                    double* value);

/* ---- starting points. loadmipsol: a full solution, status 0 accepted, 1 infeasible
   (kept as a start for the next MIP solve either way). addmipsol: a partial solution
   (mipsolcol null: the first ilength columns). loadlpsol: a solution that becomes the
   current LP solution (status 0). */
int TRVOloadmipsol(TRVOprob prob, const double dsol[], int* status);
int TRVOaddmipsol(TRVOprob prob, int ilength, const double mipsolval[], const int mipsolcol[],
                  const char* solname);
int TRVOloadlpsol(TRVOprob prob, const double x[], const double slack[], const double dual[],
                  const double dj[], int* status);

/* ---- infeasibility analysis. iisfirst/iisnext status: 0 an IIS was found, 1 the problem is
   feasible, 2 no further IIS. IIS numbers count from 1. */
int TRVOiisfirst(TRVOprob prob, int mode, int* status);
int TRVOiisnext(TRVOprob prob, int* status);
int TRVOiisall(TRVOprob prob);
int TRVOiisclear(TRVOprob prob);
/* Arrays of iiscount entries (null to learn the count). */
int TRVOiisstatus(TRVOprob prob, int* iiscount, int rowsizes[], int colsizes[],
                  double suminfeas[], int numinfeas[]);
/* Rows with their sides in the IIS ('L' upper side, 'G' lower side, 'E' both), columns with
   their bounds ('L', 'U', 'B'); duals (rows) and rdcs (column bounds) are Farkas multipliers:
   with d = rdcs on the IIS columns and 0 elsewhere, A'duals + d = 0 over the IIS rows, and
   summing each multiplier times its side (the lower side or bound for a positive one, the
   upper for a negative one) gives 1, so the weighted subsystem reads 0 >= 1 (0 when HiGHS
   gives no certificate); isolation flags are 0. */
int TRVOgetiisdata(TRVOprob prob, int num, int* rownumber, int* colnumber, int miisrow[],
                   int miiscol[], char constrainttype[], char colbndtype[], double duals[],
                   double rdcs[], char isolationrows[], char isolationcols[]);
int TRVOiisisolations(TRVOprob prob, int num);
/* Writes IIS num as an LP file (type 0) or a CSV listing (type 1). */
int TRVOiiswrite(TRVOprob prob, int num, const char* fn, int type, const char* typeflags);

/* ---- infeasibility repair: the problem with penalised violations of rows (lrp for the
   lower side of G rows, grp for the upper side of L rows) and bounds (lbp, ubp) is solved
   with HiGHS's feasibility relaxation; the relaxed solution becomes the current LP solution.
   Null arrays mean no relaxation of that kind. The weighted violation is minimised; phase2 and
   delta (a second phase optimising the original objective) are accepted but not used. scode:
   0 relaxed optimum found, 1 relaxed problem infeasible, 3 stopped. */
int TRVOrepairweightedinfeas(TRVOprob prob, int* scode, const double lrp_array[],
                             const double grp_array[], const double lbp_array[],
                             const double ubp_array[], char phase2, double delta,
                             const char* optflags);
/* The same with one penalty per kind; pflags 'c' constraints, 'b' bounds, 'n' both. */
int TRVOrepairinfeas(TRVOprob prob, int* scode, char pflags, char oflags, char gflags,
                     double lrp, double grp, double lbp, double ubp, double delta);

/* ---- solution, basis and log files (text formats described in solution_files.cpp) */
int TRVOwritesol(TRVOprob prob, const char* filename, const char* flags);
int TRVOwriteprtsol(TRVOprob prob, const char* filename, const char* flags);
int TRVOwritebasis(TRVOprob prob, const char* filename, const char* flags);
int TRVOreadbasis(TRVOprob prob, const char* filename, const char* flags);
int TRVOwriteslxsol(TRVOprob prob, const char* filename, const char* flags);
int TRVOreadslxsol(TRVOprob prob, const char* filename, const char* flags);
/* Also writes every message of the problem to this file (empty name: stop). */
int TRVOsetlogfile(TRVOprob prob, const char* filename);
/* The problem is never left in a presolved state: succeeds without work. */
int TRVOpostsolve(TRVOprob prob);

/* ---- files: flags may name the format ("l" LP, "x" free MPS; default from the extension,
   else MPS) */
int TRVOreadprob(TRVOprob prob, const char* filename, const char* flags);
int TRVOwriteprob(TRVOprob prob, const char* filename, const char* flags);

/* ---- one value of the current solution in O(1): what 0 x, 1 slack, 2 dual, 3 reduced cost
   of column or row index; mip 1 reads the integer solution (x and slack only), 0 the LP
   solution, -1 the integer one exactly when the problem has discrete entities. Fails as
   TRVOgetlpsol / TRVOgetmipsol do when the solution (or its duals) is not available. */
int TRVOgetsolentry(TRVOprob prob, int mip, int what, int index, double* value);

/* ---- cuts and the cut pool. A cut is a row sum(dmatval * x[mcols]) rtype rhs ('L', 'G' or
   'E') in the problem's columns, with a user type mtype. Cuts are named by handles (TRVOcut),
   unique over the process and never reused; a handle that is no longer known to the problem is
   refused with an error, never read. The pool (TRVOstorecuts64) lives with the problem across
   solves; the tree search applies a pool cut at a node when the node's relaxation violates it.
   Cuts added at a node (TRVOaddcuts64, TRVOloadcuts) are rows of that node's relaxation and of
   its whole subtree. The node functions (addcuts, loadcuts, delcuts, getcutlist, getcutmap,
   setbranchcuts, setbranchbounds) work only inside a node callback of the tree search.
   Selection by type (itype, interp): interp -1 every cut; 1 type equal to itype; 2 type
   sharing a bit with itype; 3 type holding all bits of itype. ncuts -1 (where accepted) means
   every cut so selected, otherwise the ncuts cuts of mcutind (the selection then also
   applies). */
typedef struct trvo_cut_s* TRVOcut;
int TRVOaddcuts64(TRVOprob prob, int ncuts, const int mtype[], const char rtype[],
                  const double rhs[], const int64_t mstart[], const int mcols[],
                  const double dmatval[]);
/* nodupl 0: no check; 1: a cut equal to a pool cut of the same type is not stored again (its
   handle is returned); 2: the same over all types. mindex receives the handles. */
int TRVOstorecuts64(TRVOprob prob, int ncuts, int nodupl, const int mtype[], const char rtype[],
                    const double rhs[], const int64_t mstart[], TRVOcut mindex[],
                    const int mcols[], const double dmatval[]);
/* Pool cuts become rows of the current node (and its subtree). */
int TRVOloadcuts(TRVOprob prob, int itype, int interp, int ncuts, const TRVOcut mcutind[]);
/* Removes cuts from the current node and its subtree (the pool keeps its own). ibasis 1 keeps
   cuts whose row is binding (not basic) at the node's solution; only cuts whose absolute slack
   exceeds delta are removed. */
int TRVOdelcuts(TRVOprob prob, int ibasis, int itype, int interp, double delta, int ncuts,
                const TRVOcut mcutind[]);
/* Removes cuts from the pool; rows of nodes keep them until those nodes end. */
int TRVOdelcpcuts(TRVOprob prob, int itype, int interp, int ncuts, const TRVOcut mcutind[]);
/* The cuts active at the current node, in row order: *ncuts gets their number, at most size
   handles are written. */
int TRVOgetcutlist(TRVOprob prob, int itype, int interp, int* ncuts, int size, TRVOcut mcutind[]);
/* Pool cuts violated by more than delta at the current solution (the node's relaxation inside
   a node callback, else the last LP solution); dviol receives the violations. */
int TRVOgetcpcutlist(TRVOprob prob, int itype, int interp, double delta, int* ncuts, int size,
                     TRVOcut mcutind[], double dviol[]);
/* The rows of the given cuts; *nels gets the number of entries, at most size are written. */
int TRVOgetcpcuts64(TRVOprob prob, const TRVOcut mindex[], int ncuts, int64_t size, int mtype[],
                    char rtype[], int64_t mstart[], int mcols[], double dmatval[], double drhs[],
                    int64_t* nels);
/* Row position of each cut in the current node's matrix (rows of the problem, then the node's
   cuts in getcutlist order), -1 when the cut is not active there. */
int TRVOgetcutmap(TRVOprob prob, int ncuts, const TRVOcut cuts[], int cutmap[]);
/* rhs minus the cut's activity at the current solution (as TRVOgetcpcutlist). */
int TRVOgetcutslack(TRVOprob prob, TRVOcut cut, double* slack);
/* Pool cuts (setbranchcuts) or stored bounds (setbranchbounds) given to the child created in a
   newnode callback, or, from another node callback, to every child of the current node. */
int TRVOsetbranchcuts(TRVOprob prob, int nbcuts, const TRVOcut mindex[]);
/* Stores a set of bound changes (qbtype 'L', 'U' or 'B') for TRVOsetbranchbounds. */
int TRVOstorebounds(TRVOprob prob, int nbnds, const int mcols[], const char qbtype[],
                    const double dbnd[], void** mindex);
int TRVOsetbranchbounds(TRVOprob prob, void* mindex);
/* Rows kept out of the tree search's relaxations until a candidate solution violates them
   (delayed rows), or until a node's relaxation does (model cuts). A solve by HiGHS keeps them
   as ordinary rows. */
int TRVOloaddelayedrows(TRVOprob prob, int nrows, const int mrows[]);
int TRVOloadmodelcuts(TRVOprob prob, int nmodcuts, const int mrows[]);
/* Strong branching on the problem's LP relaxation (the root of a tree search), from its
   optimal basis: for each bound change k (column mbndind[k], type 'L', 'U' or
   'B', value dbndval[k]) at most itrlimit dual simplex iterations; dsbobjval[k] gets the
   objective reached, msbstatus[k] the LP status (TRVO_LP_*). Bounds and basis are restored. */
typedef int (*TRVOcbstrongbranchsolve)(TRVOprob prob, void* context, int ibnd);
int TRVOstrongbranch(TRVOprob prob, int nbnds, const int mbndind[], const char cbndtype[],
                     const double dbndval[], int itrlimit, double dsbobjval[], int msbstatus[]);
/* The same, calling sbsolvecb after each solve while the bound change is in place (the LP
   solution of the problem is then the branch's); a non-zero return ends the strong branching. */
int TRVOstrongbranchcb(TRVOprob prob, int nbnds, const int mbndind[], const char cbndtype[],
                       const double dbndval[], int itrlimit, double dsbobjval[], int msbstatus[],
                       TRVOcbstrongbranchsolve sbsolvecb, void* vContext);

/* ---- whole-problem files: the store, names, controls, message statuses, solutions and the
   last basis in one versioned binary file (format described in save_restore.cpp). save writes
   "<problem name>.svf"; restore reads probname as given when such a file exists, else
   "<probname>.svf", and replaces the whole problem (a file that cannot be read leaves the
   problem unchanged). The saved basis starts the next LP solve, the saved integer solution the
   next MIP solve. No flags are defined. */
int TRVOsave(TRVOprob prob);
int TRVOsaveas(TRVOprob prob, const char* filename);
int TRVOrestore(TRVOprob prob, const char* probname, const char* flags);
/* ---- binary solution files (format described in save_restore.cpp): writebinsol writes the
   current LP and MIP solutions, readbinsol makes them the current ones again. No flags are
   defined. */
int TRVOwritebinsol(TRVOprob prob, const char* filename, const char* flags);
int TRVOreadbinsol(TRVOprob prob, const char* filename, const char* flags);
/* ---- tuner (tune.cpp): tries candidate settings within MAXTIME, reports the best in the log
   and keeps it as the problem's controls. Flags: 'l' tune the LP solve, 'g' the MIP solve
   (default: by the problem's kind). The method file lists the candidates as text. */
int TRVOtune(TRVOprob prob, const char* flags);
int TRVOtunerwritemethod(TRVOprob prob, const char* methodfile);
int TRVOtunerreadmethod(TRVOprob prob, const char* methodfile);
/* ---- message statuses: status 0 suppresses messages of that number, 1 shows them */
int TRVOgetmessagestatus(TRVOprob prob, int errcode, int* status);
int TRVOsetmessagestatus(TRVOprob prob, int errcode, int status);
/* Writes the controls that differ from their defaults to the log (message TRVO_MSG_CONTROLS). */
int TRVOdumpcontrols(TRVOprob prob);

/* ---- branching objects (branchobj.cpp): how a node of the tree search is split. A branching
   object has branches numbered from 0; each branch is a set of column bound changes (type 'L'
   lower, 'U' upper, 'B' both) and rows (type 'L', 'G' or 'E' with a right-hand side, sparse
   coefficients in the problem's columns). Its priority orders stored objects (lower first);
   its preferred branch is the child explored first. An object returned to a chgbranchobject
   callback, or stored with TRVO_bo_store, replaces the search's own choice at the next node
   it branches on. Objects belong to the caller until stored (the library then owns them).
   isoriginal says whether columns are the original problem's; the tree search works on the
   original columns, so presolved and original columns coincide. */
typedef struct trvo_bo_s* TRVObranchobject;
int TRVO_bo_create(TRVObranchobject* bo, TRVOprob prob, int isoriginal);
int TRVO_bo_destroy(TRVObranchobject bo);
int TRVO_bo_addbranches(TRVObranchobject bo, int nbranches);
int TRVO_bo_getbranches(TRVObranchobject bo, int* nbranches);
int TRVO_bo_setpriority(TRVObranchobject bo, int priority);
int TRVO_bo_setpreferredbranch(TRVObranchobject bo, int ibranch);
int TRVO_bo_addbounds(TRVObranchobject bo, int ibranch, int nbounds, const char* bndtype,
                      const int* bndcol, const double* bndval);
/* *nbounds receives the branch's count; at most nbounds_size entries are written to the
   arrays that are not null. */
int TRVO_bo_getbounds(TRVObranchobject bo, int ibranch, int* nbounds, int nbounds_size,
                      char* bndtype, int* bndcol, double* bndval);
int TRVO_bo_addrows(TRVObranchobject bo, int ibranch, int nrows, int nelems, const char* rtype,
                    const double* rhs, const int* rbeg, const int* mcol, const double* dval);
/* rbeg receives the start of each row (nrows entries, as far as nrows_size allows); elements
   beyond nelems_size are not written. */
int TRVO_bo_getrows(TRVObranchobject bo, int ibranch, int* nrows, int nrows_size, int* nelems,
                    int nelems_size, char* rtype, double* rrhs, int* rbeg, int* mcol, double* dval);
/* Cuts (handles of the problem's cuts) as branch content: active rows of the child and its subtree. */
int TRVO_bo_addcuts(TRVObranchobject bo, int ibranch, int ncuts, void* const* cutind);
int TRVO_bo_getid(TRVObranchobject bo, int* id);
/* Validates, hands the object to the library and gives its identifier. Stored during a tree
   search (from a node callback), the object is used if that node is branched on; stored before
   a solve, at the first node branched on. Objects not used are dropped when the search ends. */
int TRVO_bo_store(TRVObranchobject bo, int* id);
/* *status: 0 valid; 1 no branches; 2 a column outside the problem; 3 a bound type other than
   'L', 'U', 'B' or a bound that is not finite; 4 a row type other than 'L', 'G', 'E', or a
   right-hand side or coefficient that is not finite; 5 a preferred branch outside the object;
   6 a branch without content (it would not change the node); 7 the problem is gone. */
int TRVO_bo_validate(TRVObranchobject bo, int* status);
int TRVO_bo_getlasterror(TRVObranchobject bo, int* code, char* msg, int maxbytes, int* nbytes);

/* ---- branching directives (directives.cpp), honoured by the engine's tree search (a MIP with
   directives runs there instead of HiGHS's MIP). Per integer column: a priority (lower is
   branched first; columns without one count as 500), a preferred direction qbr ('U' up child
   first, 'D' down child first, 'N' the search's choice) and pseudocost overrides (up dupc,
   down ddpc; a negative value keeps the search's own estimate). Load replaces all directives;
   null arrays give the defaults (priority 500, 'N', -1). */
#define TRVO_DIR_DEFAULT_PRIORITY 500
int TRVOloaddirs(TRVOprob prob, int ndirs, const int* mcols, const int* mpri, const char* qbr,
                 const double* dupc, const double* ddpc);
/* The search runs on the original columns: presolved directives are the same directives. */
int TRVOloadpresolvedirs(TRVOprob prob, int ndirs, const int* mcols, const int* mpri, const char* qbr,
                         const double* dupc, const double* ddpc);
/* Sets or updates directives of the listed columns: priority 0 (ahead of the default) and, with
   mbranch, the direction (positive up first, negative down first, zero the search's choice). */
int TRVOloadbranchdirs(TRVOprob prob, int ncols, const int* mcols, const int* mbranch);
/* *ndirs receives the count; arrays that are not null receive the directives in column order. */
int TRVOgetdirs(TRVOprob prob, int* ndirs, int* mcols, int* mpri, char* qbr, double* dupc, double* ddpc);
/* Text file, one directive a line: column name, priority, direction, up and down pseudocost
   ('-' for none); '#' starts a comment (format described in directives.cpp). */
int TRVOreaddirs(TRVOprob prob, const char* filename);
int TRVOwritedirs(TRVOprob prob, const char* filename);
/* ---- presolve views, secure vectors, interior-point solutions (presolve_views.cpp). A
   presolve view is computed from the current problem at each call, by HiGHS's presolve under
   the rules of a solve (PRESOLVE off or secure vectors loaded: nothing is removed). */
/* Presolved index -> the problem's row/column (-1: a column or row of the engine's own
   reformulation); null arrays to learn the counts. */
int TRVOgetpresolvemap(TRVOprob prob, int rowmap[], int* nrows, int colmap[], int* ncols);
/* Solution and basis of the presolved LP (LPs only); arrays of the presolved counts. The
   slack is taken against the row's upper side (its lower side when it has none). */
int TRVOgetpresolvesol(TRVOprob prob, double x[], double slack[], double dual[], double dj[]);
int TRVOgetpresolvebasis(TRVOprob prob, int rstatus[], int cstatus[]);
/* A basis of the presolved LP, carried back through HiGHS's postsolve: becomes the start
   basis of the next LP solve, as TRVOloadbasis. */
int TRVOloadpresolvebasis(TRVOprob prob, const int rstatus[], const int cstatus[]);
/* Carries a row (qrtype 'L', 'G', 'E') over the problem's columns into the presolved columns:
   columns fixed in the problem move to the right-hand side. status 0 done, -1 the row uses a
   column that presolve removed otherwise, or has more than maxcoeffs entries (nothing
   returned then). */
int TRVOpresolverow(TRVOprob prob, char qrtype, int nzo, const int mcolso[], const double dvalo[],
                    double drhso, int maxcoeffs, double* drhsp, int* nzp, int mcolsp[],
                    double dvalp[], int* status);
/* Rows and columns presolve must keep. HiGHS cannot be told to keep given ones, so while any
   are loaded every solve runs without presolve (the log says so). Empty lists: none. */
int TRVOloadsecurevecs(TRVOprob prob, int nrows, int ncols, const int mrow[], const int mcol[]);
/* The last LP solve by the barrier (DEFAULTALG 4 or flag 'b'): its interior solution before
   crossover; the crossover itself runs only when CROSSOVER is non-zero. */
int TRVOgetlastbarsol(TRVOprob prob, double x[], double slack[], double dual[], double dj[]);
/* HiGHS's crossover from the current LP solution to a basic one (status 0; already basic:
   nothing to do). */
int TRVOcrossoverlpsol(TRVOprob prob, int* status);
/* Fixes the integer columns (option 1: also semi-continuous and partial-integer ones) at the
   values of the best integer solution. */
int TRVOfixglobals(TRVOprob prob, int options);
/* The LP with the integer columns fixed at their values in solution, re-optimised over the
   continuous columns (flags: 'p' primal, 'd' dual simplex, 'b' barrier). status 0 refined,
   1 no feasible completion (refined is the solution unchanged). options must be 0. */
int TRVOrefinemipsol(TRVOprob prob, int options, const char* flags, const double solution[],
                     double refined[], int* status);

/* ---- analyses of the last LP basis (basis_analysis.cpp). Combined index space: rows
   0..rows-1, then column j at rows + j. */
/* The basic variables in the order of the basis matrix (rows entries). */
int TRVOgetpivotorder(TRVOprob prob, int mpiv[]);
/* Ratio test of nonbasic variable in entering the basis (moving away from its bound, or in
   its improving direction when free): outlist the blocking variables by increasing step (at
   most maxpiv; the entering one itself when its own range blocks), *npiv their number, x the
   values of all rows (activities) and columns after the step, *dobj the objective then
   (+-1e20 when nothing blocks). */
int TRVOgetpivots(TRVOprob prob, int in, int outlist[], double x[], double* dobj, int* npiv,
                  int maxpiv);
/* After an LP solve found the problem unbounded with a basis: the nonbasic variable whose
   improving direction is unbounded; -1 when there is none. */
int TRVOgetunbvec(TRVOprob prob, int* seq);
/* type 0 condition number of the basis, 1 norm of its inverse, 2 norm of the basis; norm 0
   infinity norm, 1 one norm, 2 Frobenius norm; ifscaled 1: of the basis of the problem
   scaled by the factors of TRVOscale. */
int TRVObasisstability(TRVOprob prob, int type, int norm, int ifscaled, double* value);
/* For each row, the range of its dual value over the optimal dual solutions, estimated by
   re-solving with the right-hand side moved a little each way from the optimal basis (at
   most iterlim simplex iterations each). */
int TRVOestimaterowdualranges(TRVOprob prob, int nrows, const int rowindices[], int iterlim,
                              double mindual[], double maxdual[]);
/* Scaling exponents: row i is multiplied by 2^mrscal[i], column j by 2^mcscal[j] (continuous
   columns only) in the model HiGHS solves; HiGHS's own scaling is off then. Results are
   always unscaled. Null arrays: no scaling of that kind. */
int TRVOscale(TRVOprob prob, const int mrscal[], const int mcscal[]);
/* TRVOgetinfeas measured on the problem scaled by the factors of TRVOscale. */
int TRVOgetscaledinfeas(TRVOprob prob, int* npv, int* nps, int* nds, int* ndj, int mx[],
                        int mslack[], int mdual[], int mdj[]);
/* TRVOrepairweightedinfeas with a limit on each violation (null array, negative or infinite
   entry: unlimited); the lrp penalties apply to the lower side of every row that has one and
   grp to the upper side. phase2 and delta are accepted but not used. */
int TRVOrepairweightedinfeasbounds(TRVOprob prob, int* scode, const double lrp_array[],
                                   const double grp_array[], const double lbp_array[],
                                   const double ubp_array[], const double lrb_array[],
                                   const double grb_array[], const double lbb_array[],
                                   const double ubb_array[], char phase2, double delta,
                                   const char* optflags);

#ifdef __cplusplus
}
#endif

#endif
