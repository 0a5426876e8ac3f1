/* Symbol visibility for the library's exported operations. */
#ifndef KESDBM_EXPORT_H
#define KESDBM_EXPORT_H

#if defined(__GNUC__)
#define KESDB_API __attribute__((visibility("default")))
#else
#define KESDB_API
#endif

#endif
