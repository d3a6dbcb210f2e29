/* One public header (HEADER) with nothing before it, and once more to try its guard. */
#include HEADER
#include HEADER

/* The header leaves no packing behind: a record of the application's own keeps its padding. */
struct after_the_header {
    char first;
    int second;
};
typedef char the_packing_is_as_before[sizeof(struct after_the_header) == 2 * sizeof(int) ? 1 : -1];
