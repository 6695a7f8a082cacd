// Nonlinear problems: creation bound to an optimisation problem, copying, destruction,
// attributes, interruption and callback registration.
#include "engine/slp/problem.h"
#include "engine/slp/host.h"

namespace slp {

int int_attribute(TSLPprob prob, int id) {
    switch (id) {
    case TSLP_ROWS: return host_rows(prob);
    case TSLP_COLS: return host_cols(prob);
    case TSLP_ITER: return prob->iter;
    case TSLP_SIMPLEXITER: return prob->simplexiter;
    case TSLP_STOPSTATUS: return prob->stopstatus;
    case TSLP_COEFFICIENTS: return (int)prob->coefs.size();
    case TSLP_VARIABLES: return (int)prob->vars.size();
    case TSLP_TOLSETS: return (int)prob->tolsets.size();
    case TSLP_UFS: return (int)prob->userfuncs.size();
    case TSLP_MSJOBS: return (int)prob->msjobs.size();
    case TSLP_MSWINNER: return prob->mswinner;
    case TSLP_PENALTYERRORS: return prob->penaltyerrors;
    case TSLP_MIPITER: return prob->mipiter;
    case TSLP_EQUALSCOLUMN: return -1;
    case TSLP_NONLINEARROWS: {
        int n = 0, last = -2;
        for (auto& kv : prob->coefs)
            if (kv.first.first != last) { ++n; last = kv.first.first; }
        return n;
    }
    case TSLP_NLPROWS: return host_nlp_rows(prob);
    case TSLP_NLPSTATUS: return prob->nlpstatus;
    case TSLP_STATUS: return prob->state;
    }
    throw Error("Unknown attribute " + std::to_string(id));
}

double dbl_attribute(TSLPprob prob, int id) {
    switch (id) {
    case TSLP_OBJVAL: return prob->objval;
    case TSLP_ERRORCOSTS: return prob->errorcosts;
    case TSLP_MAXVIOLATION: return prob->maxviolation;
    case TSLP_CURRENTPENALTY: return prob->currentpenalty;
    case TSLP_TIME: return prob->time;
    case TSLP_KKTRESIDUAL: return prob->kktresidual;
    case TSLP_VALIDATIONINDEX_A: return prob->validation_a;
    case TSLP_VALIDATIONINDEX_R: return prob->validation_r;
    }
    throw Error("Unknown attribute " + std::to_string(id));
}

}  // namespace slp

using slp::guard;

extern "C" {

int TSLPcreateprob(TSLPprob* prob, TRVOprob* trvoprob) {
    return guard(nullptr, [&] {
        if (!prob) throw slp::Error("No place given for the new nonlinear problem");
        *prob = nullptr;
        if (!trvoprob || !*trvoprob)
            throw slp::Error("A nonlinear problem must be bound to an optimisation problem");
        if (!slp::environment_started()) throw slp::Error("The nonlinear library is not started");
        TSLPprob p = new tslp_problem_s;
        p->trvo = *trvoprob;
        slp::reset_controls(p);
        *prob = p;
    });
}

int TSLPdestroyprob(TSLPprob prob) {
    return guard(nullptr, [&] {
        if (!prob) throw slp::Error("No nonlinear problem given");
        if (prob->cb.destroy.f) prob->cb.destroy.f(prob, prob->cb.destroy.context);
        delete prob;
    });
}

int TSLPcopyprob(TSLPprob dest, TSLPprob src, const char* probname) {
    return guard(dest, [&] {
        slp::check_prob(dest);
        slp::check_prob(src);
        if (dest == src) return;
        dest->name = probname ? probname : "";
        dest->coefs = src->coefs;
        dest->vars = src->vars;
        dest->tolsets = src->tolsets;
        dest->rowwt = src->rowwt;
        dest->rowstatus = src->rowstatus;
        dest->dfs = src->dfs;
        dest->strings = src->strings;
        dest->userfuncs = src->userfuncs;
        dest->msjobs = src->msjobs;
        // The copy starts unsolved.
        dest->nlpstatus = TSLP_NLP_UNSTARTED;
        dest->state = 0;
        dest->sol = slp::Solution();
        dest->iter = dest->simplexiter = dest->mipiter = dest->mswinner = 0;
        dest->objval = 0.0;
    });
}

int TSLPcopycontrols(TSLPprob dest, TSLPprob src) {
    return guard(dest, [&] {
        slp::check_prob(dest);
        slp::check_prob(src);
        dest->controls = src->controls;
    });
}

int TSLPcopycallbacks(TSLPprob dest, TSLPprob src) {
    return guard(dest, [&] {
        slp::check_prob(dest);
        slp::check_prob(src);
        dest->cb = src->cb;
    });
}

int TSLPinterrupt(TSLPprob prob, int reason) {
    return guard(prob, [&] {
        slp::check_prob(prob);
        prob->interrupt.store(reason > 0 ? reason : 9);
    });
}

#define TSLP_SETCB(name, type)                                       \
    int TSLPsetcb##name(TSLPprob prob, type f, void* context) {      \
        return guard(prob, [&] {                                     \
            slp::check_prob(prob);                                   \
            prob->cb.name.f = f;                                     \
            prob->cb.name.context = f ? context : nullptr;           \
        });                                                          \
    }

TSLP_SETCB(message, TSLPcbmessage)
TSLP_SETCB(slpstart, TSLPcbsimple)
TSLP_SETCB(slpend, TSLPcbsimple)
TSLP_SETCB(iterstart, TSLPcbsimple)
TSLP_SETCB(iterend, TSLPcbsimple)
TSLP_SETCB(cascadestart, TSLPcbsimple)
TSLP_SETCB(cascadeend, TSLPcbsimple)
TSLP_SETCB(construct, TSLPcbsimple)
TSLP_SETCB(destroy, TSLPcbsimple)
TSLP_SETCB(slpnode, TSLPcbsimple)
TSLP_SETCB(intsol, TSLPcbsimple)
TSLP_SETCB(optnode, TSLPcbnode)
TSLP_SETCB(prenode, TSLPcbnode)
TSLP_SETCB(itervar, TSLPcbcol)
TSLP_SETCB(cascadevar, TSLPcbcol)
TSLP_SETCB(cascadevarfail, TSLPcbcol)
TSLP_SETCB(coefevalerror, TSLPcbcoefevalerror)
TSLP_SETCB(drcol, TSLPcbdrcol)
TSLP_SETCB(msjobstart, TSLPcbmsjob)
TSLP_SETCB(msjobend, TSLPcbmsjob)
TSLP_SETCB(mswinner, TSLPcbmswinner)

}  // extern "C"
