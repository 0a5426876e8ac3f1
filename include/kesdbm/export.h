/**
 * @file kesdbm/export.h
 * @brief Symbol visibility of the library's exported operations.
 */
#ifndef KESDBM_EXPORT_H
#define KESDBM_EXPORT_H

#if defined(__GNUC__)
/** Marks a declaration as part of the library's exported interface (the library is built with
 *  hidden visibility: nothing else is exported). */
#define KESDB_API __attribute__((visibility("default")))
#else
#define KESDB_API
#endif

#endif
