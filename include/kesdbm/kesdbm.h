/* kesDBM: configuration database library. Umbrella header. */
#ifndef KESDBM_H
#define KESDBM_H

#include "kesdbm/api.h"
#include "kesdbm/constraint.h"
#include "kesdbm/hook.h"
#include "kesdbm/lock.h"
#include "kesdbm/session.h"
#include "kesdbm/storage.h"
#include "kesdbm/tree.h"
#include "kesdbm/value.h"

#endif
