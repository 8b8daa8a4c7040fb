// uac_defs.h - spellings the runtime headers share between C and C++ callers.
#ifndef UAC_DEFS_H
#define UAC_DEFS_H

#ifdef __cplusplus
#include <atomic>
#define UAC_ATOMIC(T) std::atomic<T>
#define UAC_NOEXCEPT noexcept
#else
#define UAC_ATOMIC(T) _Atomic(T)
#define UAC_NOEXCEPT
#endif

#endif  // UAC_DEFS_H
