// Start-up and shut-down of the library.
#include <cstdio>

#include "api/start_up.hpp"
#include "kesdbm/kesdbm.h"
#include "value/changes.hpp"

namespace {

// Runs one set-up step while the running status is 0; afterwards prints the step's message
// whenever the status is non-zero (so every later step's message follows a failure). The
// steps that ran (and so raised their counts) are marked in `ran` (bit 0: the change record).
template <class Step>
void runStep(int32_t& status, unsigned& ran, int step, Step run) {
    if (status == 0) {
        status = run();
        ran |= 1u << step;
    }
    if (status != 0) printf("kesDBMInit err%d\n", step);
}

}  // namespace

// A null parameter block fails the database step with 89; the later steps take their paths
// from the block, so none of them runs and the call ends with -1.
int32_t kes::startUp(const DBMInitParam* param, int32_t* errorWord, bool undoOnFailure) {
    int32_t id = db_init(param, errorWord);
    int32_t status = 0;
    unsigned ran = 0;
    if (id == -1) {
        printf("kesDBMInit err1\n");
    } else {
        runStep(status, ran, 2, [param] { return lock_init(param->lockTablePath); });
    }
    if (param) {
        runStep(status, ran, 3, [param] { return media_init(param->mediaConfigPath); });
        runStep(status, ran, 4, [param] { return hook_init(param->hookConfigPath); });
        runStep(status, ran, 5, [param] { return session_init(param->sessionTablePath); });
        // The change record beside the session table: a start-up that cannot make it goes on
        // without it (watching then fails in this process).
        if (status == 0) {
            kes::changes::init(param->sessionTablePath);
            ran |= 1u << 0;
        }
        runStep(status, ran, 6, [] { return constraint_init(); });
        runStep(status, ran, 7, [] { return value_init(); });
        if (status == 0) status = comp_init();
        if (status != 0 && errorWord) *errorWord = status;
    }
    if (status == 0 && id != -1) return id;
    if (undoOnFailure) {
        // The shut-down partners of the steps that ran, in the shut-down order; the database
        // step always ran (an id of 0 releases no registration but lowers the count).
        if (ran & (1u << 7)) value_term();
        if (ran & (1u << 6)) constraint_term();
        if (ran & (1u << 0)) kes::changes::term();
        if (ran & (1u << 5)) session_term();
        if (ran & (1u << 3)) media_term();
        if (ran & (1u << 4)) hook_term();
        if (ran & (1u << 2)) lock_term();
        db_term(id == -1 ? 0u : static_cast<uint32_t>(id));
    }
    return -1;
}

extern "C" {

int32_t kesDBMInit(const DBMInitParam* param, int32_t* errorWord) { return kes::startUp(param, errorWord, false); }

int32_t kesDBMTerm(uint32_t dbId) {
    kes::changes::term();
    const int32_t results[] = {comp_term(),  value_term(), constraint_term(), session_term(),
                               media_term(), hook_term(),  lock_term(),       db_term(dbId)};
    for (int32_t r : results) {
        if (r != 0) return r;
    }
    return 0;
}

}  // extern "C"
