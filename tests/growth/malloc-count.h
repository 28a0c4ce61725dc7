#pragma once

#ifdef __cplusplus
extern "C" {
#endif

/** What is allocated and not freed, as malloc_usable_size() has it. */
long allocatedBytes(void);
long allocatedBlocks(void);

#ifdef __cplusplus
}
#endif
