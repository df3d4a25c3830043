// The C session, called from the test runner.
#pragma once

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

// 1 when the session went as expected; otherwise 0 and the failed check in `failure`.
int run_c_session(char* failure, size_t capacity);

#ifdef __cplusplus
}
#endif
