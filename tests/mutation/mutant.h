/*
 * mutant.h - what a source with mutants in it is compiled with: each mutant has a number, and one
 * of them at most is chosen, in a page that the tests of a mutant share with whoever runs them.
 * In the page also stands which mutants have been reached.
 */
#ifndef MUTANT_H
#define MUTANT_H

#include <pthread.h>

#include <cstddef>
#include <new>

struct QpxMutantPage {
    int chosen;
    unsigned char reached[1];
};

extern "C" __attribute__((visibility("hidden"))) QpxMutantPage* qpxMutantPage;

inline int qpxReach(int number)
{
    unsigned char* reached = &qpxMutantPage->reached[number];
    if (__atomic_load_n(reached, __ATOMIC_RELAXED) == 0)
        __atomic_store_n(reached, 1, __ATOMIC_RELAXED);
    return __atomic_load_n(&qpxMutantPage->chosen, __ATOMIC_RELAXED);
}

inline bool qpxIs(int number)
{
    return qpxReach(number) == number;
}

inline int qpxOne(int number)
{
    return qpxIs(number) ? 1 : 0;
}

template <typename Level>
bool qpxTraces(const Level& level)
{
    return level > 0;
}

/* ---- Comparisons: a < QpxCompared{17} < b ---- */

struct QpxCompared {
    int number;
};

template <typename Left>
struct QpxLeft {
    const Left& left;
    int number;
};

#define QPX_LEFT(op)                                                  \
    template <typename Left>                                          \
    QpxLeft<Left> operator op(const Left& left, QpxCompared compared) \
    {                                                                 \
        return {left, compared.number};                               \
    }

#define QPX_EQUALITY(op, other)                                     \
    QPX_LEFT(op)                                                    \
    template <typename Left, typename Right>                        \
    bool operator op(const QpxLeft<Left>& left, const Right& right) \
    {                                                               \
        if (qpxIs(left.number)) return left.left other right;       \
        return left.left op right;                                  \
    }

#define QPX_RELATION(op, boundary, opposite)                         \
    QPX_LEFT(op)                                                     \
    template <typename Left, typename Right>                         \
    bool operator op(const QpxLeft<Left>& left, const Right& right)  \
    {                                                                \
        if (qpxIs(left.number)) return left.left boundary right;     \
        if (qpxIs(left.number + 1)) return left.left opposite right; \
        return left.left op right;                                   \
    }

QPX_EQUALITY(==, !=)
QPX_EQUALITY(!=, ==)
QPX_RELATION(<, <=, >=)
QPX_RELATION(<=, <, >)
QPX_RELATION(>, >=, <=)
QPX_RELATION(>=, >, <)

/* ---- Bounds ---- */

template <typename Value>
Value qpxMinAs(int number, Value a, Value b)
{
    return (b < a) != qpxIs(number) ? b : a;
}
template <typename Value>
Value qpxMaxAs(int number, Value a, Value b)
{
    return (a < b) != qpxIs(number) ? b : a;
}
template <typename Value>
Value qpxMin(int number, Value a, Value b)
{
    return qpxMinAs<Value>(number, a, b);
}
template <typename Value>
Value qpxMax(int number, Value a, Value b)
{
    return qpxMaxAs<Value>(number, a, b);
}
template <typename Value>
Value qpxClamp(int number, Value value, Value low, Value high)
{
    if (qpxIs(number)) return value;
    return value < low ? low : high < value ? high : value;
}

/* ---- Scopes and locks ---- */

template <typename Scope>
class QpxMaybe {
public:
    explicit QpxMaybe(int number) : isThere(!qpxIs(number))
    {
        if (isThere) new (place) Scope;
    }
    ~QpxMaybe()
    {
        if (isThere) reinterpret_cast<Scope*>(place)->~Scope();
    }

private:
    alignas(Scope) unsigned char place[sizeof(Scope)];
    bool isThere;
};

/* A lock that this thread alone has, for a guard that shall not take the other one. A guard of it
 * is in no other's way, whatever it does with it. */
template <typename Lock>
Lock& qpxLock(int number, Lock& lock)
{
    static thread_local Lock own;
    if (!qpxIs(number)) return lock;
    own.initialized = lock.initialized;
    return own;
}

#endif
