// Start-up and shut-down of the library.
#include <cstdio>

#include "kesdbm/kesdbm.h"
#include "value/changes.hpp"

namespace {

// Runs one set-up step while the running status is 0; afterwards prints the step's message
// whenever the status is non-zero (so every later step's message follows a failure).
template <class Step>
void runStep(int32_t& status, int step, Step run) {
    if (status == 0) status = run();
    if (status != 0) printf("kesDBMInit err%d\n", step);
}

}  // namespace

extern "C" {

// A null parameter block fails the database step with 89; the later steps take their paths
// from the block, so none of them runs and the call ends with -1.
int32_t kesDBMInit(const DBMInitParam* param, int32_t* errorWord) {
    int32_t id = db_init(param, errorWord);
    int32_t status = 0;
    if (id == -1) {
        printf("kesDBMInit err1\n");
    } else {
        runStep(status, 2, [param] { return lock_init(param->lockTablePath); });
    }
    if (!param) return -1;
    runStep(status, 3, [param] { return media_init(param->mediaConfigPath); });
    runStep(status, 4, [param] { return hook_init(param->hookConfigPath); });
    runStep(status, 5, [param] { return session_init(param->sessionTablePath); });
    // The change record beside the session table: a start-up that cannot make it goes on
    // without it (watching then fails in this process).
    if (status == 0) kes::changes::init(param->sessionTablePath);
    runStep(status, 6, [] { return constraint_init(); });
    runStep(status, 7, [] { return value_init(); });
    if (status == 0) status = comp_init();
    if (status != 0) {
        if (errorWord) *errorWord = status;
        return -1;
    }
    return id;
}

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
