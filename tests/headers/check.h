/* CHECK(name, condition): does not compile where the condition is false. */
#ifndef CHECK_H
#define CHECK_H

#define CHECK(name, condition) typedef char check_##name[(condition) ? 1 : -1]

/* A field lies at an offset and has a size. */
#define CHECK_FIELD(record, field, offset, size)                            \
    CHECK(record##_##field##_lies_at, offsetof(record, field) == (offset)); \
    CHECK(record##_##field##_has_size, sizeof(((record*)0)->field) == (size))

#endif
