/**
 * @file kesdbm/kesdbm.h
 * @brief Umbrella header: includes every public header of the library.
 *
 * Applications include this one header (C or C++) and link with -lkesdbm
 * (`pkg-config --cflags --libs kesdbm`, or `find_package(kesdbm)` and the target
 * kesdbm::kesdbm). See the guide for a walk through the calls.
 */

/**
 * @example guide_example.c
 * The complete program of the developer's guide: prepares a database in a directory, starts
 * the library, reads and writes settings, meets a range, an enumeration and a hook, takes
 * locks and shuts down.
 */
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
#include "kesdbm/watch.h"

#endif
