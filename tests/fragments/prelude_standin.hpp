// What the documents take for known in a test in C++ that has the stand-in gateway in it.
#include "standin/gateway.h"

#define ASSERT_TRUE(condition) \
    if (!(condition)) return
